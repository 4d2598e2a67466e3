// The overview: lines and stations with their health, the gateway, and the alarms of the last day.
import {get} from './api.js';
import {arrange, drawer, element, setAttribute, setClass, setText} from './dom.js';
import {ageText, durationText, fixed, kNothing, megabytesText, timeText, visible} from './format.js';
import {on, plant} from './live.js';
import {fragmentOf} from './route.js';
import {text, wordFor} from './texts.js';

const kGoodStates = new Set(['up', 'connected', 'overload ended', 'recording']);
const kWarnStates = new Set(['connecting', 'overload', 'stale', 'unread']);
const kQuietStates = new Set(['disabled', 'off', '']);
const kMostAlarms = 200;

export function stateClass(state) {
  if (kGoodStates.has(state))
    return 'is-good';
  if (kWarnStates.has(state))
    return 'is-warn';
  return kQuietStates.has(state) ? '' : 'is-bad';
}

function showWord(node, state) {
  setClass(node, `word ${stateClass(state)}`);
  setText(node, wordFor('state', visible(state)));
}

export function stationName(station) {
  return station.name ? text('stationNamed', {number: station.station, name: visible(station.name)})
                      : text('station', {number: station.station});
}

// Below 0: not known yet.
function millisecondsText(ms) {
  return ms === undefined || ms === null || ms < 0 ? kNothing : `${fixed(ms, 0)} ms`;
}

function percentText(percent) {
  return percent === undefined || percent < 0 ? kNothing : `${fixed(percent, 0)} %`;
}

function sum(stations, key) {
  return stations.reduce((total, station) => total + (station[key] ?? 0), 0);
}

// How many variables have no good value, by line.
function countQualities() {
  const counts = new Map();
  for (const variable of plant.variables) {
    if (!counts.has(variable.line))
      counts.set(variable.line, {stale: 0, never: 0});
    const ofLine = counts.get(variable.line);
    if (variable.quality === 'stale')
      ++ofLine.stale;
    else if (variable.quality !== 'good')
      ++ofLine.never;
  }
  return counts;
}

// Health of a line in one word: what is worst of the line, its stations and its values.
function healthOf(line, counts) {
  if (!line.up) // a line that was not tried yet tells nothing
    return line.up === undefined && !line.error ? 'connecting' : 'down';
  const served = (line.stations ?? []).filter(station => station.state !== 'disabled');
  for (const state of ['refused', 'dead', 'line down']) {
    if (served.some(station => station.state === state))
      return state;
  }
  if (line.overload)
    return 'overload';
  if (served.some(station => station.state === 'connecting'))
    return 'connecting';
  if (counts.stale > 0)
    return 'stale';
  return counts.never > 0 ? 'unread' : 'up';
}

class Facts {
  constructor() {
    this.root = element('dl', {class: 'facts'});
    this.shown = new Map();
  }

  set(key, value, width = '') {
    if (!this.shown.has(key)) {
      const place = element('dd');
      this.root.append(element('div', {class: width},
        element('dt', {}, text(`overview.${key}`)), place));
      this.shown.set(key, place);
    }
    setText(this.shown.get(key), value);
  }
}

const kOfStation = ['lastAnswer', 'retries', 'timeouts', 'errors', 'reconnects'];

class StationRow {
  constructor() {
    this.name = element('td');
    this.word = element('span');
    this.problem = element('span', {class: 'detail'});
    this.numbers = kOfStation.map(
      key => element('td', {class: 'number', 'data-label': text(`overview.${key}`)}));
    this.root = element('tr', {}, this.name, element('td', {}, this.word, this.problem),
      this.numbers);
  }

  show(station, lineIsUp) {
    setText(this.name, stationName(station));
    showWord(this.word, station.state);
    // Of a line that is down, its own text has the reason.
    setText(this.problem, lineIsUp && station.problem ? visible(station.problem) : '');
    const errors = Object.values(station.errors ?? {}).reduce((total, one) => total + one, 0);
    const texts = [ageText(station.lastAnswerMs), fixed(station.retries ?? 0, 0),
      fixed(station.timedOut ?? 0, 0), fixed(errors + (station.corrupt ?? 0), 0),
      fixed(station.reconnects ?? 0, 0)];
    texts.forEach((shown, i) => setText(this.numbers[i], shown));
  }
}

