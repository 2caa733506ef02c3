// Losing the connection to the host loses nothing silently.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { eventually, openPage, seedQueue, selectRow, takeAlert, tool, useHost } from './support.mjs';

describe('a restart of the host', { timeout: 5 * 60_000 }, () => {
  const h = useHost({ files: { 'a.zip': { body: Buffer.alloc(10) }, 'b.zip': { body: Buffer.alloc(10) } },
    ready: (h) => seedQueue(h, ['a.zip', 'b.zip']) });

  test('while it is down the page is inert; a URL confirmed meanwhile is refused visibly, and the selection comes back', async (t) => {
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    const selected = () => page.$$eval('#table .row.selected', (els) => els.map((e) => e.dataset.row));
    await selectRow(page, 1);
    await eventually(selected, (rows) => assert.deepEqual(rows, ['1']));
    await tool(page, 'Enter URL');
    const dialog = page.getByRole('dialog');
    await dialog.getByRole('textbox').fill('http://example.invalid/typed-while-down.zip');

    const port = new URL(h.shelf.url).port;
    await h.shelf.stop();
    await page.locator('#banner').waitFor();
    const offline = await page.evaluate(() => ({
      inert: ['menu', 'table', 'toolbar'].map((id) => document.getElementById(id).inert),
      dimmed: Number(getComputedStyle(document.getElementById('table')).opacity) < 1,
    }));
    assert.deepEqual(offline, { inert: [true, true, true], dimmed: true });
    await dialog.getByRole('button', { name: 'OK' }).click();  // the dialog still takes the answer

    await h.start(port);
    await page.locator('#banner').waitFor({ state: 'hidden', timeout: 30_000 });
    const notice = await takeAlert(page);
    assert.match(notice, /could not be delivered/);
    assert.match(notice, /typed-while-down\.zip/, 'the typed address is shown, not lost');
    assert.equal(await page.textContent('#title'), 'Downloads', 'the screen comes back');
    assert.equal(await page.evaluate(() => document.getElementById('toolbar').inert), false);
    await eventually(selected, (rows) => assert.deepEqual(rows, ['1']));
    const remove = page.getByRole('toolbar').getByRole('button', { name: 'Remove', exact: true });
    assert.equal(await remove.isEnabled(), true, 'the toolbar follows the restored selection');
  });
});
