import { showAddress, storedPassword, takeAddress } from './address.js';
import { Editor } from './editor.js';
import { element } from './element.js';
import { PropertyList } from './list.js';
import { Properties, isState, patternOf, patternsFor } from './properties.js';
import { NoAnswer, Service } from './service.js';
import { visible } from './words.js';

const CONNECTION_WORDS = {
  'connecting': 'Connecting',
  'refused': 'Not admitted',
  'broker-away': 'Broker away',
  'service-away': 'Service away',
  'reading': 'Reading',
  'connected': 'Connected',
};
const AWAY_SENTENCES = {
  'refused': 'The broker does not admit this page. Open the address that holds the current password.',
  'broker-away': 'The broker does not answer. The page keeps trying.',
  'service-away': 'PropertyService does not answer. The page keeps trying.',
};

const DEVICE_KEYS = ['NET.General.DeviceNameInNetwork', 'System.General.Variant.Name'];

const ADDRESS_DELAY_MS = 300; // browsers refuse to change the address at each key

const byId = (id) => document.getElementById(id);
const filter = byId('filter');
const properties = new Properties();
const view = { text: '', group: null, onlyDiffering: false };
const groupButtons = new Map();
let connection = 'connecting';
let isRead = false;
let stateReading = { key: '', status: '' };
let frame = 0;
let address = takeAddress();
let addressTimer = 0;

const editors = new Map(); // by key: those of open rows, and those that are not finished

const list = new PropertyList(byId('grid'), {
  editorOf,
  isUnsaved: (key) => editors.get(key)?.isUnsaved ?? false,
  onToggle: (key) => {
    dropFinished(key);
    schedule();
  },
});

const service = new Service(document.body.dataset.broker, storedPassword(), {
  onState: connectionChanged,
  onChanges: takeChanges,
});

function editorOf(property) {
  const { key } = property;
  if (!editors.has(key)) {
    const editor = new Editor(property, {
      write: (value) => ask({ method: 'setV', param: key, value }),
      reset: () => ask({ method: 'resetVal', param: key }),
      onEdit: () => edited(key),
      onClose: () => list.close(key),
    });
    editors.set(key, editor);
  }
  return editors.get(key);
}

async function ask(request) {
  const { status } = await service.request(request);
  return status;
}

function edited(key) {
  dropFinished(key);
  if (properties.get(key)) {
    list.refresh(properties.get(key), false);
  }
  schedule();
}

function dropFinished(key) {
  if (!list.open.has(key) && editors.get(key)?.isFinished) {
    editors.delete(key);
  }
}

function unsavedKeys() {
  return [...editors.keys()].filter((key) => editors.get(key).isUnsaved && properties.get(key));
}

// Until everything has been read anew, what is shown may be old.
async function connectionChanged(state) {
  showConnection(state === 'connected' ? 'reading' : state);
  if (state === 'connected') {
    try {
      await readAll();
    } catch (error) {
      if (!(error instanceof NoAnswer)) {
        throw error;
      }
      return; // the service is away again: it is read when it is back
    }
    if (connection === 'reading') {
      showConnection('connected');
      goToAddress();
    }
  }
}

function showConnection(state) {
  connection = state;
  const sentence = AWAY_SENTENCES[state];
  byId('connection').dataset.state = state;
  byId('connection').textContent = CONNECTION_WORDS[state];
  if (sentence) {
    const asOf = isRead ? ` What is shown is as of ${service.lastHeard.toLocaleString()}.` : '';
    byId('banner').textContent = sentence + asOf;
  } else {
    byId('banner').textContent = state === 'reading' && isRead ? 'Reading anew. What is shown may be old.' : '';
  }
  drawTitle(); // also in a tab that is not seen, which draws nothing else
  schedule();
}

// All columns of all properties may exceed the 1 MiB that a reply has room for: the keys first, then some of them each.
async function readAll() {
  const keys = (await service.list('%', 'key')).map(({ key }) => key);
  const unread = new Set(keys);
  const read = async (pattern) => {
    const rows = await service.list(pattern);
    takeRows(rows);
    rows.forEach(({ key }) => unread.delete(key));
  };
  properties.retain(keys);
  for (const pattern of new Set(patternsFor(keys))) {
    await read(pattern);
  }
  for (const key of unread) {
    await read(patternOf(key));
  }
  for (const key of properties.stateKeys()) {
    await readState(key);
  }
  isRead = true;
}

async function readState(key) {
  const { status, result } = await service.request({ method: 'getV', param: key });
  takeChanges({ [key]: status === 'Ok' ? (result ?? '') : null }, true);
  stateReading = { key, status };
}

function takeRows(rows) {
  for (const row of rows) {
    show(row.key, properties.put(row), true);
  }
}

function takeChanges(changes, wasRead = false) {
  for (const [key, announced] of Object.entries(changes)) {
    const value = textOf(announced);
    if (announced === null && isState(key)) {
      properties.remove(key);
    } else if (properties.get(key)) {
      show(key, properties.setValue(key, value), wasRead);
    } else if (isState(key)) {
      show(key, properties.put({ key, value }), wasRead);
    }
  }
  schedule();
}

/** An announced value: null for one that was cleared; a number, for example, where one was written. */
function textOf(announced) {
  const value = announced ?? '';
  return typeof value === 'string' ? value : JSON.stringify(value);
}

