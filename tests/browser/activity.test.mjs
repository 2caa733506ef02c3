// What the Downloads screen says beyond its rows: speed and time left, why a
// download waits, and that the queue is paused.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { randomBytes } from 'node:crypto';
import { LONG, api, queue, shot, eventually, openPage, useHost } from './support.mjs';

const describeRow = (page, row) => page.locator(`#table .row[data-row="${row}"]`)
  .evaluate((e) => ({ title: e.title, description: e.getAttribute('aria-description') }))
  .catch(() => ({ title: '', description: null }));
const summary = (page) => page.locator('#summary').evaluate((e) => (e.hidden ? null : e.textContent));

describe('what the queue is doing', { timeout: 6 * 60_000 }, () => {
  const h = useHost({ files: {
    // About 320 KB/s for 3 MB: some ten seconds, a report about every second.
    'slow.dat': { body: randomBytes(3_000_000), rate: 320 * 1024 },
    'failing.dat': { body: randomBytes(50_000), failWith: 503 },
  } });
  // Adds `name` and opens the queue.
  const add = async (t, name) => {
    const added = await api(h.shelf.url, 'POST', '/api/downloads', { url: h.files.url(name) });
    assert.equal(added.status, 201);
    return openPage(t, h.shelf.url, { menu: 'Downloads' });
  };

  test('a running download shows its speed and time left; nothing is left once it is done', async (t) => {
    const page = await add(t, 'slow.dat');
    // The user allowed notifications; they are recorded rather than shown.
    await page.evaluate(() => {
      window.notes = [];
      window.Notification = class {
        static permission = 'granted';
        constructor(title, options) { window.notes.push([title, options?.body]); }
      };
    });
    const row = await eventually(() => describeRow(page, 0),
      (v) => assert.match(v.description ?? '', /^[\d.]+ (KB|MB)\/s · about \d+ (s|min) left$/), LONG);
    assert.equal(row.title, row.description, 'the tooltip says the same');
    await shot(page, 'downloads-running');
    assert.match(await summary(page), /^1 downloading · [\d.]+ (KB|MB)\/s · about \d+ (s|min) left$/);
    const [item] = await queue(h.shelf.url);
    assert.ok(item.bytesPerSecond > 0 && item.secondsLeft > 0, JSON.stringify(item));
    await eventually(() => queue(h.shelf.url), (v) => assert.deepEqual(v, []), LONG);
    await eventually(() => summary(page), (v) => assert.equal(v, null));
    // It is not gone without a word: the Finished strip offers it, and the browser announced it.
    const finished = page.getByRole('region', { name: 'Finished' });
    await finished.getByRole('link', { name: 'Open slow.dat' }).waitFor({ timeout: 10_000 });
    assert.match(await finished.getByRole('link', { name: 'Save slow.dat' }).getAttribute('href'), /\/documents\/slow\.dat\?download=1$/);
    assert.deepEqual(await page.evaluate(() => window.notes), [['Finished', 'slow.dat']]);
    await shot(page, 'downloads-finished');
  });

  test('a failing download says why and counts down; while downloads are not permitted a banner says so', async (t) => {
    const page = await add(t, 'failing.dat');
    const waiting = /^Last try failed: .+ · next try in (\d+) s$/;
    const first = await eventually(() => describeRow(page, 0), (v) => assert.match(v.description ?? '', waiting), LONG);
    const [item] = await queue(h.shelf.url);
    assert.ok(item.lastError, 'the API says why');
    assert.ok(item.retryAt > Date.now() / 1000 && item.bytesPerSecond === null, JSON.stringify(item));
    const secondsLeft = (v) => Number(waiting.exec(v.description ?? '')?.[1] ?? NaN);
    await eventually(() => describeRow(page, 0), (v) => {
      assert.ok(secondsLeft(v) < secondsLeft(first), `${v.description} after ${first.description}`);
    });

    const banner = page.locator('#paused');
    assert.equal(await banner.isVisible(), false);
    assert.equal((await api(h.shelf.url, 'PUT', '/api/settings', { downloadsPermitted: false })).status, 200);
    await banner.waitFor();
    await shot(page, 'downloads-paused');
    assert.match(await banner.textContent(), /Downloads are paused\s+Downloads are not permitted in Settings\./);
    await banner.getByRole('button', { name: 'Settings' }).click();
    await page.waitForFunction(() => document.getElementById('title').textContent === 'Settings');
    assert.equal(await banner.isVisible(), false, 'only the queue shows it');
  });
});
