// The browser renderer against a scripted host: Playwright plays the /ws server.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { eventually, openPage } from './support.mjs';

const WEB = fileURLToPath(new URL('../../shelf/web/', import.meta.url));
const CSP = "default-src 'self'; connect-src 'self'; img-src 'self' data:; style-src 'self'";
const HELLO = { t: 'hello', title: 'Shelf', strings: { OK: 'OK', Cancel: 'Cancel', Back: 'Back', Menu: 'Menu' },
  menu: [{ index: 0, title: 'Documents', icon: '/d.svg', accessibilityLabel: 'Documents' },
    { index: 1, title: 'Recent', icon: '/r.svg', accessibilityLabel: 'Recent' }] };

const ICON = '<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 10 10"><rect width="10" height="10"/></svg>';

// The page's files come from the source folder and every icon is a square; no server is needed.
const BASE = 'http://renderer.test/';
function serve(route) {
  const name = new URL(route.request().url()).pathname.slice(1) || 'index.html';
  if (name.endsWith('.svg')) return route.fulfill({ contentType: 'image/svg+xml', body: ICON });
  if (!existsSync(WEB + name)) return route.fulfill({ status: 404 });
  return route.fulfill({ path: WEB + name, headers: { 'content-security-policy': CSP } });
}

const until = (what, fn) => eventually(fn, (v) => assert.ok(v, `waiting for ${what}`), 5000);

const label = (id, text, style = 'largeTitle') => ({ id, kind: 'label', props: { text, style, flex: 1 } });
const cell = (row, id = 1000 + row) => ({ row, view: { id, kind: 'cell', props: { selectedBackground: true },
  children: [{ id: id + 100000, kind: 'view', props: { layout: 'row' }, children: [label(id + 200000, `Row ${row}`)] }] } });
const screen = (rows, height, extra = {}) => ({ id: 3, title: 'Queue', back: false, toolbar: null, selectable: 'none',
  sections: [{ section: 0, heights: [[height, rows]], cells: [] }], selection: [], ...extra });

// Opens the page, answers hello's menu request with `scr`; returns helpers to play the host.
async function open(t, scr) {
  const sent = [];
  let ws;
  const page = await openPage(t, BASE, { viewport: { width: 1000, height: 700 }, script: async (page) => {
    await page.route('**/*', serve);
    await page.routeWebSocket('**/ws', (route) => {
      ws = route;
      route.onMessage((text) => {
        const m = JSON.parse(text);
        sent.push(m);
        if (m.t === 'menu') route.send(JSON.stringify({ t: 'screen', screen: scr }));
      });
      route.send(JSON.stringify(HELLO));
    });
  } });
  await page.waitForFunction(() => document.getElementById('title').textContent !== '');
  const push = (m) => ws.send(JSON.stringify(m));
  return { page, sent, push, patch: (...ops) => push({ t: 'patch', screen: scr.id, ops }) };
}

const rowTexts = (page) => page.$$eval('#table .row', (rows) => rows
  .map((r) => [Number(r.dataset.row), r.textContent, r.classList.contains('selected')]).sort((a, b) => a[0] - b[0]));

test('10,000 rows keep only the viewport in the DOM and report it while scrolling', async (t) => {
  const scr = screen(10000, 60);
  scr.sections[0].cells = Array.from({ length: 16 }, (_, r) => cell(r));
  const { page, sent, push, patch } = await open(t, scr);
  assert.deepEqual(sent[0], { t: 'menu', index: 0 });
  const first = await until('first viewport', () => sent.find((m) => m.t === 'viewport'));
  const visible = await page.$eval('#table', (el) => el.clientHeight);
  assert.deepEqual(first, { t: 'viewport', section: 0, first: 0, last: Math.floor(visible / 60) + 3 });  // + overscan

  const rows = await page.locator('#table .row').count();
  assert.ok(rows > 5 && rows < 40, `${rows} rows in the DOM`);
  assert.equal(await page.evaluate(() => window.__shelf.cellsMaterialized), 16);
  assert.equal(typeof await page.evaluate(() => window.__shelf.firstScreenAt), 'number');
  assert.equal(await page.$eval('#table .row[data-row="3"]', (r) => r.textContent), 'Row 3');

  await page.$eval('#table', (el) => { el.scrollTop = el.scrollHeight; });
  const end = await until('viewport at the end', () => sent.findLast((m) => m.t === 'viewport' && m.last === 9999));
  assert.ok(end.first > 9970, `first ${end.first}`);
  patch({ op: 'cells', section: 0, cells: [cell(9990, 1), cell(9999, 2)] });
  await page.waitForFunction(() => document.querySelector('.row[data-row="9999"]')?.textContent === 'Row 9999');
  const bottom = await page.$eval('.row[data-row="9999"]', (r) => r.style.top);
  assert.equal(bottom, `${9999 * 60}px`);
  assert.ok(await page.evaluate(() => window.__shelf.rowsInDom()) < 40);
  assert.equal(await page.locator('.row[data-row="0"]').count(), 0);

  const before = sent.length;  // a fresh snapshot is answered with the viewport even when unchanged
  push({ t: 'screen', screen: scr });
  assert.deepEqual(await until('viewport after snapshot', () => sent.slice(before).find((m) => m.t === 'viewport')), end);
});

