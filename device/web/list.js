// The list of properties: a grid of which only the rows in sight, the active one and the open ones exist.

import { element } from './element.js';
import { differs, isSecret } from './properties.js';
import { flagsOf, rulesOf, visible } from './words.js';

const MARGIN_ROWS = 8; // beyond the edges, so that a row is there before it is seen

function cell(className, ...children) {
  return element('span', { className, role: 'gridcell' }, ...children);
}

function fillText(target, text, hidden) {
  target.dir = 'auto';
  target.classList.toggle('none', text === '');
  if (text === '') {
    target.textContent = 'empty';
  } else {
    target.textContent = hidden ? '••••••' : visible(text);
  }
}

function keyCell({ key, group }) {
  const name = group === '' ? key : key.slice(group.length + 1);
  const start = group === '' ? [] : [element('span', { className: 'group' }, `${group}.`)];
  const end = element('span', { className: 'name' }, name);
  return cell('key', element('bdi', { dir: 'ltr', title: key }, ...start, end));
}

function describe(row) {
  const words = { unsaved: 'holds unsaved text', differs: 'differs from the default' };
  const those = Object.keys(words).filter((name) => row.classList.contains(name));
  row.setAttribute('aria-description', those.map((name) => words[name]).join(', '));
}

/**
 * The list in `grid`, which scrolls. A row that opens or closes moves only those below it. `editorOf(property)` gives
 * the Editor that an open row shows; `isUnsaved(key)` says whether it has one with unsaved text; `onToggle` is told the
 * key of a row that has been opened or closed.
 */
export class PropertyList {
  #grid;
  #body;
  #editorOf;
  #isUnsaved;
  #onToggle;
  #properties = [];
  #indexOf = new Map();
  #rows = new Map(); // key -> row element
  #activeKey = null;
  #open = new Map(); // key -> editor
  #resizes;
  #frame = 0;

  constructor(grid, { editorOf, isUnsaved, onToggle }) {
    this.#grid = grid;
    this.#body = grid.querySelector('[role=rowgroup]');
    this.#editorOf = editorOf;
    this.#isUnsaved = isUnsaved;
    this.#onToggle = onToggle;
    this.#resizes = new ResizeObserver(() => this.#draw());
    this.#resizes.observe(grid);
    grid.addEventListener('scroll', () => this.#schedule(), { passive: true });
    grid.addEventListener('focus', () => this.#focused());
    grid.addEventListener('keydown', (event) => this.#keyDown(event));
    this.#body.addEventListener('click', (event) => this.#clicked(event));
  }

  /** A set, by key, that changes with the list. */
  get open() {
    return this.#open;
  }

  show(properties) {
    this.#properties = properties;
    this.#indexOf = new Map(properties.map(({ key }, index) => [key, index]));
    if (!this.#indexOf.has(this.#activeKey)) {
      this.#activeKey = null;
    }
    for (const key of [...this.#open.keys()].filter((open) => !this.#indexOf.has(open))) {
      this.close(key);
    }
    this.#grid.setAttribute('aria-rowcount', properties.length + 1);
    this.#draw();
  }

  scrollToTop() {
    this.#grid.scrollTop = 0;
  }

  /** Shows what became of a property; `isNew` has its value light up. */
  refresh(property, isNew) {
    const row = this.#rows.get(property.key);
    if (row) {
      this.#fill(row, property);
      if (isNew) {
        this.#lightUp(row);
      }
    }
  }

  focus() {
    this.#grid.focus();
  }

  #lightUp(row) {
    row.classList.remove('changed');
    void row.offsetWidth; // starts the animation again
    row.classList.add('changed');
  }

  get #rowHeight() {
    return parseFloat(getComputedStyle(this.#grid).getPropertyValue('--row-height'));
  }

  /** Where rows are. It holds for as long as nothing is changed: reading heights has the browser lay everything out. */
  #measure() {
    const rowHeight = this.#rowHeight;
    const editors = [...this.#open].map(([key, editor]) => [this.#indexOf.get(key), editor.element.offsetHeight]);
    const top = (index) =>
      editors.reduce((sum, [open, height]) => (open < index ? sum + height : sum), index * rowHeight);
    return { rowHeight, top };
  }

  #schedule() {
    if (this.#frame === 0) {
      this.#frame = requestAnimationFrame(() => {
        this.#frame = 0;
        this.#draw();
      });
    }
  }

  #draw() {
    const places = this.#measure();
    const wanted = this.#wantedRows(places);
    this.#removeAllBut(wanted);
    this.#addAndOrder(wanted);
    this.#body.style.height = `${places.top(this.#properties.length)}px`;
    for (const index of wanted) {
      const property = this.#properties[index];
      const row = this.#rows.get(property.key);
      row.style.top = `${places.top(index)}px`;
      row.setAttribute('aria-rowindex', index + 2);
    }
    this.#markActive();
  }

