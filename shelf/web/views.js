// View nodes → DOM elements, addressable by view id so props patches find them.

const PALETTE = {
  blue: '#007aff', red: '#ff3b30', green: '#34c759', orange: '#ff9500', yellow: '#ffcc00',
  gray: '#8e8e93', grey: '#8e8e93', purple: '#af52de', black: '#1c1c1e', white: '#ffffff',
};
export const tint = (color) => PALETTE[color] ?? color ?? '';

// Only same-origin addresses are followed or fetched; anything else yields null.
export function sameOrigin(address) {
  try {
    const url = new URL(String(address), location.href);
    return url.origin === location.origin ? url.href : null;
  } catch {
    return null;
  }
}

// Tints a monochrome image through a CSS mask.
export function setMask(el, image, color) {
  const url = image ? sameOrigin(image) : null;
  const value = url ? `url(${JSON.stringify(url)})` : 'none';
  el.style.maskImage = value;
  el.style.webkitMaskImage = value;
  el.style.backgroundColor = tint(color) || 'currentColor';
}

// Shows `text` in `el`, cut in the middle when it does not fit ("A long na…me.pdf"):
// the end, with a short extension, stays. Assistive technology reads the whole text.
function fitMiddle(el, text) {
  const fits = () => el.scrollWidth <= el.clientWidth + 1;
  el.textContent = text;
  if (!text || fits()) return;
  const chars = Array.from(text);
  const dot = text.lastIndexOf('.');
  const extension = dot > 0 && text.length - dot <= 12 ? Array.from(text.slice(dot)).length : 0;
  const tail = chars.slice(chars.length - Math.min(chars.length - 1, extension + 3)).join('');
  const show = (n) => { el.textContent = `${chars.slice(0, n).join('')}\u2026${tail}`; };
  let lo = 0, hi = chars.length - Array.from(tail).length;
  while (lo < hi) {
    const mid = (lo + hi + 1) >> 1;
    show(mid);
    if (fits()) lo = mid; else hi = mid - 1;
  }
  const whole = document.createElement('span');
  whole.className = 'sr-only';
  whole.textContent = text;
  const shown = document.createElement('span');
  shown.setAttribute('aria-hidden', 'true');
  shown.textContent = `${chars.slice(0, lo).join('')}\u2026${tail}`;
  el.replaceChildren(whole, shown);
}

const LEAVES = new Set(['label', 'link', 'button', 'progress', 'switch', 'stepper']);
const EDGES = ['left', 'right', 'top', 'bottom', 'width', 'height'];
const num = (v, fallback) => (typeof v === 'number' && Number.isFinite(v) ? v : fallback);

export class Views {
  constructor(send, strings) {
    this.send = send;
    this.strings = strings;
    this.entries = new Map();   // view id → {el, kind, props, parts}
    this.sized = new Set();     // ids of views with sameHeightAs
    this.fitted = new Set();    // ids of labels cut in the middle when too long
    this.frame = 0;
  }

  clear() {
    this.entries.clear();
    this.sized.clear();
    this.fitted.clear();
  }

  build(node) {
    const kind = node.kind;
    const tag = { link: 'a', switch: 'button', button: 'button' }[kind] ?? 'div';
    const el = document.createElement(tag);
    el.classList.add('v', `v-${kind}`);
    el.id = `v${node.id}`;
    if (kind === 'cell') el.classList.add('cell');
    el.dataset.vid = node.id;
    const entry = { el, kind, props: { ...node.props }, parts: {} };
    this.makeParts(entry, node.id);
    if (!entry.leaf) {
      for (const child of node.children ?? []) el.append(this.build(child));
    }
    this.entries.set(node.id, entry);
    this.apply(node.id, entry);
    return el;
  }

  // Forgets the views of a detached subtree (unless a newer build took their ids).
  release(root) {
    const nodes = [root, ...root.querySelectorAll('[data-vid]')];
    for (const n of nodes) {
      const id = Number(n.dataset.vid);
      if (this.entries.get(id)?.el === n) {
        this.entries.delete(id);
        this.sized.delete(id);
        this.fitted.delete(id);
      }
    }
  }

  // Returns false when no view has this id.
  patch(id, props) {
    const entry = this.entries.get(id);
    if (!entry) return false;
    Object.assign(entry.props, props);
    this.apply(id, entry);
    return true;
  }

