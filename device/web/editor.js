// An open row: the value's field with the service's answer beside it, and all that is known of the property.

import { element } from './element.js';
import { differs, isReadOnly, isState } from './properties.js';
import { allowedValues, commandLine, explain, flagsOf, rulesOf, unseenIn, visible } from './words.js';

function button(text, className, onClick) {
  const result = element('button', { type: 'button', className }, text);
  result.addEventListener('click', onClick);
  return result;
}

function fact(term, ...details) {
  return [element('dt', {}, term), ...details.map((detail) => element('dd', {}, ...detail))];
}

// Works without TLS, too, where a page cannot use the browser's clipboard otherwise.
function copy(text) {
  const put = (event) => {
    event.clipboardData.setData('text/plain', text);
    event.preventDefault();
  };
  document.addEventListener('copy', put, { once: true });
  return document.execCommand('copy');
}

/** A button that copies what `text()` gives, and says so until it is left. */
function copyButton(name, text) {
  const result = button(name, 'choice', () => {
    result.textContent = copy(text()) ? 'copied' : 'not copied';
  });
  result.addEventListener('blur', () => {
    result.textContent = name;
  });
  return result;
}

function code(text) {
  return text === '' ? 'empty' : element('code', { dir: 'auto' }, visible(text));
}

function facts(property) {
  const list = element('dl');
  const rules = rulesOf(property).map(({ words, expression }) => (expression ? [words, code(expression)] : [words]));
  list.append(...fact('Rules', ...(rules.length ? rules : [['any text of at most 256 characters']])));
  if (property.defaultvalues !== undefined) {
    list.append(...fact('Default', [code(property.defaultvalues)]));
  }
  const flags = flagsOf(property);
  if (property.flags !== undefined) {
    list.append(
      ...fact(
        `Flags ${property.flags}`,
        ...(flags.length ? flags.map(({ name, meaning }) => [`${name}: ${meaning}`]) : [['saved nowhere']]),
      ),
    );
  }
  for (const [column, term] of [['webui', 'Web'], ['provisioning', 'Provisioning'], ['tr069', 'TR-069']]) {
    if (property[column] !== undefined) {
      list.append(...fact(term, [code(property[column])]));
    }
  }
  list.append(
    ...fact('Copy', [
      element(
        'span',
        { className: 'choices' },
        copyButton('key', () => property.key),
        copyButton('value', () => property.value),
        copyButton('propctl line', () => commandLine(property)),
      ),
    ]),
  );
  return list;
}

/** As a text field holds it. */
function inField(text) {
  return text.replaceAll(/\r\n|\r/g, '\n');
}

function quoted(text) {
  return text === '' ? 'The empty value' : `“${visible(text)}”`;
}

/**
 * One property's editor. It may outlive its row, and is to be kept until it is finished: text that was typed stays.
 * `write(value)` and `reset()` give the service's status text, or throw NoAnswer. `onEdit` is told when the editor may
 * have become unsaved or finished; `onClose` is asked to close the row.
 */
export class Editor {
  #property;
  #value; // the property's, as last heard; the property itself changes
  #asked = null; // the value that the answer is about
  #isBusy = false;
  #isInDoubt = false; // whether what was asked has been done
  #field;
  #answer = element('p', { className: 'answer', role: 'status' });
  #note = element('p', { className: 'note', role: 'status' });
  #unseen = element('p', { className: 'note' });
  #choices = element('div', { className: 'choices', role: 'group', ariaLabel: 'Allowed values' });
  #saveButton = element('button', { type: 'submit', className: 'primary' }, 'Save');
  #resetButton;
  #closeButton;
  #form;
  #facts = element('dl');
  #onEdit;

