import assert from 'node:assert/strict';

import { pageTest } from './support/fixture.mjs';
import { answerShown, countShown, focusIsOn, stateShown, valueShown } from './support/questions.mjs';

const activeKey = () => document.querySelector('.row.active')?.dataset.key;
const isActive = (key) => document.querySelector('.row.active')?.dataset.key === key;

pageTest('edits a property with the keyboard alone', async ({ page, device }) => {
  await page.press('/');
  await page.type('audio.volume');
  await page.until(countShown, '1 of 221');
  await page.press('ArrowDown', 'Enter');
  await page.until(focusIsOn, '.editor textarea');
  await page.type('7');
  await page.press('Enter');
  await page.until(answerShown, 'ok');
  await page.press('Escape');

  await page.until(focusIsOn, '#grid');
  await page.until(valueShown, 'Audio.Volume', '7');
  assert.equal(await device.valueOf('Audio.Volume'), '7');
});

pageTest('cancels with Escape', async ({ page, device }) => {
  await page.press('/');
  await page.type('audio.volume');
  await page.until(countShown, '1 of 221');
  await page.press('ArrowDown', 'Enter');
  await page.until(focusIsOn, '.editor textarea');
  await page.type('7');
  await page.press('Escape');

  await page.until(focusIsOn, '#grid');
  assert.equal(await page.ask(() => document.querySelector('.editor')), null);
  assert.equal(await device.valueOf('Audio.Volume'), '5');
});

pageTest('walks the list', async ({ page }) => {
  await page.press('/', 'ArrowDown');
  assert.equal(await page.ask(activeKey), 'Audio.AGC.Enabled');

  await page.press('ArrowDown', 'ArrowDown', 'ArrowUp');
  assert.equal(await page.ask(activeKey), 'Audio.AGC.TargetLevel');

  await page.press('End');
  await page.until(isActive, 'WebUI.User.Password');
  assert.ok(
    await page.ask(() => {
      const row = document.querySelector('.row.active').getBoundingClientRect();
      const grid = document.querySelector('#grid').getBoundingClientRect();
      return row.top >= grid.top && row.bottom <= grid.bottom;
    }),
  );

  await page.press('Home');
  await page.until(isActive, 'Audio.AGC.Enabled');
});

pageTest('tells assistive technology which row is active', async ({ page }) => {
  await page.press('/', 'ArrowDown', 'ArrowDown');

  const [named, rowIndex, rowCount] = await page.ask(() => {
    const grid = document.querySelector('#grid');
    const row = document.getElementById(grid.getAttribute('aria-activedescendant'));
    return [row.dataset.key, row.getAttribute('aria-rowindex'), grid.getAttribute('aria-rowcount')];
  });
  assert.deepEqual([named, rowIndex, rowCount], ['Audio.AGC.TargetLevel', '3', '222']);
});

pageTest('reaches the list with four presses of Tab, and shows where it is', async ({ page }) => {
  const stops = [];
  for (let stop = 0; stop < 4; ++stop) {
    await page.press('Tab');
    stops.push(
      await page.ask(() => {
        const focused = document.activeElement;
        const shown = focused.id === 'grid' ? document.querySelector('.row.active') : focused;
        return [focused.id || focused.textContent, getComputedStyle(shown).outlineStyle];
      }),
    );
  }

  assert.deepEqual(stops, [
    ['filter', 'solid'],
    ['differing', 'solid'],
    ['All221', 'solid'],
    ['grid', 'solid'],
  ]);
});

pageTest('marks the active row while the list has the focus', async ({ page }) => {
  await page.press('/', 'ArrowDown');

  assert.equal(await page.ask(() => getComputedStyle(document.querySelector('.row.active')).outlineStyle), 'solid');
});

pageTest('chooses a group and the toggle with the keyboard', async ({ page }) => {
  await page.press('Tab', 'Tab', 'Space', 'Tab', 'ArrowDown', 'Enter');

  await page.until(countShown, '0 of 221');
  assert.ok(await page.ask(() => document.querySelector('#differing').checked));
});

pageTest('types a slash where text is edited', async ({ page }) => {
  await page.press('/');
  await page.type('Europe/');

  await page.until(countShown, '1 of 221');
});

pageTest('shows all keys, and copies key, value and command line', async ({ page }) => {
  await page.press('?');
  assert.equal(await page.until(() => document.querySelector('dialog[open] h2')?.textContent), 'Keys');
  await page.press('Escape');
  await page.until(() => !document.querySelector('dialog[open]'));

  await page.click('.row[data-key="Audio.Volume"] .key');
  await page.until(focusIsOn, '.editor textarea');
  await page.ask(() => {
    window.copied = [];
    addEventListener('copy', ({ clipboardData }) => window.copied.push(clipboardData.getData('text/plain')));
  });
  for (const number of [1, 2, 3]) {
    await page.click(`.editor dd .choice:nth-child(${number})`);
    await page.until(focusIsOn, `.editor dd .choice:nth-child(${number})`);
    assert.equal(await page.ask(() => document.activeElement.textContent), 'copied');
  }
  assert.deepEqual(await page.ask(() => window.copied), ['Audio.Volume', '5', 'propctl set Audio.Volume=5']);
});

pageTest('names all that can be operated, the field by its key, and says which rows are open', async ({ page }) => {
  await page.press('/');
  await page.type('Display.Theme');
  await page.until(countShown, '1 of 221');
  await page.press('ArrowDown', 'Enter');
  await page.until(stateShown, 'connected');

  const { nodes } = await page.send('Accessibility.getFullAXTree');
  const roles = ['button', 'checkbox', 'searchbox', 'textbox', 'treegrid'];
  const operated = nodes.filter(({ role }) => roles.includes(role?.value));
  assert.ok(operated.length > 15);
  assert.deepEqual(operated.filter(({ name }) => !name?.value), []);
  assert.deepEqual(
    operated.filter(({ role }) => role.value === 'textbox').map(({ name }) => name.value),
    ['Display.Theme'],
  );

  await page.press('Escape', '/');
  await page.type('Display.');
  await page.until(countShown, '5 of 221');
  await page.press('ArrowDown', 'Home', 'ArrowDown', 'Enter');
  await page.until(focusIsOn, '.editor textarea');
  const { nodes: later } = await page.send('Accessibility.getFullAXTree');
  const expanded = later.flatMap(({ role, properties = [] }) =>
    role?.value === 'row' ? properties.filter(({ name }) => name === 'expanded').map(({ value }) => value.value) : [],
  );
  assert.deepEqual(expanded, [false, true, false, false, false]);
});