  makeParts(entry, id) {
    const { el, kind, parts } = entry;
    entry.leaf = LEAVES.has(kind);
    if (kind === 'progress') {
      el.setAttribute('role', 'progressbar');
      el.setAttribute('aria-valuemin', '0');
      el.setAttribute('aria-valuemax', '100');
      parts.fill = el.appendChild(document.createElement('div'));
      parts.fill.className = 'progress-fill';
    } else if (kind === 'switch') {
      el.type = 'button';
      el.setAttribute('role', 'switch');
      const track = el.appendChild(document.createElement('span'));
      track.className = 'switch-track';
      track.appendChild(document.createElement('span')).className = 'switch-knob';
      el.addEventListener('click', () => {
        const on = !entry.props.on;
        this.patch(id, { on });
        this.send({ t: 'switch', id, on });
      });
    } else if (kind === 'button') {
      el.type = 'button';
      el.addEventListener('click', () => this.send({ t: 'tap', id }));
    } else if (kind === 'stepper') {
      el.setAttribute('role', 'group');
      for (const [name, sign, text, label] of [['minus', -1, '\u2212', 'Decrease'], ['plus', 1, '+', 'Increase']]) {
        const b = parts[name] = el.appendChild(document.createElement('button'));
        b.type = 'button';
        b.className = `stepper-${name}`;
        b.textContent = text;
        b.setAttribute('aria-label', this.strings?.[label] ?? label);
        b.addEventListener('click', () => this.step(id, entry, sign));
      }
    }
  }

  step(id, entry, sign) {
    const p = entry.props;
    const min = num(p.min, -Infinity), max = num(p.max, Infinity);
    const value = Math.min(max, Math.max(min, num(p.value, 0) + sign * num(p.step, 1)));
    if (value === p.value) return;
    this.patch(id, { value });
    this.send({ t: 'stepper', id, value });
  }

  apply(id, { el, kind, props: p, parts }) {
    const s = el.style;
    el.hidden = !!p.hidden;
    el.classList.toggle('lay-row', p.layout === 'row');
    s.flex = typeof p.size === 'number' ? `0 0 ${p.size}px` : p.flex ? '1 1 0' : '';
    el.classList.toggle('abs', !!p.abs);
    for (const edge of EDGES) {
      const v = p.abs?.[edge];
      s[edge] = typeof v === 'number' ? `${v}px` : '';
    }
    if (p.sameHeightAs != null) this.sized.add(id);
    else this.sized.delete(id);

    switch (kind) {
      case 'label':
        el.textContent = p.text ?? '';
        el.title = p.text ?? '';
        el.dataset.style = p.style ?? 'body';
        // Titles are names of files: cut in the middle, so the extension stays.
        if (p.style === 'largeTitle') { this.fitted.add(id); delete this.entries.get(id)?.fit; } else this.fitted.delete(id);
        s.textAlign = p.align ?? '';
        break;
      case 'progress': {
        const f = Math.min(1, Math.max(0, num(p.progress, 0)));
        parts.fill.style.width = `${f * 100}%`;
        parts.fill.style.backgroundColor = tint(p.color);
        el.setAttribute('aria-valuenow', String(Math.round(f * 100)));
        break;
      }
      case 'switch':
        el.setAttribute('aria-checked', String(!!p.on));
        el.disabled = p.enabled === false;
        break;
      case 'stepper': {
        const v = num(p.value, 0);
        parts.minus.disabled = v <= num(p.min, -Infinity);
        parts.plus.disabled = v >= num(p.max, Infinity);
        break;
      }
      case 'link': {
        el.textContent = p.text ?? '';
        const href = p.href ? sameOrigin(p.href) : null;
        if (href) el.href = href;
        else el.removeAttribute('href');
        el.toggleAttribute('download', !!p.download);
        // Opening goes to a new tab, so the shelf stays where it is.
        if (p.download) el.removeAttribute('target');
        else { el.target = '_blank'; el.rel = 'noopener'; }
        break;
      }
      case 'button':
        el.textContent = p.text ?? '';
        if (p.accessibilityLabel) el.setAttribute('aria-label', p.accessibilityLabel);
        else el.removeAttribute('aria-label');
        break;
      case 'cell':
        el.classList.toggle('sel-bg', !!p.selectedBackground);
        break;
    }
    this.scheduleFlush();
  }

  // A switch, stepper or progress bar is named by the first label of its cell, which says what it is about.
  nameControls(cellEl) {
    const label = cellEl.querySelector('.v-label');
    if (!label) return;
    for (const control of cellEl.querySelectorAll('.v-switch, .v-stepper, .v-progress')) {
      if (!control.hasAttribute('aria-label')) control.setAttribute('aria-labelledby', label.id);
    }
  }

  // sameHeightAs: copy rendered heights once layout has settled.
  scheduleFlush() {
    if (this.frame || (this.sized.size === 0 && this.fitted.size === 0)) return;
    this.frame = requestAnimationFrame(() => {
      this.frame = 0;
      const writes = [];
      for (const id of this.sized) {
        const e = this.entries.get(id);
        const target = e && this.entries.get(e.props.sameHeightAs);
        if (e?.el.isConnected && target?.el.isConnected) {
          writes.push([e.el, target.el.getBoundingClientRect().height]);
        }
      }
      for (const [el, h] of writes) el.style.height = `${h}px`;
      for (const id of this.fitted) {
        const e = this.entries.get(id);
        if (!e?.el.isConnected) continue;
        const text = e.props.text ?? '', width = e.el.clientWidth;
        if (e.fit?.text === text && e.fit.width === width) continue;
        e.fit = { text, width };
        fitMiddle(e.el, text);
      }
    });
  }
}
