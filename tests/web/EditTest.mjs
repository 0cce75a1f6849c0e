import assert from 'node:assert/strict';

import { pageTest } from './support/fixture.mjs';
import { answerShown, edit, focusIsOn, isRead, shownKeys, valueShown } from './support/questions.mjs';

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

pageTest('offers no writing of an open property any more once it has become read-only', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');
  await device.stopDaemon();
  await device.query(`UPDATE settings SET flags = flags | 1 WHERE key = 'Audio.Volume'`);
  await device.startDaemon();

  await page.until(() => document.querySelector('.editor textarea').readOnly);
  await page.press('8', 'Enter');
  assert.ok(await page.ask(() => document.querySelector('.editor [type=submit]').disabled));
  assert.match(await page.ask(() => document.querySelector('.answer').textContent), /^Read-only: /);
});

pageTest('keeps unsaved text when its row or the page is left, until it is discarded', async ({ page }) => {
  const row = '.row[data-key="Audio.Volume"]';
  const text = () => document.querySelector('.editor textarea').value;
  const isMarked = () =>
    document.querySelector('.row.unsaved .value') && document.querySelector('#unsaved').textContent === '1 unsaved';
  await page.click(`${row} .key`);
  await page.until(focusIsOn, '.editor textarea');
  await page.type('3');
  await page.until(isMarked);

  await page.click('.row[data-key="Audio.KeyClick"] .key');
  await page.until(() => document.querySelectorAll('.editor').length === 2);
  await page.click(`${row} .key`);
  await page.until(() => !document.querySelector('.row[data-key="Audio.Volume"] .editor'));
  await page.until(isMarked);
  await page.click('#groups button:nth-child(3)');
  await page.until(() => document.querySelector('.row').dataset.key.startsWith('Display.'));
  await page.click('#unsaved');
  await page.until(focusIsOn, `${row} textarea`);
  assert.equal(await page.ask(text), '3');

  page.open('about:blank'); // which does not load
  assert.equal(await page.dialog(), 'beforeunload');
  await page.send('Page.handleJavaScriptDialog', { accept: false });
  assert.equal(await page.ask(text), '3');

  await page.press('Escape');
  await page.until(() => !document.querySelector('.unsaved') && document.querySelector('#unsaved').hidden);
  await page.open('about:blank');
});

pageTest('a double click opens, and what opens or closes moves no row under the pointer', async ({ page }) => {
  const placeOf = (key) => document.querySelector(`.row[data-key="${key}"] .key`).getBoundingClientRect().top;
  await page.click('.row[data-key="Audio.AGC.TargetLevel"] .key', 2);
  await page.until(focusIsOn, '.row[data-key="Audio.AGC.TargetLevel"] textarea');
  const before = await page.ask(placeOf, 'Audio.KeyClick');

  await page.click('.row[data-key="Audio.KeyClick"] .key');

  await page.until(focusIsOn, '.row[data-key="Audio.KeyClick"] textarea');
  assert.equal(await page.ask(placeOf, 'Audio.KeyClick'), before);
});

pageTest('shows an answer only beside the text that it is about', async ({ page, device }) => {
  const shown = () => {
    const { textContent, dataset } = document.querySelector('.answer');
    return [textContent, dataset.kind, document.querySelector('.editor textarea').ariaInvalid];
  };
  assert.equal(await save(page, 'Audio.Volume', '8'), 'Ok Saved.');
  await page.type('9');
  assert.deepEqual(await page.ask(shown), ['Not saved yet. Enter saves, Esc discards.', '', 'false']);

  await page.press('Enter');
  await page.until(answerShown, 'refused');
  assert.deepEqual((await page.ask(shown)).slice(1), ['refused', 'true']);
  await page.press('Backspace');
  assert.deepEqual(await page.ask(shown), ['Enter saves, Esc closes.', '', 'false']);

  await page.press('Enter');
  await page.until(answerShown, 'ok');
  await device.set('Audio.Volume', '4');
  await page.until(() => document.querySelector('.editor textarea').value === '4');
  assert.deepEqual(await page.ask(shown), ['Enter saves, Esc closes.', '', 'false']);
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

pageTest('sends nothing to a daemon that is not running, and the write is not made later', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');
  await device.stopDaemon();
  await page.type('8');
  await page.press('Enter');

  const answer = await page.until(answerShown, 'refused');
  assert.equal(answer, 'No answer PropertyService is not running; nothing was sent.');
  await device.startDaemon();
  await page.until(isRead);
  assert.equal(await device.valueOf('Audio.Volume'), '5');
});
