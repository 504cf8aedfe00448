// The live view's page: follows the terminal's output lines from /events,
// reads the turnstile's state and records from /state (a read that changes
// nothing in the terminal), and acts through /command with lines of the
// script language, only when a person asks.
'use strict';

const STATES = ['blocked', 'free anticlockwise', 'free clockwise', 'free both ways'];
const EXCEPTION_MODES = {0: '0 none', 1: '1 free both ways', 2: '2 blocked', free: '1 free both ways',
  blocked: '2 blocked'};

const $ = (id) => document.getElementById(id);
let kinds = [];  // from /info: the kinds of output line, for the filters
let mostEvents = 0;  // from /info: the events listed
let newestRecords = 0;  // from /info: the records shown
const shown = new Set();
let releases = 0;
let refreshTimer = null;

// ---------------------------------------------------------------- commands

async function run(command) {
  const line = typeof command === 'string' ? command : JSON.stringify(command);
  const result = $('command-result');
  try {
    const response = await fetch('/command', {method: 'POST', body: line});
    const text = (await response.text()).trim();
    if (response.ok) {
      result.textContent = 'ran ' + line;
      result.className = 'note';
    } else {
      result.textContent = text || response.status + ' ' + response.statusText;
      result.className = 'note error';
    }
    return response.ok;
  } catch (error) {
    result.textContent = 'the terminal does not answer: ' + error;
    result.className = 'note error';
    return false;
  }
}

// What the page shows, by the names /state gives them; a stream event's
// "shows" carries the same names.
function show(now) {
  if (now.state !== undefined && now.state !== null) showState(now.state);
  if (now.default_state !== undefined && now.default_state !== null) {
    showDefaultState(now.default_state);
  }
  if (now.enabled !== undefined && now.enabled !== null) showEnabled(now.enabled);
  if (now.operation_mode !== undefined) showOperationMode(now.operation_mode);
  if (now.exception_mode !== undefined) showExceptionMode(now.exception_mode);
  if (now.refresh) refreshSoon();
}

// The state, the enabled flag, the counters and the newest records, read
// afresh.
async function refresh() {
  try {
    const now = await (await fetch('/state')).json();
    show(now);
    showRecords(now);
  } catch (error) {
    $('command-result').textContent = 'cannot read /state: ' + error;
  }
}

function refreshSoon() {
  clearTimeout(refreshTimer);
  refreshTimer = setTimeout(refresh, 250);
}

// ---------------------------------------------------------------- the turnstile

function showState(state) {
  $('state').textContent = STATES[state] === undefined ? String(state) : STATES[state];
  const left = state === 1 || state === 3;
  const right = state === 2 || state === 3;
  $('side-left').classList.toggle('free', left);
  $('side-right').classList.toggle('free', right);
  $('label-left').classList.toggle('free', left);
  $('label-right').classList.toggle('free', right);
  $('turnstile').classList.toggle('left-free', left);
  $('turnstile').classList.toggle('right-free', right);
}

function showDefaultState(state) {
  $('default-state').textContent = STATES[state] === undefined ? String(state) : STATES[state];
}

function showEnabled(enabled) {
  $('enabled').textContent = Number(enabled) ? 'yes' : 'no';
}

function showOperationMode(mode) {
  $('operation-mode').textContent = mode || '(not set: blocked)';
  if (mode) $('operation-mode-choice').value = mode;
}

function showExceptionMode(mode) {
  const key = String(mode || '0');
  $('exception-mode').textContent = EXCEPTION_MODES[key] || key;
}

function row(values) {
  const tr = document.createElement('tr');
  for (const value of values) {
    const td = document.createElement('td');
    td.textContent = value === undefined || value === null ? '' : String(value);
    tr.appendChild(td);
  }
  return tr;
}

// Rows newest first.
function showRows(id, rows, columns) {
  const body = $(id).querySelector('tbody');
  body.replaceChildren(...rows.slice(0, newestRecords).map(
      (r) => row(columns.map((c) => c === 'timestamp' || c === 'time' ? time(r[c]) : r[c]))));
}

function time(seconds) {
  if (typeof seconds !== 'number') return seconds;
  return new Date(seconds * 1000).toLocaleTimeString();
}

function showRecords(now) {
  for (const counter of now.counters) {
    const cell = $('counter-' + counter.name);
    if (cell) cell.textContent = counter.value;
  }
  showRows('access-events', now.access_events, ['id', 'name', 'uuid', 'device_id', 'timestamp']);
  showRows('access-logs', now.access_logs, ['id', 'user_id', 'portal_id', 'time', 'event',
    'reason', 'uuid']);
}

