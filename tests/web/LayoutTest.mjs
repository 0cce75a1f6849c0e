import assert from 'node:assert/strict';

import { pageTest } from './support/fixture.mjs';
import { edit, focusIsOn, shownKeys, stateShown, valueShown } from './support/questions.mjs';

const LONG_KEY = `Provisioning.${'VeryLong'.repeat(5)}.Ending`.padStart(64, 'X');

const addProperty = (key, value) => (script) =>
  script.replace('COMMIT;', () => `INSERT INTO settings (key, value, flags) VALUES ('${key}', '${value}', 2); COMMIT;`);

pageTest('fits into any width, also with unsaved text and while the daemon is away', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');
  await page.type('3');
  await device.stopDaemon();
  await page.until(stateShown, 'service-away');

  const tooWide = [];
  for (let width = 320; width <= 1300; width += 7) {
    await page.resize(width, 800);
    tooWide.push(
      ...(await page.ask(() =>
        [document.documentElement, ...document.querySelectorAll('header, #tools, main, #grid, #columns, .row, .editor')]
          .filter(({ scrollWidth, clientWidth }) => scrollWidth > clientWidth)
          .map(({ id, className, tagName }) => `${innerWidth}: ${tagName} ${id} ${className}`),
      )),
    );
  }
  assert.deepEqual(tooWide, []);
});

pageTest(
  'shows the end of a long key in the list, and all of it in the open row',
  async ({ page }) => {
    await page.resize(950, 800);
    await edit(page, LONG_KEY);

    const [endIsShown, label, isCut] = await page.ask((key) => {
      const cell = document.querySelector('.row .key');
      const end = document.createRange();
      const text = cell.querySelector('.name').lastChild;
      end.setStart(text, text.length - 6);
      end.setEnd(text, text.length);
      const [box, frame] = [end, cell].map((one) => one.getBoundingClientRect());
      const named = document.querySelector('.editor label');
      return [
        box.left >= frame.left && box.right <= frame.right,
        named.textContent,
        named.scrollWidth > named.clientWidth || cell.textContent !== key,
      ];
    }, LONG_KEY);
    assert.deepEqual([endIsShown, label, isCut], [true, LONG_KEY, false]);
  },
  { changeScript: addProperty(LONG_KEY, '1') },
);

pageTest('has the field in sight when it is enlarged to 400 %', async ({ page }) => {
  await page.resize(320, 256);

  await page.click('.row .key');

  await page.until(focusIsOn, '.editor textarea');
  const inSight = await page.ask(() =>
    ['label', 'textarea', '.answer'].filter((selector) => {
      const part = document.querySelector(`.editor ${selector}`);
      const { x, y, height } = part.getBoundingClientRect();
      return document.elementFromPoint(x + 5, y + height / 2) === part;
    }),
  );
  assert.deepEqual(inSight, ['label', 'textarea', '.answer']);
});

pageTest('keeps bar, dot and current group with forced colours', async ({ page, device }) => {
  await device.set('Audio.Volume', '9');
  await page.until(valueShown, 'Audio.Volume', '9');
  await page.emulate({ 'forced-colors': 'active' });

  const colours = await page.ask(() =>
    [
      ['.row.differs', '::before'],
      ['#connection', '::before'],
      ['#groups [aria-current=true]', null],
    ].map(
      ([selector, part]) => getComputedStyle(document.querySelector(selector), part).backgroundColor,
    ),
  );
  const canvas = await page.ask(() => getComputedStyle(document.body).backgroundColor);
  assert.equal(colours.length, 3);
  assert.ok(
    colours.every((colour) => colour !== canvas && colour !== 'rgba(0, 0, 0, 0)'),
    `${colours} on ${canvas}`,
  );
});

pageTest(
  'takes the direction of a value from its text, and names characters that turn it',
  async ({ page }) => {
    await edit(page, 'Strange.Text');

    const [shown, noted, directions] = await page.ask(() => [
      document.querySelector('.row .value').textContent,
      Array.from(document.querySelectorAll('.note'), ({ textContent }) => textContent).join(''),
      Array.from(document.querySelectorAll('.row .value, .editor textarea'), (one) => getComputedStyle(one).direction),
    ]);
    assert.equal(shown, 'שלום⟨U+202E⟩123');
    assert.equal(noted, 'Holds what is not seen: U+202E.');
    assert.deepEqual(directions, ['rtl', 'rtl']);
  },
  { changeScript: addProperty('Strange.Text', 'שלום\u202e123') },
);

pageTest(
  'lists a key without a dot, also among the groups',
  async ({ page }) => {
    await page.click('#groups button:nth-child(2)');

    await page.until(() => document.querySelectorAll('.row').length === 1);
    assert.deepEqual(await page.ask(shownKeys), ['Aaa']);
  },
  { changeScript: addProperty('Aaa', '1') },
);
