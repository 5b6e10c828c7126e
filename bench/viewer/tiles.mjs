// How long tiles take: the first one of a picture, and those of a walk through it. The images are made for it.
// node bench/viewer/tiles.mjs [megapixels:memory ...], as in 60:4G 600:240M
import { closeSync, mkdtempSync, openSync, rmSync, statSync, writeSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { performance } from 'node:perf_hooks';
import { serve } from '../../tests/viewer/browser/support.mjs';

const rows = 256;

/** Writes a FITS file of floats: a sky of noise, the same every 256 rows. */
function write(file, width, height) {
  const cards = ['SIMPLE  =                    T', 'BITPIX  =                  -32', 'NAXIS   =                    2',
    `NAXIS1  = ${String(width).padStart(20)}`, `NAXIS2  = ${String(height).padStart(20)}`, 'END'];
  const output = openSync(file, 'w');
  writeSync(output, cards.map((card) => card.padEnd(80)).join('').padEnd(2880));
  const band = Buffer.alloc(4 * width * rows);
  for (let i = 0; i < width * rows; ++i) band.writeFloatBE(1000 + 30 * Math.random() + (i % 9973 === 0 ? 20000 : 0), 4 * i);
  for (let y = 0; y < height; y += rows) writeSync(output, band, 0, 4 * width * Math.min(rows, height - y));
  writeSync(output, Buffer.alloc((2880 - ((4 * width * height) % 2880)) % 2880));
  closeSync(output);
}

const folder = mkdtempSync(path.join(tmpdir(), 'korimg-bench-'));
const median = (values) => values.sort((a, b) => a - b)[values.length >> 1];
const share = (values, p) => values.sort((a, b) => a - b)[Math.min(Math.floor(p * values.length), values.length - 1)];
try {
  for (const wish of process.argv.length > 2 ? process.argv.slice(2) : ['60:4G', '600:240M']) {
    const [size, memory] = wish.split(':');
    const width = Math.round(Math.sqrt(Number(size) * 1e6 * 1.25)), height = Math.round((Number(size) * 1e6) / width);
    const file = path.join(folder, 'image.fits');
    write(file, width, height);
    const first = [], exact = [], walk = [];
    let peak = 0;
    for (let run = 0; run < 5; ++run) {
      const viewer = await serve([file], ['--memory', memory]);
      const get = async (name) => {
        const answer = await fetch(viewer.address + name);
        if (!answer.ok) throw new Error(await answer.text());
        return answer;
      };
      const start = performance.now();
      let info = await (await get('image/info?id=0')).json();
      const top = info.levels - 1;
      await (await get(`image/tile?id=0&level=${top}&x=0&y=0`)).arrayBuffer();
      first.push(performance.now() - start);
      while (info.progress < 1) {
        await new Promise((done) => setTimeout(done, 20));
        info = await (await get('image/info?id=0')).json();
      }
      exact.push(performance.now() - start);
      // Zooming in about a place, and moving there: screens of 4 x 3 tiles, six at once as browsers ask.
      for (let step = 0; step < 12; ++step) {
        const level = step < top ? top - step : step % 2;
        const tiles = Math.ceil(width / 2 ** level / 256), lines = Math.ceil(height / 2 ** level / 256);
        const left = Math.floor(Math.random() * Math.max(tiles - 4, 1)), upper = Math.floor(Math.random() * Math.max(lines - 3, 1));
        const wanted = [];
        for (let y = upper; y < Math.min(upper + 3, lines); ++y) {
          for (let x = left; x < Math.min(left + 4, tiles); ++x) wanted.push([x, y]);
        }
        await Promise.all(Array.from({ length: 6 }, async () => {
          for (let next = wanted.shift(); next; next = wanted.shift()) {
            const begin = performance.now();
            await (await get(`image/tile?id=0&level=${level}&x=${next[0]}&y=${next[1]}&overlap=1${level === 0 ? '&format=png' : ''}`)).arrayBuffer();
            walk.push(performance.now() - begin);
          }
        }));
      }
      peak = Math.max(peak, viewer.peakMemory());
      await viewer.stop();
    }
    console.log(`${width} x ${height} floats (${(statSync(file).size / 1e6).toFixed(0)} MB), --memory ${memory}: ` +
      `first tile ${median(first).toFixed(0)} ms, exact after ${median(exact).toFixed(0)} ms; ` +
      `tiles ${median(walk).toFixed(0)} ms, 95th percentile ${share(walk, 0.95).toFixed(0)} ms; ` +
      `at most ${(peak / 1e6).toFixed(0)} MB`);
  }
} finally {
  rmSync(folder, { recursive: true });
}
