// The plant as this tab knows it: variables with their latest values, the status, the connection.
// Everybody reads `plant` and asks with on() to be told.
import {early} from './early.js';
import {Feed, keyOf} from './feed.js';

// A variable has what the gateway lists (line, name, station, tag, element, length, type, unit,
// writable, minimum, maximum, ...) and its value: value, text (exact digits of 64-bit integers),
// quality, error, time, ageMs (null: never read). What can be written has a revision, which is another
// one when the name means another element, or is shown otherwise.
export const plant = {
  variables: [],
  byKey: new Map(),
  status: null,
  hasValues: false,
  hasVariables: false,
  connection: 'connecting', // 'connecting', 'live', 'lost', 'login'
};

export function find(line, name) {
  return plant.byKey.get(keyOf({line, name})) ?? null;
}

// Names of events: 'variables' (others than before), 'values' (a list of the variables that
// changed), 'ages', 'status', 'state' (a line or station changed), 'write', 'connection'.
const handlers = new Map();

// Returns what ends it.
export function on(name, handler) {
  if (!handlers.has(name))
    handlers.set(name, new Set());
  handlers.get(name).add(handler);
  return () => handlers.get(name).delete(handler);
}

function tell(name, data) {
  for (const handler of [...(handlers.get(name) ?? [])])
    handler(data);
}

const kOfValue = ['value', 'text', 'quality', 'error', 'time', 'unit', 'type', 'revision'];

function takeValue(variable, value) {
  for (const key of kOfValue) {
    if (key in value)
      variable[key] = value[key];
    else if (key !== 'unit' && key !== 'type')
      delete variable[key];
  }
  variable.ageMs = value.ageMs ?? null;
  variable.heard = value.heard;
}

function takeSnapshot(values) {
  const before = plant.byKey;
  plant.byKey = new Map();
  plant.variables = [];
  for (const value of values) {
    const key = keyOf(value);
    const known = before.get(key);
    // Where the name means something else now, nothing is left of what it was.
    const variable = known && known.revision === value.revision ? known : {
      key, length: Array.isArray(value.value) ? value.value.length : 1,
    };
    Object.assign(variable, {line: value.line, name: value.name, station: value.station,
      tag: value.tag, element: value.element});
    takeValue(variable, value);
    plant.byKey.set(key, variable);
    plant.variables.push(variable);
  }
  plant.hasValues = true;
  takeVariables();
  tell('variables');
  tell('values', plant.variables);
}

const kListed = ['length', 'writable', 'minimum', 'maximum', 'writesPerMinute', 'gain', 'offset',
  'intervalMs', 'unit'];
let listed = [];

function takeVariables() {
  for (const one of listed) {
    const variable = plant.byKey.get(keyOf(one));
    // What is listed and the values come apart: they belong together when the revision is the same.
    if (!variable || variable.revision !== one.revision)
      continue;
    for (const key of kListed)
      variable[key] = one[key];
    variable.type ??= one.type;
  }
  plant.hasVariables = listed.length > 0;
}

function takeValues(values) {
  const changed = [];
  for (const value of values) {
    const variable = plant.byKey.get(keyOf(value));
    if (!variable)
      continue;
    takeValue(variable, value);
    changed.push(variable);
  }
  if (changed.length)
    tell('values', changed);
}

function takeAges(ages) {
  const now = Date.now();
  const next = new Map();
  for (const variable of plant.variables) {
    const number = next.get(variable.line) ?? 0;
    next.set(variable.line, number + 1);
    const age = ages[variable.line]?.[number];
    if (age !== undefined) {
      variable.ageMs = age;
      variable.heard = now;
    }
  }
  tell('ages');
}

function take(message) {
  switch (message.kind) {
    case 'connection':
      plant.connection = message.state;
      tell('connection');
      break;
    case 'variables':
      listed = message.variables;
      takeVariables();
      tell('variables');
      break;
    case 'snapshot':
      takeSnapshot(message.values);
      break;
    case 'values':
      takeValues(message.values);
      break;
    case 'ages':
      takeAges(message.ages);
      break;
    case 'status':
      plant.status = message.status;
      tell('status');
      break;
    default:
      tell(message.kind, message.event);
  }
}

// A browser without shared workers, or one that does not take modules in them, has a stream in
// each tab.
function startAlone() {
  const feed = new Feed(take);
  for (const message of feed.latest())
    take(message);
}

// A browser takes some time to start a worker: until then the page shows what it asked for itself.
async function showFirst() {
  const [values, status] = await Promise.all([early.values, early.status]);
  const now = Date.now();
  if (values && !plant.hasValues)
    take({kind: 'snapshot', values: values.values.map(value => ({...value, heard: now}))});
  if (status && !plant.status)
    take({kind: 'status', status});
}

export function start() {
  showFirst();
  const {worker} = early;
  if (!worker || early.hasFailed) {
    startAlone();
    return;
  }
  let heard = false;
  early.onfailed = () => {
    if (!heard)
      startAlone();
    heard = true;
  };
  worker.port.onmessage = event => {
    heard = true;
    if (event.data.kind === 'there?')
      worker.port.postMessage('here');
    else
      take(event.data);
  };
  addEventListener('pagehide', () => worker.port.postMessage('bye'));
  addEventListener('pageshow', event => {
    if (event.persisted)
      worker.port.postMessage('hello');
  });
}

// Ages come every two seconds: what was told longer ago is older than that.
const kAgesHoldMs = 2500;

// The age to show: as the gateway told it while it tells ages, and ever older when it does not,
// also while a connection hangs that nobody has closed.
export function ageOf(variable) {
  if (variable.ageMs === null || variable.ageMs === undefined)
    return null;
  const since = Math.max(0, Date.now() - variable.heard);
  const isHeld = plant.connection === 'live' && since <= kAgesHoldMs;
  return variable.ageMs + (isHeld ? 0 : since);
}