// ---------------------------------------------------------------- the events

// An output line as the terminal tells it: its kind, label and text.
function addEvent(event) {
  const item = document.createElement('li');
  item.className = event.kind + (shown.has(event.kind) ? '' : ' hidden-kind');
  item.dataset.kind = event.kind;
  const label = document.createElement('span');
  label.className = 'kind';
  label.textContent = event.label;
  item.append(label, event.text);
  const list = $('events');
  list.insertBefore(item, list.firstChild);
  while (list.childElementCount > mostEvents) list.lastChild.remove();
}

function buildFilters() {
  for (const kind of kinds) {
    shown.add(kind);
    const label = document.createElement('label');
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.checked = true;
    box.id = 'filter-' + kind;
    box.addEventListener('change', () => {
      if (box.checked) shown.add(kind); else shown.delete(kind);
      for (const item of $('events').children) {
        item.classList.toggle('hidden-kind', !shown.has(item.dataset.kind));
      }
    });
    label.append(box, ' ' + kind);
    $('filters').appendChild(label);
  }
}

// ---------------------------------------------------------------- set-up

function connect() {
  const source = new EventSource('/events');
  source.onopen = () => {
    $('connection').textContent = 'connected';
    $('connection').className = 'connection up';
    // A reconnection replays the history: start the list afresh.
    $('events').replaceChildren();
    refresh();
  };
  source.onerror = () => {
    $('connection').textContent = 'disconnected: retrying';
    $('connection').className = 'connection down';
  };
  source.onmessage = (message) => {
    let event;
    try {
      event = JSON.parse(message.data);
    } catch (error) {
      return;
    }
    addEvent(event);
    if (event.shows) show(event.shows);
  };
}

async function learn() {
  const info = await (await fetch('/info')).json();
  kinds = info.kinds;
  mostEvents = info.most_events;
  newestRecords = info.newest_records;
  buildFilters();
  showOperationMode(info.operation_mode);
  showExceptionMode(info.exception_mode);
  $('exception-mode-choice').value =
      {free: '1', blocked: '2'}[info.exception_mode] || info.exception_mode || '0';
  $('controller-kind').textContent = info.simulated ? 'simulated' : info.device_path;
  if (!info.simulated) {
    for (const id of ['turn-left', 'turn-right']) $(id).disabled = true;
    $('person-note').hidden = false;
    $('person-note').textContent = 'A real controller is connected (catra.device_path = ' +
        info.device_path + '): a person turns the real turnstile.';
    for (const id of ['turn-left', 'turn-right']) $(id).title = $('person-note').textContent;
  }
  // A person's turn on each side, as the terminal's command takes it.
  for (const [side, line] of Object.entries(info.turns)) {
    $('turn-' + side).addEventListener('click', () => run(line));
  }
  const sides = ['anticlockwise', 'clockwise', 'both ways'];
  info.buttonholes.forEach((gpio, index) => {
    // An entry that is no GPIO keeps its position, without a button.
    if (gpio < 0) return;
    const button = document.createElement('button');
    button.id = 'exit-request-' + (index + 1);
    button.textContent = (index + 1) + ' (GPIO ' + gpio + ')';
    button.title = 'press exit-request button ' + (index + 1) + ': releases ' +
        (sides[index] || '');
    button.addEventListener('click', () => run({gpio: gpio, value: 0}));
    $('buttonholes').appendChild(button);
  });
  if (info.buttonholes.length === 0) $('buttonholes').textContent = 'none configured';
}

function wire() {
  for (const button of document.querySelectorAll('button[data-command]')) {
    button.addEventListener('click', () => run(button.dataset.command));
  }
  for (const button of document.querySelectorAll('button[data-direction]')) {
    button.addEventListener('click', () => {
      const uuid = $('release-uuid').value.trim() || 'web-' + Date.now() + '-' + (++releases);
      run({send: 'liberate_catra', fields: {catra_direction: button.dataset.direction,
        uuid: uuid, catra_reason: Number($('release-reason').value)}});
    });
  }
  $('set-operation-mode').addEventListener('click', () => run(
      {config: {module: 'catra', key: 'operation_mode', value: $('operation-mode-choice').value}}));
  $('set-exception-mode').addEventListener('click', () => run(
      {config: {module: 'host', key: 'exception_mode', value: $('exception-mode-choice').value}}));
  $('script-form').addEventListener('submit', (event) => {
    event.preventDefault();
    const line = $('script-line').value.trim();
    if (line) run(line);
  });
}

wire();
learn().catch((error) => {
  $('command-result').textContent = 'cannot read /info: ' + error;
}).finally(connect);