  // Indexes, ascending.
  #wantedRows({ rowHeight, top }) {
    const { scrollTop, clientHeight } = this.#grid;
    const count = this.#properties.length;
    const inSight = this.#indexAt(scrollTop, top);
    const first = Math.max(inSight - MARGIN_ROWS, 0);
    const end = Math.min(inSight + Math.ceil(clientHeight / rowHeight) + 1 + MARGIN_ROWS, count);
    const wanted = new Set();
    for (let index = first; index < end; ++index) {
      wanted.add(index);
    }
    for (const key of [this.#activeKey, ...this.#open.keys()]) {
      if (this.#indexOf.has(key)) {
        wanted.add(this.#indexOf.get(key));
      }
    }
    return [...wanted].sort((a, b) => a - b);
  }

  // The first row that ends below `y`.
  #indexAt(y, top) {
    let [low, high] = [0, this.#properties.length];
    while (low < high) {
      const middle = (low + high) >> 1;
      if (top(middle + 1) <= y) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return low;
  }

  #removeAllBut(wanted) {
    const keys = new Set(wanted.map((index) => this.#properties[index].key));
    for (const [key, row] of this.#rows) {
      if (!keys.has(key)) {
        row.remove();
        this.#rows.delete(key);
      }
    }
  }

  // A row that is there already stays where it is: moving it would take the focus from its editor.
  #addAndOrder(wanted) {
    let next = this.#body.firstElementChild;
    for (const index of wanted) {
      const property = this.#properties[index];
      const row = this.#rows.get(property.key) ?? this.#makeRow(property);
      if (row === next) {
        next = next.nextElementSibling;
      } else {
        this.#body.insertBefore(row, next);
      }
    }
  }

  #makeRow(property) {
    const row = element('div', { className: 'row', id: `property-${property.number}`, role: 'row', ariaLevel: 1 });
    row.dataset.key = property.key;
    row.ariaExpanded = false;
    row.append(keyCell(property), cell('value'), cell('default'), cell('rules'), cell('flags'));
    this.#rows.set(property.key, row);
    this.#fill(row, property);
    return row;
  }

  #fill(row, property) {
    const isDifferent = differs(property);
    const hidden = isSecret(property.key);
    row.classList.toggle('differs', isDifferent);
    row.classList.toggle('unsaved', this.#isUnsaved(property.key));
    describe(row);
    fillText(row.querySelector('.value'), property.value, hidden);
    const standard = row.querySelector('.default');
    if (property.defaultvalues === undefined) {
      standard.textContent = '';
    } else {
      fillText(standard, property.defaultvalues, hidden);
    }
    row.querySelector('.rules').textContent = rulesOf(property)
      .map(({ words, expression }) => words + expression)
      .join('; ');
    row.querySelector('.flags').textContent = flagsOf(property)
      .filter(({ name }) => name !== 'read-only')
      .map(({ name }) => name)
      .join(', ');
  }

  #markActive() {
    for (const [key, row] of this.#rows) {
      const isActive = key === this.#activeKey;
      row.classList.toggle('active', isActive);
      row.setAttribute('aria-selected', isActive);
    }
    const active = this.#rows.get(this.#activeKey);
    if (active) {
      this.#grid.setAttribute('aria-activedescendant', active.id);
    } else {
      this.#grid.removeAttribute('aria-activedescendant');
    }
  }

