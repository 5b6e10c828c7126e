// Pictures of the page for the documentation: node tests/viewer/browser/screenshots.mjs, after tools/demo.
import { fileURLToPath } from 'node:url';
import path from 'node:path';
import { openPage, serve } from './support.mjs';

const root = fileURLToPath(new URL('../../../', import.meta.url));
const demo = process.env.KORIMG_DEMO ?? path.join(root, 'demo');
const viewer = await serve([path.join(demo, 'colour_result/stack.fits'), path.join(demo, 'result/stack.fits'),
                            path.join(demo, 'session/lights')]);
const { browser, page } = await openPage(viewer.address);
await page.waitForTimeout(2000);
await page.keyboard.press('z');
await page.keyboard.press('s');
await page.mouse.move(620, 320);
await page.waitForTimeout(4000);
await page.screenshot({ path: path.join(root, 'docs/images/viewer.jpg'), type: 'jpeg', quality: 85 });
await browser.close();
await viewer.stop();

const finished = await serve([path.join(demo, 'colour_result')]);
const other = await openPage(finished.address);
await other.page.locator('#dock tbody tr').nth(4).click();
await other.page.waitForTimeout(6000);
await other.page.keyboard.press('x');
await other.page.locator('#dock tbody tr').nth(5).click();
await other.page.waitForTimeout(2000);
await other.page.screenshot({ path: path.join(root, 'docs/images/viewer-run.jpg'), type: 'jpeg', quality: 85 });
await other.browser.close();
await finished.stop();

/** Serves paths, does something to the page, and takes a picture of it. */
async function shoot(name, paths, act) {
  const served = await serve(paths);
  const shown = await openPage(served.address);
  await shown.page.waitForTimeout(2500);
  await act(shown.page);
  await shown.page.waitForTimeout(2500);
  await shown.page.screenshot({ path: path.join(root, `docs/images/viewer-${name}.jpg`), type: 'jpeg', quality: 80 });
  await shown.browser.close();
  await served.stop();
}
await shoot('operations', [path.join(demo, 'wheel_result/colour.fits')], async (shown) => {
  for (const title of ['Stretch', 'Statistics']) await shown.getByText(title, { exact: true }).click();
  await shown.getByText('Operations', { exact: true }).click();
  for (const name of ['stretch', 'unsharp']) {
    await shown.locator('#operations').getByLabel('Find an operation').fill(name);
    await shown.locator('#operations').getByLabel('Operations').selectOption(name);
    await shown.getByRole('button', { name: 'Add', exact: true }).click();
  }
});
await shoot('session', [path.join(demo, 'session')], (shown) => shown.getByRole('button', { name: 'Session' }).click());
await shoot('live', ['--watch', path.join(demo, 'session')], (shown) => shown.waitForTimeout(8000));
