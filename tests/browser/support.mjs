// What the browser tests share: a real `shelf serve` on loopback, a file server
// in this process, the browser, and ways to read and drive the page.
import { before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdtemp, mkdir, readFile, rm } from 'node:fs/promises';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';
import { chromium } from 'playwright-core';
import { startFileServer } from '../support/file_server.mjs';

export const SHELF = process.env.SHELF_BINARY || new URL('../../build-dev/shelf/shelf', import.meta.url).pathname;
export const ARTIFACTS = process.env.SHELF_ARTIFACTS_DIR || '/tmp/shelf-artifacts';
export const LONG = 120_000;  // downloads under ASan are slow
export const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
export const TIP = 'Manage your downloads through the main menu item';
export const MARKUP = '<img src=x onerror=window.__pwned=1>.txt';

// One browser for the test file, launched before its first test.
export let browser;
before(async () => {
  await mkdir(ARTIFACTS, { recursive: true });
  browser = await chromium.launch({ executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox'] });
});
after(() => browser?.close());

// --- Processes and servers --------------------------------------------------

// A describe group's host: a root of its own, a file server for `files` (name → what
// tests/support/file_server.mjs serves at /name) and `shelf serve` with `args`; `ready(h)` runs once they are
// up. Everything is ended by the group's after hook, last first; `h.defer` adds to it.
export function useHost({ files, args = [], ready } = {}) {
  const fns = [];
  const h = { defer: (fn) => fns.push(fn) };
  // `port`: 0 for any free one, or the one a stopped shelf had (to come back where a page waits).
  h.start = async (port = 0) => {
    h.shelf = await startShelf(h.root, args, port);
  };
  before(async () => {
    h.root = await mkdtemp(path.join(os.tmpdir(), 'shelf-host-test-'));
    h.docs = path.join(h.root, 'Documents');
    h.defer(() => rm(h.root, { recursive: true, force: true }));
    if (files) {
      h.files = await startFileServer((p) => files[p.slice(1)]);
      h.defer(() => h.files.close());
    }
    await h.start();
    h.defer(() => h.shelf.stop());
    await ready?.(h);
  });
  // Every cleanup runs; the first failure is reported.
  after(async () => {
    const errors = [];
    while (fns.length) await Promise.resolve().then(fns.pop()).catch((e) => errors.push(e));
    if (errors.length) throw errors[0];
  });
  return h;
}

// `timeout` ends shelf even if this process dies, passes our SIGTERM on to it, and
// kills it should it not have stopped 15 s later.
async function startShelf(root, args, port) {
  const env = { ...process.env, LANG: 'C.UTF-8', LC_ALL: 'C.UTF-8', LANGUAGE: '' };
  const child = spawn('timeout', ['-k', '15', '900', SHELF, 'serve', '--root', root, '--port', String(port), ...args],
    { env, stdio: ['ignore', 'pipe', 'pipe'] });
  let out = '';
  for (const stream of [child.stdout, child.stderr]) stream.on('data', (d) => { out += d; });
  const exited = new Promise((r) => child.once('exit', r));
  const stop = async () => {
    if (child.exitCode === null && child.signalCode === null) child.kill('SIGTERM');
    await exited;
  };
  for (const end = Date.now() + 60_000; ; await sleep(50)) {
    const m = /shelf: open (http:\/\/\S+)/.exec(out);
    if (m) return { url: m[1], stop };
    if (child.exitCode !== null || Date.now() > end) {
      await stop();
      throw new Error(`shelf did not start:\n${out}`);
    }
  }
}

// A request to the host, sent as JSON (the only way it takes changes) unless `type` says
// otherwise; fetch sends the path as written and no Origin. The body is parsed if JSON.
export async function api(url, method, p, body, type = 'application/json') {
  const r = await fetch(new URL(p, url), { method, body: body && JSON.stringify(body),
    headers: method === 'GET' ? {} : { 'content-type': type }, signal: AbortSignal.timeout(LONG) });
  const text = await r.text();
  return { status: r.status, body: text && /json/.test(r.headers.get('content-type')) ? JSON.parse(text) : text };
}
export const queue = async (url) => (await api(url, 'GET', '/api/downloads')).body;

// Queue records that stay put: nothing starts while downloads are not permitted.
// Added before any tab connects, so the intake's alert and tip are headless.
export async function seedQueue(h, names, stopped = []) {
  assert.equal((await api(h.shelf.url, 'PUT', '/api/settings', { downloadsPermitted: false })).status, 200);
  const ids = [];
  for (const name of names) {
    const r = await api(h.shelf.url, 'POST', '/api/downloads', { url: h.files.url(name) });
    assert.equal(r.status, 201, JSON.stringify(r.body));
    ids.push(r.body.download.uniqueId);
  }
  for (const i of stopped) assert.equal((await api(h.shelf.url, 'POST', `/api/downloads/${ids[i]}/stop`)).status, 204);
  return ids;
}

// --- The page ---------------------------------------------------------------

export const PHONE = { width: 390, height: 844 };

// A page in a browser context of its own, closed by `owner` (a test, or a cleanup
// function) with a check that no script failed. `menu`: the screen to open first;
// `script(page)`: routes the page to a scripted host instead of shelf (console errors
// count then too); other options go to the context (viewport, colorScheme, ...).
export async function openPage(owner, url, { menu, script, viewport = { width: 1100, height: 760 }, ...options } = {}) {
  const context = await browser.newContext({ viewport, ...options });
  const page = await context.newPage();
  const errors = [];
  page.on('pageerror', (e) => errors.push(e.message));
  if (script) page.on('console', (m) => m.type() === 'error' && errors.push(m.text()));
  (owner.after?.bind(owner) ?? owner)(async () => {
    await context.close();
    assert.deepEqual(errors, [], 'no script errors');
  });
  await script?.(page);
  await page.goto(url);
  await page.waitForSelector('#menu .menu-item');
  if (menu) await openMenu(page, menu);
  return page;
}

// Chooses `title` in the menu, then the row named `row` on that screen when given.
export async function openMenu(page, title, row) {
  // On a narrow screen the menu is a drawer, opened first; the choice closes it.
  const narrow = await page.evaluate(() => getComputedStyle(document.getElementById('menu-button')).display !== 'none');
  if (narrow && !(await page.evaluate(() => document.body.classList.contains('drawer-open')))) await page.click('#menu-button');
  await page.locator('#menu .menu-item').filter({ hasText: new RegExp(`^${title}$`) }).click();
  await page.waitForFunction((s) => document.getElementById('title').textContent === s, title);
  if (narrow) assert.equal(await page.evaluate(() => document.body.classList.contains('drawer-open')), false, 'the drawer closes');
  if (!row) return;
  await page.locator('#table .row[data-row]').filter({ hasText: new RegExp(`^${row}$`) }).click();
  await page.waitForFunction((s) => document.getElementById('title').textContent === s && !document.getElementById('back').hidden, row);
}

// Retries `probe` until `check` (which asserts) passes; the last failure is reported.
export async function eventually(probe, check, ms = 30_000) {
  for (const end = Date.now() + ms; ; await sleep(100)) {
    const value = await probe();
    try {
      check(value);
      return value;
    } catch (e) {
      if (Date.now() > end) throw e;
    }
  }
}

// The rendered rows in order, their labels by style.
export const rows = (page) => page.$$eval('#table .row[data-row]', (els) => els.map((e) => {
  const text = (style) => [...e.querySelectorAll(`.v[data-style="${style}"]`)].map((l) => l.textContent);
  return { row: Number(e.dataset.row), selected: e.classList.contains('selected'), title: text('largeTitle')[0] ?? '',
    details: text('smallDetail'), status: text('smallTitle')[0] ?? '', texts: text('body') };
}).sort((a, b) => a.row - b.row));
export const titles = async (page) => (await rows(page)).map((r) => r.title || r.texts[0]);
// The toolbar's buttons by accessible name, and whether each is enabled.
export const tools = (page) => page.getByRole('toolbar').getByRole('button')
  .evaluateAll((els) => Object.fromEntries(els.map((e) => [e.getAttribute('aria-label'), !e.disabled])));
export const tool = (page, name) => page.getByRole('toolbar').getByRole('button', { name, exact: true }).click();
export const selectRow = (page, row) => page.click(`#table .row[data-row="${row}"]`);
export const shot = (page, name) => page.screenshot({ path: path.join(ARTIFACTS, `${name}.png`) });

export async function enterUrl(page, text) {
  await tool(page, 'Enter URL');
  const box = page.getByRole('dialog').getByRole('textbox');
  assert.equal(await box.getAttribute('enterkeyhint'), 'done', "a phone's return key says so");
  await box.fill(text);
  await page.click('#dialog .dialog-ok');
}

export async function takeAlert(page) {
  await page.waitForSelector('#alert[open]', { timeout: LONG });
  const text = await page.textContent('#alert .alert-text');
  await page.click('#alert .alert-ok');
  await page.waitForSelector('#alert[open]', { state: 'detached' });
  return text;
}

// --- Accessibility ----------------------------------------------------------

const axeSource = await readFile(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

// axe-core's audit of the page as it is now: each violation with its impact and where.
export async function audit(page) {
  if (!(await page.evaluate(() => typeof window.axe === 'object'))) await page.evaluate(axeSource);
  const result = await page.evaluate(() => window.axe.run(document, { resultTypes: ['violations'] }));
  return result.violations.map((v) => ({ id: v.id, impact: v.impact, help: v.help,
    nodes: v.nodes.map((n) => `${n.target.join(' ')} ${n.html.slice(0, 160)} ${n.any?.[0]?.message ?? ''}`) }));
}