  constructor(property, { write, reset, onEdit, onClose }) {
    this.#property = property;
    this.#value = property.value;
    this.#onEdit = onEdit;
    const id = `value-${property.number}`;
    this.#answer.id = `${id}-answer`;
    this.#field = element('textarea', { id, rows: 1, dir: 'auto', spellcheck: false, autocapitalize: 'off' });
    this.#field.value = property.value;
    this.#field.setAttribute('aria-describedby', this.#answer.id);
    this.#field.addEventListener('keydown', (event) => this.#keyDown(event));
    this.#field.addEventListener('input', () => this.#edited());
    const close = () => {
      this.#field.value = this.#value;
      this.#edited();
      onClose();
    };
    this.#resetButton = button(isState(property.key) ? 'Remove' : 'Reset to default', '', () => {
      this.#field.value = this.#value; // what was typed is given up
      this.#ask(reset, this.#property.defaultvalues ?? '');
    });
    this.#closeButton = button('Close', 'quiet', close);
    this.#form = this.#makeForm(id, write);
    this.element = element('div', { className: 'editor', role: 'gridcell' }, this.#form, this.#facts);
    this.element.setAttribute('aria-colspan', 5);
    this.element.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') {
        event.stopPropagation();
        close();
      }
    });
    this.#showRules();
    this.#showHint();
    this.#textChanged();
  }

  get isUnsaved() {
    return this.#field.value !== inField(this.#value);
  }

  /** Nothing would be lost with it. */
  get isFinished() {
    return !this.isUnsaved && !this.#isBusy && !this.#isInDoubt;
  }

  focus() {
    this.#field.focus({ preventScroll: true });
    this.#field.select();
    // The answer, too, if there is room; where the page scrolls, the list's own scrolling does not do.
    [this.#answer, this.#field].forEach((part) => part.scrollIntoView({ block: 'nearest' }));
  }

  /** Takes what is known of the property; unsaved text stays. `wasRead`: the service has said all of it just now. */
  refresh(property, wasRead) {
    const wasUnsaved = this.isUnsaved;
    const isOther = property.value !== this.#value;
    this.#property = property;
    this.#value = property.value;
    if (wasRead) {
      this.#showRules();
    }
    if (isOther && !wasUnsaved) {
      this.#field.value = property.value;
    }
    if (isOther && this.isUnsaved) {
      this.#note.replaceChildren('Meanwhile it became ', code(property.value), '.');
    }
    const { kind } = this.#answer.dataset;
    if (this.#isInDoubt && (wasRead || property.value === this.#asked)) {
      this.#settle();
    } else if (kind === '' || (kind === 'ok' && isOther && property.value !== this.#asked)) {
      this.#showHint();
    }
    this.#textChanged();
  }

  #makeForm(id, write) {
    const form = element(
      'form',
      {},
      element('label', { htmlFor: id, dir: 'ltr' }, this.#property.key),
      this.#field,
      this.#answer,
      this.#note,
      this.#unseen,
      this.#choices,
      element('div', { className: 'actions' }, this.#saveButton, this.#resetButton, this.#closeButton),
    );
    form.addEventListener('submit', (event) => {
      event.preventDefault();
      const { readOnly, value } = this.#field;
      if (!readOnly) {
        this.#ask(() => write(value), value);
      }
    });
    return form;
  }

  #showRules() {
    const readOnly = isReadOnly(this.#property);
    this.#field.readOnly = readOnly;
    this.#saveButton.disabled = readOnly;
    this.#choices.replaceChildren(
      ...(readOnly ? [] : allowedValues(this.#property)).map((value) =>
        button(value, 'choice', () => {
          this.#field.value = value;
          this.#field.focus();
          this.#edited();
        }),
      ),
    );
    const known = facts(this.#property);
    this.#facts.replaceWith(known);
    this.#facts = known;
  }

  #edited() {
    if (!this.#isBusy && !this.#isInDoubt) {
      this.#showHint();
    }
    this.#textChanged();
  }

  #textChanged() {
    const { isUnsaved } = this;
    if (!isUnsaved) {
      this.#note.textContent = '';
    }
    this.#closeButton.textContent = isUnsaved ? 'Discard' : 'Close';
    const unseen = unseenIn(this.#field.value);
    this.#unseen.textContent = unseen.length ? `Holds what is not seen: ${unseen.join(', ')}.` : '';
    this.#field.ariaInvalid = this.#answer.dataset.kind === 'refused' && this.#isAboutText();
    this.#updateReset();
    this.#onEdit();
  }

  #updateReset() {
    const isUseless = !isState(this.#property.key) && !differs(this.#property);
    if (isUseless && document.activeElement === this.#resetButton) {
      this.#field.focus(); // a disabled button would lose it
    }
    this.#resetButton.disabled = isUseless;
  }

  #keyDown(event) {
    if (event.key === 'Enter' && !event.shiftKey && !event.isComposing) {
      event.preventDefault();
      this.#form.requestSubmit();
    }
  }

  async #ask(question, value) {
    if (this.#isBusy) {
      return;
    }
    this.#asked = value;
    this.#isBusy = true;
    this.#isInDoubt = false;
    this.#show('waiting', '', 'Waiting for the answer');
    try {
      const status = await question();
      this.#show(status === 'Ok' ? 'ok' : 'refused', status, this.#naming(explain(status, this.#property, value)));
    } catch (error) {
      this.#isInDoubt = error.mayBeDone;
      this.#show('refused', 'No answer', error.message);
    }
    this.#isBusy = false;
    this.#textChanged();
  }

  /** Says whether what was asked has been done, now that the value is known. */
  #settle() {
    this.#isInDoubt = false;
    if (this.#value === this.#asked) {
      this.#show('ok', 'Ok', this.#naming('Saved after all.'));
    } else {
      this.#show('refused', 'Not saved', this.#naming(`The value is ${visible(this.#value) || 'empty'}.`));
    }
  }

  #isAboutText() {
    return !this.isUnsaved || this.#field.value === inField(this.#asked ?? '');
  }

  #naming(text) {
    return this.#isAboutText() ? text : `${quoted(this.#asked)}: ${text}`;
  }

  #showHint() {
    const keys = this.isUnsaved ? 'Not saved yet. Enter saves, Esc discards.' : 'Enter saves, Esc closes.';
    this.#show('', '', isReadOnly(this.#property) ? 'Read-only: requests cannot write it, only reset it.' : keys);
  }

  #show(kind, status, text) {
    const parts = [...(status ? [element('strong', {}, status), ' '] : []), text];
    this.#answer.dataset.kind = kind;
    if (this.#answer.textContent !== `${status}${status && ' '}${text}`) {
      this.#answer.replaceChildren(...parts);
    }
  }
}
