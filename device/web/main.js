import { Editor } from './editor.js';
import { element } from './element.js';
import { PropertyList } from './list.js';
import { Properties, groupOf, isState } from './properties.js';
import { Service } from './service.js';

const CONNECTION_WORDS = {
  'connecting': 'Connecting',
  'refused': 'Broker refuses this address',
  'broker-away': 'Broker away, trying again',
  'service-away': 'Service does not answer',
  'connected': 'Connected',
};

const byId = (id) => document.getElementById(id);
const filter = byId('filter');
const properties = new Properties();
const view = { text: '', group: null, onlyDiffering: false };
const groupButtons = new Map();
let isRead = false;
let stateReading = { key: '', status: '' };
let frame = 0;

const list = new PropertyList(byId('grid'), {
  makeEditor: (property) =>
    new Editor(property, {
      write: (value) => write(property.key, value),
      reset: () => reset(property.key),
      onClose: () => list.close(),
    }),
  onClose: schedule,
});

const service = new Service(document.body.dataset.broker, location.hash.slice(1), {
  onState: connectionChanged,
  onChanges: takeChanges,
});

async function write(key, value) {
  const { status } = await service.request({ method: 'setV', param: key, value });
  if (status === 'Ok') {
    takeChanges({ [key]: value });
  }
  return status;
}

async function reset(key) {
  const { status } = await service.request({ method: 'resetVal', param: key });
  return status;
}

function connectionChanged(state) {
  const connection = byId('connection');
  connection.dataset.state = state;
  connection.textContent = CONNECTION_WORDS[state];
  document.body.dataset.state = state;
  if (state === 'connected') {
    readAll().catch(() => {}); // the service is away again: it is read when it is back
  }
  schedule();
}

// All columns of all properties may exceed the 1 MiB that a reply has room for: one request for the keys, one for each
// group.
async function readAll() {
  const keys = (await service.list('%', 'key')).map(({ key }) => key);
  properties.retain(keys);
  for (const pattern of new Set(keys.map(namesOfGroup))) {
    takeRows(await service.list(pattern));
  }
  for (const key of properties.stateKeys()) {
    await readState(key);
  }
  isRead = true;
  schedule();
}

// The pattern for all keys of a key's group, or the key itself. Only the first "%" of a pattern is a wildcard.
function namesOfGroup(key) {
  const group = groupOf(key);
  if (group === '') {
    return key;
  }
  const [start, ...rest] = group.split('%');
  return `${start.replaceAll(/[.[\]*^$\\]/g, '\\$&')}${rest.length ? '' : '\\.'}%`;
}

async function readState(key) {
  const { status, result } = await service.request({ method: 'getV', param: key });
  takeChanges({ [key]: status === 'Ok' ? result : null });
  stateReading = { key, status };
}

function takeRows(rows) {
  for (const row of rows) {
    const isNew = properties.put(row);
    list.refresh(properties.get(row.key), isNew);
  }
  schedule();
}

function takeChanges(changes) {
  for (const [key, value] of Object.entries(changes)) {
    if (value === null) {
      properties.remove(key);
    } else if (properties.get(key)) {
      const isNew = properties.setValue(key, String(value));
      list.refresh(properties.get(key), isNew);
    } else if (isState(key)) {
      properties.put({ key, value: String(value) });
    }
  }
  schedule();
}

function schedule() {
  frame ||= requestAnimationFrame(() => {
    frame = 0;
    draw();
  });
}

function draw() {
  const { rows, groups, differing } = properties.select(view, list.openKey);
  list.show(rows);
  drawGroups(groups);
  byId('differing-count').textContent = differing;
  byId('count').textContent = isRead ? `${rows.length} of ${properties.size}` : 'Reading';
  drawEmpty(rows.length === 0);
}

function drawGroups(counts) {
  const total = [...counts.values()].reduce((sum, count) => sum + count, 0);
  const wanted = [[null, total], ...[...counts].filter(([group]) => group !== '')];
  if (wanted.length !== groupButtons.size || wanted.some(([group]) => !groupButtons.has(group))) {
    makeGroupButtons(wanted.map(([group]) => group));
  }
  for (const [group, count] of wanted) {
    const button = groupButtons.get(group);
    button.querySelector('.count').textContent = count;
    button.classList.toggle('none', count === 0);
    button.setAttribute('aria-current', group === view.group);
  }
}

function makeGroupButtons(groups) {
  groupButtons.clear();
  for (const group of groups) {
    const name = element('span', {}, group ?? 'All');
    groupButtons.set(group, element('button', { type: 'button' }, name, element('span', { className: 'count' })));
    groupButtons.get(group).addEventListener('click', () => changeView({ group }));
  }
  byId('groups').replaceChildren(...[...groupButtons.values()].map((button) => element('li', {}, button)));
}

function drawEmpty(isEmpty) {
  const key = view.text.trim();
  const isStateKey = isRead && isState(key);
  const wasRead = stateReading.key === key;
  const [text, readButton] = byId('empty').children;
  byId('empty').hidden = !isEmpty;
  text.textContent = isRead ? 'No property matches.' : '';
  if (isStateKey) {
    text.textContent = wasRead ? `${stateReading.status}: ${key}` : 'State keys are not listed until they change.';
  }
  readButton.textContent = `Read ${key}`;
  readButton.hidden = !isStateKey || wasRead;
}

function changeView(change) {
  Object.assign(view, change);
  list.scrollToTop();
  schedule();
}

filter.addEventListener('input', () => changeView({ text: filter.value }));
filter.addEventListener('keydown', (event) => {
  if (event.key === 'Escape') {
    filter.value = '';
    changeView({ text: '' });
  } else if (event.key === 'ArrowDown' || event.key === 'Enter') {
    draw(); // what was typed last may not be shown yet
    list.focus();
  } else {
    return;
  }
  event.preventDefault();
});
byId('differing').addEventListener('change', ({ target }) => changeView({ onlyDiffering: target.checked }));
byId('empty').querySelector('button').addEventListener('click', () => readState(view.text.trim()).catch(() => {}));
document.addEventListener('keydown', (event) => {
  if (event.key === '/' && !event.target.matches('input[type=search], textarea')) {
    event.preventDefault();
    filter.focus();
    filter.select();
  }
});
