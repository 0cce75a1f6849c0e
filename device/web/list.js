// The list of properties: a grid of which only the rows in sight, the active one and the open one exist.

import { element } from './element.js';
import { differs, isSecret } from './properties.js';
import { flagsOf, rulesOf } from './words.js';

const MARGIN_ROWS = 8; // beyond the edges, so that a row is there before it is seen

function cell(className, ...children) {
  return element('span', { className, role: 'gridcell' }, ...children);
}

function oneLine(text) {
  return text.replaceAll(/\r\n|\r|\n/g, '⏎');
}

function fillText(target, text, hidden) {
  target.classList.toggle('none', text === '');
  if (text === '') {
    target.textContent = 'empty';
  } else {
    target.textContent = hidden ? '••••••' : oneLine(text);
  }
}

function keyCell({ key, group }) {
  const name = group === '' ? key : key.slice(group.length + 1);
  const start = group === '' ? [] : [element('span', { className: 'group' }, `${group}.`)];
  return cell('key', ...start, element('span', { className: 'name' }, name));
}

/** The list in `grid`, which scrolls. `makeEditor(property)` gives the element that an open row shows, with close(). */
export class PropertyList {
  #grid;
  #body;
  #makeEditor;
  #onClose;
  #properties = [];
  #indexOf = new Map();
  #rows = new Map(); // key -> row element
  #activeKey = null;
  #open = null; // { key, editor }
  #resizes;
  #frame = 0;

  constructor(grid, { makeEditor, onClose }) {
    this.#grid = grid;
    this.#body = grid.querySelector('[role=rowgroup]');
    this.#makeEditor = makeEditor;
    this.#onClose = onClose;
    this.#resizes = new ResizeObserver(() => this.#draw());
    this.#resizes.observe(grid);
    grid.addEventListener('scroll', () => this.#schedule(), { passive: true });
    grid.addEventListener('focus', () => this.#focused());
    grid.addEventListener('keydown', (event) => this.#keyDown(event));
    this.#body.addEventListener('click', (event) => this.#clicked(event));
  }

  get openKey() {
    return this.#open?.key ?? null;
  }

  show(properties) {
    this.#properties = properties;
    this.#indexOf = new Map(properties.map(({ key }, index) => [key, index]));
    if (!this.#indexOf.has(this.#activeKey)) {
      this.#activeKey = null;
    }
    if (this.#open && !this.#indexOf.has(this.#open.key)) {
      this.close();
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
    if (this.#open?.key === property.key) {
      this.#open.editor.refresh(property);
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

  #top(index, rowHeight) {
    const openIndex = this.#open ? this.#indexOf.get(this.#open.key) : Infinity;
    return index * rowHeight + (index > openIndex ? this.#open.editor.element.offsetHeight : 0);
  }

  #schedule() {
    this.#frame ||= requestAnimationFrame(() => {
      this.#frame = 0;
      this.#draw();
    });
  }

  #draw() {
    const rowHeight = this.#rowHeight;
    const wanted = this.#wantedRows(rowHeight);
    this.#removeAllBut(wanted);
    this.#addAndOrder(wanted);
    this.#body.style.height = `${this.#top(this.#properties.length, rowHeight)}px`;
    for (const index of wanted) {
      const property = this.#properties[index];
      const row = this.#rows.get(property.key);
      row.style.top = `${this.#top(index, rowHeight)}px`;
      row.setAttribute('aria-rowindex', index + 2);
    }
    this.#markActive();
  }

  // Indexes, ascending.
  #wantedRows(rowHeight) {
    const editorHeight = this.#open?.editor.element.offsetHeight ?? 0;
    const { scrollTop, clientHeight } = this.#grid;
    const count = this.#properties.length;
    const first = Math.max(Math.floor((scrollTop - editorHeight) / rowHeight) - MARGIN_ROWS, 0);
    const end = Math.min(Math.ceil((scrollTop + clientHeight) / rowHeight) + MARGIN_ROWS, count);
    const wanted = new Set();
    for (let index = first; index < end; ++index) {
      wanted.add(index);
    }
    for (const key of [this.#activeKey, this.openKey]) {
      if (this.#indexOf.has(key)) {
        wanted.add(this.#indexOf.get(key));
      }
    }
    return [...wanted].sort((a, b) => a - b);
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
    const row = element('div', { className: 'row', id: `property-${property.number}`, role: 'row' });
    row.dataset.key = property.key;
    row.append(keyCell(property), cell('value'), cell('default'), cell('rules'), cell('flags'));
    this.#rows.set(property.key, row);
    this.#fill(row, property);
    return row;
  }

  #fill(row, property) {
    const isDifferent = differs(property);
    const hidden = isSecret(property.key);
    row.classList.toggle('differs', isDifferent);
    row.setAttribute('aria-description', isDifferent ? 'differs from the default' : '');
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
    return Math.ceil(this.#grid.scrollTop / this.#rowHeight);
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
    const rowHeight = this.#rowHeight;
    const heading = this.#body.offsetTop;
    const isOpen = this.#properties[index].key === this.openKey;
    const height = rowHeight + (isOpen ? this.#open.editor.element.offsetHeight : 0);
    const top = this.#top(index, rowHeight);
    const bottom = top + height + heading - this.#grid.clientHeight;
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
    } else if (event.key === 'Enter' || event.key === 'F2') {
      this.#openRow(this.#properties[active]?.key ?? null);
    } else if (event.key === 'Escape' && this.#open) {
      this.close();
    } else {
      return;
    }
    event.preventDefault();
  }

  #clicked(event) {
    const row = event.target.closest('.row');
    if (!row || event.target.closest('.editor') || !getSelection().isCollapsed) {
      return;
    }
    const { key } = row.dataset;
    this.#activeKey = key;
    if (key === this.openKey) {
      this.close();
    } else {
      this.#openRow(key);
    }
  }

  #openRow(key) {
    if (key === null || key === this.openKey) {
      this.#open?.editor.focus();
      return;
    }
    this.#removeEditor();
    const property = this.#properties[this.#indexOf.get(key)];
    const editor = this.#makeEditor(property);
    const row = this.#rows.get(key);
    this.#open = { key, editor };
    row.classList.add('open');
    row.append(editor.element);
    this.#resizes.observe(editor.element);
    this.#draw();
    this.#scrollTo(this.#indexOf.get(key));
    editor.focus();
  }

  /** Closes the open row; where its editor had the focus, the list has it now. */
  close() {
    const hadFocus = this.#open.editor.element.contains(document.activeElement);
    this.#removeEditor();
    if (hadFocus) {
      this.#grid.focus();
    }
    this.#onClose();
  }

  #removeEditor() {
    if (!this.#open) {
      return;
    }
    const row = this.#rows.get(this.#open.key);
    row.classList.remove('open');
    this.#resizes.unobserve(this.#open.editor.element);
    this.#open.editor.element.remove();
    this.#open = null;
  }
}
