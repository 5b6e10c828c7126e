// Starts the viewer and a browser for the tests of the page.
import { spawn } from 'node:child_process';
import { existsSync, readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { fileURLToPath } from 'node:url';
import path from 'node:path';

const root = fileURLToPath(new URL('../../../', import.meta.url));
const { chromium } = createRequire(path.join(root, 'viewer/'))('playwright-core');

export const tool = process.env.KORIMG_TOOL ?? path.join(root, 'build/dev/app/korimg');
const program = ['/usr/bin/chromium', '/usr/bin/chromium-browser', '/usr/bin/google-chrome'].find(existsSync);

/** Why no browser can be had; nothing where there is one. */
export const missing = program ? false : 'there is no Chromium: tools/setup test installs it';

/** Serves paths; stop() ends it as Ctrl-C does, and answers its exit code. */
export async function serve(paths, options = []) {
  const viewer = spawn(tool, ['view', '--no-browser', '--json', ...options, ...paths], { stdio: ['ignore', 'pipe', 'inherit'] });
  const ended = new Promise((done) => viewer.on('exit', (code) => done(code)));
  const address = await new Promise((done, fail) => {
    let text = '';
    viewer.stdout.on('data', (piece) => {
      text += piece;
      if (text.includes('\n')) done(JSON.parse(text.split('\n')[0]).address);
    });
    ended.then((code) => fail(new Error(`korimg view ended with ${code}`)));
  });
  /** Bytes of memory that it held at most. */
  const peakMemory = () => 1024 * Number(readFileSync(`/proc/${viewer.pid}/status`, 'utf8').match(/VmHWM:\s+(\d+)/)[1]);
  return { address, peakMemory, stop: () => (viewer.kill('SIGINT'), ended) };
}

/** A page of the address, with what it complained of and what it asked other hosts for. */
export async function openPage(address, size = { width: 1280, height: 720 }, how = {}) {
  const browser = await chromium.launch({
    executablePath: program,
    args: process.getuid() === 0 ? ['--no-sandbox'] : [],
  });
  const page = await browser.newPage({ viewport: size, ...how });
  const complaints = [], foreign = [];
  page.on('console', (message) => {
    // It is the tests that read the canvas; and tiles that come after their image was replaced are of no use.
    const isOurs = !/^(Canvas2D: Multiple readback|Ignoring tile)/.test(message.text());
    if (['error', 'warning'].includes(message.type()) && isOurs) complaints.push(message.text());
  });
  page.on('pageerror', (error) => complaints.push(String(error)));
  page.on('request', (request) => {
    const url = request.url();
    if (!url.startsWith(address) && !url.startsWith('blob:') && !url.startsWith('data:')) foreign.push(url);
  });
  await page.goto(address);
  return { browser, page, complaints, foreign };
}
