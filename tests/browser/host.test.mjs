// The front end against a real `shelf serve` on loopback, downloading from a small
// file server in this process. Each group gets its own root and its own shelf.
import { test, describe, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import http from 'node:http';
import { randomBytes } from 'node:crypto';
import { mkdtemp, mkdir, readFile, rm, writeFile } from 'node:fs/promises';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

const SHELF = process.env.SHELF_BINARY || new URL('../../build-dev/shelf/shelf', import.meta.url).pathname;
const ARTIFACTS = process.env.SHELF_ARTIFACTS_DIR || '/tmp/shelf-artifacts';
const LONG = 120_000;  // downloads under ASan are slow
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const TIP = 'Manage your downloads through the main menu item';
const MARKUP = '<img src=x onerror=window.__pwned=1>.txt';

let browser;
before(async () => {
  await mkdir(ARTIFACTS, { recursive: true });
  browser = await chromium.launch({ executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox'] });
});
after(() => browser?.close());

// --- Processes and servers --------------------------------------------------

// A group's cleanups, run last first by its after hook (suite hooks have no t.after here).
function cleanups() {
  const fns = [];
  after(async () => {
    const errors = [];
    while (fns.length) {
      try { await fns.pop()(); } catch (e) { errors.push(e); }
    }
    if (errors.length) throw errors[0];
  });
  return (fn) => fns.push(fn);
}

async function tempRoot(defer) {
  const root = await mkdtemp(path.join(os.tmpdir(), 'shelf-host-test-'));
  defer(() => rm(root, { recursive: true, force: true }));
  return root;
}

// `timeout` ends shelf even if this process dies, and passes our SIGTERM on to it.
async function startShelf(root, args = []) {
  const env = { ...process.env, LANG: 'C.UTF-8', LC_ALL: 'C.UTF-8', LANGUAGE: '' };
  const child = spawn('timeout', ['900', SHELF, 'serve', '--root', root, '--port', '0', ...args],
    { env, stdio: ['ignore', 'pipe', 'pipe'] });
  const pid = child.pid;
  let out = '';
  child.stdout.on('data', (d) => { out += d; });
  child.stderr.on('data', (d) => { out += d; });
  const exited = new Promise((r) => child.once('exit', r));
  const stop = async () => {
    if (child.exitCode !== null || child.signalCode !== null) return;
    process.kill(pid, 'SIGTERM');
    if (await Promise.race([exited.then(() => true), sleep(15_000)])) return;
    // Stuck: end shelf itself (its pid is in the root), then the wrapper.
    const info = await readFile(path.join(root, 'Library', 'Server.json'), 'utf8').catch(() => '{}');
    if (JSON.parse(info).pid) process.kill(JSON.parse(info).pid, 'SIGKILL');
    process.kill(pid, 'SIGKILL');
    await exited;
  };
  for (const end = Date.now() + 60_000; ; await sleep(50)) {
    const m = /shelf: open (http:\/\/\S+)/.exec(out);
    if (m) return { url: m[1], pid, stop };
    if (child.exitCode !== null || Date.now() > end) {
      await stop();
      throw new Error(`shelf did not start:\n${out}`);
    }
  }
}

// files: name → {body, type, disposition, probeDelayMs, throttle: {bytes, everyMs}}.
// Honours "Range: bytes=a-b" with 206 + Content-Range; the module probes with bytes=1-1.
async function startFileServer(files) {
  const sockets = new Set(), timers = new Set(), requests = [];
  const server = http.createServer((req, res) => {
    const name = decodeURIComponent(new URL(req.url, 'http://x').pathname.slice(1));
    const f = files[name];
    requests.push({ name, range: req.headers.range });
    if (!f) return res.writeHead(404).end();
    const total = f.body.length;
    const headers = { 'content-type': f.type ?? 'application/octet-stream' };
    if (f.disposition) headers['content-disposition'] = f.disposition;
    let start = 0, end = total - 1, status = 200;
    const range = /^bytes=(\d+)-(\d*)$/.exec(req.headers.range ?? '');
    if (range) {
      [start, end, status] = [Number(range[1]), range[2] ? Math.min(Number(range[2]), total - 1) : total - 1, 206];
      if (start > end) return res.writeHead(416, { 'content-range': `bytes */${total}` }).end();
      headers['content-range'] = `bytes ${start}-${end}/${total}`;
    }
    headers['content-length'] = end - start + 1;
    const body = f.body.subarray(start, end + 1);
    const probe = start === 1 && end === 1;
    const send = () => {
      res.writeHead(status, headers);
      if (probe || !f.throttle) return res.end(body);
      let at = 0;
      const timer = setInterval(() => {
        if (res.destroyed || at >= body.length) return clearInterval(timer);
        res.write(body.subarray(at, at += f.throttle.bytes));
        if (at >= body.length) res.end();
      }, f.throttle.everyMs);
      timers.add(timer);
    };
    if (probe && f.probeDelayMs) timers.add(setTimeout(send, f.probeDelayMs));
    else send();
  });
  server.on('connection', (s) => { sockets.add(s); s.on('close', () => sockets.delete(s)); });
  await new Promise((r) => server.listen(0, '127.0.0.1', r));
  const base = `http://127.0.0.1:${server.address().port}/`;
  return {
    url: (name) => base + encodeURIComponent(name),
    requests,
    close: () => {
      for (const t of timers) clearInterval(t);
      for (const s of sockets) s.destroy();
      return new Promise((r) => server.close(r));
    },
  };
}

// A raw request: the path goes out as written, and no Origin unless given (fetch may add one).
function request(base, { method = 'GET', path: p = '/', headers = {}, body } = {}) {
  const u = new URL(base);
  return new Promise((resolve, reject) => {
    const req = http.request({ host: u.hostname, port: u.port, method, path: p, headers, agent: false }, (res) => {
      const chunks = [];
      res.on('data', (c) => chunks.push(c));
      res.on('end', () => resolve({ status: res.statusCode, text: Buffer.concat(chunks).toString() }));
    });
    req.on('upgrade', (res, socket) => { socket.destroy(); resolve({ status: res.statusCode, text: '' }); });
    req.on('error', reject);
    req.setTimeout(LONG, () => req.destroy(new Error(`${method} ${p} timed out`)));
    req.end(body);
  });
}

// The host takes changes (anything but GET) only as JSON.
async function api(url, method, p, body) {
  const json = body === undefined ? undefined : JSON.stringify(body);
  const headers = method === 'GET' ? {} : { 'content-type': 'application/json' };
  const r = await request(url, { method, path: p, body: json, headers });
  return { status: r.status, body: r.text ? JSON.parse(r.text) : null };
}

// Queue records that stay put: nothing starts while downloads are not permitted.
// Added before any tab connects, so the intake's alert and tip are headless.
async function seedQueue(url, files, names, stopped = []) {
  assert.equal((await api(url, 'PUT', '/api/settings', { downloadsPermitted: false })).status, 200);
  const ids = [];
  for (const name of names) {
    const r = await api(url, 'POST', '/api/downloads', { url: files.url(name) });
    assert.equal(r.status, 201, JSON.stringify(r.body));
    ids.push(r.body.download.uniqueId);
  }
  for (const i of stopped) assert.equal((await api(url, 'POST', `/api/downloads/${ids[i]}/stop`)).status, 204);
  return ids;
}

// --- The page ---------------------------------------------------------------

async function openPage(defer, url, viewport = { width: 1100, height: 760 }) {
  const context = await browser.newContext({ viewport });
  const page = await context.newPage();
  const errors = [];
  page.on('pageerror', (e) => errors.push(e.message));
  defer(async () => {
    await context.close();
    assert.deepEqual(errors, [], 'no script errors');
  });
  await page.goto(url);
  await page.waitForSelector('#menu .menu-item');
  return page;
}

async function openMenu(page, title) {
  await page.locator('#menu .menu-item').filter({ hasText: new RegExp(`^${title}$`) }).click();
  await page.waitForFunction((s) => document.getElementById('title').textContent === s, title);
}

// Retries `probe` until `check` (which asserts) passes; the last failure is reported.
async function eventually(probe, check, ms = 30_000) {
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
const rows = (page) => page.$$eval('#table .row[data-row]', (els) => els.map((e) => {
  const text = (style) => [...e.querySelectorAll(`.v[data-style="${style}"]`)].map((l) => l.textContent);
  return { row: Number(e.dataset.row), selected: e.classList.contains('selected'), title: text('largeTitle')[0] ?? '',
    details: text('smallDetail'), status: text('smallTitle')[0] ?? '', texts: text('body') };
}).sort((a, b) => a.row - b.row));
const titles = async (page) => (await rows(page)).map((r) => r.title || r.texts[0]);
const tools = (page) => page.$$eval('#toolbar button.tool',
  (els) => Object.fromEntries(els.map((e) => [e.getAttribute('aria-label'), !e.disabled])));
const tool = (page, name) => page.click(`#toolbar button.tool[aria-label=${name}]`);
const selectRow = (page, row) => page.click(`#table .row[data-row="${row}"]`);
const shot = (page, name) => page.screenshot({ path: path.join(ARTIFACTS, `${name}.png`) });

async function enterUrl(page, text) {
  await tool(page, 'DFEnterUrl');
  await page.waitForSelector('#dialog[open] .dialog-input');
  await page.fill('#dialog .dialog-input', text);
  await page.click('#dialog .dialog-ok');
}

async function takeAlert(page) {
  await page.waitForSelector('#alert[open]', { timeout: LONG });
  const text = await page.textContent('#alert .alert-text');
  await page.click('#alert .alert-ok');
  await page.waitForSelector('#alert[open]', { state: 'detached' });
  return text;
}

// --- Groups -----------------------------------------------------------------

describe('an empty queue', { timeout: 5 * 60_000 }, () => {
  const defer = cleanups();
  let shelf, page;
  before(async () => {
    shelf = await startShelf(await tempRoot(defer));
    defer(() => shelf.stop());
    page = await openPage(defer, shelf.url);
    await openMenu(page, 'Downloads');
  });

  test('only entering a URL is possible', async () => {
    await eventually(() => tools(page), (v) => assert.deepEqual(v,
      { DFEnterUrl: true, DFStart: false, DFStop: false, DFRemove: false, DFSelect: false, DFDeselect: false }));
  });

  test('text that gives no http(s) address with a host is an incorrect URL', async () => {
    for (const text of ['http://', 'ftp://x', 'file:///etc/passwd', 'http://?x', '   ']) {
      await enterUrl(page, text);
      assert.equal(await takeAlert(page), 'Incorrect URL', text);
      assert.equal(await page.locator('#overlay').isHidden(), true, text);
    }
    assert.deepEqual(await rows(page), []);
    assert.deepEqual((await api(shelf.url, 'GET', '/api/downloads')).body, []);
  });
});

describe('adding a URL through the screen', { timeout: 8 * 60_000 }, () => {
  const defer = cleanups();
  let root, shelf, files;
  const big = randomBytes(4 * 1024 * 1024 + 123);
  before(async () => {
    root = await tempRoot(defer);
    files = await startFileServer({
      'big.dat': { body: big, probeDelayMs: 700, throttle: { bytes: 32 * 1024, everyMs: 50 } },
      'slow-probe.dat': { body: big, probeDelayMs: 60_000 },
      'second.txt': { body: Buffer.from('second\n'), type: 'text/plain' },
      'third.txt': { body: Buffer.from('third\n'), type: 'text/plain' },
    });
    defer(() => files.close());
    shelf = await startShelf(root);
    defer(() => shelf.stop());
  });

  test('cancelling "Checking URL..." adds nothing', async (t) => {
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Downloads');
    await enterUrl(page, files.url('slow-probe.dat'));
    await page.waitForSelector('#overlay:not([hidden])');
    assert.equal(await page.textContent('#overlay .overlay-message'), 'Checking URL...');
    await page.click('#overlay .overlay-cancel');
    await page.waitForSelector('#overlay', { state: 'hidden' });
    await sleep(300);
    assert.equal(await page.locator('#alert[open], #tip:not([hidden])').count(), 0);
    assert.deepEqual(await rows(page), []);
    assert.deepEqual((await api(shelf.url, 'GET', '/api/downloads')).body, []);
  });

  test('the file goes from the queue to Documents and Recent', { timeout: 5 * 60_000 }, async (t) => {
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Downloads');
    await enterUrl(page, files.url('big.dat'));
    await page.waitForSelector('#overlay:not([hidden])');
    assert.equal(await page.textContent('#overlay .overlay-message'), 'Checking URL...');
    assert.equal(await takeAlert(page), 'File added to download queue');
    await page.waitForSelector('#tip:not([hidden])');
    assert.match(await page.textContent('#tip .tip-text'), new RegExp(`^${TIP}`));
    await page.click('#tip .tip-dismiss');
    await page.waitForSelector('#tip', { state: 'hidden' });

    const [row] = await eventually(() => rows(page), (v) => {
      assert.equal(v.length, 1);
      assert.equal(v[0].status, 'downloading');
      assert.match(v[0].details[1] ?? '', /\d.*\/.*\(\d+%\)/);
    });
    assert.equal(row.title, 'big.dat');
    assert.equal(row.details[0], files.url('big.dat'));
    const ranges = files.requests.filter((r) => r.name === 'big.dat').map((r) => r.range);
    assert.equal(ranges[0], 'bytes=1-1', 'probed first');
    assert.ok(ranges.slice(1).every((r) => /^bytes=\d+-\d+$/.test(r)), `fetched in ranged chunks: ${ranges}`);

    await eventually(() => rows(page), (v) => assert.deepEqual(v, []), LONG);
    assert.ok((await readFile(path.join(root, 'Documents', 'big.dat'))).equals(big), 'same bytes as the source');
    for (const screen of ['Documents', 'Recent']) {
      await openMenu(page, screen);
      await eventually(() => titles(page), (v) => assert.ok(v.includes('big.dat'), `${screen}: ${v}`));
    }
  });

  test('the tip is offered once per root, also after a restart', { timeout: 5 * 60_000 }, async (t) => {
    for (const name of ['second.txt', 'third.txt']) {
      if (name === 'third.txt') {
        await shelf.stop();
        shelf = await startShelf(root);
      }
      const page = await openPage((f) => t.after(f), shelf.url);
      await openMenu(page, 'Downloads');
      await enterUrl(page, files.url(name));
      assert.equal(await takeAlert(page), 'File added to download queue');
      // A tip would be sent before the answer to this later request.
      await openMenu(page, 'Recent');
      assert.equal(await page.locator('#tip').isHidden(), true, `no tip for ${name}`);
      const arrived = () => readFile(path.join(root, 'Documents', name), 'utf8').catch(() => null);
      await eventually(arrived, (v) => assert.equal(v, name.replace('.txt', '\n')), LONG);
    }
  });
});

describe('selection and the toolbar', { timeout: 5 * 60_000 }, () => {
  const defer = cleanups();
  let shelf, files, ids, page;
  const names = ['f0.zip', 'f1.zip', 'f2.zip', 'f3.zip'];
  before(async () => {
    files = await startFileServer(Object.fromEntries(names.map((n) => [n, { body: randomBytes(1000) }])));
    defer(() => files.close());
    shelf = await startShelf(await tempRoot(defer));
    defer(() => shelf.stop());
    ids = await seedQueue(shelf.url, files, names, [1, 3]);  // rows 1 and 3 stopped
    page = await openPage(defer, shelf.url);
    await openMenu(page, 'Downloads');
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => [r.title, r.status]),
      [['f0.zip', 'queued'], ['f1.zip', 'stopped'], ['f2.zip', 'queued'], ['f3.zip', 'stopped']]));
    await shot(page, 'downloads');
  });

  test('the buttons follow the selected rows', async () => {
    const none = { DFEnterUrl: true, DFStart: false, DFStop: false, DFRemove: false, DFSelect: true, DFDeselect: false };
    const some = { ...none, DFRemove: true, DFDeselect: true };
    const cases = [
      { tap: [0], want: { ...some, DFStop: true } },           // active only
      { tap: [1], want: { ...some, DFStart: true } },          // inactive only
      { tap: [0, 1], want: { ...some, DFStart: true, DFStop: true } },
      { tap: [0, 1, 0], want: { ...some, DFStart: true } },    // tapping again deselects
    ];
    for (const { tap, want } of cases) {
      for (const r of tap) await selectRow(page, r);
      await eventually(() => tools(page), (v) => assert.deepEqual(v, want, `after tapping ${tap}`));
      await tool(page, 'DFDeselect');
      await eventually(() => tools(page), (v) => assert.deepEqual(v, none));
      assert.deepEqual((await rows(page)).filter((r) => r.selected), []);
    }
    await tool(page, 'DFSelect');
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.selected), [true, true, true, true]));
    await eventually(() => tools(page), (v) => assert.deepEqual(v, { ...some, DFStart: true, DFStop: true, DFSelect: false }));
    await tool(page, 'DFDeselect');
    await eventually(() => tools(page), (v) => assert.deepEqual(v, none));
  });

  test('removing rows 0 and 2 asks first; cancel keeps them selected', async () => {
    await selectRow(page, 0);
    await selectRow(page, 2);
    await eventually(() => tools(page), (v) => assert.equal(v.DFRemove, true));
    for (const answer of ['.dialog-cancel', '.dialog-ok']) {
      await tool(page, 'DFRemove');
      await page.waitForSelector('#dialog[open]');
      assert.equal(await page.textContent('#dialog .dialog-text'), 'Are you sure you want to delete selected items?');
      assert.equal(await page.textContent('#dialog .dialog-ok'), 'Delete');
      await page.click(`#dialog ${answer}`);
      if (answer === '.dialog-cancel') {
        await sleep(300);
        assert.deepEqual((await rows(page)).map((r) => r.selected), [true, false, true, false]);
        assert.equal((await api(shelf.url, 'GET', '/api/downloads')).body.length, 4);
      }
    }
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => [r.title, r.selected]),
      [['f1.zip', false], ['f3.zip', false]]));
    const left = (await api(shelf.url, 'GET', '/api/downloads')).body;
    assert.deepEqual(left.map((d) => d.uniqueId), [ids[1], ids[3]]);
  });
});

