// Dialogs, alerts, tips, the progress overlay and opening files.
import { sameOrigin } from './views.js';

const $ = (id) => document.getElementById(id);

// One message shown at a time; later ones wait their turn.
class Queue {
  constructor(show, hide) {
    this.show = show;
    this.hide = hide;
    this.current = null;
    this.waiting = [];
  }

  push(msg) {
    if (this.current) { this.waiting.push(msg); return; }
    this.current = msg;
    this.show(msg);
  }

  done() {
    this.current = null;
    this.hide();
    const next = this.waiting.shift();
    if (next) this.push(next);
  }

  close(id) {
    if (this.current?.id === id) this.done();
    else this.waiting = this.waiting.filter((m) => m.id !== id);
  }

  reset() {
    this.waiting = [];
    if (this.current) this.done();
  }
}

function closeModal(dialog) {
  if (dialog.open) dialog.close();
}

export class Dialogs {
  constructor(send, strings) {
    this.send = send;
    this.strings = strings;  // read at show time: hello may replace its contents

    const dialog = $('dialog'), input = dialog.querySelector('.dialog-input');
    this.dialogs = new Queue((m) => this.showDialog(m), () => closeModal(dialog));
    this.instance = null;    // the host process the dialogs came from
    this.unsent = [];        // answers given while the connection was lost
    this.sent = new Map();   // dialog id → the answer sent, until the host has taken it
    this.localAlerts = 0;
    const answer = (ok) => {
      const m = this.dialogs.current;
      if (!m) return;
      const reply = { t: 'dialog', id: m.id, ok, text: m.kind === 'input' ? input.value : '' };
      this.dialogs.done();
      // Declining needs no delivery: the host declines what it does not hear about.
      if (!ok) { this.send(reply); return; }
      if (this.send(reply)) this.remember(reply);
      else this.unsent.push(reply);
    };
    dialog.querySelector('form').addEventListener('submit', (e) => { e.preventDefault(); answer(true); });
    dialog.querySelector('.dialog-cancel').addEventListener('click', () => answer(false));
    dialog.addEventListener('cancel', (e) => { e.preventDefault(); answer(false); });

    const alert = $('alert');
    this.alerts = new Queue((m) => {
      alert.querySelector('.alert-text').textContent = m.text ?? '';
      alert.querySelector('.alert-ok').textContent = this.strings.OK;
      alert.showModal();
    }, () => closeModal(alert));
    const dismissAlert = () => {
      const m = this.alerts.current;
      if (!m) return;
      if (!m.local) this.send({ t: 'alertDismiss', id: m.id });
      this.alerts.done();
    };
    alert.querySelector('.alert-ok').addEventListener('click', dismissAlert);
    alert.addEventListener('cancel', (e) => { e.preventDefault(); dismissAlert(); });

    const tip = $('tip');
    this.tips = new Queue((m) => {
      tip.querySelector('.tip-text').textContent = m.text ?? '';
      tip.querySelector('.tip-dismiss').setAttribute('aria-label', this.strings.OK);
      tip.hidden = false;
    }, () => { tip.hidden = true; });
    tip.querySelector('.tip-dismiss').addEventListener('click', () => {
      const m = this.tips.current;
      if (!m) return;
      this.send({ t: 'tipDismiss', id: m.id });
      this.tips.done();
    });

    $('overlay').querySelector('.overlay-cancel')
      .addEventListener('click', () => this.send({ t: 'overlayCancel' }));
  }

  showDialog(m) {
    const dialog = $('dialog'), input = dialog.querySelector('.dialog-input');
    const title = dialog.querySelector('.dialog-title'), text = dialog.querySelector('.dialog-text');
    title.textContent = m.title ?? '';
    title.hidden = !m.title;
    text.textContent = m.text ?? '';
    text.hidden = !m.text;
    input.hidden = m.kind !== 'input';
    // The dialog and its field are named by the title, or else by the text.
    const name = m.title ? 'dialog-title' : m.text ? 'dialog-text' : null;
    for (const el of [dialog, input]) {
      if (name) el.setAttribute('aria-labelledby', name); else el.removeAttribute('aria-labelledby');
    }
    if (name) input.removeAttribute('aria-label'); else input.setAttribute('aria-label', m.placeholder || m.ok || '');
    input.type = m.secure ? 'password' : 'text';
    input.placeholder = m.placeholder ?? '';
    input.value = typeof m.value === 'string' ? m.value : '';
    input.enterKeyHint = typeof m.enterKeyHint === 'string' ? m.enterKeyHint : 'enter';
    dialog.querySelector('.dialog-ok').textContent = m.ok ?? this.strings.OK;
    dialog.querySelector('.dialog-cancel').textContent = m.cancel ?? this.strings.Cancel;
    dialog.showModal();
    (m.kind === 'input' ? input : dialog.querySelector('.dialog-ok')).focus();
    // A name given to change: the part before its extension is selected, ready to be typed over.
    const stem = input.value.lastIndexOf('.');
    if (m.kind === 'input' && input.value) input.setSelectionRange(0, stem > 0 ? stem : input.value.length);
  }

  // An answer sent is kept a little, so a refusal can still show what it said.
  remember(reply) {
    this.sent.set(reply.id, reply);
    if (this.sent.size > 20) this.sent.delete(this.sent.keys().next().value);
  }

  // A notice of the page's own (not the host's), with the text an answer held.
  undelivered(reply) {
    const text = reply?.text ? `${this.strings.Undelivered} \u201C${reply.text}\u201D` : this.strings.Undelivered;
    this.alerts.push({ id: `local-${++this.localAlerts}`, text, local: true });
  }

  // The connection is back (hello). The same host still waits for the answers
  // given meanwhile; a restarted one has forgotten its dialogs, so they are
  // refused visibly rather than dropped.
  connected(instance) {
    const restarted = this.instance !== null && instance !== this.instance;
    this.instance = instance;
    const unsent = this.unsent;
    this.unsent = [];
    this.alerts.reset();
    this.tips.reset();
    this.overlay({ message: null });
    if (!restarted) {
      for (const reply of unsent) if (this.send(reply)) this.remember(reply);
      return;
    }
    const open = this.dialogs.current;
    this.dialogs.reset();
    this.sent.clear();
    for (const reply of unsent) this.undelivered(reply);
    if (open) this.undelivered(null);
  }

  handle(m) {
    switch (m.t) {
      case 'dialogExpired': this.undelivered(this.sent.get(m.id)); this.sent.delete(m.id); break;
      case 'dialog': this.dialogs.push(m); break;
      case 'dialogClose': this.dialogs.close(m.id); break;
      case 'alert': this.alerts.push(m); break;
      case 'alertClose': this.alerts.close(m.id); break;
      case 'tip': this.tips.push(m); break;
      case 'tipClose': this.tips.close(m.id); break;
      case 'overlay': this.overlay(m); break;
      case 'open': this.open(m); break;
      default: return false;
    }
    return true;
  }

  overlay(m) {
    const overlay = $('overlay');
    overlay.hidden = m.message == null;
    overlay.querySelector('.overlay-message').textContent = m.message ?? '';
    overlay.querySelector('.overlay-cancel').textContent = m.cancel ?? this.strings.Cancel;
  }

  open(m) {
    const url = sameOrigin(m.url);
    if (!url) return;
    if (!m.download) { window.open(url, '_blank', 'noopener'); return; }
    const a = document.createElement('a');
    a.href = url;
    a.download = '';
    document.body.append(a);
    a.click();
    a.remove();
  }


}
