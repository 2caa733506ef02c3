// The Downloads screen with a long queue in headless Chromium, against a running
// `shelf serve` (bench/ui.sh starts it):  node ui_bench.mjs URL [runs]
//
// First paint: from the click on the Downloads menu item (performance.now() taken
// in the page just before the click) to window.__shelf.firstScreenAt, the start of
// the first animation frame after a screen with rows was put in the DOM. So it
// covers the round trip over /ws, building the screen on the host (the first open
// also creates the download manager, loading every saved record) and rendering it.
// Each run opens a new page and waits until it has settled; the Documents screen it
// starts on has no rows, so firstScreenAt is still unset at the click.
//
// Then the table is scrolled to the bottom one viewport at a time, waiting at each
// step until every row in the DOM has its cell, and the number of distinct cells
// the page ever received (window.__shelf.cellsMaterialized) is printed.
import { chromium } from '../tests/browser/node_modules/playwright-core/index.mjs';

const [url, runsArg] = process.argv.slice(2);
const runs = Number(runsArg ?? 5);
if (!url) {
  console.error('usage: node ui_bench.mjs URL [runs]');
  process.exit(2);
}

const errors = [];
const median = (xs) => {
  const s = [...xs].sort((a, b) => a - b), m = s.length >> 1;
  return s.length % 2 ? s[m] : (s[m - 1] + s[m]) / 2;
};

async function openDownloads(browser) {
  const page = await browser.newPage({ viewport: { width: 1100, height: 1000 } });
  page.on('pageerror', (e) => errors.push(e.message));
  await page.goto(url);
  await page.waitForFunction(() => document.getElementById('title').textContent !== ''
    && [...document.querySelectorAll('#menu .menu-item')].some((b) => b.textContent === 'Downloads'));
  // Clicks on a settled page: the load's own work (icons, first layouts) is not counted.
  await page.waitForLoadState('networkidle');
  await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));
  const clickedAt = await page.evaluate(() => {
    if (window.__shelf.firstScreenAt !== null) throw new Error('rows were painted before the click');
    const item = [...document.querySelectorAll('#menu .menu-item')].find((b) => b.textContent === 'Downloads');
    const t0 = performance.now();
    item.click();
    return t0;
  });
  const paintedAt = await (await page.waitForFunction(() => window.__shelf.firstScreenAt,
    null, { timeout: 120_000, polling: 'raf' })).jsonValue();
  return { page, ms: paintedAt - clickedAt };
}

// Steps through the whole table; returns the title of the last row.
async function scrollToBottom(page) {
  const settled = () => page.waitForFunction(() => {
    const rows = [...document.querySelectorAll('#table .row[data-row]')];
    return rows.length > 0 && rows.every((r) => r.querySelector('.cell'));
  }, null, { timeout: 30_000, polling: 'raf' });
  await settled();
  for (;;) {
    const done = await page.evaluate(() => {
      const t = document.getElementById('table');
      if (t.scrollTop + t.clientHeight >= t.scrollHeight - 1) return true;
      t.scrollTop += t.clientHeight;
      return false;
    });
    if (done) break;
    await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));
    await settled();
  }
  return page.evaluate(() => {
    const rows = [...document.querySelectorAll('#table .row[data-row]')];
    const last = rows.reduce((a, b) => (Number(b.dataset.row) > Number(a.dataset.row) ? b : a));
    return { row: Number(last.dataset.row), title: last.querySelector('.v[data-style="largeTitle"]')?.textContent };
  });
}

const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox'] });
try {
  const times = [];
  let page;
  for (let i = 1; i <= runs; i++) {
    await page?.close();
    const run = await openDownloads(browser);
    page = run.page;
    times.push(run.ms);
    console.log(`run ${i}: first paint ${run.ms.toFixed(1)} ms${i === 1 ? ' (includes creating the download manager)' : ''}`);
  }
  const last = await scrollToBottom(page);
  console.log(`scrolled to row ${last.row} (${last.title}); rows in DOM ${await page.evaluate(() => window.__shelf.rowsInDom())}`);
  if (errors.length) throw new Error(`script errors in the page: ${errors.join('; ')}`);
  console.log(`ui_cells_materialized ${await page.evaluate(() => window.__shelf.cellsMaterialized)}`);
  console.log(`ui_first_paint_ms_10000 ${median(times).toFixed(1)}`);
} finally {
  await browser.close();
}