describe('the settings page', { timeout: 5 * 60_000 }, () => {
  const defer = cleanups();
  let shelf;
  before(async () => {
    shelf = await startShelf(await tempRoot(defer));
    defer(() => shelf.stop());
  });

  async function openSettings(t) {
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Settings');
    await eventually(() => titles(page), (v) => assert.ok(v.includes('Downloads'), String(v)));
    await page.locator('#table .row[data-row]').filter({ hasText: /^Downloads$/ }).click();
    await page.waitForSelector('#back:not([hidden])');
    await eventually(() => page.textContent('#title'), (v) => assert.equal(v, 'Downloads'));
    return page;
  }
  const stepperValue = async (page) => (await rows(page))[2]?.texts.at(-1);
  const setting = async (key) => (await api(shelf.url, 'GET', '/api/settings')).body[key];

  test('"Downloads Permitted" collapses and expands the page', async (t) => {
    const page = await openSettings(t);
    const labels = ['Downloads Permitted', 'Use Cellular Data', 'Active Downloads Count'];
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.texts[0]), labels));
    await shot(page, 'settings');
    for (const [on, shown] of [[false, labels.slice(0, 1)], [true, labels]]) {
      await page.click('#table .row[data-row="0"] .v-switch');
      await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.texts[0]), shown));
      assert.equal(await page.getAttribute('#table .row[data-row="0"] .v-switch', 'aria-checked'), String(on));
      assert.equal(await setting('downloadsPermitted'), on);
    }
  });

  test('the stepper stays within 1 to 10 and stores its value', async (t) => {
    const page = await openSettings(t);
    await eventually(() => stepperValue(page), (v) => assert.equal(v, '3'));
    for (const [button, step, limit] of [['minus', -1, 1], ['plus', 1, 10]]) {
      const sel = `#table .row[data-row="2"] .stepper-${button}`;
      for (let value = Number(await stepperValue(page)); value !== limit; ) {
        await page.click(sel);
        value += step;
        await eventually(() => stepperValue(page), (v) => assert.equal(v, String(value)));
        await eventually(() => setting('maxActiveDownloadCount'), (v) => assert.equal(v, value));
      }
      assert.equal(await page.isDisabled(sel), true, `${button} disabled at ${limit}`);
    }
  });

  test('the page shows the stored count', async (t) => {
    assert.equal((await api(shelf.url, 'PUT', '/api/settings', { maxActiveDownloadCount: 4 })).status, 200);
    const page = await openSettings(t);
    await eventually(() => stepperValue(page), (v) => assert.equal(v, '4'));
    assert.equal(await page.isDisabled('#table .row[data-row="2"] .stepper-minus'), false);
    assert.equal(await page.isDisabled('#table .row[data-row="2"] .stepper-plus'), false);
  });

  test('on a narrow screen the menu is a drawer', async (t) => {
    const page = await openPage((f) => t.after(f), shelf.url, { width: 390, height: 720 });
    await page.click('#menu-button');
    await page.waitForFunction(() => document.getElementById('menu').getBoundingClientRect().left >= 0);
    await sleep(300);  // the slide-in transition
    await shot(page, 'menu-drawer');
    const menu = await page.$$eval('#menu .menu-item .menu-title', (els) => els.map((e) => e.textContent));
    assert.deepEqual(menu, ['Documents', 'Recent', 'Downloads', 'Settings']);
    await openMenu(page, 'Downloads');
    assert.equal(await page.evaluate(() => document.body.classList.contains('drawer-open')), false);
  });
});

