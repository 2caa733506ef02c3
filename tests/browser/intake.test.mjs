// Adding without a dialog per address: the Share menu's target, paste, and the "Add URLs" box.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { readdir } from 'node:fs/promises';
import { api, eventually, openPage, queue, shot, takeAlert, useHost, LONG, sleep } from './support.mjs';

const box = (page) => page.getByRole('dialog', { name: 'Add URLs' });
const outcomes = (page) => box(page).locator('.add-urls-results li')
  .evaluateAll((els) => els.map((e) => [e.className, e.textContent]));

// Presses Add and answers the intake's messages (its alert per address, its tip once)
// until the box comes back, then reads the `count` outcomes.
async function addAll(page, count) {
  await box(page).getByRole('button', { name: 'Add', exact: true }).click();
  for (const end = Date.now() + LONG; !(await box(page).isVisible()); await sleep(100)) {
    assert.ok(Date.now() < end, 'the box comes back');
    if (await page.locator('#alert[open]').count()) await takeAlert(page);
    else if (await page.locator('#tip').isVisible()) await page.getByRole('note').getByRole('button').click();
  }
  return eventually(() => outcomes(page), (v) => assert.equal(v.length, count));
}

describe('adding many addresses at once', { timeout: 6 * 60_000 }, () => {
  const h = useHost({ files: Object.fromEntries(['shared.txt', 'other.txt', 'pasted.txt', 'typed.txt']
    .map((n) => [n, { body: Buffer.from(`${n}\n`), type: 'text/plain' }])) });

  test('a link shared to the page waits in the box until Add, then each line says how it went', async (t) => {
    const text = `Look at ${h.files.url('shared.txt')}, and ${h.files.url('other.txt')}.`;
    const page = await openPage(t, `${h.shelf.url}?share_text=${encodeURIComponent(text)}&share_title=Links`);
    await box(page).waitFor();
    assert.equal(await box(page).getByRole('textbox').inputValue(), `${h.files.url('shared.txt')}\n${h.files.url('other.txt')}`);
    assert.equal(new URL(page.url()).search, '', 'the shared text leaves the address bar');
    const manifest = await api(h.shelf.url, 'GET', '/manifest.webmanifest');
    assert.deepEqual(manifest.body.share_target.params, { title: 'share_title', text: 'share_text', url: 'share_url' });
    assert.deepEqual(await queue(h.shelf.url), [], 'nothing is added before Add');
    await shot(page, 'add-urls-shared');
    const done = await addAll(page, 2);
    assert.deepEqual(done.map(([c]) => c), ['added', 'added']);
    assert.match(done[0][1], /Added: shared\.txt/);
    await eventually(() => readdir(h.docs),
      (v) => assert.deepEqual(v.filter((n) => n.endsWith('.txt')).sort(), ['other.txt', 'shared.txt']), LONG);
  });

  test('pasted links open the box; a line that is no address is refused beside it', async (t) => {
    const page = await openPage(t, h.shelf.url, { menu: 'Downloads' });
    await page.evaluate((text) => {
      const data = new DataTransfer();
      data.setData('text/plain', text);
      document.dispatchEvent(new ClipboardEvent('paste', { clipboardData: data, bubbles: true }));
    }, `see ${h.files.url('pasted.txt')}`);
    await box(page).waitFor();
    const lines = box(page).getByRole('textbox');
    await lines.fill(`${await lines.inputValue()}\nftp://nowhere.example/x\n\n${h.files.url('typed.txt')}`);
    const all = await addAll(page, 3);
    assert.deepEqual(all.map(([c]) => c), ['added', 'refused', 'added'], JSON.stringify(all));
    assert.match(all[1][1], /not an http\(s\) address/);
    assert.equal(await lines.inputValue(), 'ftp://nowhere.example/x', 'what was refused stays to be corrected');
  });
});