class LineCard {
  constructor(name) {
    this.word = element('span');
    this.port = element('span', {class: 'soft'});
    this.reason = element('p', {class: 'reason'});
    this.facts = new Facts();
    this.fill = element('div');
    this.bar = element('div', {class: 'bar', 'aria-hidden': 'true'}, this.fill);
    this.rows = new Map();
    this.body = element('tbody');
    const heads = kOfStation.map(
      key => element('th', {class: 'number', scope: 'col'}, text(`overview.${key}`)));
    this.root = element('section', {class: 'card', 'aria-label': visible(name)},
      element('div', {class: 'card-head'},
        element('h3', {}, element('a', {href: fragmentOf('values', {search: name})}, visible(name))),
        this.word, this.port),
      this.reason, this.facts.root,
      element('div', {class: 'scroller'}, element('table', {class: 'stations'},
        element('caption', {class: 'hidden'}, text('overview.stations', {line: visible(name)})),
        element('thead', {}, element('tr', {},
          element('th', {scope: 'col'}, text('overview.stationHead')),
          element('th', {scope: 'col'}, text('overview.stateHead')), heads)),
        this.body)));
  }

  show(line, counts) {
    const health = healthOf(line, counts);
    const stations = line.stations ?? [];
    setClass(this.root, `card ${stateClass(health)}`);
    showWord(this.word, health);
    setText(this.port, visible(line.settings ?? line.port ?? ''));
    setText(this.reason, visible((line.up ? line.overload : line.error) ?? ''));
    this.showFigures(line, stations);
    this.facts.set('oldest', ageText(line.oldestMs));
    this.facts.set('variables', counts.stale + counts.never === 0
      ? text('overview.allGood', {count: line.variables})
      : text('overview.some', {count: line.variables, stale: counts.stale, never: counts.never}),
    'broad');
    for (const station of stations) {
      if (!this.rows.has(station.station))
        this.rows.set(station.station, new StationRow());
      this.rows.get(station.station).show(station, line.up);
    }
    arrange(this.body, stations.map(station => this.rows.get(station.station).root));
  }

  showFigures(line, stations) {
    this.facts.set('inUse', percentText(line.percentInUse));
    if (!this.bar.parentNode)
      this.facts.shown.get('inUse').after(this.bar);
    this.fill.style.width = `${Math.max(0, Math.min(100, line.percentInUse ?? 0))}%`;
    setClass(this.bar, line.percentAsked > 100 ? 'bar is-warn' : 'bar');
    const known = line.roundTripMsMedian >= 0;
    this.facts.set('roundTrip', known ? text('overview.roundTripOf',
      {median: millisecondsText(line.roundTripMsMedian), most: millisecondsText(line.roundTripMs99)})
      : kNothing);
    this.facts.set('rate', line.transactionsPerSecond === undefined ? kNothing
      : text('overview.perSecond', {number: fixed(line.transactionsPerSecond, 1)}));
    this.facts.set('retries', fixed(sum(stations, 'retries'), 0));
    this.facts.set('reopened', fixed(line.reopened ?? 0, 0));
  }
}

// What the status tells of a way to a broker, in a line.
function deliveryText(delivery) {
  const connection = delivery.connection ?? {};
  const parts = [delivery.problem, delivery.state, connection.broker, connection.state,
    connection.reason];
  return [...new Set(parts.filter(Boolean))].map(visible).join(', ');
}

function historyText(history) {
  const parts = [history.state, history.reason];
  if (history.bytes)
    parts.push(megabytesText(history.bytes));
  return parts.filter(Boolean).map(visible).join(', ');
}

class GatewayCard {
  constructor() {
    this.facts = new Facts();
    this.root = element('section', {class: 'card', 'aria-label': text('overview.gateway')},
      this.facts.root);
  }

  show(status) {
    const parts = [...(status.lines ?? []), ...Object.values(status.delivery ?? {})];
    const memory = parts.reduce((total, part) => total + (part.memoryKb ?? 0), status.memoryKb ?? 0);
    this.facts.set('program', visible(status.program ?? ''));
    this.facts.set('uptime', durationText(status.uptimeS ?? 0));
    this.facts.set('memory', megabytesText(memory * 1024));
    this.facts.set('clients', fixed(status.clients ?? 0, 0));
    if (status.history)
      this.facts.set('history', historyText(status.history), 'wide');
    for (const kind of ['mqtt', 'sparkplug']) {
      if (status.delivery?.[kind])
        this.facts.set(kind, deliveryText(status.delivery[kind]), 'wide');
    }
    const stopped = status.history?.state === 'stopped';
    setClass(this.root, `card ${stopped ? 'is-bad' : 'is-good'}`);
  }
}

