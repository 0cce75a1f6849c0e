// The properties that the page knows, and those of them that it shows.

const MOST_ROWS = 256; // in any script of the basic plane their values and defaults stay within a reply's 1 MiB

const keyOrder = new Intl.Collator('en', { numeric: true });

/** Returns the part before the first "."; empty for a key without one. */
export function groupOf(key) {
  return key.slice(0, Math.max(key.indexOf('.'), 0));
}

export function isState(key) {
  return key.startsWith('State.');
}

export function isReadOnly(property) {
  return (property.flags & 1) !== 0;
}

export function differs(property) {
  return property.defaultvalues !== undefined && property.value !== property.defaultvalues;
}

/** The pattern for the key alone, or, with `isStart`, for all keys that begin so. Only its first "%" is a wildcard. */
export function patternOf(key, isStart = false) {
  if (!isStart && !key.includes('%')) {
    return key;
  }
  const [start] = key.split('%', 1);
  return `${start.replaceAll(/[.[\]*^$\\]/g, '\\$&')}%`;
}

/** Patterns for keys, all of which begin with `start`; what one matches fits into a reply. They may leave keys out. */
export function patternsFor(keys, start = '') {
  if (keys.length <= MOST_ROWS) {
    return [patternOf(start, true)];
  }
  const keysByStart = new Map();
  for (const key of keys.filter(({ length }) => length > start.length)) {
    const longer = start + String.fromCodePoint(key.codePointAt(start.length));
    if (!keysByStart.has(longer)) {
      keysByStart.set(longer, []);
    }
    keysByStart.get(longer).push(key);
  }
  return [...keysByStart].flatMap(([longer, some]) => patternsFor(some, longer));
}

/** Whether, by its name, the value is a password: the list hides it, the editor shows it. */
export function isSecret(key) {
  return /(password|pin)$/i.test(key);
}

function searchText({ key, value, webui, provisioning, tr069 }) {
  return [key, value, webui, provisioning, tr069].join('\n').toLowerCase();
}

/**
 * Properties by key, each an object whose members are the columns of the service's table; a column that does not apply
 * is absent, `value` never is. Beside them stand `group`, `number`, which stays the property's own, and `searchText`.
 */
export class Properties {
  #byKey = new Map();
  #keysInOrder = new Set(); // may have some that are not known
  #lastNumber = 0;

  get(key) {
    return this.#byKey.get(key);
  }

  get size() {
    return this.#byKey.size;
  }

  stateKeys() {
    return [...this.#byKey.keys()].filter(isState);
  }

  /** Takes a row as the service returns it, which leaves out an empty value. True when the value was another before. */
  put(row) {
    const before = this.#byKey.get(row.key);
    const property = {
      value: '',
      ...row,
      group: groupOf(row.key),
      number: before?.number ?? ++this.#lastNumber,
    };
    property.searchText = searchText(property);
    this.#byKey.set(row.key, property);
    return before !== undefined && before.value !== property.value;
  }

  /** True when the value was another before. REQUIRES: the property is known. */
  setValue(key, value) {
    const property = this.#byKey.get(key);
    if (property.value === value) {
      return false;
    }
    property.value = value;
    property.searchText = searchText(property);
    return true;
  }

  remove(key) {
    this.#byKey.delete(key);
  }

  /** Forgets all others but State keys, which cannot be listed. The keys may be put later. */
  retain(keys) {
    const stated = new Set(keys);
    for (const key of this.#byKey.keys()) {
      if (!stated.has(key) && !isState(key)) {
        this.remove(key);
      }
    }
    this.#order(stated);
  }

  /**
   * Which properties to show, and how many each group has among those that the text and the toggle leave.
   * `text`: words that all occur in key, value or an alias. `group`: null for all. `kept`: keys that are shown anyway,
   * a set.
   */
  select({ text, group, onlyDiffering }, kept) {
    const words = text.toLowerCase().split(/\s+/);
    const rows = [];
    const groups = new Map();
    let differing = 0;
    for (const property of this.#ordered()) {
      const isKept = kept.has(property.key);
      const count = groups.get(property.group) ?? 0;
      groups.set(property.group, count);
      if (!isKept && !words.every((word) => property.searchText.includes(word))) {
        continue;
      }
      const inGroup = group === null || property.group === group;
      const isDifferent = differs(property);
      if (inGroup && isDifferent) {
        ++differing;
      }
      if (isKept || isDifferent || !onlyDiffering) {
        groups.set(property.group, count + 1);
        if (isKept || inGroup) {
          rows.push(property);
        }
      }
    }
    return { rows, groups, differing };
  }

  // Sorting thousands of keys takes long, so it is done for all at once.
  #order(keys) {
    this.#keysInOrder = new Set([...new Set([...keys, ...this.#byKey.keys()])].sort(keyOrder.compare));
  }

  #ordered() {
    if ([...this.#byKey.keys()].some((key) => !this.#keysInOrder.has(key))) {
      this.#order([]);
    }
    return [...this.#keysInOrder].map((key) => this.#byKey.get(key)).filter((property) => property !== undefined);
  }
}
