// An accessibility audit (axe-core) of every screen, light and dark, with
// screenshots of each at desktop and phone size.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { randomBytes } from 'node:crypto';
import { writeFile } from 'node:fs/promises';
import path from 'node:path';
import { ARTIFACTS, LONG, PHONE, api, audit, eventually, openMenu, openPage, rows, seedQueue, useHost } from './support.mjs';

// A dialog over the queue, opened by the button `name` and closed by its `close` button.
const dialog = (name, close) => ({
  open: async (page) => {
    await openMenu(page, 'Downloads');
    await page.getByRole('button', { name, exact: true }).click();
    await page.getByRole('dialog', { name }).waitFor();
  },
  close: (page) => page.getByRole('dialog', { name }).getByRole('button', { name: close }).click(),
});
// Each screen: how to reach it from the page, and a row it must show once there.
const screens = [
  { name: 'documents', open: (page) => openMenu(page, 'Documents'), shows: 'report.pdf' },
  { name: 'recent', open: (page) => openMenu(page, 'Recent'), shows: 'done.txt' },
  { name: 'downloads', open: (page) => openMenu(page, 'Downloads'), shows: 'queued.zip' },
  { name: 'settings', open: (page) => openMenu(page, 'Settings'), shows: 'Downloads' },
  { name: 'download-settings', open: (page) => openMenu(page, 'Settings', 'Downloads'), shows: 'Downloads Permitted' },
  { name: 'enter-url-dialog', ...dialog('Enter URL', 'Cancel'), shows: 'queued.zip' },
  { name: 'add-urls', ...dialog('Add URLs', 'Close'), shows: 'queued.zip' },
];

describe('accessibility', { timeout: 8 * 60_000 }, () => {
  const h = useHost({
    files: { 'done.txt': { body: Buffer.from('done\n'), type: 'text/plain' }, 'queued.zip': { body: randomBytes(1000) } },
    ready: async (h) => {
      await writeFile(path.join(h.docs, 'report.pdf'), '%PDF-1.4\n');
      assert.equal((await api(h.shelf.url, 'POST', '/api/downloads', { url: h.files.url('done.txt') })).status, 201);
      await eventually(() => api(h.shelf.url, 'GET', '/api/recent'), (r) => assert.ok(r.body.some((s) => s.items.length > 0)), LONG);
      await seedQueue(h, ['queued.zip']);  // stays queued: downloads are not permitted
    },
  });

  for (const colorScheme of ['light', 'dark']) {
    test(`no serious or critical violation on any screen, ${colorScheme}`, async (t) => {
      const found = [];
      for (const [size, viewport] of [['desktop', undefined], ['phone', PHONE]]) {
        const page = await openPage(t, h.shelf.url, { viewport, colorScheme });
        for (const screen of screens) {
          await screen.open(page);
          await eventually(() => rows(page), (v) => assert.ok(v.some((r) => r.title === screen.shows
            || r.texts.includes(screen.shows)), `${screen.name}: ${JSON.stringify(v)}`));
          await page.waitForTimeout(300);  // transitions
          await page.screenshot({ path: path.join(ARTIFACTS, `${screen.name}-${colorScheme}-${size}.png`) });
          for (const v of await audit(page)) found.push({ screen: screen.name, size, ...v });
          await screen.close?.(page);
        }
      }
      await writeFile(path.join(ARTIFACTS, `axe-${colorScheme}.json`), JSON.stringify(found, null, 2));
      const serious = found.filter((v) => v.impact === 'serious' || v.impact === 'critical');
      assert.deepEqual(serious, [], JSON.stringify(serious, null, 2));
    });
  }
});
