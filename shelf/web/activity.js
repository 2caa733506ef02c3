// What the host says about the queue beyond its rows (the "activity" message):
// a summary under the title, a banner when downloads are paused, and a text per
// row (speed and time left, or why it waits) shown as the row's tooltip and
// accessible description.
const $ = (id) => document.getElementById(id);

export class Activity {
  constructor(table, openMenu) {
    this.table = table;
    this.menu = null;
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
  }

  clear() { this.show({}); }
}
