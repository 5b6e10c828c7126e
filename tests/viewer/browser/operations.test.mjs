// Operations in a real browser: steps, previews, undo, a new file, and the command that does the same.
import assert from 'node:assert/strict';
import { execFileSync, execSync } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, describe, it } from 'node:test';
import { missing, openPage, serve, tool } from './support.mjs';

describe('operations in the browser', { skip: missing, timeout: 120_000 }, () => {
  let folder, lights, viewer, opened, page;

  before(async () => {
    folder = mkdtempSync(path.join(tmpdir(), "korimg o'view "));
    lights = path.join(folder, 'mono/lights');
    execFileSync(tool, ['simulate', path.join(folder, 'mono'), '--frames', '2', '--size', '900x700', '--seed', '7', '-q'],
      { stdio: ['ignore', 'ignore', 'inherit'] });
    viewer = await serve([lights]);
    opened = await openPage(viewer.address);
    page = opened.page;
    await page.waitForFunction(() => document.querySelector('#stage progress')?.hidden);
    await page.getByText('Operations', { exact: true }).click();
  });

  after(async () => {
    await opened?.browser.close();
    await viewer?.stop();
    rmSync(folder, { recursive: true });
  });

  const panel = () => page.locator('#operations');
  const names = () => panel().locator('.steps .head label').allTextContents();
  const command = () => panel().locator('textarea').inputValue();
  /** The command, once it is about an image. */
  const commandFor = async (name) => (await page.waitForFunction((file) => {
    const text = document.querySelector('#operations textarea').value;
    return text.includes(file) && text;
  }, name)).jsonValue();
  /** The mean of what lies over the image, and of the image. */
  const overlay = () => meanOf('#stage canvas.overlay'), picture = () => meanOf('#stage canvas:not(.overlay)');
  const meanOf = (selector) => page.evaluate((name) => {
    const canvas = document.querySelector(name);
    const { data } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
    let sum = 0;
    for (let i = 0; i < data.length; i += 4) sum += data[i];
    return sum / (data.length / 4);
  }, selector);
  /** Adds an operation, and waits for its preview. */
  async function add(name) {
    await panel().getByLabel('Find an operation').fill(name);
    await panel().getByLabel('Operations').selectOption(name);
    await settled(() => panel().getByRole('button', { name: 'Add', exact: true }).click());
  }
  async function settled(act) {
    const before = Number(await panel().getAttribute('data-preview') ?? 0);
    await act();
    await page.waitForFunction((count) => Number(document.querySelector('#operations').dataset.preview ?? 0) > count, before);
    await page.waitForTimeout(150);
  }

  it('finds operations, and previews their steps', async () => {
    await panel().getByLabel('Find an operation').fill('moonlight city');
    assert.match(await panel().getByLabel('Operations').textContent(), /gradient/);
    assert.equal(await overlay(), 0);
    await add('bright');
    const plain = await overlay();
    assert.ok(plain > 1);
    // What changes nothing is seen as the picture is, whatever it is stretched by.
    assert.ok(Math.abs(plain - await picture()) < 0.5, `${plain} over ${await picture()}`);
    await page.getByText('Hyperbolic stretch').click();
    await settled(() => page.getByLabel('on, before the midtones').check());
    await page.waitForTimeout(1000);
    const stretched = await overlay();
    assert.ok(stretched > plain + 5 && Math.abs(stretched - await picture()) < 0.5, `${stretched} over ${await picture()}`);
    await settled(() => page.getByRole('button', { name: 'Automatic' }).click());
    await page.waitForTimeout(500);
    await settled(() => panel().getByLabel('bright', { exact: false }).last().fill('60').then(() => page.keyboard.press('Tab')));
    assert.ok(await overlay() > plain + 5, `${plain} ${await overlay()}`);
    assert.match(await command(), /korimg apply bright bright=60 /);
  });

  it('undoes, switches off and moves steps', async () => {
    await add('gaussian');
    assert.deepEqual(await names(), [' bright', ' gaussian']);
    await settled(() => panel().getByLabel('earlier: gaussian').click());
    assert.deepEqual(await names(), [' gaussian', ' bright']);
    await settled(() => panel().getByLabel('gaussian is on').uncheck());
    assert.doesNotMatch(await command(), /gaussian/);
    await settled(() => page.keyboard.press('Control+z'));
    assert.match(await command(), /gaussian then bright bright=60/);
    await settled(() => panel().getByRole('button', { name: 'Undo' }).click());
    assert.deepEqual(await names(), [' bright', ' gaussian']);
    await settled(() => page.keyboard.press('Control+y'));
    assert.deepEqual(await names(), [' gaussian', ' bright']);
  });

  it('tells what has no preview, and refuses what is wrong', async () => {
    await panel().getByLabel('Find an operation').fill('rotate');
    await panel().getByLabel('Operations').selectOption('rotate');
    await panel().getByRole('button', { name: 'Add', exact: true }).click();
    const told = (text) => page.waitForFunction((wanted) =>
      document.querySelector('#operations [role=status]').textContent.includes(wanted), text);
    await told('rotate wants degrees=');
    await panel().getByLabel('degrees', { exact: false }).last().fill('10');
    await page.keyboard.press('Tab');
    await told('seen once it is done to the file');
    await settled(() => panel().getByLabel('remove: rotate').click());
    const answer = async (body, name = 'operations/check') => page.evaluate(async ([address, text]) => {
      const response = await fetch(address, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: text });
      return [response.status, await response.text()];
    }, [name, JSON.stringify(body)]);
    const bright = [{ operation: 'bright', values: { bright: '3' } }];
    for (const wrong of [
      { id: 99, steps: bright }, { steps: bright }, { id: 0, steps: [] }, { id: 0, steps: [{ operation: 'nothing', values: {} }] },
      { id: 0, steps: [{ operation: 'bright', values: { bright: 'much' } }] }, { id: 0, steps: bright, name: '../x.fits' },
      { id: 0, steps: bright, name: '/tmp/x.fits' }, { id: 0, steps: bright, name: '.x.fits' }, { id: 0, steps: bright, name: 'x.sh' },
      { id: 0, steps: [{ operation: 'dark', values: { file: '/etc/passwd' } }] }, { id: 0, steps: [{ operation: 'dark', values: { file: 77 } }] },
      { id: 0, steps: Array(101).fill(bright[0]) }, { id: 0, steps: bright, seen: [1, 2, 3] }, [1],
    ]) {
      const [status, text] = await answer(wrong, wrong.seen ? 'operations/preview' : 'operations/check');
      assert.ok(status === 400 || status === 422, `${JSON.stringify(wrong).slice(0, 80)}: ${status} ${text}`);
    }
  });

  it('writes the file that the command writes, and opens it', async () => {
    await panel().getByLabel('Name of the new file').fill('new.fits');
    await panel().getByRole('button', { name: 'Write file' }).click();
    await page.waitForFunction(() => document.querySelector('#status').dataset.written === 'new.fits');
    await page.waitForFunction(() => document.querySelector('#list [aria-current=true]').textContent === 'new.fits');
    // The shell takes the command as it is; its file lies elsewhere.
    await page.getByRole('button', { name: 'light_0001.fits' }).click();
    const words = (await commandFor('light_0001.fits')).replace(/^korimg/, 'nice "$KORIMG"').replaceAll('new.fits', 'other.fits');
    execSync(words, { env: { ...process.env, KORIMG: tool, SOURCE_DATE_EPOCH: '1' }, stdio: 'ignore' });
    const pixels = (name) => readFileSync(path.join(lights, name)).subarray(-2880 * 800);
    assert.ok(pixels('new.fits').equals(pixels('other.fits')));
  });

  it('tells the command of the image that is shown, whatever comes late', async () => {
    // The answer for one image comes after that for the next one.
    let release = () => {}, asked = 0;
    const late = new Promise((done) => { release = done; });
    await page.route('**/operations/check', async (route) => {
      const answer = await route.fetch();
      if (asked++ === 0) await late;
      await route.fulfill({ response: answer });
    });
    await page.getByRole('button', { name: 'light_0002.fits' }).click();
    await page.waitForFunction(() => document.querySelector('#list [aria-current=true]').textContent === 'light_0002.fits');
    while (asked === 0) await page.waitForTimeout(20);
    await page.getByRole('button', { name: 'light_0001.fits' }).click();
    await commandFor('light_0001.fits');
    release();
    await page.waitForTimeout(300);
    await page.unroute('**/operations/check');
    assert.match(await command(), /light_0001\.fits/);
    assert.doesNotMatch(await command(), /light_0002\.fits/);
  });

  it('replaces nothing unless told, and keeps recipes', async () => {
    page.once('dialog', (dialog) => dialog.dismiss());
    const before = readFileSync(path.join(lights, 'new.fits'));
    await panel().getByRole('button', { name: 'Write file' }).click();
    await page.waitForTimeout(400);
    assert.ok(readFileSync(path.join(lights, 'new.fits')).equals(before));
    const [download] = await Promise.all([page.waitForEvent('download'), panel().getByRole('button', { name: 'Save recipe' }).click()]);
    const recipe = path.join(folder, 'recipe.json');
    await download.saveAs(recipe);
    execFileSync(tool, ['apply', '--recipe', recipe, path.join(lights, 'light_0001.fits'), '-o', path.join(folder, 'by_recipe.fits'), '-q']);
    const end = (file) => readFileSync(file).subarray(-2880 * 800);
    assert.ok(end(path.join(folder, 'by_recipe.fits')).equals(end(path.join(lights, 'new.fits'))));
    await panel().getByLabel('remove: bright').click();
    await panel().locator('input[type=file]').setInputFiles(recipe);
    await page.waitForFunction(() => document.querySelectorAll('#operations .steps li').length === 2);
    assert.deepEqual(await names(), [' gaussian', ' bright']);
    writeFileSync(recipe, '{"steps": [{"operation": "bright", "values": {"colour": 1}}]}');
    await panel().locator('input[type=file]').setInputFiles(recipe);
    await page.waitForFunction(() => /step 1 of the recipe/.test(document.querySelector('#message').textContent));
    assert.ok(!existsSync(path.join(lights, 'result.fits')));
    assert.deepEqual(opened.foreign, []);
    const ours = opened.complaints.filter((text) => !/status of 4\d\d/.test(text));  // what was asked wrongly above
    assert.deepEqual(ours, []);
  });
});
