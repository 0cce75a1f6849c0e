import assert from 'node:assert/strict';
import { test } from 'node:test';

import { commandLine, explain, flagsOf, rulesOf } from '../../device/web/words.js';

const sentence = (property) => rulesOf(property).map(({ words, expression }) => words + expression).join('; ');

test('a range with one bound is told as that bound', () => {
  assert.equal(sentence({ range_min: 0 }), 'number, at least 0');
  assert.equal(sentence({ range_max: 500 }), 'number, at most 500');
  assert.equal(explain('ValueOutOfBounds', { range_min: 0 }, 'x'), 'Not a number of at least 0.');
});

test('several rules are told together', () => {
  const property = { flags: 1, range_min: 1, range_max: 9, enum: '1,,3', regexp: '^[0-9]$' };

  assert.equal(sentence(property), 'read-only; number, 1 to 9; one of 1, 3; matches ^[0-9]$');
});

test('a property without rules has none', () => {
  assert.equal(sentence({ flags: 14 }), '');
});

test('flags without a meaning are not told', () => {
  assert.deepEqual(
    flagsOf({ flags: 16 + 32 + 1 }).map(({ name }) => name),
    ['read-only', 'kept'],
  );
  assert.deepEqual(flagsOf({}), []);
});

test('a value error tells length and NUL from the list', () => {
  const property = { enum: 'a,b' };

  assert.equal(explain('ValueError', property, 'é'.repeat(257)), 'Longer than 256 characters.');
  assert.equal(explain('ValueError', property, 'a\0'), 'Holds a NUL character.');
  assert.equal(explain('ValueError', property, 'c'), 'Not one of a, b');
});

test('256 characters outside the basic plane are not too long', () => {
  assert.equal(explain('ValueError', { enum: 'a' }, '😀'.repeat(256)), 'Not one of a');
});

test('a command line is what a shell takes for it', () => {
  for (const [property, line] of [
    [{ key: 'Audio.Volume', value: '5' }, 'propctl set Audio.Volume=5'],
    [{ key: 'A.B', value: `it's $HOME\n` }, `propctl set 'A.B=it'\\''s $HOME\n'`],
    [{ key: 'NVM.Version', value: '1 2', flags: 1 }, 'propctl get NVM.Version'],
  ]) {
    assert.equal(commandLine(property), line);
  }
});
