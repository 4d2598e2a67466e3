// The journal: who wrote what, and the alarms.
import {get, getExact} from './api.js';
import {drawer, element, setText} from './dom.js';
import {timeText, visible} from './format.js';
import {find, on} from './live.js';
import {stateClass} from './overview.js';
import {first, rewrite} from './route.js';
import {text, wordFor} from './texts.js';
import {shownValue} from './write.js';

const kPage = 200;
const kMostRows = 2000;

function word(group, name, style) {
  return element('span', {class: `word ${style}`}, wordFor(group, visible(name ?? '')));
}

function detail(shown) {
  return shown ? element('span', {class: 'detail'}, visible(shown)) : null;
}

function writeCells(entry) {
  const variable = find(entry.line, entry.name);
  const isArray = (variable?.length ?? 1) > 1 || entry.element > 0;
  const shown = value => shownValue(value, variable?.type ?? '', variable?.unit);
  const style = {written: 'is-good', 'unknown-outcome': 'is-warn', 'check-failed': ''}[entry.outcome] ?? 'is-bad';
  const name = `${entry.name}${isArray ? `[${entry.element}]` : ''}`;
  return [
    timeText(entry.time),
    [visible(entry.client || '–'), detail(entry.uid >= 0 ? text('journal.user', entry) : '')],
    [visible(name), detail(entry.line)],
    shown(entry.old),
    shown(entry.new),
    [word('outcome', entry.outcome, style), detail(entry.error)],
  ];
}

function alarmCells(entry) {
  const station = entry.station === undefined ? '' : text('station', {number: entry.station});
  return [
    timeText(entry.time),
    [visible(entry.line || text('journal.gateway')), detail(station)],
    word('state', entry.state, stateClass(entry.state)),
    visible(entry.text ?? ''),
  ];
}

const kLists = {
  writes: {
    address: '/api/v1/journal', key: 'writes', event: 'write', get: getExact, cells: writeCells,
    heads: ['time', 'who', 'variable', 'old', 'new', 'outcome'],
    all: {},
    searched: entry => [entry.client, entry.line, entry.name, entry.outcome, entry.error],
  },
  alarms: {
    address: '/api/v1/alarms', key: 'alarms', event: 'state', get, cells: alarmCells,
    heads: ['time', 'where', 'state', 'text'],
    // Without it they are those of the last day.
    all: {from: '1970-01-01T00:00:00Z'},
    searched: entry => [entry.line, entry.state, entry.text],
  },
};

// What one entry has and no other, wherever it came from.
function keyOf(entry) {
  const {time, line, name, station, element: index, state, text: told, outcome} = entry;
  return JSON.stringify([new Date(time).getTime(), line, name, station, index, state, told,
    entry.new, outcome]);
}

class Journal {
  constructor(root, parameters) {
    this.root = root;
    this.isClosed = false;
    this.drawer = drawer(() => this.draw());
    this.build();
    this.endings = Object.values(kLists).map(list => on(list.event, entry => {
      if (this.list === list)
        this.takeNew([{...entry, time: entry.time ?? Date.now()}]);
    }));
    this.endings.push(on('connection', () => this.load()), on('variables', () => this.draw()));
    this.change(parameters);
  }

  close() {
    this.isClosed = true;
    this.drawer.stop();
    for (const end of this.endings)
      end();
  }

  build() {
    this.tabs = Object.keys(kLists).map(name => element('button', {type: 'button',
      onclick: () => this.choose(name)}, text(`journal.${name}`)));
    this.search = element('input', {type: 'search', 'aria-label': text('journal.search'),
      placeholder: text('journal.searchHint'), oninput: () => {
        this.writeLink();
        this.draw();
      }});
    this.count = element('span', {class: 'count', role: 'status'});
    this.heads = element('tr');
    this.rows = element('tbody');
    this.note = element('p', {class: 'notice', role: 'status'});
    this.earlier = element('button', {type: 'button', onclick: () => this.loadEarlier()},
      text('journal.earlier'));
    this.caption = element('caption', {class: 'hidden'});
    this.table = element('table', {class: 'journal'}, this.caption,
      element('thead', {}, this.heads), this.rows);
    this.root.append(
      element('div', {class: 'tools'},
        element('div', {role: 'group', 'aria-label': text('view.journal'), class: 'spans'},
          this.tabs), this.search, this.count),
      element('div', {class: 'panel'}, this.table, this.note, this.earlier));
  }

