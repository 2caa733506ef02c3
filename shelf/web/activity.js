// What the host says about the queue beyond its rows (the "activity" message):
// a summary under the title, a banner when downloads are paused, and a text per
// row (speed and time left, or why it waits) shown as the row's tooltip and
// accessible description.
const $ = (id) => document.getElementById(id);

import { sameOrigin } from './views.js';

export class Activity {
  constructor(table, openMenu, strings) {
    this.table = table;
    this.strings = strings;
    this.menu = null;
    this.seen = null;  // addresses of the finished files already announced (null: none shown yet)
    $('notify').addEventListener('click', async () => {
      await Notification.requestPermission();
      this.showNotify();
    });
    $('paused').querySelector('.paused-settings').addEventListener('click', () => {
      if (Number.isInteger(this.menu)) openMenu(this.menu);
    });
  }

  show(m) {
    const summary = $('summary');
    summary.textContent = typeof m.summary === 'string' ? m.summary : '';
    summary.hidden = !summary.textContent;
    const paused = $('paused'), p = m.paused;
    paused.hidden = !p || typeof p !== 'object';
    if (!paused.hidden) {
      paused.querySelector('.paused-text').textContent = p.text ?? '';
      paused.querySelector('.paused-reason').textContent = p.reason ?? '';
      const button = paused.querySelector('.paused-settings');
      button.textContent = p.action ?? '';
      this.menu = Number.isInteger(p.menu) ? p.menu : null;
      button.hidden = this.menu === null;
    }
    const notes = new Map();
    for (const r of Array.isArray(m.rows) ? m.rows : []) {
      if (Number.isInteger(r?.row) && typeof r.text === 'string') notes.set(r.row, r.text);
    }
    this.table.setNotes(notes);
    this.showFinished(Array.isArray(m.finished) ? m.finished : []);
  }

  clear() {
    this.show({});
    this.seen = null;
  }

  // The files finished while the host runs, newest first, with Open and Save; a
  // file that was not there before is announced when the user allowed it.
  showFinished(files) {
    const strip = $('finished'), list = strip.querySelector('.finished-list');
    const valid = files.filter((f) => typeof f?.name === 'string' && sameOrigin(f.url) && sameOrigin(f.save));
    strip.hidden = valid.length === 0;
    strip.querySelector('.finished-title').textContent = this.strings.Finished;
    list.replaceChildren(...valid.map((f) => {
      const item = document.createElement('li');
      const name = item.appendChild(document.createElement('span'));
      name.className = 'finished-name';
      name.textContent = f.name;
      name.title = f.name;
      const open = item.appendChild(document.createElement('a'));
      open.href = sameOrigin(f.url);
      open.target = '_blank';
      open.rel = 'noopener';
      open.textContent = this.strings.Open;
      open.setAttribute('aria-label', `${this.strings.Open} ${f.name}`);
      const save = item.appendChild(document.createElement('a'));
      save.href = sameOrigin(f.save);
      save.download = '';
      save.textContent = this.strings.Save;
      save.setAttribute('aria-label', `${this.strings.Save} ${f.name}`);
      return item;
    }));
    if (this.seen) {
      for (const f of valid) {
        if (this.seen.has(f.url)) continue;
        if (window.Notification?.permission === 'granted') new Notification(this.strings.Finished, { body: f.name });
      }
    }
    this.seen = new Set([...(this.seen ?? []), ...valid.map((f) => f.url)]);
    this.showNotify();
  }

  showNotify() {
    const button = $('notify');
    button.textContent = this.strings.Notify;
    button.hidden = $('finished').hidden || !window.Notification || Notification.permission !== 'default';
  }
}
