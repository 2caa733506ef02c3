// The front end against a real `shelf serve` on loopback, downloading from a small
// file server in this process. Each group gets its own root and its own shelf.
import { test, describe, before } from 'node:test';
import assert from 'node:assert/strict';
import http from 'node:http';
import { randomBytes } from 'node:crypto';
import { readFile, writeFile } from 'node:fs/promises';
import path from 'node:path';
import {
  SHELF, ARTIFACTS, LONG, sleep, TIP, MARKUP, browser, useBrowser, cleanups, tempRoot, startShelf, startFileServer, request, api, seedQueue, openPage, openMenu, eventually, rows, titles, tools, tool, selectRow, shot, enterUrl, takeAlert,
} from './support.mjs';

useBrowser();

// --- Groups -----------------------------------------------------------------

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

  test('an empty queue allows only entering a URL; text without an http(s) host is an incorrect URL', async (t) => {
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Downloads');
    await eventually(() => tools(page), (v) => assert.deepEqual(v,
      { 'Enter URL': true, Start: false, Stop: false, Remove: false, 'Select All': false, 'Deselect All': false }));
    for (const text of ['http://', 'ftp://x', 'file:///etc/passwd', 'http://?x', '   ']) {
      await enterUrl(page, text);
      assert.equal(await takeAlert(page), 'Incorrect URL', text);
      assert.equal(await page.locator('#overlay').isHidden(), true, text);
    }
    assert.deepEqual(await rows(page), []);
    assert.deepEqual((await api(shelf.url, 'GET', '/api/downloads')).body, []);
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
    const none = { 'Enter URL': true, Start: false, Stop: false, Remove: false, 'Select All': true, 'Deselect All': false };
    const some = { ...none, Remove: true, 'Deselect All': true };
    const cases = [
      { tap: [0], want: { ...some, Stop: true } },           // active only
      { tap: [1], want: { ...some, Start: true } },          // inactive only
      { tap: [0, 1], want: { ...some, Start: true, Stop: true } },
      { tap: [0, 1, 0], want: { ...some, Start: true } },    // tapping again deselects
    ];
    for (const { tap, want } of cases) {
      for (const r of tap) await selectRow(page, r);
      await eventually(() => tools(page), (v) => assert.deepEqual(v, want, `after tapping ${tap}`));
      await tool(page, 'Deselect All');
      await eventually(() => tools(page), (v) => assert.deepEqual(v, none));
      assert.deepEqual((await rows(page)).filter((r) => r.selected), []);
    }
    await tool(page, 'Select All');
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.selected), [true, true, true, true]));
    await eventually(() => tools(page), (v) => assert.deepEqual(v, { ...some, Start: true, Stop: true, 'Select All': false }));
    await tool(page, 'Deselect All');
    await eventually(() => tools(page), (v) => assert.deepEqual(v, none));
  });

  test('the keyboard moves the focus, selects, and acts through the toolbar', async () => {
    const focused = () => page.evaluate(() => {
      const row = document.activeElement?.closest('.row');
      return row ? { row: Number(row.dataset.row), ring: getComputedStyle(row, '::before').borderTopWidth } : null;
    });
    await page.locator('#table .row[data-row="0"]').focus();
    await page.keyboard.press('ArrowDown');
    await page.keyboard.press('ArrowDown');
    await page.keyboard.press('ArrowUp');
    assert.deepEqual(await focused(), { row: 1, ring: '2px' }, 'the focused row shows a ring');
    await page.keyboard.press('Space');
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.selected), [false, true, false, false]));
    const keys = [
      { key: 'Control+a', selected: [true, true, true, true] },
      { key: 'Escape', selected: [false, false, false, false] },
    ];
    for (const { key, selected } of keys) {
      await page.keyboard.press(key);
      await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.selected), selected, key));
    }
    await page.keyboard.press('Delete');
    await sleep(300);
    assert.equal(await page.getByRole('dialog').count(), 0, 'Remove is disabled with nothing selected, so Delete does nothing');
    await page.keyboard.press('Space');
    await eventually(() => tools(page), (v) => assert.equal(v.Remove, true), 10_000);  // the host enables Remove
    await page.keyboard.press('Delete');
    const dialog = page.getByRole('dialog');
    await dialog.getByRole('button', { name: 'Cancel' }).click();
    await dialog.waitFor({ state: 'hidden' });
    assert.equal((await api(shelf.url, 'GET', '/api/downloads')).body.length, 4);
    await tool(page, 'Deselect All');
    await eventually(() => rows(page), (v) => assert.ok(v.every((r) => !r.selected)));
  });

  test('removing rows 0 and 2 asks first; cancel keeps them selected', async () => {
    await selectRow(page, 0);
    await selectRow(page, 2);
    await eventually(() => tools(page), (v) => assert.equal(v.Remove, true));
    for (const answer of ['.dialog-cancel', '.dialog-ok']) {
      await tool(page, 'Remove');
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
      const permitted = page.getByRole('switch', { name: 'Downloads Permitted' });
      await permitted.click();
      await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.texts[0]), shown));
      assert.equal(await permitted.getAttribute('aria-checked'), String(on));
      assert.equal(await setting('downloadsPermitted'), on);
    }
  });

  test('the page shows the stored count; the stepper stays within 1 to 10 and stores its value', async (t) => {
    assert.equal((await api(shelf.url, 'PUT', '/api/settings', { maxActiveDownloadCount: 4 })).status, 200);
    const page = await openSettings(t);
    await eventually(() => stepperValue(page), (v) => assert.equal(v, '4'));
    const stepper = page.getByRole('group', { name: 'Active Downloads Count' });
    for (const [button, step, limit] of [['Decrease', -1, 1], ['Increase', 1, 10]]) {
      const control = stepper.getByRole('button', { name: button });
      assert.equal(await control.isDisabled(), false, `${button} enabled before ${limit}`);
      for (let value = Number(await stepperValue(page)); value !== limit; ) {
        await control.click();
        value += step;
        await eventually(() => stepperValue(page), (v) => assert.equal(v, String(value)));
        await eventually(() => setting('maxActiveDownloadCount'), (v) => assert.equal(v, value));
      }
      assert.equal(await control.isDisabled(), true, `${button} disabled at ${limit}`);
    }
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
    assert.ok((await rows(page))[0].details.includes('0 Byte / 100 Byte (0%)'), 'sizes in German units');
    assert.equal(await page.getAttribute('html', 'lang'), 'de');
    assert.deepEqual(Object.keys(await tools(page)).sort(),
      ['Alle auswählen', 'Anhalten', 'Auswahl aufheben', 'Entfernen', 'Starten', 'URL eingeben']);
    await tool(page, 'URL eingeben');
    await page.waitForSelector('#dialog[open]');
    assert.equal(await page.textContent('#dialog .dialog-title'), 'URL eingeben');
    assert.equal(await page.getByRole('dialog').getByRole('textbox').getAttribute('enterkeyhint'), 'done');
    await page.getByRole('dialog').getByRole('button', { name: 'Abbrechen' }).click();
    await openMenu(page, menu[3]);
    await page.locator('#table .row[data-row]').filter({ hasText: /^Downloads$/ }).click();
    await eventually(() => rows(page), (v) => assert.equal(v[0]?.texts[0], 'Downloads erlaubt'));
    assert.equal(await page.getByRole('switch', { name: 'Downloads erlaubt' }).getAttribute('aria-checked'), 'false');
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

  test('only our own Host and Origin are served, and changes come only as JSON from this site', async () => {
    const [json, text, form] = ['application/json', 'text/plain', 'application/x-www-form-urlencoded']
      .map((type) => ({ 'content-type': type }));
    const evil = 'http://evil.example', settings = '{"maxActiveDownloadCount":7}';
    const add = JSON.stringify({ url: files.url('x.bin.txt') }), share = `share_url=${encodeURIComponent(files.url('x.bin.txt'))}`;
    const ws = (o) => ({ connection: 'Upgrade', upgrade: 'websocket', 'sec-websocket-version': '13',
      'sec-websocket-key': randomBytes(16).toString('base64'), origin: o });
    const cases = [
      { what: 'own host', path: '/api/settings', status: 200 },
      { what: 'foreign host', path: '/', headers: { host: `evil.example:${port}` }, status: 403 },
      { what: 'foreign host, API', path: '/api/settings', headers: { host: `evil.example:${port}` }, status: 403 },
      { what: 'other port', path: '/api/settings', headers: { host: `127.0.0.1:${Number(port) + 1}` }, status: 403 },
      { what: 'foreign origin', path: '/api/settings', headers: { origin: evil }, status: 403 },
      { what: 'own origin', path: '/api/settings', headers: { origin }, status: 200 },
      { what: 'foreign origin PUT', method: 'PUT', path: '/api/settings', headers: { ...json, origin: evil }, body: settings, status: 403 },
      { what: 'foreign WebSocket', path: '/ws', headers: ws(evil), status: 403 },
      { what: 'own WebSocket', path: '/ws', headers: ws(origin), status: 101 },
      { what: 'text/plain POST', method: 'POST', path: '/api/downloads', headers: text, body: add, status: 415 },
      { what: 'form POST', method: 'POST', path: '/api/downloads', headers: form, body: add, status: 415 },
      { what: 'cross-site PUT', method: 'PUT', path: '/api/settings', headers: { ...text, 'sec-fetch-site': 'cross-site' }, body: settings, status: 403 },
      { what: 'cross-site JSON', method: 'PUT', path: '/api/settings', headers: { ...json, 'sec-fetch-site': 'cross-site' }, body: settings, status: 403 },
      { what: 'document deleted from a foreign origin', method: 'DELETE', path: '/api/documents/ok.txt', headers: { ...json, origin: evil }, status: 403 },
      { what: 'document deleted without JSON', method: 'DELETE', path: '/api/documents/ok.txt', headers: text, status: 415 },
      { what: 'document deleted cross-site', method: 'DELETE', path: '/api/documents/ok.txt', headers: { ...json, 'sec-fetch-site': 'cross-site' }, status: 403 },
      { what: 'document deleted out of the folder', method: 'DELETE', path: '/api/documents/..%2FLibrary%2FAccessToken', headers: json, status: 404 },
      { what: 'document renamed from a foreign origin', method: 'POST', path: '/api/documents/ok.txt/rename', headers: { ...json, origin: evil }, body: '{"name":"stolen.txt"}', status: 403 },
      // The share target takes no post, from another site least of all.
      { what: 'a form post to the share target', method: 'POST', path: '/', headers: form, body: share, status: 405 },
      { what: 'a cross-site post to the share target', method: 'POST', path: '/', headers: { ...form, 'sec-fetch-site': 'cross-site' }, body: share, status: 405 },
      { what: 'a foreign post to the share target', method: 'POST', path: '/', headers: { ...form, origin: evil }, body: share, status: 403 },
    ];
    for (const c of cases) assert.equal((await request(shelf.url, c)).status, c.status, c.what);
    assert.equal((await api(shelf.url, 'GET', '/api/settings')).body.maxActiveDownloadCount, 3, 'unchanged');
    assert.equal((await api(shelf.url, 'GET', '/api/downloads')).body.length, 0, 'nothing queued');
    assert.equal(await readFile(path.join(root, 'Documents', 'ok.txt'), 'utf8'), 'ok', 'the document is untouched');
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