describe('in German', { timeout: 5 * 60_000 }, () => {
  const defer = cleanups();
  let shelf, files;
  before(async () => {
    files = await startFileServer({ 'stopped.zip': { body: randomBytes(100) } });
    defer(() => files.close());
    shelf = await startShelf(await tempRoot(defer), ['--lang', 'de']);
    defer(() => shelf.stop());
    await seedQueue(shelf.url, files, ['stopped.zip'], [0]);
  });

  test('menu, screens, dialog and status are translated', async (t) => {
    const page = await openPage((f) => t.after(f), shelf.url);
    const menu = await page.$$eval('#menu .menu-item .menu-title', (els) => els.map((e) => e.textContent));
    assert.equal(menu[0], 'Dokumente');
    await openMenu(page, 'Downloads');
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => [r.title, r.status]), [['stopped.zip', 'angehalten']]));
    await tool(page, 'DFEnterUrl');
    await page.waitForSelector('#dialog[open]');
    assert.equal(await page.textContent('#dialog .dialog-title'), 'URL eingeben');
    await page.click('#dialog .dialog-cancel');
    await openMenu(page, menu[3]);
    await page.locator('#table .row[data-row]').filter({ hasText: /^Downloads$/ }).click();
    await eventually(() => rows(page), (v) => assert.equal(v[0]?.texts[0], 'Downloads erlaubt'));
  });
});

