// How long previews of operations take: KORIMG_TOOL=... node bench/viewer/previews.mjs FOLDER, over the loopback.
import { execFileSync } from 'node:child_process';
import { existsSync } from 'node:fs';
import path from 'node:path';
import { performance } from 'node:perf_hooks';
import { serve, tool } from '../../tests/viewer/browser/support.mjs';

const [folder] = process.argv.slice(2);
const night = path.join(folder, 'previews');
if (!existsSync(night)) execFileSync(tool, ['simulate', night, '--frames', '2', '--seed', '3', '-q']);
const viewer = await serve([path.join(night, 'lights')]);
const { address } = viewer;
await (await fetch(`${address}files`)).json();
while ((await (await fetch(`${address}image/info?id=0`)).json()).progress < 1) await new Promise((done) => setTimeout(done, 50));

const middle = (values, share) => values.toSorted((a, b) => a - b)[Math.floor(share * (values.length - 1))];
for (const [name, step, seen, scale, isAsIs = true] of [
  ['bright at 1:1', (i) => ({ operation: 'bright', values: { bright: i } }), [600, 500, 1560, 1148], 1],
  ['unsharp, sigma 3, at 1:1', (i) => ({ operation: 'unsharp', values: { sigma: 3, strength: 1 + i / 50 } }), [600, 500, 1560, 1148], 1],
  ['bright of all, seen at 0.3', (i) => ({ operation: 'bright', values: { bright: i } }), [0, 0, 3008, 2008], 0.3],
  ['ghs at 1:1, stretched anew', (i) => ({ operation: 'ghs', values: { amount: 1 + i / 20 } }), [600, 500, 1560, 1148], 1, false],
  ['gradient of all', (i) => ({ operation: 'gradient', values: { smoothing: i / 50 } }), [0, 0, 3008, 2008], 0.3],
]) {
  const times = [];
  for (let i = 1; i <= 40; ++i) {
    const start = performance.now();
    const answer = await fetch(`${address}operations/preview`, {
      method: 'POST', headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ id: 0, steps: [step(i)], seen, scale, as_is: isAsIs }) });
    if (!answer.ok) throw new Error(`${name}: ${await answer.text()}`);
    await answer.arrayBuffer();
    times.push(performance.now() - start);
  }
  console.log(`${name}: ${middle(times, 0.5).toFixed(0)} ms, 95th percentile ${middle(times, 0.95).toFixed(0)} ms`);
}
await viewer.stop();