  change(parameters) {
    const name = first(parameters, 'list');
    const list = kLists[Object.hasOwn(kLists, name) ? name : 'writes'];
    this.search.value = first(parameters, 'search');
    if (this.list === list) {
      this.draw();
      return;
    }
    this.list = list;
    this.entries = new Map();
    this.isComplete = false;
    Object.keys(kLists).forEach((one, at) =>
      this.tabs[at].setAttribute('aria-pressed', String(kLists[one] === list)));
    setText(this.caption, text(`journal.${this.name()}`));
    this.heads.replaceChildren(...list.heads.map(head =>
      element('th', {scope: 'col'}, text(`journal.${head}`))));
    this.rows.replaceChildren();
    setText(this.note, text('waiting'));
    this.load();
  }

  name() {
    return Object.keys(kLists).find(name => kLists[name] === this.list);
  }

  choose(name) {
    this.change(new Map([['list', [name]], ['search', [this.search.value]]]));
    this.writeLink();
  }

  writeLink() {
    rewrite('journal', {list: this.name(), search: this.search.value});
  }

  // Newest first; `query` has limits of the time.
  async load(query = {}) {
    const list = this.list;
    try {
      const answer = await list.get(list.address, {...list.all, limit: kPage, ...query});
      if (this.isClosed || this.list !== list)
        return;
      const before = this.entries.size;
      this.takeNew(answer[list.key]);
      if (answer[list.key].length < kPage || (query.to && this.entries.size === before))
        this.isComplete = true;
      setText(this.note, this.entries.size > 0 ? '' : text('journal.none'));
    } catch (problem) {
      if (!this.isClosed && this.list === list)
        setText(this.note, text('journal.failed', {reason: visible(problem.message)}));
    }
    this.draw();
  }

  loadEarlier() {
    const oldest = Math.min(...this.sorted().map(entry => new Date(entry.time).getTime()));
    // The end does not belong to what is asked for, and others can have the same time.
    return this.load({to: new Date(oldest + 1).toISOString()});
  }

  takeNew(entries) {
    for (const entry of entries)
      this.entries.set(keyOf(entry), entry);
    if (this.entries.size > kMostRows) {
      this.entries = new Map(this.sorted().slice(0, kMostRows)
        .map(entry => [keyOf(entry), entry]));
      this.isComplete = true;
    }
    this.drawer.ask();
  }

  sorted() {
    return [...this.entries.values()].sort((a, b) =>
      new Date(b.time).getTime() - new Date(a.time).getTime() ||
      (b.sequence ?? Infinity) - (a.sequence ?? Infinity) || 0);
  }

  draw() {
    if (!this.list || this.isClosed)
      return;
    const wanted = this.search.value.trim().toLowerCase();
    const fits = entry => this.list.searched(entry)
      .some(part => String(part ?? '').toLowerCase().includes(wanted));
    const shown = this.sorted().filter(fits);
    this.rows.replaceChildren(...shown.map(entry => element('tr', {},
      this.list.cells(entry).map((cell, at) =>
        element('td', {'data-head': text(`journal.${this.list.heads[at]}`)}, cell)))));
    setText(this.count, text('values.count', {shown: shown.length, all: this.entries.size}));
    if (this.entries.size > 0)
      setText(this.note, shown.length > 0 ? '' : text('journal.noMatch'));
    this.earlier.hidden = this.isComplete || this.entries.size === 0;
  }
}

export function open(root, parameters) {
  const journal = new Journal(root, parameters);
  return {change: changed => journal.change(changed), close: () => journal.close()};
}
