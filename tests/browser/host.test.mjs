// The front end against a real `shelf serve` on loopback, downloading from a small
// file server in this process. Each group gets its own root and its own shelf.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { randomBytes } from 'node:crypto';
import { readFile, writeFile } from 'node:fs/promises';
import path from 'node:path';
import {
  LONG, sleep, TIP, MARKUP, browser, useHost, api, queue, seedQueue, openPage, openMenu, eventually, rows, titles, tools,
  tool, selectRow, enterUrl, takeAlert,
} from './support.mjs';

// --- Groups -----------------------------------------------------------------

describe('adding a URL through the screen', { timeout: 8 * 60_000 }, () => {
  const big = randomBytes(4 * 1024 * 1024 + 123);
  const h = useHost({ files: {
    'big.dat': { body: big, rate: 640 * 1024 },
    'slow-probe.dat': { body: big, probeDelayMs: 60_000 },
    'later.txt': { body: Buffer.from('later\n'), type: 'text/plain' },
  } });

  test('an incorrect URL or a cancelled check adds nothing; a file goes from the queue to Documents and Recent', async (t) => {
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    // Which texts are URLs is table_screen_test's (Formatting.URLsFromTypedText); here the alert is shown.
    await enterUrl(page, 'file:///etc/passwd');
    assert.equal(await takeAlert(page), 'Incorrect URL');
    await enterUrl(page, h.files.url('slow-probe.dat'));
    await page.waitForSelector('#overlay:not([hidden])');
    assert.equal(await page.textContent('#overlay .overlay-message'), 'Checking URL...');
    await page.click('#overlay .overlay-cancel');
    await page.waitForSelector('#overlay', { state: 'hidden' });
    await sleep(300);
    assert.equal(await page.locator('#alert[open], #tip:not([hidden])').count(), 0);
    assert.deepEqual(await rows(page), []);
    assert.deepEqual(await queue(h.shelf.url), []);

    await enterUrl(page, h.files.url('big.dat'));
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
    assert.deepEqual([row.title, row.details[0]], ['big.dat', h.files.url('big.dat')]);
    await eventually(() => rows(page), (v) => assert.deepEqual(v, []), LONG);
    assert.ok((await readFile(path.join(h.docs, 'big.dat'))).equals(big), 'same bytes as the source');
    for (const screen of ['Documents', 'Recent']) {
      await openMenu(page, screen);
      await eventually(() => titles(page), (v) => assert.ok(v.includes('big.dat'), `${screen}: ${v}`));
    }
  });

  // Offered once within a run is the bridge's (host_test); that it is remembered is the root's.
  test('the tip is not offered again after a restart', { timeout: 5 * 60_000 }, async (t) => {
    await h.shelf.stop();
    await h.start();
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    await enterUrl(page, h.files.url('later.txt'));
    assert.equal(await takeAlert(page), 'File added to download queue');
    // A tip would be sent before the answer to this later request.
    await openMenu(page, 'Recent');
    assert.equal(await page.locator('#tip').isHidden(), true);
  });
});