function alarmRow(alarm) {
  const line = alarm.line ? visible(alarm.line) : text('overview.gateway');
  const hasStation = alarm.station !== undefined && alarm.station !== null && alarm.station >= 0;
  const word = element('span');
  showWord(word, alarm.state);
  return element('tr', {}, element('td', {class: 'figure'}, timeText(alarm.time)),
    element('td', {}, hasStation ? text('values.groupOf',
      {line, station: text('station', {number: alarm.station})}) : line),
    element('td', {}, word, ' ', visible(alarm.text ?? '')));
}

// The list of events of lines and stations. Used by other views too: `root` is the element to show;
// add(alarm) puts a new one before the others.
export class AlarmList {
  constructor() {
    this.body = element('tbody');
    this.note = element('p', {class: 'notice'});
    this.table = element('table', {class: 'alarms'},
      element('thead', {}, element('tr', {}, ['time', 'place', 'what'].map(
        key => element('th', {scope: 'col'}, text(`overview.${key}`))))), this.body);
    this.table.hidden = true;
    this.root = element('div', {class: 'panel'}, this.table, this.note);
    this.early = [];
    this.isRead = false;
  }

  async read(signal) {
    try {
      const {alarms} = await get('/api/v1/alarms', {limit: kMostAlarms}, signal);
      this.body.replaceChildren(...alarms.map(alarmRow));
      this.isRead = true;
      const newest = alarms.length ? timeKey(alarms[0]) : '';
      this.early.filter(alarm => timeKey(alarm) > newest)
        .forEach(alarm => this.body.prepend(alarmRow(alarm)));
      this.early = [];
      this.showNote();
    } catch (error) {
      if (!signal?.aborted)
        setText(this.note, text('overview.alarmsFailed', {reason: error.message}));
    }
  }

  add(alarm) {
    if (!this.isRead) {
      this.early.push(alarm);
      return;
    }
    this.body.prepend(alarmRow(alarm));
    while (this.body.children.length > kMostAlarms)
      this.body.lastChild.remove();
    this.showNote();
  }

  showNote() {
    const count = this.body.children.length;
    this.table.hidden = count === 0;
    setText(this.note, count === 0 ? text('overview.noAlarms')
      : count >= kMostAlarms ? text('overview.moreAlarms', {count: kMostAlarms}) : '');
    setAttribute(this.note, 'hidden', this.note.textContent ? null : '');
  }
}

// Times are ISO 8601 with the same length: their order is that of the texts.
function timeKey(alarm) {
  return String(alarm.time ?? '');
}

export function open(root) {
  const cards = new Map();
  const lines = element('div', {class: 'cards'});
  const gateway = new GatewayCard();
  const alarms = new AlarmList();
  const note = element('p', {class: 'notice'}, text('waiting'));
  const abort = new AbortController();
  // Everything comes at once, with the first status: nothing moves after it is seen.
  const rest = element('div', {}, element('h2', {}, text('overview.gateway')),
    element('div', {class: 'cards'}, gateway.root), element('h2', {}, text('overview.alarms')),
    alarms.root);
  rest.hidden = true;
  root.append(element('h2', {}, text('overview.lines')), note, lines, rest);

  const pictures = drawer(() => {
    const status = plant.status;
    if (!status)
      return;
    setText(note, status.lines.length ? '' : text('overview.noLines'));
    note.hidden = status.lines.length > 0;
    const counts = countQualities();
    for (const line of status.lines) {
      if (!cards.has(line.line))
        cards.set(line.line, new LineCard(line.line));
      cards.get(line.line).show(line, counts.get(line.line) ?? {stale: 0, never: 0});
    }
    arrange(lines, status.lines.map(line => cards.get(line.line).root));
    gateway.show(status);
    rest.hidden = false;
  });
  const ends = [
    on('status', () => pictures.ask()),
    on('variables', () => pictures.ask()),
    on('state', alarm => alarms.add(alarm)),
    on('connection', () => {
      if (plant.connection === 'live')
        alarms.read(abort.signal);
    }),
  ];
  pictures.ask();
  alarms.read(abort.signal);
  return {
    change() {},
    close() {
      abort.abort();
      pictures.stop();
      ends.forEach(end => end());
    },
  };
}
