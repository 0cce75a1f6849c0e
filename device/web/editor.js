// What an open row shows: the value's field with the service's answer beside it, and all that is known of the property.

import { element } from './element.js';
import { differs, isReadOnly, isState } from './properties.js';
import { allowedValues, explain, flagsOf, rulesOf } from './words.js';

function button(text, className, onClick) {
  const result = element('button', { type: 'button', className }, text);
  result.addEventListener('click', onClick);
  return result;
}

function fact(term, ...details) {
  return [element('dt', {}, term), ...details.map((detail) => element('dd', {}, ...detail))];
}

function code(text) {
  return element('code', {}, text);
}

function facts(property) {
  const list = element('dl');
  const rules = rulesOf(property).map(({ words, expression }) => (expression ? [words, code(expression)] : [words]));
  list.append(...fact('Rules', ...(rules.length ? rules : [['any text of at most 256 characters']])));
  if (property.defaultvalues !== undefined) {
    list.append(...fact('Default', [property.defaultvalues === '' ? 'empty' : code(property.defaultvalues)]));
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
  return list;
}

function hint(property) {
  return isReadOnly(property) ? 'Read-only: requests cannot write it, only reset it.' : 'Enter saves, Esc closes.';
}

/** `write(value)` and `reset()` give the service's status text, or throw NoAnswer. `onClose` is asked to close it. */
export class Editor {
  #property;
  #shownValue;
  #field;
  #answer;
  #note;
  #resetButton;
  #form;
  #isBusy = false;

  constructor(property, { write, reset, onClose }) {
    this.#property = property;
    this.#shownValue = property.value;
    const id = `value-${property.number}`;
    this.#field = element('textarea', { id, rows: 1, spellcheck: false, autocapitalize: 'off', value: property.value });
    this.#field.readOnly = isReadOnly(property);
    this.#field.setAttribute('aria-describedby', `${id}-answer`);
    this.#field.addEventListener('keydown', (event) => this.#keyDown(event));
    this.#answer = element('p', { id: `${id}-answer`, className: 'answer', role: 'status' }, hint(property));
    this.#note = element('p', { className: 'note', role: 'status' });
    this.#form = this.#makeForm(id, write, reset, onClose);
    this.element = element('div', { className: 'editor', role: 'gridcell' }, this.#form, facts(property));
    this.element.setAttribute('aria-colspan', 5);
    this.element.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') {
        event.stopPropagation();
        onClose();
      }
    });
    this.#updateReset();
  }

  focus() {
    this.#field.focus({ preventScroll: true });
    this.#field.select();
  }

  /** The property is another value now; text that was not saved stays in the field. */
  refresh(property) {
    this.#property = property;
    this.#updateReset();
    if (property.value === this.#shownValue) {
      return;
    }
    const hasOwnText = this.#field.value !== this.#shownValue && this.#field.value !== property.value;
    this.#shownValue = property.value;
    if (hasOwnText) {
      this.#note.replaceChildren('Meanwhile it became ', code(property.value === '' ? 'empty' : property.value), '.');
    } else {
      this.#note.textContent = '';
      this.#field.value = property.value;
    }
  }

  #makeForm(id, write, reset, onClose) {
    const { key, defaultvalues = '' } = this.#property;
    const isSaveable = !isReadOnly(this.#property);
    const save = element('button', { type: 'submit', className: 'primary', disabled: !isSaveable }, 'Save');
    this.#resetButton = button(isState(key) ? 'Remove' : 'Reset to default', '', () => {
      this.#field.value = this.#shownValue; // what was typed is given up
      this.#ask(reset, defaultvalues);
    });
    const form = element(
      'form',
      { ariaLabel: key },
      element('label', { htmlFor: id }, 'Value'),
      this.#field,
      this.#answer,
      this.#note,
      this.#choices(),
      element('div', { className: 'actions' }, save, this.#resetButton, button('Close', 'quiet', onClose)),
    );
    form.addEventListener('submit', (event) => {
      event.preventDefault();
      const { value } = this.#field;
      this.#ask(() => write(value), value);
    });
    return form;
  }

  #choices() {
    const choices = element('div', { className: 'choices', role: 'group', ariaLabel: 'Allowed values' });
    for (const value of isReadOnly(this.#property) ? [] : allowedValues(this.#property)) {
      choices.append(
        button(value, 'choice', () => {
          this.#field.value = value;
          this.#field.focus();
        }),
      );
    }
    return choices;
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
    this.#isBusy = true;
    this.#show('waiting', '', 'Waiting for the answer');
    try {
      const status = await question();
      this.#show(status === 'Ok' ? 'ok' : 'refused', status, explain(status, this.#property, value));
      if (status === 'Ok') {
        this.#note.textContent = '';
      }
    } catch (error) {
      this.#show('refused', 'No answer', `${error.message}; it may not have been done.`);
    }
    this.#isBusy = false;
  }

  #show(kind, status, text) {
    this.#answer.dataset.kind = kind;
    this.#field.ariaInvalid = kind === 'refused';
    this.#answer.replaceChildren(...(status ? [element('strong', {}, status), ' '] : []), text);
  }
}