// Which buttons a selection enables, and what they do, is downloads_ui_test's table;
// here taps and keys reach the host and its answers reach the toolbar.
describe('selection and the toolbar', { timeout: 5 * 60_000 }, () => {
  const names = ['f0.zip', 'f1.zip', 'f2.zip', 'f3.zip'];
  let ids, page;
  const h = useHost({
    files: Object.fromEntries(names.map((n) => [n, { body: randomBytes(1000) }])),
    ready: async (h) => {
      ids = await seedQueue(h, names, [1, 3]);  // rows 1 and 3 stopped
      page = await openPage(h.defer, h.shelf.url, { menu: 'Downloads' });
      await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => [r.title, r.status]),
        [['f0.zip', 'queued'], ['f1.zip', 'stopped'], ['f2.zip', 'queued'], ['f3.zip', 'stopped']]));
    },
  });
  const selected = async (want, why) => eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.selected), want, why));

  test('taps and keys select rows, the toolbar follows, and removing asks first', async () => {
    const none = { 'Enter URL': true, Start: false, Stop: false, Remove: false, 'Select All': true, 'Deselect All': false };
    const some = { ...none, Remove: true, 'Deselect All': true };
    await selectRow(page, 0);
    await selectRow(page, 1);
    await eventually(() => tools(page), (v) => assert.deepEqual(v, { ...some, Start: true, Stop: true }));
    await selectRow(page, 0);  // tapping again deselects
    await eventually(() => tools(page), (v) => assert.deepEqual(v, { ...some, Start: true }));
    await tool(page, 'Deselect All');
    await eventually(() => tools(page), (v) => assert.deepEqual(v, none));

    const focused = () => page.evaluate(() => {
      const row = document.activeElement?.closest('.row');
      return row ? { row: Number(row.dataset.row), ring: getComputedStyle(row, '::before').borderTopWidth } : null;
    });
    await page.locator('#table .row[data-row="0"]').focus();
    for (const key of ['ArrowDown', 'ArrowDown', 'ArrowUp']) await page.keyboard.press(key);
    assert.deepEqual(await focused(), { row: 1, ring: '2px' }, 'the focused row shows a ring');
    await page.keyboard.press('Space');
    await selected([false, true, false, false]);
    // These keys press the toolbar's Select All and Deselect All.
    await page.keyboard.press('Control+a');
    await selected([true, true, true, true]);
    await eventually(() => tools(page), (v) => assert.deepEqual(v, { ...some, Start: true, Stop: true, 'Select All': false }));
    await page.keyboard.press('Escape');
    await selected([false, false, false, false]);
    await page.keyboard.press('Delete');
    await sleep(300);
    assert.equal(await page.getByRole('dialog').count(), 0, 'Remove is disabled with nothing selected, so Delete does nothing');

    // Removing rows 0 and 2 asks first; cancel keeps them selected.
    await selectRow(page, 0);
    await selectRow(page, 2);
    await eventually(() => tools(page), (v) => assert.equal(v.Remove, true));
    await page.keyboard.press('Delete');  // presses Remove
    await page.waitForSelector('#dialog[open]');
    assert.equal(await page.textContent('#dialog .dialog-text'), 'Are you sure you want to delete selected items?');
    await page.click('#dialog .dialog-cancel');
    await sleep(300);
    assert.deepEqual((await rows(page)).map((r) => r.selected), [true, false, true, false]);
    await tool(page, 'Remove');
    await page.click('#dialog[open] .dialog-ok');
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => [r.title, r.selected]),
      [['f1.zip', false], ['f3.zip', false]]));
    assert.deepEqual((await queue(h.shelf.url)).map((d) => d.uniqueId), [ids[1], ids[3]]);
  });
});

// The switches and the 1 to 10 limits are downloads_ui_test's; here the page's controls reach the stored settings.
describe('the settings page', { timeout: 5 * 60_000 }, () => {
  const h = useHost();
  const setting = async (key) => (await api(h.shelf.url, 'GET', '/api/settings')).body[key];

  test('shows the stored count, steps and stores it, and "Downloads Permitted" collapses the page', async (t) => {
    assert.equal((await api(h.shelf.url, 'PUT', '/api/settings', { maxActiveDownloadCount: 2 })).status, 200);
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    await openMenu(page, 'Settings', 'Downloads');
    assert.equal(await page.locator('#toolbar').isHidden(), true, "the queue's toolbar goes");
    const labels = ['Downloads Permitted', 'Use Cellular Data', 'Active Downloads Count'];
    const shown = async () => {
      const v = await rows(page);
      return [...v.map((r) => r.texts[0]), v[2]?.texts.at(-1)];
    };
    await eventually(shown, (v) => assert.deepEqual(v, [...labels, '2']));
    const stepper = page.getByRole('group', { name: 'Active Downloads Count' });
    const decrease = stepper.getByRole('button', { name: 'Decrease' });
    for (const [control, value] of [[decrease, 1], [stepper.getByRole('button', { name: 'Increase' }), 2]]) {
      await control.click();
      await eventually(async () => [(await shown())[3], await setting('maxActiveDownloadCount'), await decrease.isDisabled()],
        (v) => assert.deepEqual(v, [String(value), value, value === 1]));
    }
    for (const [on, want] of [[false, labels.slice(0, 1)], [true, labels]]) {
      const permitted = page.getByRole('switch', { name: 'Downloads Permitted' });
      await permitted.click();
      await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => r.texts[0]), want));
      assert.equal(await permitted.getAttribute('aria-checked'), String(on));
      assert.equal(await setting('downloadsPermitted'), on);
    }
  });
});