describe('security', { timeout: 5 * 60_000 }, () => {
  const defer = cleanups();
  let root, shelf, files, origin, port;
  before(async () => {
    root = await tempRoot(defer);
    files = await startFileServer({ 'x.bin.txt': { body: randomBytes(100), disposition: `attachment; filename="${MARKUP}"` } });
    defer(() => files.close());
    shelf = await startShelf(root);
    defer(() => shelf.stop());
    origin = shelf.url.replace(/\/$/, '');
    port = new URL(shelf.url).port;
    await writeFile(path.join(root, 'Library', 'AccessToken'), 'secret-token-that-must-not-leak-0123456789\n');
    await writeFile(path.join(root, 'Documents', 'ok.txt'), 'ok');
  });

  test('only our own Host and Origin are served', async () => {
    const cases = [
      { what: 'own host', path: '/api/settings', headers: {}, status: 200 },
      { what: 'foreign host', path: '/', headers: { host: `evil.example:${port}` }, status: 403 },
      { what: 'foreign host, API', path: '/api/settings', headers: { host: `evil.example:${port}` }, status: 403 },
      { what: 'other port', path: '/api/settings', headers: { host: `127.0.0.1:${Number(port) + 1}` }, status: 403 },
      { what: 'foreign origin', path: '/api/settings', headers: { origin: 'http://evil.example' }, status: 403 },
      { what: 'own origin', path: '/api/settings', headers: { origin }, status: 200 },
    ];
    for (const c of cases) assert.equal((await request(shelf.url, c)).status, c.status, c.what);
    const put = await request(shelf.url, { method: 'PUT', path: '/api/settings', body: '{"maxActiveDownloadCount":7}',
      headers: { origin: 'http://evil.example', 'content-type': 'application/json' } });
    assert.equal(put.status, 403);
    assert.equal((await api(shelf.url, 'GET', '/api/settings')).body.maxActiveDownloadCount, 3, 'unchanged');
  });

  test('a WebSocket from a foreign origin is refused', async () => {
    const upgrade = (o) => request(shelf.url, { path: '/ws', headers: { connection: 'Upgrade', upgrade: 'websocket',
      'sec-websocket-version': '13', 'sec-websocket-key': randomBytes(16).toString('base64'), origin: o } });
    assert.equal((await upgrade('http://evil.example')).status, 403);
    assert.equal((await upgrade(origin)).status, 101, 'our own origin still connects');
  });

  test('no other page shows the UI in a frame', async (t) => {
    // A page of another origin with two frames: its own (which loads) and the shelf's.
    const framer = http.createServer((req, res) => {
      res.writeHead(200, { 'content-type': 'text/html' });
      res.end(req.url === '/own' ? '<p id="own">own</p>' : `<iframe src="/own"></iframe><iframe src="${shelf.url}"></iframe>`);
    });
    await new Promise((r) => framer.listen(0, '127.0.0.1', r));
    t.after(() => new Promise((r) => framer.close(r)));
    const context = await browser.newContext();
    t.after(() => context.close());
    const page = await context.newPage();
    const sockets = [];
    page.on('websocket', (ws) => sockets.push(ws.url()));
    await page.goto(`http://127.0.0.1:${framer.address().port}/`, { waitUntil: 'load' });
    const [own, framed] = page.frames().slice(1);
    assert.equal(await own.locator('#own').count(), 1, 'a frame of its own loads');
    assert.equal(await framed.locator('#table').count(), 0, 'the UI is not rendered in the frame');
    assert.deepEqual(sockets, [], 'no WebSocket is opened from the frame');
  });

  test('changes come only as JSON, and not from another site', async () => {
    const cases = [
      { what: 'text/plain POST', method: 'POST', path: '/api/downloads', type: 'text/plain', status: 415 },
      { what: 'form POST', method: 'POST', path: '/api/downloads', type: 'application/x-www-form-urlencoded', status: 415 },
      { what: 'cross-site PUT', method: 'PUT', path: '/api/settings', type: 'text/plain', site: 'cross-site', status: 403 },
      { what: 'cross-site JSON', method: 'PUT', path: '/api/settings', type: 'application/json', site: 'cross-site', status: 403 },
    ];
    for (const c of cases) {
      const headers = { 'content-type': c.type, ...(c.site ? { 'sec-fetch-site': c.site } : {}) };
      const body = c.path === '/api/settings' ? '{"maxActiveDownloadCount":7}' : JSON.stringify({ url: files.url('x.bin.txt') });
      assert.equal((await request(shelf.url, { method: c.method, path: c.path, headers, body })).status, c.status, c.what);
    }
    assert.equal((await api(shelf.url, 'GET', '/api/settings')).body.maxActiveDownloadCount, 3, 'unchanged');
    assert.equal((await api(shelf.url, 'GET', '/api/downloads')).body.length, 0, 'nothing queued');
  });

  test('no path leaves Documents', async () => {
    assert.equal((await request(shelf.url, { path: '/documents/ok.txt' })).status, 200);
    for (const p of ['/documents/../Library/AccessToken', '/documents/%2e%2e/Library/AccessToken',
      '/documents/%2E%2E%2FLibrary%2FAccessToken', '/documents/..%2fLibrary/AccessToken',
      '/documents//../Library/AccessToken', `/documents/${encodeURIComponent(path.join(root, 'Library', 'AccessToken'))}`,
      '/../Library/AccessToken', '/%2e%2e/%2e%2e/etc/passwd', '/bundles/org.shelf.downloader/images/../../../Library/AccessToken.svg']) {
      const r = await request(shelf.url, { path: p });
      assert.ok(r.status === 404 || r.status === 403, `${p} → ${r.status}`);
      assert.ok(!r.text.includes('secret-token'), p);
    }
  });

  test('a file name with markup is shown as text', async (t) => {
    const [id] = await seedQueue(shelf.url, files, ['x.bin.txt']);
    assert.equal((await api(shelf.url, 'GET', '/api/downloads')).body.find((d) => d.uniqueId === id).filename, MARKUP);
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Downloads');
    await eventually(() => rows(page), (v) => assert.equal(v[0]?.title, MARKUP));
    assert.equal(await page.locator('#table img').count(), 0);
    assert.equal(await page.evaluate(() => window.__pwned), undefined);
  });
});
