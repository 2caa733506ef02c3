// Handing addresses to the host's intake without a dialog per address: a box
// of lines ("Add URLs"), filled by hand, by pasting or dropping links on the
// page, or by the browser's Share menu (the manifest's share_target opens the
// page with ?share_url=…). Nothing is added until the user presses Add; each
// line then goes to POST /api/downloads in turn and its outcome shows beside it.
const $ = (id) => document.getElementById(id);
const SHARE_PARAMS = ['share_url', 'share_text', 'share_title'];

// The http(s) addresses in a text, one per entry, in order, without repeats.
export function addressesIn(text) {
  const found = String(text ?? '').match(/https?:\/\/[^\s<>"'`]+/gi) ?? [];
  return [...new Set(found.map((u) => u.replace(/[),.;:!?\]]+$/, '')))];
}

export class Intake {
  constructor(strings) {
    this.strings = strings;
    this.box = $('add-urls');
    this.lines = this.box.querySelector('.add-urls-lines');
    this.results = this.box.querySelector('.add-urls-results');
    this.button = $('add-urls-button');
    this.busy = false;
    this.button.addEventListener('click', () => this.open([]));
    this.box.querySelector('form').addEventListener('submit', (e) => { e.preventDefault(); this.submit(); });
    this.box.querySelector('.add-urls-close').addEventListener('click', () => this.box.close());
    document.addEventListener('paste', (e) => {
      if (e.target.closest?.('input, textarea') || document.querySelector('dialog[open]')) return;
      const found = addressesIn(e.clipboardData?.getData('text/plain'));
      if (found.length) { e.preventDefault(); this.open(found); }
    });
    document.addEventListener('dragover', (e) => {
      if (e.dataTransfer?.types.includes('text/uri-list') || e.dataTransfer?.types.includes('text/plain')) e.preventDefault();
    });
    document.addEventListener('drop', (e) => {
      const found = addressesIn(e.dataTransfer?.getData('text/uri-list') || e.dataTransfer?.getData('text/plain'));
      if (found.length) { e.preventDefault(); this.open(found); }
    });
  }

  setStrings() {
    const s = this.strings;
    this.button.textContent = s.AddURLs;
    this.box.querySelector('.add-urls-title').textContent = s.AddURLs;
    this.box.querySelector('.add-urls-help').textContent = s.AddURLsHelp;
    this.box.querySelector('.add-urls-submit').textContent = s.Add;
    this.box.querySelector('.add-urls-close').textContent = s.Close;
  }

  // What the browser's Share menu handed over, taken out of the address bar.
  takeShared() {
    const params = new URLSearchParams(location.search);
    const shared = SHARE_PARAMS.map((p) => params.get(p) ?? '').join('\n');
    if (!SHARE_PARAMS.some((p) => params.has(p))) return;
    for (const p of SHARE_PARAMS) params.delete(p);
    const rest = params.toString();
    history.replaceState(null, '', `${location.pathname}${rest ? `?${rest}` : ''}`);
    this.open(addressesIn(shared));
  }

  open(addresses) {
    if (this.busy) return;
    if (addresses.length) this.lines.value = addresses.join('\n');
    this.results.replaceChildren();
    if (!this.box.open) this.box.showModal();
    this.lines.focus();
  }

  async submit() {
    if (this.busy) return;
    const lines = this.lines.value.split('\n').map((l) => l.trim()).filter(Boolean);
    this.busy = true;
    this.results.replaceChildren();
    // The box steps aside so the intake's own messages can be answered; it comes back with the outcomes.
    this.box.close();
    const outcomes = [];
    for (const line of lines) outcomes.push([line, await this.add(line)]);
    this.busy = false;
    this.results.replaceChildren(...outcomes.map(([line, { ok, text }]) => {
      const item = document.createElement('li');
      item.className = ok ? 'added' : 'refused';
      const address = item.appendChild(document.createElement('span'));
      address.className = 'add-urls-address';
      address.textContent = line;
      const outcome = item.appendChild(document.createElement('span'));
      outcome.textContent = text;
      return item;
    }));
    this.lines.value = outcomes.filter(([, o]) => !o.ok).map(([line]) => line).join('\n');
    this.box.showModal();
  }

  async add(line) {
    try {
      const response = await fetch('/api/downloads', {
        method: 'POST',
        headers: { 'content-type': 'application/json' },
        body: JSON.stringify({ url: line }),
      });
      const body = await response.json().catch(() => ({}));
      if (response.ok) return { ok: true, text: `${this.strings.Added}: ${body.download?.filename ?? line}` };
      return { ok: false, text: typeof body.error === 'string' ? body.error : `HTTP ${response.status}` };
    } catch {
      return { ok: false, text: this.strings.Undelivered };
    }
  }
}