  // With a pointer it must not scroll: the row under it is to be the one that is clicked.
  #focused() {
    if (this.#activeKey === null) {
      this.#activate(this.#firstInSight());
    } else if (this.#grid.matches(':focus-visible')) {
      this.#activate(this.#indexOf.get(this.#activeKey));
    }
  }

  #firstInSight() {
    const { scrollTop } = this.#grid;
    const { top } = this.#measure();
    const index = this.#indexAt(scrollTop, top);
    return top(index) < scrollTop ? index + 1 : index;
  }

  #activate(index) {
    const last = this.#properties.length - 1;
    if (last < 0) {
      return;
    }
    const bounded = Math.min(Math.max(index, 0), last);
    this.#activeKey = this.#properties[bounded].key;
    this.#scrollTo(bounded);
    this.#draw();
  }

  #scrollTo(index) {
    const places = this.#measure();
    const heading = this.#body.offsetTop;
    const top = places.top(index);
    const bottom = places.top(index + 1) + heading - this.#grid.clientHeight;
    if (bottom > this.#grid.scrollTop) {
      this.#grid.scrollTop = bottom;
    }
    if (top < this.#grid.scrollTop) {
      this.#grid.scrollTop = top;
    }
  }

  #keyDown(event) {
    if (event.target !== this.#grid || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    const active = this.#indexOf.get(this.#activeKey) ?? this.#firstInSight();
    const page = Math.max(Math.floor(this.#grid.clientHeight / this.#rowHeight) - 2, 1);
    const targets = {
      ArrowUp: active - 1,
      ArrowDown: active + 1,
      PageUp: active - page,
      PageDown: active + page,
      Home: 0,
      End: Infinity,
    };
    if (event.key in targets) {
      this.#activate(targets[event.key]);
    } else if ((event.key === 'Enter' || event.key === 'F2') && active < this.#properties.length) {
      this.openRow(this.#properties[active].key);
    } else if (event.key === 'Escape' && this.#open.has(this.#activeKey)) {
      this.close(this.#activeKey);
    } else {
      return;
    }
    event.preventDefault();
  }

  #clicked(event) {
    const row = event.target.closest('.row');
    if (!row || event.target.closest('.editor')) {
      return;
    }
    const { key } = row.dataset;
    if (event.detail > 1) {
      this.#open.get(key)?.focus(); // the second click of a double click asks for nothing else
    } else if (!getSelection().isCollapsed) {
      return;
    } else if (this.#open.has(key)) {
      this.#activeKey = key;
      this.close(key);
    } else {
      this.openRow(key);
    }
  }

  /** REQUIRES: the property is shown. */
  openRow(key) {
    const index = this.#indexOf.get(key);
    this.#activate(index);
    if (!this.#open.has(key)) {
      const editor = this.#editorOf(this.#properties[index]);
      const row = this.#rows.get(key);
      this.#open.set(key, editor);
      row.classList.add('open');
      row.ariaExpanded = true;
      row.append(editor.element);
      this.#resizes.observe(editor.element);
      this.#draw();
      this.#scrollTo(index);
    }
    this.#open.get(key).focus();
    this.#onToggle(key);
  }

  /** Closes an open row; where its editor had the focus, the list has it now. */
  close(key) {
    const { element: editor } = this.#open.get(key);
    const row = this.#rows.get(key);
    const hadFocus = editor.contains(document.activeElement);
    this.#open.delete(key);
    row.classList.remove('open');
    row.ariaExpanded = false;
    this.#resizes.unobserve(editor);
    editor.remove();
    if (hadFocus) {
      this.#activeKey = this.#indexOf.has(key) ? key : null;
      this.#grid.focus();
    }
    this.#onToggle(key);
  }

  closeAll() {
    [...this.#open.keys()].forEach((key) => this.close(key));
  }
}
