// How frames blink: the first one, all of them once, and frames a second from then on. The session is made for it.
// node bench/viewer/blink.mjs [frames] [width x height], as in 20 3008x2008
import { execFileSync } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { openPage, serve, tool } from '../../tests/viewer/browser/support.mjs';

const [frames = '20', size = '3008x2008'] = process.argv.slice(2);
const folder = mkdtempSync(path.join(tmpdir(), 'korimg-bench-'));
const run = (...words) => execFileSync(tool, words, { stdio: ['ignore', 'ignore', 'inherit'] });
run('simulate', path.join(folder, 'night'), '--frames', frames, '--size', size, '--bayer', 'RGGB', '-q');
run('run', path.join(folder, 'night'), '--out', path.join(folder, 'out'), '-q');

const viewer = await serve([path.join(folder, 'out')]);
const { browser, page } = await openPage(viewer.address);
await page.locator('#dock tbody tr').first().waitFor();
await page.waitForFunction(() => document.querySelector('#stage progress')?.hidden);
const shown = () => page.evaluate(() => [performance.now() / 1000, Number(document.querySelector('#stage').dataset.shown ?? 0)]);
const until = (count) => page.waitForFunction((least) => Number(document.querySelector('#stage').dataset.shown) >= least, count,
                                              { timeout: 600_000, polling: 10 });
const [start] = await shown();
await page.keyboard.press('.');
await until(1);
const [first] = await shown();
console.log(`first frame, masters and hot pixels with it: ${(first - start).toFixed(2)} s`);
await page.keyboard.press(' ');
await until(Number(frames));
const [all] = await shown();
console.log(`each once: ${((all - first) / (frames - 1)).toFixed(2)} s a frame`);
const [from, before] = await shown();
await page.waitForTimeout(6000);
const [to, after] = await shown();
console.log(`then ${((after - before) / (to - from)).toFixed(2)} frames a second; ` +
  `memory of the viewer ${(viewer.peakMemory() / 2 ** 20).toFixed(0)} MiB at most`);
await browser.close();
await viewer.stop();
rmSync(folder, { recursive: true });