describe('in German', { timeout: 5 * 60_000 }, () => {
  const h = useHost({ files: { 'stopped.zip': { body: randomBytes(100) } }, args: ['--lang', 'de'],
    ready: (h) => seedQueue(h, ['stopped.zip'], [0]) });

  test('menu, screen, toolbar and status are translated', async (t) => {
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    assert.deepEqual(await page.$$eval('#menu .menu-item .menu-title', (els) => els.map((e) => e.textContent)),
      ['Dokumente', 'Zuletzt verwendet', 'Downloads', 'Einstellungen']);
    await eventually(() => rows(page), (v) => assert.deepEqual(v.map((r) => [r.title, r.status]), [['stopped.zip', 'angehalten']]));
    assert.ok((await rows(page))[0].details.includes('0 Byte / 100 Byte (0%)'), 'sizes in German units');
    assert.equal(await page.getAttribute('html', 'lang'), 'de');
    assert.deepEqual(Object.keys(await tools(page)).sort(),
      ['Alle auswählen', 'Anhalten', 'Auswahl aufheben', 'Entfernen', 'Starten', 'URL eingeben']);
  });
});

// Host, Origin, content type and paths are checked request by request in web_server_test
// and host_test; here is what takes a real browser, and the rules wired into `shelf serve`.
describe('security', { timeout: 5 * 60_000 }, () => {
  const files = { 'x.bin.txt': { body: randomBytes(100), disposition: `attachment; filename="${MARKUP}"` } };
  const h = useHost({
    files,
    ready: async (h) => {
      await writeFile(path.join(h.root, 'Library', 'secret'), 'secret-that-must-not-leak\n');
      await writeFile(path.join(h.docs, 'ok.txt'), 'ok');
    },
  });

  test('another site can neither show the UI in a frame nor drive the host', async (t) => {
    // A page of another origin (the file server's) with two frames: its own, which loads, and the shelf's.
    files['own.html'] = { body: Buffer.from('<p id="own">own</p>'), type: 'text/html' };
    files['framer.html'] = { body: Buffer.from(`<iframe src="own.html"></iframe><iframe src="${h.shelf.url}"></iframe>`), type: 'text/html' };
    const page = await browser.newPage();
    t.after(() => page.close());
    const sockets = [];
    page.on('websocket', (ws) => sockets.push(ws.url()));
    await page.goto(h.files.url('framer.html'), { waitUntil: 'load' });
    const [own, framed] = page.frames().slice(1);
    assert.equal(await own.locator('#own').count(), 1, 'a frame of its own loads');
    assert.equal(await framed.locator('#table').count(), 0, 'the UI is not rendered in the frame');
    assert.deepEqual(sockets, [], 'no WebSocket is opened from the frame');
    // Its script adds a download as a form would, and opens the UI's WebSocket.
    const socket = await page.evaluate(async ([base, add]) => {
      await fetch(`${base}api/downloads`, { method: 'POST', mode: 'no-cors', body: JSON.stringify({ url: add }) });
      return new Promise((r) => Object.assign(new WebSocket(`${base.replace('http', 'ws')}ws`), {
        onopen: () => r('opened'), onerror: () => r('refused') }));
    }, [h.shelf.url, h.files.url('x.bin.txt')]);
    assert.equal(socket, 'refused');
    assert.deepEqual(await queue(h.shelf.url), [], 'nothing queued');
  });

  test('shelf serve takes changes only as JSON and serves nothing outside Documents', async () => {
    const add = await api(h.shelf.url, 'POST', '/api/downloads', { url: h.files.url('x.bin.txt') }, 'text/plain');
    assert.equal(add.status, 415);
    assert.equal((await api(h.shelf.url, 'GET', '/documents/ok.txt')).body, 'ok');
    // Decoded before the folder check, which sees "../Library/secret".
    const out = await api(h.shelf.url, 'GET', '/documents/%2E%2E%2FLibrary%2Fsecret');
    assert.equal(out.status, 404);
    assert.ok(!out.body.includes('secret'));
  });

  test('a file name with markup is shown as text', async (t) => {
    const [id] = await seedQueue(h, ['x.bin.txt']);
    assert.equal((await queue(h.shelf.url)).find((d) => d.uniqueId === id).filename, MARKUP);
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    await eventually(() => rows(page), (v) => assert.equal(v[0]?.title, MARKUP));
    assert.equal(await page.locator('#table img').count(), 0);
    assert.equal(await page.evaluate(() => window.__pwned), undefined);
  });
});
