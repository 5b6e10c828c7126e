// A folder that is being filled, in a real browser.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { copyFileSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, renameSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, describe, it } from 'node:test';
import { missing, openPage, serve, tool } from './support.mjs';

describe('a folder that is being filled', { skip: missing, timeout: 120_000 }, () => {
  let folder, night, watched, viewer, opened, page;

  before(async () => {
    process.env.SOURCE_DATE_EPOCH = '1700000000';
    folder = mkdtempSync(path.join(tmpdir(), 'korimg view '));
    night = path.join(folder, 'night');
    watched = path.join(folder, 'watched');
    execFileSync(tool, ['simulate', night, '--frames', '5', '--size', '500x400', '--seed', '7', '-q'], { stdio: ['ignore', 'ignore', 'inherit'] });
    mkdirSync(watched);
    for (const kind of ['darks', 'flats', 'biases']) renameSync(path.join(night, kind), path.join(watched, kind));
    viewer = await serve(['--watch', watched]);
    opened = await openPage(viewer.address);
    page = opened.page;
  });

  after(async () => {
    await opened?.browser.close();
    await viewer?.stop();
    rmSync(folder, { recursive: true });
  });

  const panel = () => page.locator('#livepanel');
  const reaches = (count) => page.waitForFunction((wanted) => Number(document.querySelector('#livepanel')?.dataset.count) === wanted, count);
  /** The picture's width and mean. */
  const measure = () => page.evaluate(async () => {
    const image = document.querySelector('#live');
    await image.decode();
    const canvas = new OffscreenCanvas(image.naturalWidth, image.naturalHeight), context = canvas.getContext('2d');
    context.drawImage(image, 0, 0);
    const { data } = context.getImageData(0, 0, canvas.width, canvas.height);
    let sum = 0;
    for (let i = 0; i < data.length; i += 4) sum += data[i];
    return { width: image.naturalWidth, mean: sum / (data.length / 4) };
  });

  it('adds frames as they come, and leaves out what is none', async () => {
    await reaches(0);
    const files = readdirSync(path.join(night, 'lights')).sort();
    copyFileSync(path.join(night, 'lights', files[0]), path.join(watched, files[0]));
    await reaches(1);
    const { width, mean } = await measure();
    assert.equal(width, 500);
    assert.ok(mean > 20 && mean < 150, String(mean));
    copyFileSync(path.join(watched, 'darks/dark_0001.fits'), path.join(watched, 'a dark.fits'));
    writeFileSync(path.join(watched, 'notes.txt'), 'clouds at ten');
    for (const file of files.slice(1)) copyFileSync(path.join(night, 'lights', file), path.join(watched, file));
    await reaches(6);
    assert.equal(await panel().getAttribute('data-added'), '5');
    assert.match(await panel().locator('tr.left').textContent(), /a dark.fits.*dark/i);
    assert.match(await panel().getByRole('status').textContent(), /5 of 6 frames are in the stack/);
  });

  it('saves the stack where it is told to, and replaces nothing', async () => {
    const refused = (body) => page.evaluate(async (text) => {
      const response = await fetch('live/save', { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: text });
      return `${response.status} ${await response.text()}`;
    }, JSON.stringify(body));
    for (const name of ['', '../x.fits', '/tmp/x.fits', '.x.fits', 'x.png', 'darks']) assert.match(await refused({ name }), /^4\d\d/, name);
    await panel().getByRole('button', { name: 'Save stack' }).click();
    await page.waitForFunction(() => document.querySelector('#list [aria-current=true]')?.textContent === 'live.fits');
    const before = readFileSync(path.join(watched, 'live.fits'));
    assert.match(before.toString('latin1', 0, 11520), /NCOMBINE= +5 /);
    assert.match(await refused({ name: 'live.fits' }), /^422.*already/);
    assert.ok(readFileSync(path.join(watched, 'live.fits')).equals(before));
  });

  it('stacks properly what run stacks', async () => {
    rmSync(path.join(watched, 'live.fits'));
    await panel().getByRole('button', { name: 'Stack properly' }).click();
    await page.waitForFunction(() => document.querySelector('#livepanel').dataset.state);
    assert.match(await panel().getByRole('status').textContent(), /^stacked into result/);
    execFileSync(tool, ['run', watched, '--out', path.join(folder, 'alone'), '-q'], { stdio: 'ignore' });
    const bytes = (out) => readFileSync(path.join(out, 'stack.fits'));
    assert.ok(bytes(path.join(folder, 'alone')).equals(bytes(path.join(watched, 'result'))));
    assert.deepEqual(opened.foreign, []);
    assert.deepEqual(opened.complaints.filter((text) => !/status of 4\d\d|load aborted/.test(text)), []);
  });
});
