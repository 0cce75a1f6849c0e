// Rules, flags and answers in words.

import { isReadOnly } from './properties.js';

const FLAGS = [
  { bit: 1, name: 'read-only', meaning: 'requests cannot write it, resetting it can' },
  { bit: 2, name: 'setting', meaning: 'saved with all settings' },
  { bit: 4, name: 'dump', meaning: 'appears in the system dump' },
  { bit: 8, name: 'user', meaning: 'belongs to the user’s backup' },
  { bit: 16, name: 'kept', meaning: 'survives a factory reset' },
];

/** The command line that sets the property as it is, or that reads one which cannot be set, as a shell takes it. */
export function commandLine(property) {
  const { key, value } = property;
  const [verb, text] = isReadOnly(property) ? ['get', key] : ['set', `${key}=${value}`];
  return `propctl ${verb} ${/^[\w.,:/=@%+-]+$/.test(text) ? text : `'${text.replaceAll("'", "'\\''")}'`}`;
}

/** Returns the flags of a property: [{ name, meaning }]. */
export function flagsOf(property) {
  return FLAGS.filter(({ bit }) => property.flags & bit);
}

// Control characters, and those that show nothing or turn what follows; but not what joins letters.
const UNSEEN = /(?![\t\n\r\u200c\u200d])[\p{Cc}\p{Cf}\u2028\u2029]/gu;

function nameOf(character) {
  return `U+${character.codePointAt(0).toString(16).toUpperCase().padStart(4, '0')}`;
}

/** The text on one line, with names for what would not be seen. */
export function visible(text) {
  return text.replaceAll(/\r\n|\r|\n/g, '⏎').replaceAll(UNSEEN, (character) => `⟨${nameOf(character)}⟩`);
}

/** The names of the characters in it that are not seen, each once. */
export function unseenIn(text) {
  return [...new Set(text.match(UNSEEN))].map(nameOf);
}

export function allowedValues(property) {
  return property.enum === undefined ? [] : property.enum.split(',').filter((value) => value !== '');
}

function range({ range_min: min, range_max: max }) {
  if (min === undefined) {
    return `at most ${max}`;
  }
  return max === undefined ? `at least ${min}` : `${min} to ${max}`;
}

/** The rules a value has to obey, the short ones first: [{ words, expression }]; most have no expression. */
export function rulesOf(property) {
  const rules = [];
  const add = (words, expression = '') => rules.push({ words, expression });
  if (isReadOnly(property)) {
    add('read-only');
  }
  if (property.range_min !== undefined || property.range_max !== undefined) {
    add(`number, ${range(property)}`);
  }
  if (property.enum !== undefined) {
    add(`one of ${allowedValues(property).join(', ')}`);
  }
  if (property.regexp !== undefined) {
    add('matches ', property.regexp);
  }
  return rules;
}

/** Explains the service's answer to `value`, with the rule that it broke. */
export function explain(status, property, value) {
  switch (status) {
    case 'Ok':
      return 'Saved.';
    case 'ReadOnly':
      return 'Read-only: requests cannot write it.';
    case 'RegExpError':
      return `Does not match ${property.regexp}`;
    case 'ValueOutOfBounds':
      return `Not a number ${boundsInWords(property)}.`;
    case 'ValueError':
      return valueError(property, value);
    case 'NotFound':
      return 'The service has no such property.';
    case 'DBError':
      return 'The service could not store it.';
    default:
      return 'The service refused the request.';
  }
}

function boundsInWords(property) {
  const text = range(property);
  return text.includes(' to ') ? `from ${text}` : `of ${text}`;
}

function valueError(property, value) {
  if ([...value].length > 256) {
    return 'Longer than 256 characters.';
  }
  if (value.includes('\0')) {
    return 'Holds a NUL character.';
  }
  return `Not one of ${allowedValues(property).join(', ')}`;
}
