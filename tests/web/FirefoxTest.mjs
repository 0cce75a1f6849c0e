// The main roads in a second browser; all else is tested in the first.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { Device } from './support/Device.mjs';
import { Firefox } from './support/Firefox.mjs';
import { answerShown, countShown, edit, isRead, stateShown, valueShown } from './support/questions.mjs';

test('reads, filters, edits, is refused, hears of changes, and of the daemon that goes and comes', async () => {
  const device = new Device();
  const page = new Firefox();
  try {
    await device.start();
    await page.open(device.url);
    await page.until(isRead);
    await page.until(countShown, '221 of 221');

    await edit(page, 'Audio.Volume');
    await page.type('8');
    await page.press('Enter');
    assert.equal(await page.until(answerShown, 'ok'), 'Ok Saved.');
    assert.equal(await device.valueOf('Audio.Volume'), '8');
    await page.until(valueShown, 'Audio.Volume', '8');

    await page.type('1'); // after the 8
    await page.press('Enter');
    assert.equal(await page.until(answerShown, 'refused'), 'ValueOutOfBounds Not a number from 0 to 10.');
    await page.press('Escape');

    await device.set('Audio.Volume', '9');
    await page.until(valueShown, 'Audio.Volume', '9');

    await device.stopDaemon();
    await page.until(stateShown, 'service-away');
    await device.query(`UPDATE settings SET value = '3' WHERE key = 'Audio.Volume'`);
    await device.startDaemon();
    await page.until(stateShown, 'connected');
    assert.ok(await page.ask(valueShown, 'Audio.Volume', '3'));
  } finally {
    await page.end();
    await device.stop();
  }
});
