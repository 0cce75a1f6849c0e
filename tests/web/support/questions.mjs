// Questions of the tests to the page: but for edit(), these functions are run in it.

export const isRead = () => /of/.test(document.querySelector('#count').textContent);

export const shownKeys = () => Array.from(document.querySelectorAll('.row'), (row) => row.dataset.key);

export const valueShown = (key, value) =>
  document.querySelector(`.row[data-key="${key}"] .value`)?.textContent === value;

export const answerShown = (kind) => document.querySelector(`.answer[data-kind=${kind}]`)?.textContent;

export const stateShown = (state) => document.querySelector('#connection').dataset.state === state;

export const countShown = (text) => document.querySelector('#count').textContent === text;

export const focusIsOn = (selector) => document.activeElement.matches(selector);

/** Leaves exactly the properties that match, and opens the first of them with the keyboard. */
export async function edit(page, key) {
  await page.press('/');
  await page.type(key);
  await page.until((sought) => document.querySelector('.row')?.dataset.key === sought, key);
  await page.press('ArrowDown', 'Enter');
  await page.until(focusIsOn, '.editor textarea');
}
