import assert from 'node:assert/strict';

import { pageTest } from './support/fixture.mjs';
import { countShown, edit, shownKeys, valueShown } from './support/questions.mjs';

async function filterFor(page, text) {
  await page.click('#filter');
  await page.type(text);
}

const textOf = (selector) => document.querySelector(selector).textContent;

pageTest('filters by a part of the key, in any case', async ({ page }) => {
  await filterFor(page, 'reBOOT');

  await page.until(countShown, '3 of 221');
  assert.ok((await page.ask(shownKeys)).every((key) => key.startsWith('System.Reboot.')));
});

pageTest('filters by value', async ({ page }) => {
  await filterFor(page, 'pool.ntp');

  await page.until(countShown, '1 of 221');
  assert.deepEqual(await page.ask(shownKeys), ['Time.NTP.Server1']);
});

pageTest('filters by alias', async ({ page }) => {
  await filterFor(page, 'Device.Time.NTPServer2');

  await page.until(countShown, '1 of 221');
  assert.deepEqual(await page.ask(shownKeys), ['Time.NTP.Server2']);
});

pageTest('filters by several words that all occur', async ({ page }) => {
  await filterFor(page, 'ntp interval');

  await page.until(countShown, '1 of 221');
  assert.deepEqual(await page.ask(shownKeys), ['Time.NTP.Interval']);
});

pageTest('says that nothing matches', async ({ page }) => {
  await filterFor(page, 'no such property');

  await page.until(countShown, '0 of 221');
  assert.equal(await page.ask(textOf, '#empty p'), 'No property matches.');
});

pageTest('shows one group', async ({ page }) => {
  await page.click('#groups button:nth-child(3)');

  await page.until(countShown, '5 of 221');
  assert.ok((await page.ask(shownKeys)).every((key) => key.startsWith('Display.')));
});

pageTest('shows only what differs from the default', async ({ page, device }) => {
  await device.set('Audio.Volume', '9');
  await page.until(valueShown, 'Audio.Volume', '9');

  await page.click('#differing');

  await page.until(() => {
    const rows = document.querySelectorAll('.row');
    return rows.length < 20 && Array.from(rows).every((row) => row.matches('.differs'));
  });
  assert.ok((await page.ask(shownKeys)).includes('Audio.Volume'));
});

pageTest('marks what differs from the default', async ({ page, device }) => {
  const isMarked = () => document.querySelector('.row[data-key="Audio.Volume"]').matches('.differs');
  const before = await page.ask(isMarked);

  await device.set('Audio.Volume', '9');

  await page.until(isMarked);
  assert.equal(before, false);
});

pageTest('opens the row that is clicked, however far the active one is', async ({ page }) => {
  await page.press('/', 'ArrowDown');
  await page.click('h1');
  await page.ask(() => {
    document.querySelector('#grid').scrollTop = 3000;
  });

  await page.click('.row[data-key="SIP.Account1.Enabled"]');

  await page.until(() => document.querySelector('.editor'));
  assert.equal(await page.ask(() => document.querySelector('.row.open').dataset.key), 'SIP.Account1.Enabled');
});

pageTest('shows rules, default and flags in words', async ({ page }) => {
  const texts = await page.ask(() =>
    Array.from(document.querySelectorAll('.row[data-key="Audio.Volume"] > span'), (cell) => cell.textContent),
  );

  assert.deepEqual(texts, ['Audio.Volume', '5', '5', 'number, 0 to 10', 'setting, dump, user']);
});

pageTest('hides passwords until their row is opened', async ({ page, device }) => {
  await device.set('WebUI.Admin.Password', 'hunter2');

  await edit(page, 'WebUI.Admin.Password');

  await page.until(valueShown, 'WebUI.Admin.Password', '••••••');
  assert.equal(await page.ask(() => document.querySelector('.editor textarea').value), 'hunter2');
});

pageTest(
  'shows markup in a value as text',
  async ({ page }) => {
    await filterFor(page, 'System.General.Location');

    await page.until(valueShown, 'System.General.Location', '<img src=x onerror=alert(1)>');
    assert.equal(await page.ask(() => document.querySelectorAll('img').length), 0);
  },
  {
    changeScript: (script) =>
      script.replace(
        'COMMIT;',
        `UPDATE settings SET value = '<img src=x onerror=alert(1)>' WHERE key = 'System.General.Location'; COMMIT;`,
      ),
  },
);

pageTest(
  'lists keys with any characters',
  async ({ page }) => {
    await filterFor(page, 'strange');

    await page.until(countShown, '4 of 225');
    assert.deepEqual((await page.ask(shownKeys)).sort(), ['50%.strange', 'Strange', '[a-z]*.strange', 'a\\^$.strange']);
  },
  {
    changeScript: (script) =>
      script.replace(
        'COMMIT;',
        `INSERT INTO settings (key, value, flags)
         VALUES ('Strange', '1', 2), ('[a-z]*.strange', '2', 2), ('a\\^$.strange', '3', 2), ('50%.strange', '4', 2);
         COMMIT;`.replaceAll('$', '$$$$'),
      ),
  },
);
