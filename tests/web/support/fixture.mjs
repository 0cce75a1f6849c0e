// A device, a browser and the page for each test.

import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { Browser } from './Browser.mjs';
import { Device } from './Device.mjs';
import { isRead } from './questions.mjs';

let browser;

before(() => {
  browser = new Browser();
});
after(() => browser.close());

/**
 * A test with a device of its own, and the page opened on it, where all properties are shown. Fails, too, when the page
 * complains on its console. `changeScript` may change the sample device's database script; `tolerated` is an expression
 * for complaints that the test causes.
 */
export function pageTest(name, body, { changeScript, tolerated = /^$/ } = {}) {
  test(name, async (context) => {
    const device = new Device();
    const page = await browser.newPage();
    try {
      await device.start(changeScript);
      await page.open(device.url);
      await page.until(isRead);
      await body({ page, device, context });
      assert.deepEqual(
        page.complaints.filter((complaint) => !tolerated.test(complaint)),
        [],
      );
    } finally {
      await page.close();
      await device.stop();
    }
  });
}
