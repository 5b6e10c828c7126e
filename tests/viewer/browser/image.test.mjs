// The page in a real browser, on a simulated frame.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, describe, it } from 'node:test';
import { missing, openPage, serve, tool } from './support.mjs';

describe('an image in the browser', { skip: missing, timeout: 120_000 }, () => {
  let folder, viewer, opened, page;

  before(async () => {
    folder = mkdtempSync(path.join(tmpdir(), 'korimg view '));
    const run = (...words) => execFileSync(tool, words, { stdio: ['ignore', 'ignore', 'inherit'] });
    run('simulate', path.join(folder, 'mono'), '--frames', '2', '--size', '900x700', '--seed', '7', '-q');
    run('simulate', path.join(folder, 'colour'), '--bayer', 'GRBG', '--frames', '2', '--size', '600x400', '--seed', '8', '-q');
    run('render', path.join(folder, 'mono/lights/light_0001.fits'), '-o', path.join(folder, 'reference.png'), '-q');
    viewer = await serve([path.join(folder, 'mono/lights/light_0001.fits'), path.join(folder, 'colour/lights')]);
    opened = await openPage(viewer.address);
    page = opened.page;
    await exact();
  });

  after(async () => {
    await opened?.browser.close();
    await viewer?.stop();
    rmSync(folder, { recursive: true });
  });

  /** Waits until the picture is what it stays. */
  async function exact(width = 900) {
    await page.waitForFunction((text) => document.querySelector('#status .name')?.textContent?.startsWith(text) &&
      document.querySelector('#stage progress')?.hidden, `${width} ×`);
    await page.waitForTimeout(400);
  }

  const zoom = () => page.locator('#tools output').first().textContent();
  /** The mean of what is drawn on the stage. */
  const brightness = () => page.evaluate(() => {
    const canvas = document.querySelector('#stage canvas:not(.overlay)');
    const { data } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
    let sum = 0;
    for (let i = 0; i < data.length; i += 4) sum += data[i] + data[i + 1] + data[i + 2];
    return sum / (data.length / 4) / 3;
  });

  it('has at 1:1 the pixels that render writes', async () => {
    const reference = await page.evaluate(async (bytes) => {
      const pixelsOf = async (blob) => {
        const bitmap = await createImageBitmap(blob);
        const canvas = new OffscreenCanvas(bitmap.width, bitmap.height);
        const context = canvas.getContext('2d');
        context.drawImage(bitmap, 0, 0);
        return context.getImageData(0, 0, bitmap.width, bitmap.height);
      };
      const whole = await pixelsOf(new Blob([new Uint8Array(bytes)], { type: 'image/png' }));
      let different = 0, compared = 0;
      for (let y = 0; y * 256 < whole.height; ++y) {
        for (let x = 0; x * 256 < whole.width; ++x) {
          const answer = await fetch(`image/tile?id=0&level=0&x=${x}&y=${y}&format=png`);
          const tile = await pixelsOf(await answer.blob());
          for (let v = 0; v < tile.height; ++v) {
            for (let u = 0; u < tile.width; ++u) {
              ++compared;
              different += tile.data[4 * (v * tile.width + u)] !==
                whole.data[4 * ((y * 256 + v) * whole.width + x * 256 + u)];
            }
          }
        }
      }
      return { different, compared };
    }, [...readFileSync(path.join(folder, 'reference.png'))]);
    assert.deepEqual(reference, { different: 0, compared: 900 * 700 });
  });

  it('draws at 1:1 pixels that lie beside each other as they do in the picture', async () => {
    await page.keyboard.press('z');
    await page.waitForTimeout(1200);
    // Of whatever size the window is, and becomes.
    for (const size of [{ width: 1280, height: 720 }, { width: 1177, height: 711 }]) {
      await page.setViewportSize(size);
      await page.waitForTimeout(1200);
      assert.equal(await zoom(), '100 %');
      const found = await page.evaluate(async (bytes) => {
        const bitmap = await createImageBitmap(new Blob([new Uint8Array(bytes)], { type: 'image/png' }));
        const whole = new OffscreenCanvas(bitmap.width, bitmap.height).getContext('2d');
        whole.drawImage(bitmap, 0, 0);
        const wanted = whole.getImageData(0, 0, bitmap.width, bitmap.height);
        const canvas = document.querySelector('#stage canvas:not(.overlay)');
        // Wide enough for an edge between tiles.
        const width = 300, height = 280, left = Math.floor((canvas.width - width) / 2), top = Math.floor((canvas.height - height) / 2);
        const seen = canvas.getContext('2d').getImageData(left, top, width, height);
        const isHere = (dx, dy) => {
          for (let y = 0; y < height; ++y) {
            for (let x = 0; x < width; ++x) {
              if (seen.data[4 * (y * width + x)] !== wanted.data[4 * ((y + dy) * wanted.width + x + dx)]) return false;
            }
          }
          return true;
        };
        const places = [];
        for (let dy = 0; dy + height <= wanted.height; ++dy) {
          for (let dx = 0; dx + width <= wanted.width; ++dx) if (isHere(dx, dy)) places.push([dx, dy]);
        }
        return places;
      }, [...readFileSync(path.join(folder, 'reference.png'))]);
      assert.equal(found.length, 1, JSON.stringify(found));
    }
    await page.setViewportSize({ width: 1280, height: 720 });
    await page.keyboard.press('f');
    await page.waitForTimeout(600);
  });

  it('zooms and fits by keys', async () => {
    await page.keyboard.press('z');
    await page.waitForTimeout(600);
    assert.equal(await zoom(), '100 %');
    await page.keyboard.press('+');
    await page.waitForTimeout(600);
    assert.equal(await zoom(), '150 %');
    await page.keyboard.press('f');
    await page.waitForTimeout(600);
    assert.notEqual(await zoom(), '150 %');
  });

  it('tells the pixel under the cursor as the file has it', async () => {
    await page.keyboard.press('z');
    await page.waitForTimeout(600);
    const stage = await page.locator('#stage').boundingBox();
    await page.mouse.move(stage.x + stage.width / 2 + 30, stage.y + stage.height / 2 - 20);
    await page.waitForFunction(() => /^x \d+ {2}y \d+$/.test(document.querySelector('#status span').textContent));
    const [place, value] = await page.locator('#status span').allTextContents();
    const [, x, y] = place.match(/x (\d+) {2}y (\d+)/).map(Number);
    assert.ok(Math.abs(x - 480) <= 1 && Math.abs(y - 330) <= 1, place);
    const known = await page.evaluate(async ([x, y]) =>
      (await fetch(`image/statistics?id=0&left=${x}&top=${y}&right=${x + 1}&bottom=${y + 1}&low=0&high=1`)).json(), [x, y]);
    assert.ok(value.includes(String(known.planes[0].median)), value);
  });

  it('stretches by hand, and back', async () => {
    await page.keyboard.press('f');
    await page.waitForTimeout(600);
    const before = await brightness();
    const box = page.getByLabel('Midtones, as a number'), black = page.getByLabel('Black, as a number');
    const level = await black.inputValue();
    for (const nothing of ['', 'abc']) {
      await black.fill(nothing);
      await black.press('Enter');
      assert.equal(await black.inputValue(), level);
    }
    await box.fill('0.5');
    await box.press('Enter');
    await page.waitForTimeout(1200);
    const linear = await brightness();
    assert.ok(linear < before / 3, `${linear} after ${before}`);
    assert.equal(await page.getByRole('button', { name: 'By hand' }).getAttribute('aria-pressed'), 'true');
    await page.locator('#stage').focus();
    await page.keyboard.press('a');
    await page.waitForTimeout(1200);
    assert.ok(Math.abs(await brightness() - before) < 0.5);
    await page.getByText('Hyperbolic stretch').click();
    await page.getByLabel('on, before the midtones').check();
    await page.waitForTimeout(1200);
    assert.ok(await brightness() > before, 'the hyperbolic stretch lifts');
    await page.locator('#stage').focus();
    await page.keyboard.press('a');
    await page.waitForTimeout(800);
  });

  it('bends the curve by keys and by the pointer', async () => {
    await page.keyboard.press('f');
    await page.locator('summary', { hasText: /^Curve$/ }).click();
    const curve = page.locator('canvas.curve');
    const said = () => curve.getAttribute('aria-valuetext');
    await curve.focus();
    assert.equal(await said(), 'point 1 of 2: 0.00 becomes 0.00');
    const before = await brightness();
    const press = async (...keys) => { for (const key of keys) await page.keyboard.press(key); };
    await press('Enter', 'Shift+ArrowUp', 'Shift+ArrowUp', 'ArrowUp', 'Shift+ArrowLeft', 'Shift+ArrowLeft');
    assert.equal(await said(), 'point 2 of 3: 0.48 becomes 0.71');
    await page.waitForTimeout(1200);
    const bent = await brightness();
    assert.ok(bent > 1.2 * before, `${bent} after ${before}`);
    await press('ArrowRight', 'ArrowRight', 'Delete');  // the last one stays
    assert.equal(await said(), 'point 3 of 3: 1.00 becomes 1.00');
    await press('Shift+ArrowLeft');
    assert.equal(await said(), 'point 3 of 3: 1.00 becomes 1.00');
    await press('ArrowLeft', 'Delete');
    assert.equal(await said(), 'point 1 of 2: 0.00 becomes 0.00');
    await page.waitForTimeout(1200);
    assert.ok(Math.abs(await brightness() - before) < 1);
    const { x, y, width, height } = await curve.boundingBox();
    await page.mouse.move(x + 0.75 * width, y + 0.5 * height);
    await page.mouse.down();
    await page.mouse.move(x + 0.6 * width, y + 0.2 * height, { steps: 3 });
    await page.mouse.up();
    assert.equal(await said(), 'point 2 of 3: 0.60 becomes 0.80');
    await page.locator('#stage').focus();
    await page.keyboard.press('a');
    await page.waitForTimeout(800);
  });

  it('is moved, zoomed and measured by fingers', async () => {
    const tablet = await openPage(viewer.address, { width: 1024, height: 768 }, { hasTouch: true });
    const touched = tablet.page;
    await touched.waitForFunction(() => document.querySelector('#stage progress')?.hidden);
    await touched.waitForTimeout(400);
    const screen = await touched.context().newCDPSession(touched);
    const stage = await touched.locator('#stage').boundingBox();
    const at = (x, y) => ({ x: stage.x + stage.width / 2 + x, y: stage.y + stage.height / 2 + y });
    /** Moves fingers from some places to others. */
    const drag = async (from, to) => {
      const places = (t) => from.map((f, i) => ({ x: f.x + t * (to[i].x - f.x), y: f.y + t * (to[i].y - f.y), id: i }));
      await screen.send('Input.dispatchTouchEvent', { type: 'touchStart', touchPoints: places(0) });
      for (let i = 1; i <= 8; ++i) {
        await screen.send('Input.dispatchTouchEvent', { type: 'touchMove', touchPoints: places(i / 8) });
        await touched.waitForTimeout(20);
      }
      await screen.send('Input.dispatchTouchEvent', { type: 'touchEnd', touchPoints: [] });
      await touched.waitForTimeout(800);
    };
    const scale = async () => parseFloat(await touched.locator('#tools output').first().textContent());
    const fitted = await scale();
    await drag([at(-40, 0), at(40, 0)], [at(-120, 0), at(120, 0)]);
    const zoomed = await scale();
    assert.ok(zoomed > 2 * fitted && zoomed < 4 * fitted, `${fitted} became ${zoomed}`);
    const seen = async () => (await touched.locator('aside details', { hasText: 'Statistics' }).locator('.faint').first().textContent());
    const before = await seen();
    await drag([at(0, 0)], [at(60, 40)]);
    assert.notEqual(await seen(), before);
    await touched.getByRole('button', { name: 'Box' }).tap();
    await drag([at(-50, -30)], [at(50, 30)]);
    const [, width, height] = (await seen()).match(/^Box (\d+) × (\d+)/).map(Number);
    assert.ok(Math.abs(width - 10000 / zoomed) <= 3 && Math.abs(height - 6000 / zoomed) <= 3, `${width} × ${height}`);
    assert.equal(await scale(), zoomed);
    assert.deepEqual(tablet.complaints, []);
    await tablet.browser.close();
  });

  it('measures the view, a box, a line and the stars', async () => {
    const note = page.locator('aside details', { hasText: 'Statistics' }).locator('.faint').first();
    assert.match(await note.textContent(), /^View/);
    const stage = await page.locator('#stage').boundingBox();
    const drag = async () => {
      await page.mouse.move(stage.x + 200, stage.y + 150);
      await page.mouse.down();
      await page.mouse.move(stage.x + 230, stage.y + 190, { steps: 4 });
      await page.mouse.up();
      await page.waitForTimeout(600);
    };
    await page.keyboard.press('r');
    await drag();
    assert.match(await note.textContent(), /^Box/);
    await page.keyboard.press('m');
    await drag();
    assert.match(await page.locator('#tools output').nth(1).textContent(), /^\d+\.\d px/);
    const plot = await page.locator('.profile canvas').boundingBox();
    assert.ok(plot.width > 200 && plot.height > 100);
    await page.keyboard.press('Escape');
    await page.keyboard.press('s');
    const stars = page.locator('aside details', { hasText: 'Stars' });
    await stars.locator('summary').click();
    await stars.locator('td').first().waitFor();
    assert.ok(Number(await stars.locator('td').first().textContent()) > 20);
    await page.keyboard.press('s');
  });

  it('develops a mosaic, and goes through the list by keys', async () => {
    await page.keyboard.press('n');
    await exact(600);
    assert.equal(await page.getByRole('button', { name: 'Develop' }).getAttribute('aria-pressed'), 'false');
    await page.keyboard.press('d');
    await page.waitForFunction(() => document.querySelector('#status .name').textContent.includes('× 3'));
    await exact(600);
    assert.ok(await page.getByRole('button', { name: 'Channel: R' }).isVisible());
    await page.keyboard.press('p');
    await exact(900);
  });

  it('fills the window with or without a list of images, and on a tablet', async () => {
    const alone = await serve([path.join(folder, 'reference.png')]);
    for (const [address, size] of [[alone.address, { width: 1280, height: 720 }], [viewer.address, { width: 1280, height: 720 }],
                                   [alone.address, { width: 768, height: 1024 }], [viewer.address, { width: 768, height: 1024 }]]) {
      const other = await openPage(address, size);
      await other.page.waitForFunction(() => document.querySelector('#stage progress')?.hidden);
      const [stage, panels] = [await other.page.locator('#stage').boundingBox(), await other.page.locator('#panels').boundingBox()];
      assert.ok(Math.abs(panels.x + panels.width - size.width) <= 1, `${panels.x} ${panels.width}`);
      assert.ok(stage.width > 0.5 * size.width && stage.height > 0.35 * size.height, `${stage.width} × ${stage.height}`);
      await other.browser.close();
    }
    assert.equal(await alone.stop(), 0);
  });

  it('lists its keys, and leaves the list by Escape', async () => {
    await page.keyboard.press('?');
    await page.getByRole('heading', { name: 'Keys' }).waitFor();
    await page.locator('summary', { hasText: 'openseadragon' }).click();
    assert.match(await page.locator('#about pre').first().textContent(), /Redistribution and use in source and binary/);
    await page.keyboard.press('Escape');
    assert.equal(await page.locator('dialog[open]').count(), 0);
  });

  it('asks nobody else for anything, and complains of nothing', async () => {
    assert.deepEqual(opened.foreign, []);
    assert.deepEqual(opened.complaints, []);
  });

  it('ends at once', async () => {
    const start = Date.now();
    assert.equal(await viewer.stop(), 0);
    assert.ok(Date.now() - start < 5000);
  });
});
