// Managing the documents folder from the Documents screen.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { readdir, readFile, writeFile } from 'node:fs/promises';
import path from 'node:path';
import { PHONE, eventually, openPage, shot, takeAlert, useHost } from './support.mjs';

// The names the Documents screen lists, in order.
const listed = (page) => page.$$eval('#table .row[data-row] .v[data-style="largeTitle"]', (els) => els.map((e) => e.textContent).sort());

describe('documents', { timeout: 5 * 60_000 }, () => {
  const h = useHost({ ready: async (h) => {
    for (const name of ['a.txt', 'b.txt', 'c.txt']) await writeFile(path.join(h.docs, name), name);
  } });

  test('delete asks first and cancel keeps the file; rename refuses hostile and taken names visibly', async (t) => {
    const page = await openPage(t, h.shelf.url, { menu: 'Documents' });
    await eventually(() => listed(page), (v) => assert.deepEqual(v, ['a.txt', 'b.txt', 'c.txt']));
    const dialog = page.getByRole('dialog');
    for (const [answer, left] of [['Cancel', ['a.txt', 'b.txt', 'c.txt']], ['Delete', ['a.txt', 'b.txt']]]) {
      await page.getByRole('button', { name: 'Delete c.txt' }).click();
      assert.match(await dialog.getByRole('heading').textContent(), /c\.txt/);
      await dialog.getByRole('button', { name: answer }).click();
      await dialog.waitFor({ state: 'hidden' });
      await eventually(() => listed(page), (v) => assert.deepEqual(v, left, answer));
      assert.deepEqual((await readdir(h.docs)).sort(), left, answer);
    }

    // Rename offers the name, refuses hostile and taken names visibly, then renames.
    const rename = async (from, to) => {
      await page.getByRole('button', { name: `Rename ${from}` }).click();
      const box = dialog.getByRole('textbox');
      assert.equal(await box.inputValue(), from, 'the current name is offered');
      await box.fill(to);
      await dialog.getByRole('button', { name: 'Rename' }).click();
    };
    // Which names are refused is host_test's (ApiTest); here the refusal is shown.
    for (const [to, reason] of [['../escaped.txt', /slash/], ['b.txt', /already exists/]]) {
      await rename('a.txt', to);
      assert.match(await takeAlert(page), reason, to);
    }
    assert.deepEqual((await readdir(h.docs)).sort(), ['a.txt', 'b.txt']);
    assert.deepEqual((await readdir(h.root)).sort(), ['Documents', 'Library'], 'nothing left the folder');
    await rename('a.txt', 'report 2.txt');
    await eventually(() => listed(page), (v) => assert.deepEqual(v, ['b.txt', 'report 2.txt']));
    assert.equal(await readFile(path.join(h.docs, 'report 2.txt'), 'utf8'), 'a.txt');
  });

  test('on a phone a long name is cut in the middle and keeps its extension', async (t) => {
    const long = 'Quarterly report of the regional office with every appendix and the minutes.pdf';
    await writeFile(path.join(h.docs, long), 'x');
    const page = await openPage(t, h.shelf.url, { menu: 'Documents', viewport: PHONE });
    const label = page.locator('#table .v-label[data-style="largeTitle"]').filter({ hasText: 'Quarterly' });
    const shown = await eventually(() => label.evaluate((e) => ({
      visible: e.querySelector('[aria-hidden="true"]')?.textContent ?? e.textContent,
      read: e.querySelector('.sr-only')?.textContent,
      tooltip: e.title,
    })), (v) => assert.match(v.visible, /^Qu.*\u2026.*\.pdf$/));
    assert.ok(shown.visible.length < long.length, shown.visible);
    assert.deepEqual([shown.read, shown.tooltip], [long, long], 'a screen reader and the tooltip give the whole name');
    await shot(page, 'documents-long-name-phone');
  });
});