test('insertRows and deleteRows shift rows, cells and selection; the server decides selection', async (t) => {
  const scr = screen(8, 50, { selectable: 'multiple', selection: [[0, 2], [0, 5]] });
  scr.sections[0].cells = Array.from({ length: 8 }, (_, r) => cell(r));
  const { page, sent, patch } = await open(t, scr);
  const selected = async () => (await rowTexts(page)).filter((r) => r[2]).map((r) => r[1]);
  assert.deepEqual(await selected(), ['Row 2', 'Row 5']);

  // Row 4 ("Row 2", then "Row 4") starts below three rows of 50 and one of 80 either way.
  const steps = [
    [{ op: 'insertRows', section: 0, rows: [0, 3], heights: [50, 80] },
      ['', 'Row 0', 'Row 1', '', 'Row 2', 'Row 3', 'Row 4', 'Row 5', 'Row 6', 'Row 7'], ['Row 2', 'Row 5']],
    [{ op: 'deleteRows', section: 0, rows: [1, 4] }, ['', 'Row 1', '', 'Row 3', 'Row 4', 'Row 5', 'Row 6', 'Row 7'], ['Row 5']],
  ];
  for (const [op, texts, selection] of steps) {
    patch(op);
    await eventually(() => rowTexts(page), (v) => assert.deepEqual(v.map((r) => r[1]), texts, op.op));
    assert.deepEqual(await selected(), selection, op.op);
    assert.equal(await page.$eval('.row[data-row="4"]', (r) => r.style.top), `${50 * 3 + 80}px`, op.op);
  }
  await page.waitForFunction(() => !document.querySelector('.row-leaving'));

  await page.click('.row[data-row="1"]');
  assert.deepEqual(sent.findLast((m) => m.t === 'select'), { t: 'select', section: 0, row: 1, selected: true });
  assert.deepEqual(await selected(), ['Row 1', 'Row 5']);  // shown at once
  patch({ op: 'selection', rows: [[0, 5]] });               // and corrected by the host
  await page.waitForFunction(() => document.querySelectorAll('.row.selected').length === 1);
  assert.deepEqual(await selected(), ['Row 5']);
});

test('dialogs send their answers, dialogClose closes silently, and server texts are never markup', async (t) => {
  const scr = screen(1, 60, { title: '<i>t</i>' });
  scr.sections[0].cells = [{ row: 0, view: { id: 1, kind: 'cell', children: [label(2, '<b>x</b>', 'smallDetail')] } }];
  const { page, sent, push } = await open(t, scr);
  // Each dialog, how it is answered, and what the page sends (nothing when the host closes it).
  const dialogs = [
    [{ id: 7, kind: 'confirm', title: 'Delete?', text: 'a.pdf', ok: 'Delete', cancel: 'Keep' },
      () => page.click('#dialog .dialog-ok'), { ok: true, text: '' }],
    [{ id: 8, kind: 'input', title: null, text: null, placeholder: 'Password', ok: 'Go', cancel: 'Cancel', secure: true },
      () => page.fill('.dialog-input', 'abc').then(() => page.press('.dialog-input', 'Enter')), { ok: true, text: 'abc' }],
    [{ id: 9, kind: 'confirm', ok: 'OK', cancel: 'Cancel' }, () => push({ t: 'dialogClose', id: 9 }), null],
  ];
  for (const [m, answer, answered] of dialogs) {
    push({ t: 'dialog', ...m });
    await page.waitForSelector('#dialog[open]');
    assert.equal(await page.textContent('#dialog .dialog-cancel'), m.cancel);
    const input = await page.locator('#dialog .dialog-input').evaluate((e) => e.checkVisibility() && e.type);
    assert.equal(input, m.kind === 'input' && (m.secure ? 'password' : 'text'), `input of dialog ${m.id}`);
    await answer();
    await page.waitForSelector('#dialog:not([open])', { state: 'attached' });
    const reply = () => sent.find((a) => a.t === 'dialog' && a.id === m.id);
    if (answered) assert.deepEqual(await until('answer', reply), { t: 'dialog', id: m.id, ...answered });
  }
  assert.equal(sent.filter((a) => a.t === 'dialog').length, 2, 'a dialog the host closed is not answered');

  push({ t: 'alert', id: 4, text: '<img src=x onerror=alert(1)>' });
  await page.waitForSelector('#alert[open]');
  assert.equal(await page.$eval('[data-vid="2"]', (l) => [l.textContent, l.dataset.style].join('|')), '<b>x</b>|smallDetail');
  assert.equal(await page.$eval('#title', (l) => l.textContent), '<i>t</i>');
  assert.equal(await page.locator('b, i, img').count(), 0);
});
