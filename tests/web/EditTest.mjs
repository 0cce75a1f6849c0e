import assert from 'node:assert/strict';

import { pageTest } from './support/fixture.mjs';
import { answerShown, edit, isRead, shownKeys, valueShown } from './support/questions.mjs';

/** Opens the property, saves `value`, and waits for the answer. */
async function save(page, key, value) {
  await edit(page, key);
  await page.type(value);
  await page.press('Enter');
  return page.until(() => document.querySelector('.answer:is([data-kind=ok], [data-kind=refused])')?.textContent);
}

pageTest('saves a value that the service takes', async ({ page, device }) => {
  const answer = await save(page, 'Audio.Volume', '8');

  assert.equal(answer, 'Ok Saved.');
  assert.equal(await device.valueOf('Audio.Volume'), '8');
  await page.until(valueShown, 'Audio.Volume', '8');
});

pageTest('shows the range that a value broke', async ({ page, device }) => {
  const answer = await save(page, 'Audio.Volume', '11');

  assert.equal(answer, 'ValueOutOfBounds Not a number from 0 to 10.');
  assert.equal(await device.valueOf('Audio.Volume'), '5');
  assert.ok(await page.ask(valueShown, 'Audio.Volume', '5'));
});

pageTest('shows the expression that a value broke', async ({ page }) => {
  const answer = await save(page, 'System.Reboot.Time', '25:00');

  assert.equal(answer, 'RegExpError Does not match ^([01][0-9]|2[0-3]):[0-5][0-9]$');
});

pageTest('shows the list that a value is not in', async ({ page }) => {
  const answer = await save(page, 'Display.Theme', 'Purple');

  assert.equal(answer, 'ValueError Not one of Light, Dark');
});

pageTest('says that a value is too long', async ({ page }) => {
  await edit(page, 'System.General.Location');
  await page.send('Input.insertText', { text: 'x'.repeat(257) });
  await page.press('Enter');

  assert.equal(await page.until(answerShown, 'refused'), 'ValueError Longer than 256 characters.');
});

pageTest('saves a value of several lines as it is', async ({ page, device }) => {
  await edit(page, 'System.General.Location');
  await page.send('Input.insertText', { text: ' first\nsecond ' });
  await page.press('Enter');

  await page.until(answerShown, 'ok');
  assert.equal(await device.valueOf('System.General.Location'), ' first\nsecond ');
});

pageTest('takes an allowed value from its button', async ({ page, device }) => {
  await edit(page, 'Display.Theme');
  await page.click('.choice:nth-child(2)');
  await page.press('Enter');

  await page.until(answerShown, 'ok');
  assert.equal(await device.valueOf('Display.Theme'), 'Dark');
});

pageTest('offers no writing of a read-only property', async ({ page }) => {
  await edit(page, 'NVM.Version');

  assert.equal(await page.ask(() => document.querySelector('.editor [type=submit]').disabled), true);
  assert.equal(await page.ask(() => document.querySelector('.editor textarea').readOnly), true);
});

pageTest('shows the answer about a property that became read-only', async ({ page, device }) => {
  await device.stopDaemon();
  await device.query(`UPDATE settings SET flags = flags | 1 WHERE key = 'Audio.Volume'`);
  await device.startDaemon();

  const answer = await save(page, 'Audio.Volume', '8');

  assert.equal(answer, 'ReadOnly Read-only: requests cannot write it.');
});

pageTest('resets to the default', async ({ page, device }) => {
  await device.set('Audio.Volume', '8');
  await page.until(valueShown, 'Audio.Volume', '8');
  await edit(page, 'Audio.Volume');

  await page.click('.actions button:nth-child(2)');

  await page.until(answerShown, 'ok');
  await page.until(valueShown, 'Audio.Volume', '5');
  assert.equal(await device.valueOf('Audio.Volume'), '5');
  assert.equal(await page.ask(() => document.querySelector('.actions button:nth-child(2)').disabled), true);
});

pageTest('gives up what was typed for the default', async ({ page, device }) => {
  await device.set('Audio.Volume', '8');
  await page.until(valueShown, 'Audio.Volume', '8');
  await edit(page, 'Audio.Volume');
  await page.type('99');

  await page.click('.actions button:nth-child(2)');

  await page.until(answerShown, 'ok');
  await page.until(() => document.querySelector('.editor textarea').value === '5');
});

pageTest('keeps the open row while only differing ones are shown', async ({ page, device }) => {
  await device.set('Audio.Volume', '8');
  await page.until(valueShown, 'Audio.Volume', '8');
  await page.click('#differing');
  await edit(page, 'Audio.Volume');

  await page.click('.actions button:nth-child(2)');
  await page.until(answerShown, 'ok');
  await page.until(valueShown, 'Audio.Volume', '5');
  assert.deepEqual(await page.ask(shownKeys), ['Audio.Volume']);

  await page.press('Escape');
  await page.until(() => document.querySelectorAll('.row').length === 0);
});

pageTest('keeps what was typed when the value changes elsewhere', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');
  await page.type('3');

  await device.set('Audio.Volume', '9');

  await page.until(() => document.querySelector('.note').textContent === 'Meanwhile it became 9.');
  assert.equal(await page.ask(() => document.querySelector('.editor textarea').value), '3');
});

pageTest('follows a change elsewhere while nothing was typed', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');

  await device.set('Audio.Volume', '9');

  await page.until(() => document.querySelector('.editor textarea').value === '9');
});

pageTest('says that there was no answer, and the write is not made later', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');
  await device.stopDaemon();
  await page.type('8');
  await page.press('Enter');

  assert.match(await page.until(answerShown, 'refused'), /^No answer the service does not answer/);
  await device.startDaemon();
  await page.until(isRead);
  assert.equal(await device.valueOf('Audio.Volume'), '5');
});
