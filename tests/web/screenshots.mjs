// Takes pictures of the page, to be looked at: light and dark, wide and narrow, the list and a refused edit.
//
//     script/web
//     PROPERTYSERVICE_BINARY=build/release/PropertyService \
//       script/sandbox --private-network -- node tests/web/screenshots.mjs DIRECTORY

import { mkdirSync } from 'node:fs';
import { join } from 'node:path';

import { Browser } from './support/Browser.mjs';
import { Device } from './support/Device.mjs';
import { answerShown, edit, isRead } from './support/questions.mjs';

const directory = process.argv[2];
const browser = new Browser();
const device = new Device();

async function takePictures(scheme, width, height) {
  const page = await browser.newPage();
  const take = (name) => page.screenshot(join(directory, `${scheme}-${width}-${name}.png`));
  await page.emulate({ 'prefers-color-scheme': scheme });
  await page.resize(width, height);
  await page.open(device.url);
  await page.until(isRead);
  await take('list');
  await edit(page, 'Audio.Volume');
  await page.type('11');
  await page.press('Enter');
  await page.until(answerShown, 'refused');
  await take('refused');
  await page.close();
}

try {
  mkdirSync(directory, { recursive: true });
  await device.start();
  await device.request({ method: 'setVList', list: { 'Audio.AGC.TargetLevel': '-12', 'Audio.Volume': '7' } });
  for (const scheme of ['light', 'dark']) {
    await takePictures(scheme, 1440, 900);
    await takePictures(scheme, 390, 844);
  }
} finally {
  await browser.close();
  await device.stop();
}
