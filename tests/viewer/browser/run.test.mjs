// A finished run in a real browser: one selection, blinking, flags, and stacking again.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, describe, it } from 'node:test';
import { missing, openPage, serve, tool } from './support.mjs';

describe('a finished run in the browser', { skip: missing, timeout: 120_000 }, () => {
  let folder, out, viewer, opened, page;
  const run = (...words) => execFileSync(tool, words, { stdio: ['ignore', 'ignore', 'inherit'] });

  before(async () => {
    folder = mkdtempSync(path.join(tmpdir(), 'korimg run '));
    out = path.join(folder, 'out');
    run('simulate', path.join(folder, 'night'), '--frames', '6', '--size', '700x500', '--seed', '11', '-q');
    writeFileSync(path.join(folder, 'night/lights/broken.fits'), 'no image');
    run('run', path.join(folder, 'night'), '--out', out, '--rejection-maps', '-q');
    viewer = await serve([out]);
    opened = await openPage(viewer.address);
    page = opened.page;
    await page.locator('#dock tbody tr').first().waitFor();
    await page.waitForFunction(() => document.querySelector('#stage progress')?.hidden &&
      document.querySelector('#status .name')?.textContent.startsWith('700 ×'));
  });

  after(async () => {
    await opened?.browser.close();
    await viewer?.stop();
    rmSync(folder, { recursive: true });
  });

  const rows = () => page.locator('#dock tbody tr');
  const chosen = () => page.locator('#dock tbody tr[aria-selected="true"] td:first-child').allTextContents();
  const label = () => page.locator('#stage .frame').textContent();
  const counts = () => page.locator('#dock .counts').textContent();
  const shown = async () => Number(await page.locator('#stage').getAttribute('data-shown') ?? 0);
  const press = async (...keys) => {
    for (const key of keys) await page.keyboard.press(key);
  };
  const untilShown = (count) => page.waitForFunction((least) => Number(document.querySelector('#stage').dataset.shown) >= least, count);
  /** A number that tells pictures apart: of what is drawn over the stack. */
  const drawn = () => page.evaluate(() => {
    const canvas = document.querySelector('#stage canvas.overlay');
    const { data } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
    let sum = 0;
    for (let i = 0; i < data.length; ++i) sum = (sum * 31 + data[i]) % 1000003;
    return sum;
  });

  it('shows the stack, all frames, and why one is left out', async () => {
    assert.equal(await rows().count(), 7);
    assert.equal(await counts(), '7 frames, 6 stacked, 0 flagged');
    assert.match(await page.locator('#dock tbody tr', { hasText: 'broken.fits' }).textContent(), /neither FITS, TIFF/);
    assert.equal(await page.locator('#dock figure canvas').count(), 6);
    assert.equal(await page.locator('#stage .frame').isVisible(), false);
  });

  it('has one selection in plots, table and picture', async () => {
    const before = await drawn();
    await rows().nth(2).click();
    await untilShown(1);
    assert.deepEqual(await chosen(), ['light_0003.fits']);
    assert.equal(await label(), 'light_0003.fits');
    assert.notEqual(await drawn(), before);
    // The plot knows where its points are: a click at the fifth one's place chooses that frame.
    const place = await page.evaluate(async () => {
      const { frames } = await (await fetch('run?run=0')).json();
      const over = document.querySelector('#dock figure .u-over').getBoundingClientRect();
      const timed = frames.filter((frame) => frame.measured), starts = timed.map((frame) => frame.start);
      const low = Math.min(...starts), high = Math.max(...starts), margin = (high - low) * 0.04;
      return { x: over.left + over.width * (timed[4].start - low + margin) / (high - low + 2 * margin), top: over.top, height: over.height };
    });
    for (let y = 4; y < place.height && (await chosen())[0] !== 'light_0005.fits'; y += 12) {
      await page.mouse.click(place.x, place.top + y);
    }
    assert.deepEqual(await chosen(), ['light_0005.fits']);
    await page.waitForFunction(() => document.querySelector('#stage .frame').textContent === 'light_0005.fits');
    // A box takes all that lies in it.
    const plot = await page.locator('#dock figure .u-over').nth(1).boundingBox();
    await page.mouse.move(plot.x + 1, plot.y + 1);
    await page.mouse.down();
    await page.mouse.move(plot.x + plot.width - 1, plot.y + plot.height - 1, { steps: 4 });
    await page.mouse.up();
    assert.equal((await chosen()).length, 6);
    await rows().nth(0).click();
    assert.equal((await chosen()).length, 1);
    await page.locator('#dock .frames').focus();
    await press('ArrowDown');
    assert.deepEqual(await chosen(), ['light_0002.fits']);
    await page.getByRole('button', { name: 'FWHM' }).click();
    const sorted = (await page.locator('#dock tbody tr td:nth-child(3)').allTextContents()).filter(Boolean).map(Number);
    assert.deepEqual(sorted, [...sorted].sort((a, b) => a - b));
    await page.getByRole('button', { name: 'UTC' }).click();
    await rows().nth(0).click();
  });

  it('steps, plays and stops by keys', async () => {
    await page.locator('#stage').focus();
    await press('ArrowRight');
    assert.equal(await label(), 'light_0002.fits');
    await press('ArrowLeft', 'ArrowLeft');
    assert.equal(await label(), 'light_0006.fits');
    await untilShown(await shown() + 1).catch(() => {});
    const before = await shown();
    await press(' ');
    await untilShown(before + 8);
    await press(' ');
    await page.waitForTimeout(300);
    const stopped = await shown();
    await page.waitForTimeout(400);
    assert.equal(await shown(), stopped);
    await press('b');
    await untilShown(stopped + 3);
    const pair = new Set();
    for (let i = 0; i < 12; ++i) {
      pair.add(await label());
      await page.waitForTimeout(90);
    }
    await press('b');
    assert.equal(pair.size, 2);
    await page.waitForTimeout(400);
  });

  it('goes to the frame\'s own pixels, and back to the stack', async () => {
    await rows().nth(3).click();
    await page.locator('#stage').focus();
    await press('z');
    await page.waitForFunction(() => document.querySelector('#tools output').textContent === '100 %');
    const name = page.locator('#status .name');
    // The one stretch of all frames is none of its own.
    await page.locator('button[aria-pressed="true"]', { hasText: 'By hand' }).waitFor();
    await page.waitForFunction(() => document.querySelector('#stage progress').hidden);
    assert.match(await name.textContent(), /^700 × 500/);
    await press('z', 'Escape');
    assert.equal(await page.locator('#stage .frame').isVisible(), false);
    await page.locator('button[aria-pressed="true"]', { hasText: 'Automatic' }).waitFor();
  });

  it('tells why a frame cannot be shown, and leaves the frames for another image', async () => {
    await page.locator('#dock tbody tr', { hasText: 'broken.fits' }).click();
    assert.match(await label(), /^broken.fits {2}left out.*neither FITS, TIFF/);
    const nothing = await drawn();
    await rows().nth(0).click();
    await page.waitForFunction(() => document.querySelector('#stage .frame').textContent === 'light_0001.fits');
    await page.waitForTimeout(300);
    assert.notEqual(await drawn(), nothing);
    await page.locator('#list button', { hasText: 'stack_float.tif' }).click();
    await page.waitForFunction(() => document.querySelector('#stage .frame').hidden);
    await page.waitForTimeout(300);
    assert.equal(await drawn(), nothing);
  });

  it('lays rejected pixels over the stack', async () => {
    await page.locator('#stage').focus();
    await press('v', 'v');  // a frame, and its stack again
    const asked = page.waitForResponse((response) => response.url().includes('run/rejected'));
    await press('j');
    assert.equal((await asked).headers()['content-type'], 'image/png');
    await press('j');
  });

  it('flags, takes back, and saves what the tool reads', async () => {
    await rows().nth(1).click();
    await page.locator('#stage').focus();
    await press('x');
    await page.waitForFunction(() => document.querySelector('#stage .frame').textContent.includes('flagged'));
    await rows().nth(4).click();
    await page.locator('#stage').focus();
    await press('x');
    await page.waitForFunction(() => document.querySelector('#dock .counts').textContent.endsWith('2 flagged'));
    await press('u');
    await page.waitForFunction(() => document.querySelector('#dock .counts').textContent.endsWith('1 flagged'));
    assert.equal(existsSync(path.join(out, 'selection.json')), false);
    await page.getByRole('button', { name: 'Save', exact: true }).click();
    await page.getByRole('button', { name: 'Saved' }).waitFor();
    assert.deepEqual(JSON.parse(readFileSync(path.join(out, 'selection.json'))), { exclude: ['light_0002.fits'] });
    run('run', path.join(folder, 'night'), '--out', path.join(folder, 'by hand'), '--rejection-maps', '--selection', path.join(out, 'selection.json'), '-q');
  });

  it('follows the flags of other pages', async () => {
    const other = await openPage(viewer.address);
    const counted = (seen, end) => seen.waitForFunction((wanted) => document.querySelector('#dock .counts')?.textContent.endsWith(wanted), end);
    await counted(other.page, '1 flagged');
    await other.page.locator('#dock tbody tr').nth(3).click();
    await other.page.locator('#stage').focus();
    await other.page.keyboard.press('x');
    await counted(other.page, '2 flagged');
    await counted(page, '2 flagged');
    await other.page.keyboard.press('u');
    await counted(page, '1 flagged');
    await other.browser.close();
  });

  it('goes on in a folder where stacking again was cancelled', async () => {
    const send = (name, body) => page.evaluate(async ([address, text]) => {
      const response = await fetch(address, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: text });
      return response.status;
    }, [name, JSON.stringify(body)]);
    const { version } = await page.evaluate(async () => (await fetch('run?run=0')).json());
    assert.equal(await send('run/again', { run: 0, version: version + 1, folder: 'second' }), 400, 'it was done again since');
    assert.equal(await send('run/again', { run: 0, version, folder: 'second' }), 200);
    assert.equal(await send('work/cancel', {}), 200);
    const ends = async () => {
      for (;;) {
        const state = await page.evaluate(async () => (await (await fetch('work')).json()).state);
        if (state !== 'working') return state;
        await page.waitForTimeout(50);
      }
    };
    assert.equal(await ends(), 'cancelled');
    assert.equal(existsSync(path.join(out, 'second/stack.fits')), false);
    assert.equal(await send('run/again', { run: 0, version, folder: 'second' }), 200);
    assert.equal(await ends(), 'done');
    assert.ok(existsSync(path.join(out, 'second/stack.fits')));
    assert.equal(await send('run/again', { run: 0, version, folder: 'second' }), 422);
  });

  it('stacks again without what is flagged', async () => {
    await page.getByRole('button', { name: 'Stack again…' }).click();
    await page.getByRole('button', { name: 'Replace the results' }).click();
    await page.waitForFunction(() => document.querySelector('#dock .counts').textContent === '7 frames, 5 stacked, 1 flagged', null, { timeout: 60_000 });
    const [here, byHand] = [out, path.join(folder, 'by hand')].map((place) => readFileSync(path.join(place, 'stack_float.tif')));
    assert.ok(here.equals(byHand), 'the bytes of korimg run --selection');
    assert.equal(await page.locator('#dock .work').isVisible(), false);
  });

  it('asks nobody else for anything, and complains of nothing', async () => {
    assert.deepEqual(opened.foreign, []);
    const ours = opened.complaints.filter((text) => !/status of 4\d\d/.test(text));  // what was asked wrongly above
    assert.deepEqual(ours, []);
  });
});
