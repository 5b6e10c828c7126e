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
await other.page.locator('#dock tbody tr').nth(6).click();
await other.page.waitForTimeout(2000);
await other.page.screenshot({ path: path.join(root, 'docs/images/viewer-run.jpg'), type: 'jpeg', quality: 85 });
await other.browser.close();
await finished.stop();
