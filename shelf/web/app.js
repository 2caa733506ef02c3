// shelf's browser front end: renders what the host streams over /ws (see PROTOCOL.md).
//
// DOM hooks kept stable for tests:
//   #menu .menu-item[data-index]        side-menu entries (.active = open one)
//   #title, #back                       top bar
//   #table .row[data-section][data-row] rendered rows; .row.selected when selected
//   #toolbar button.tool[aria-label]    toolbar buttons
//   #dialog .dialog-input .dialog-ok .dialog-cancel
//   #overlay .overlay-message .overlay-cancel
//   #alert .alert-text .alert-ok
//   #tip .tip-text .tip-dismiss
//   #banner                             shown while reconnecting
//   #summary, #paused, #finished        the queue's summary, the paused banner, the finished files (activity message)
//   .v[data-vid]                        every view; labels carry data-style
// window.__shelf: cellsMaterialized (distinct cell ids received), rowsInDom(),
// firstScreenAt (performance.now() at the first painted screen with rows).
import { Socket } from './socket.js';
import { Views } from './views.js';
import { Table } from './table.js';
import { Bars } from './bars.js';
import { Dialogs } from './dialogs.js';
import { Activity } from './activity.js';
import { Intake } from './intake.js';

const MENU_KEY = 'shelf.menu';
// The selection of a selectable screen, by its rows' model names, and the host
// process that had it: a tab that meets a restarted host asks it to select
// those rows again (rows that are gone are simply not selected).
const SELECTION_KEY = 'shelf.selection';
const INSTANCE_KEY = 'shelf.instance';
let restoreSelection = false;
const strings = {
  OK: 'OK', Cancel: 'Cancel', Back: 'Back', Menu: 'Menu', Reconnecting: 'Reconnecting\u2026',
  Decrease: 'Decrease', Increase: 'Increase',
  Undelivered: 'Your answer could not be delivered: the connection to the host was lost.',
  Finished: 'Finished', Open: 'Open', Save: 'Save', Notify: 'Notify me when a download finishes',
  AddURLs: 'Add URLs', AddURLsHelp: 'One address per line.', Add: 'Add', Close: 'Close', Added: 'Added',
};

let screenId = null;

const url = `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/ws`;
const socket = new Socket(url, receive, connected);
const send = (msg) => socket.send(msg);

const views = new Views(send, strings);
const table = new Table(document.getElementById('table'), views, send);
const bars = new Bars(send, openMenu);
const dialogs = new Dialogs(send, strings);
const activity = new Activity(table, openMenu, strings);
const intake = new Intake(strings);
let sharedTaken = false;
navigator.serviceWorker?.register('sw.js').catch(() => {});  // only where the page counts as secure

window.__shelf = {
  get cellsMaterialized() { return table.seen.size; },
  rowsInDom: () => table.rowsInDom(),
  firstScreenAt: null,
};

// While the connection is lost the page is dimmed and its controls do nothing
// (a tap would be lost); an open dialog stays usable and keeps its answer.
function connected(up) {
  const banner = document.getElementById('banner');
  banner.textContent = strings.Reconnecting;
  banner.hidden = up;
  document.body.classList.toggle('offline', !up);
  for (const id of ['menu', 'table', 'toolbar', 'paused', 'topbar']) document.getElementById(id).inert = !up;
}

function openMenu(index) {
  sessionStorage.setItem(MENU_KEY, String(index));
  bars.setActive(index);
  send({ t: 'menu', index });
}

function hello(m) {
  Object.assign(strings, m.strings);
  intake.setStrings();
  if (typeof m.lang === 'string' && /^[A-Za-z]{2,3}(-[A-Za-z0-9]+)*$/.test(m.lang)) document.documentElement.lang = m.lang;
  bars.setStrings(strings);
  document.title = m.title ?? 'Shelf';
  const instance = typeof m.instance === 'string' ? m.instance : '';
  dialogs.connected(instance);
  const known = sessionStorage.getItem(INSTANCE_KEY);
  restoreSelection = known !== null && known !== instance;
  sessionStorage.setItem(INSTANCE_KEY, instance);
  const menu = m.menu ?? [];
  bars.setMenu(menu, m.title ?? '');
  const remembered = sessionStorage.getItem(MENU_KEY);
  const entry = menu.find((e) => String(e.index) === remembered) ?? menu[0];
  if (entry) openMenu(entry.index);
  if (!sharedTaken) { sharedTaken = true; intake.takeShared(); }
}

function rememberSelection(selectable, keys) {
  if (selectable === 'none' || !Array.isArray(keys)) return;
  sessionStorage.setItem(SELECTION_KEY, JSON.stringify({ menu: sessionStorage.getItem(MENU_KEY), keys }));
}

function restoreAfterRestart(s) {
  restoreSelection = false;
  let saved = null;
  try { saved = JSON.parse(sessionStorage.getItem(SELECTION_KEY) ?? 'null'); } catch { return; }
  const keys = Array.isArray(saved?.keys) ? saved.keys.filter((k) => typeof k === 'string') : [];
  if (saved?.menu !== sessionStorage.getItem(MENU_KEY) || keys.length === 0) return;
  if (s.selectable !== 'none' && (s.selection ?? []).length === 0) send({ t: 'restoreSelection', keys });
}

function showScreen(s) {
  const same = s.id === screenId;
  screenId = s.id;
  if (restoreSelection) restoreAfterRestart(s);
  else rememberSelection(s.selectable ?? 'none', s.selectionKeys);
  if (!same) {
    activity.clear();
    document.getElementById('add-urls-button').hidden = true;
  }
  views.clear();
  bars.setTitle(s.title);
  bars.setBack(!!s.back);
  bars.setToolbar(s.toolbar ?? null);
  table.setScreen(s, same);
  if (window.__shelf.firstScreenAt === null && table.rowsInDom() > 0) {
    requestAnimationFrame(() => { window.__shelf.firstScreenAt ??= performance.now(); });
  }
}

function patch(m) {
  if (m.screen !== screenId) return;
  for (const op of m.ops ?? []) {
    switch (op.op) {
      case 'props': if (!views.patch(op.id, op.props ?? {})) bars.patchTool(op.id, op.props ?? {}); break;
      case 'title': bars.setTitle(op.title); break;
      case 'toolbar': bars.setToolbar(op.items ?? null); break;
      case 'selection': rememberSelection(table.selectable, op.keys); table.apply(op); break;
      default: table.apply(op);
    }
  }
  table.refresh();
}

// Keys that act through the toolbar (Delete, Control+A, Escape), unless a
// dialog or a text field has them.
document.addEventListener('keydown', (e) => {
  if (e.defaultPrevented || document.querySelector('dialog[open]') || e.target.closest?.('input, textarea')) return;
  if (bars.shortcut(e)) e.preventDefault();
});

function receive(m) {
  switch (m.t) {
    case 'hello': hello(m); break;
    case 'menu': bars.setMenu(m.menu ?? []); break;
    case 'screen': showScreen(m.screen); break;
    case 'patch': patch(m); break;
    case 'activity':
      activity.show(m);
      document.getElementById('add-urls-button').hidden = false;  // only the queue's screen gets activity
      break;
    default: dialogs.handle(m);
  }
}
