// A session before it runs, in a real browser: plan, options, command, run, cancel.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, describe, it } from 'node:test';
import { missing, openPage, serve, tool } from './support.mjs';

describe('a session in the browser', { skip: missing, timeout: 120_000 }, () => {
  let folder, night, viewer, opened, page;

  before(async () => {
    process.env.SOURCE_DATE_EPOCH = '1700000000';
    folder = mkdtempSync(path.join(tmpdir(), 'korimg view '));
    night = path.join(folder, 'night');
    execFileSync(tool, ['simulate', night, '--frames', '6', '--size', '500x400', '--seed', '7', '-q'], { stdio: ['ignore', 'ignore', 'inherit'] });
    viewer = await serve([night]);
    opened = await openPage(viewer.address);
    page = opened.page;
    await page.getByRole('button', { name: 'Session' }).click();
  });

  after(async () => {
    await opened?.browser.close();
    await viewer?.stop();
    rmSync(folder, { recursive: true });
  });

  const plan = () => page.locator('#plan');
  const command = () => plan().locator('textarea').inputValue();
  /** The state that the run has ended in, and what is told of it. */
  const ended = async () => {
    await page.waitForFunction(() => document.querySelector('#plan').dataset.state);
    return `${await plan().getAttribute('data-state')}: ${await plan().getByRole('status').textContent()}`;
  };
  const bytes = (out) => Object.fromEntries(readdirSync(out).filter((name) => /\.(fits|tif|png)$/.test(name)).sort()
    .map((name) => [name, readFileSync(path.join(out, name)).toString('latin1')]));

  it('tells the plan of the tool', async () => {
    await page.waitForFunction(() => document.querySelectorAll('#plan tbody:not(:empty) tr').length === 6);
    const told = execFileSync(tool, ['run', night, '--out', path.join(night, 'result'), '--dry-run']).toString().trim().split('\n');
    const notes = await plan().locator('.notes li').allTextContents();
    for (const line of notes) assert.ok(told.includes(line), line);
    assert.ok(notes.some((line) => line.startsWith('master_dark_120s: ')) && notes.some((line) => line.includes('the run will take up to')));
    assert.match(await plan().locator('tbody tr').last().textContent(), /light_0006.fits.*master_dark_120s.*master_flat_L/);
    assert.equal(existsSync(path.join(night, 'result')), false);
    assert.match(await plan().locator('select').first().textContent(), /night: 6 lights, 3 darks, 3 flats, 3 biases/);
  });

  it('takes options, and refuses what does not go together', async () => {
    await plan().getByLabel('exclude').fill('*_0002* *_0003*');
    await page.keyboard.press('Tab');
    await page.waitForFunction(() => document.querySelectorAll('#plan tbody:not(:empty) tr').length === 4);
    await plan().getByLabel('drizzle').fill('9');
    await page.keyboard.press('Tab');
    await page.waitForFunction(() => /drizzle is a number from 1 to 4/.test(document.querySelector('#plan .warnings').textContent));
    await plan().getByLabel('drizzle').fill('');
    await plan().getByLabel('reject').selectOption('sigma');
    await page.waitForFunction(() => /--reject=sigma --exclude='\*_0002\*'/.test(document.querySelector('#plan textarea').value));
    const answer = (body) => page.evaluate(async (text) => {
      const response = await fetch('plan/run', { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: text });
      await response.text();
      return response.status;
    }, JSON.stringify(body));
    for (const wrong of [{}, { folder: 1 }, { folder: -1 }, { folder: 0, out: '../x' }, { folder: 0, out: '/tmp/x' }, { folder: 0, out: '' },
      { folder: 0, out: '..' }, { folder: 0, out: '.x' }, { folder: 0, options: [] }, { folder: 0, options: { out: '/tmp' } },
      { folder: 0, options: { reject: '--overwrite' } }, { folder: 0, options: { drizzle: 'much' } }, { folder: 'night' }]) {
      assert.equal(await answer(wrong), 400, JSON.stringify(wrong));
    }
  });

  it('runs as the command does, with frames as they are measured', async () => {
    const words = (await command()).match(/'[^']*'|\S+/g);
    await plan().getByRole('button', { name: 'Run' }).click();
    assert.match(await ended(), /^done: done: stack.fits of 4 of 4 lights, FWHM/);
    assert.equal(await plan().locator('.measured tbody tr').count(), 4);
    const options = words.slice(5).map((word) => word.replaceAll("'", ''));
    execFileSync(tool, ['run', night, '--out', path.join(folder, 'alone'), ...options, '-q']);
    const made = bytes(path.join(night, 'result'));
    assert.ok(Object.keys(made).length >= 4);
    assert.deepEqual(Object.keys(made), Object.keys(bytes(path.join(folder, 'alone'))));
    for (const [name, content] of Object.entries(bytes(path.join(folder, 'alone')))) assert.ok(content === made[name], name);
    await plan().getByRole('button', { name: 'Look at the results' }).click();
    await page.waitForFunction(() => [...document.querySelectorAll('#list button')].some((b) => b.textContent === 'result/stack.fits'));
  });

  it('is cancelled, and another page sees what is at work', async () => {
    await page.getByRole('button', { name: 'Session' }).click();
    await plan().getByLabel('Folder for the results').fill('second');
    await page.keyboard.press('Tab');
    await page.waitForFunction(() => /second/.test(document.querySelector('#plan textarea').value));
    await page.evaluate(() => delete document.querySelector('#plan').dataset.state);
    await plan().getByRole('button', { name: 'Run' }).click();
    const second = await opened.browser.newPage();
    await second.goto(viewer.address);
    const state = await second.evaluate(async () => (await (await fetch('work')).json()).state);
    assert.ok(['working', 'done'].includes(state));
    await plan().getByRole('button', { name: 'Cancel' }).click({ timeout: 2000 }).catch(() => {});  // it may be done by now
    await page.waitForFunction(() => /done|cancelled/.test(document.querySelector('#plan').dataset.state));
    if (await plan().getAttribute('data-state') === 'cancelled') assert.equal(existsSync(path.join(night, 'second/report.html')), false);
    assert.equal(readdirSync(path.join(night)).some((name) => name.endsWith('.part')), false);
    assert.deepEqual(opened.foreign, []);
    assert.deepEqual(opened.complaints.filter((text) => !/status of 4\d\d/.test(text)), []);
  });
});
