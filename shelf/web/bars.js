// The side menu, the top bar and the bottom toolbar.
import { setMask } from './views.js';

const $ = (id) => document.getElementById(id);

export class Bars {
  constructor(send, onMenu) {
    this.send = send;
    this.onMenu = onMenu;
    this.menu = $('menu');
    this.toolbar = $('toolbar');
    this.tools = new Map();  // item id → {el, icon, label, props}
    this.active = null;
    this.heading = '';
    $('back').addEventListener('click', () => send({ t: 'back' }));
    $('menu-button').addEventListener('click', () => this.drawer(!document.body.classList.contains('drawer-open')));
    $('scrim').addEventListener('click', () => this.drawer(false));
    document.addEventListener('keydown', (e) => { if (e.key === 'Escape') this.drawer(false); });
  }

  drawer(open) {
    document.body.classList.toggle('drawer-open', open);
    $('scrim').hidden = !open;
  }

  setStrings(strings) {
    $('back').setAttribute('aria-label', strings.Back);
    $('back').querySelector('.back-text').textContent = strings.Back;
    $('menu-button').setAttribute('aria-label', strings.Menu);
    this.menu.setAttribute('aria-label', strings.Menu);
  }

  setMenu(items, heading = this.heading) {
    this.heading = heading;
    const head = document.createElement('div');
    head.className = 'menu-heading';
    head.textContent = heading;
    const list = items.map((item) => {
      const b = document.createElement('button');
      b.type = 'button';
      b.className = 'menu-item';
      b.dataset.index = item.index;
      // The visible title is the name; a label of the module's that does not contain it is left out.
      const label = item.accessibilityLabel ?? '';
      if (!item.title) b.setAttribute('aria-label', label);
      else if (label && label !== item.title && label.includes(item.title)) b.setAttribute('aria-label', label);
      const icon = b.appendChild(document.createElement('span'));
      icon.className = 'menu-icon';
      setMask(icon, item.icon, 'blue');
      const title = b.appendChild(document.createElement('span'));
      title.className = 'menu-title';
      title.textContent = item.title ?? '';
      b.addEventListener('click', () => { this.drawer(false); this.onMenu(item.index); });
      return b;
    });
    this.menu.replaceChildren(head, ...list);
    this.setActive(this.active);
  }

  setActive(index) {
    this.active = index;
    for (const b of this.menu.querySelectorAll('.menu-item')) {
      const on = Number(b.dataset.index) === index;
      b.classList.toggle('active', on);
      if (on) b.setAttribute('aria-current', 'page'); else b.removeAttribute('aria-current');
    }
  }

  setTitle(title) {
    $('title').textContent = title ?? '';
  }

  setBack(back) {
    $('back').hidden = !back;
  }

  setToolbar(items) {
    this.tools.clear();
    this.toolbar.hidden = !items;
    this.toolbar.replaceChildren(...(items ?? []).map((item) => this.makeTool(item)));
  }

  makeTool(item) {
    if (item.kind !== 'button') {
      const space = document.createElement('div');
      space.className = item.kind === 'flexibleSpace' ? 'tool-space' : 'tool-gap';
      return space;
    }
    const el = document.createElement('button');
    el.type = 'button';
    el.className = 'tool';
    const tool = { el, props: { ...item.props } };
    tool.icon = el.appendChild(document.createElement('span'));
    tool.icon.className = 'tool-icon';
    tool.label = el.appendChild(document.createElement('span'));
    tool.label.className = 'tool-title';
    el.addEventListener('click', () => this.send({ t: 'tap', id: item.id }));
    this.tools.set(item.id, tool);
    this.applyTool(tool);
    return el;
  }

  applyTool({ el, icon, label, props: p }) {
    el.disabled = p.enabled === false;
    const name = p.accessibilityLabel || p.title || '';
    el.setAttribute('aria-label', name);
    // An icon alone needs its name as a tooltip too.
    if (p.title) el.removeAttribute('title'); else el.title = name;
    if (typeof p.shortcut === 'string') el.setAttribute('aria-keyshortcuts', p.shortcut);
    else el.removeAttribute('aria-keyshortcuts');
    label.textContent = p.title ?? '';
    label.hidden = !p.title;
    icon.hidden = !p.image;
    setMask(icon, p.image, p.color);
    icon.style.width = `${p.width ?? 22}px`;
    icon.style.height = `${p.height ?? 22}px`;
    label.style.color = icon.style.backgroundColor;
  }

  // Presses the toolbar button whose shortcut the key event gives ("Delete",
  // "Control+a", "Escape"), so the toolbar's enabling still decides. Returns
  // true when a button took the key.
  shortcut(e) {
    const key = e.key.length === 1 ? e.key.toLowerCase() : e.key;
    const combo = `${e.ctrlKey || e.metaKey ? 'Control+' : ''}${e.altKey ? 'Alt+' : ''}${key}`;
    for (const { el, props } of this.tools.values()) {
      if (props.shortcut !== combo || this.toolbar.hidden) continue;
      if (!el.disabled) el.click();
      return true;
    }
    return false;
  }

  // Returns false when no toolbar item has this id.
  patchTool(id, props) {
    const tool = this.tools.get(id);
    if (!tool) return false;
    Object.assign(tool.props, props);
    this.applyTool(tool);
    return true;
  }
}