function show(key, isNew, wasRead) {
  const property = properties.get(key);
  list.refresh(property, isNew);
  editors.get(key)?.refresh(property, wasRead);
  schedule();
}

function schedule() {
  frame ||= requestAnimationFrame(() => {
    frame = 0;
    draw();
  });
}

function draw() {
  const { rows, groups, differing } = properties.select(view, list.open);
  list.show(rows);
  drawGroups(groups);
  byId('differing-count').textContent = differing;
  byId('count').textContent = isRead ? `${rows.length} of ${properties.size}` : '';
  const unsaved = unsavedKeys().length;
  byId('unsaved').textContent = `${unsaved} unsaved`;
  byId('unsaved').hidden = unsaved === 0;
  drawEmpty(rows.length === 0);
  drawTitle();
  clearTimeout(addressTimer);
  addressTimer = setTimeout(followView, ADDRESS_DELAY_MS);
}

function drawTitle() {
  const device = DEVICE_KEYS.map((key) => properties.get(key)?.value).filter(Boolean).join(' · ');
  const away = AWAY_SENTENCES[connection] && CONNECTION_WORDS[connection];
  byId('device').textContent = visible(device);
  byId('device').title = device;
  document.title = [away, device, 'Properties'].filter(Boolean).join(' – ');
}

function drawGroups(counts) {
  const total = [...counts.values()].reduce((sum, count) => sum + count, 0);
  const wanted = [[null, total], ...counts];
  if (wanted.length !== groupButtons.size || wanted.some(([group]) => !groupButtons.has(group))) {
    makeGroupButtons(wanted.map(([group]) => group));
  }
  for (const [group, count] of wanted) {
    const button = groupButtons.get(group);
    button.querySelector('.count').textContent = count;
    button.classList.toggle('none', count === 0);
    button.ariaCurrent = group === view.group;
    button.tabIndex = group === view.group ? 0 : -1;
  }
}

function makeGroupButtons(groups) {
  groupButtons.clear();
  for (const group of groups) {
    const name = element('span', {}, group === null ? 'All' : group || 'Without a group');
    groupButtons.set(group, element('button', { type: 'button' }, name, element('span', { className: 'count' })));
    groupButtons.get(group).addEventListener('click', () => changeView({ group }));
  }
  byId('groups').replaceChildren(...groupButtons.values());
}

// One stop of Tab, the current group; the arrows go on from there.
function walkGroups(event) {
  const buttons = [...groupButtons.values()];
  const at = buttons.indexOf(event.target);
  const next = {
    ArrowUp: at - 1,
    ArrowLeft: at - 1,
    ArrowDown: at + 1,
    ArrowRight: at + 1,
    Home: 0,
    End: buttons.length - 1,
  }[event.key];
  if (buttons[next]) {
    event.preventDefault();
    buttons[next].focus();
  }
}

function drawEmpty(isEmpty) {
  const key = view.text.trim();
  const isStateKey = isRead && isState(key);
  const wasRead = stateReading.key === key;
  const [text, readButton] = byId('empty').children;
  byId('empty').hidden = !isEmpty;
  const unread = connection in AWAY_SENTENCES ? 'Nothing has been read.' : 'Reading';
  text.textContent = isRead ? 'No property matches.' : unread;
  if (isStateKey) {
    text.textContent = wasRead ? `${stateReading.status}: ${key}` : 'State keys are not listed until they change.';
  }
  readButton.textContent = `Read ${key}`;
  readButton.hidden = !isStateKey || wasRead;
}

// Closes what is open, which keeps what is unsaved: else it would be shown, whatever the view.
function changeView(change) {
  Object.assign(view, change);
  list.closeAll();
  list.scrollToTop();
  schedule();
}

function setView(view) {
  filter.value = view.text;
  byId('differing').checked = view.onlyDiffering;
  changeView(view);
  draw();
}

// Shows the property whatever the view.
function openRow(key) {
  setView({ text: '', group: null, onlyDiffering: false });
  list.openRow(key);
}

// Once, when there is something to show.
function goToAddress() {
  const { key, filter: text = '', group = null } = address;
  address = {};
  if (properties.get(key)) {
    openRow(key);
  } else if (key || text || group) {
    setView({ text: key || text, group, onlyDiffering: false });
  }
}

function followView() {
  if (!isRead) {
    return; // what the address asks for is still to be shown
  }
  showAddress({ key: [...list.open.keys()].at(-1), filter: view.text, group: view.group });
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
byId('groups').addEventListener('keydown', walkGroups);
byId('unsaved').addEventListener('click', () => openRow(unsavedKeys()[0]));
addEventListener('hashchange', () => {
  address = takeAddress();
  if (address.hasPassword) {
    service.reconnect(storedPassword());
  } else if (isRead) {
    goToAddress();
  }
});
addEventListener('beforeunload', (event) => {
  if (unsavedKeys().length) {
    event.preventDefault();
  }
});
byId('differing').addEventListener('change', ({ target }) => changeView({ onlyDiffering: target.checked }));
byId('empty').querySelector('button').addEventListener('click', () => readState(view.text.trim()).catch(() => {}));
byId('help').querySelector('button').addEventListener('click', () => byId('help').close());
document.addEventListener('keydown', (event) => {
  if (event.target.matches('input[type=search], textarea') || byId('help').open) {
    return;
  }
  if (event.key === '/') {
    event.preventDefault();
    filter.focus();
    filter.select();
  } else if (event.key === '?') {
    byId('help').showModal();
  }
});
