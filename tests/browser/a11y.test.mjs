// An accessibility audit (axe-core) of every screen, light and dark, with
// screenshots of each at desktop and phone size.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { randomBytes } from 'node:crypto';
import { writeFile } from 'node:fs/promises';
import path from 'node:path';
import { ARTIFACTS, LONG, PHONE, api, audit, eventually, openMenu, openPage, rows, seedQueue, useHost } from './support.mjs';

// Each screen: the menu entry (and row) that reach it, a dialog opened there (its
// button, and the button that closes it), and a row it must show.
const screens = [
  { name: 'documents', menu: ['Documents'], shows: 'report.pdf' },
  { name: 'recent', menu: ['Recent'], shows: 'done.txt' },
  { name: 'downloads', menu: ['Downloads'], shows: 'queued.zip' },
  { name: 'settings', menu: ['Settings'], shows: 'Downloads' },
  { name: 'download-settings', menu: ['Settings', 'Downloads'], shows: 'Downloads Permitted' },
  { name: 'enter-url-dialog', menu: ['Downloads'], dialog: ['Enter URL', 'Cancel'], shows: 'queued.zip' },
  { name: 'add-urls', menu: ['Downloads'], dialog: ['Add URLs', 'Close'], shows: 'queued.zip' },
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
          await openMenu(page, ...screen.menu);
          const [opener, close] = screen.dialog ?? [];
          const dialog = page.getByRole('dialog', { name: opener });
          if (opener) {
            await page.getByRole('button', { name: opener, exact: true }).click();
            await dialog.waitFor();
          }
          await eventually(() => rows(page), (v) => assert.ok(v.some((r) => r.title === screen.shows
            || r.texts.includes(screen.shows)), `${screen.name}: ${JSON.stringify(v)}`));
          await page.waitForTimeout(300);  // transitions
          await page.screenshot({ path: path.join(ARTIFACTS, `${screen.name}-${colorScheme}-${size}.png`) });
          for (const v of await audit(page)) found.push({ screen: screen.name, size, ...v });
          if (close) await dialog.getByRole('button', { name: close }).click();
        }
      }
      await writeFile(path.join(ARTIFACTS, `axe-${colorScheme}.json`), JSON.stringify(found, null, 2));
      const serious = found.filter((v) => v.impact === 'serious' || v.impact === 'critical');
      assert.deepEqual(serious, [], JSON.stringify(serious, null, 2));
    });
  }
});
