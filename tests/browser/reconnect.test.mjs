// Losing the connection to the host loses nothing silently.
import { test, describe, before } from 'node:test';
import assert from 'node:assert/strict';
import {
  cleanups, eventually, openMenu, openPage, seedQueue, selectRow, startFileServer, startShelf, takeAlert, tempRoot, tool,
  useBrowser,
} from './support.mjs';

useBrowser();

describe('a restart of the host', { timeout: 5 * 60_000 }, () => {
  const defer = cleanups();
  let root, shelf;
  before(async () => {
    root = await tempRoot(defer);
    shelf = await startShelf(root);
    defer(() => shelf.stop());
  });

  test('while it is down the page is dimmed and inert; a URL confirmed meanwhile is refused visibly, not dropped', async (t) => {
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Downloads');
    await tool(page, 'Enter URL');
    const dialog = page.getByRole('dialog');
    await dialog.getByRole('textbox').fill('http://example.invalid/typed-while-down.zip');
    await shelf.stop();
    await page.locator('#banner').waitFor();
    const offline = await page.evaluate(() => ({
      inert: ['menu', 'table', 'toolbar'].map((id) => document.getElementById(id).inert),
      dimmed: Number(getComputedStyle(document.getElementById('table')).opacity) < 1,
    }));
    assert.deepEqual(offline, { inert: [true, true, true], dimmed: true });
    await dialog.getByRole('button', { name: 'OK' }).click();  // the dialog still takes the answer

    shelf = await startShelf(root, [], new URL(shelf.url).port);
    await page.locator('#banner').waitFor({ state: 'hidden', timeout: 30_000 });
    const notice = await takeAlert(page);
    assert.match(notice, /could not be delivered/);
    assert.match(notice, /typed-while-down\.zip/, 'the typed address is shown, not lost');
    assert.equal(await page.evaluate(() => document.getElementById('toolbar').inert), false);
    assert.equal(await page.textContent('#title'), 'Downloads', 'the screen comes back');
  });

  test('the selected downloads are selected again after a restart', async (t) => {
    const files = await startFileServer({ 'a.zip': { body: Buffer.alloc(10) }, 'b.zip': { body: Buffer.alloc(10) } });
    t.after(() => files.close());
    await seedQueue(shelf.url, files, ['a.zip', 'b.zip']);
    const page = await openPage((f) => t.after(f), shelf.url);
    await openMenu(page, 'Downloads');
    const selected = () => page.$$eval('#table .row.selected', (els) => els.map((e) => e.dataset.row));
    await selectRow(page, 1);
    await eventually(selected, (rows) => assert.deepEqual(rows, ['1']));

    await shelf.stop();
    await page.locator('#banner').waitFor();
    shelf = await startShelf(root, [], new URL(shelf.url).port);
    await page.locator('#banner').waitFor({ state: 'hidden', timeout: 30_000 });
    await eventually(selected, (rows) => assert.deepEqual(rows, ['1']));
    const remove = page.getByRole('toolbar').getByRole('button', { name: 'Remove', exact: true });
    assert.equal(await remove.isEnabled(), true, 'the toolbar follows the restored selection');
  });
});
