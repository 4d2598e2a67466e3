// The trend of one to eight variables: from the history, and live at the right edge.
import {get} from './api.js';
import {Chart, loadCharts, penOf} from './chart.js';
import {element, setText} from './dom.js';
import {isIntegerType} from './exact.js';
import {numberText, timeText, visible} from './format.js';
import {find, on, plant} from './live.js';
import {candidates, Picker} from './picker.js';
import {findReference, first, fragmentOf, goTo, parseFragment, referenceOf, rewrite}
  from './route.js';
import {axesOf, csvOf, rowsOf, Series} from './series.js';
import {locale, text} from './texts.js';

const kMostVariables = 8;
const kMinute = 60000;
const kDay = 24 * 60 * kMinute;
const kSpans = [10 * kMinute, 60 * kMinute, 8 * 60 * kMinute, kDay, 7 * kDay, 30 * kDay];
const kLeastSpan = 1000;
const kMostSpan = 31 * kDay;
const kTickMs = 250;
const kMostLivePoints = 4000;
const kMostRecent = 500;
const kCursorStep = 4;

// {isLive, span, from, to} in milliseconds, of the parameters of a link. What makes no sense is the
// last ten minutes.
export function windowOf(parameters) {
  const from = Date.parse(first(parameters, 'from'));
  const to = Date.parse(first(parameters, 'to'));
  if (from < to)
    return {isLive: false, span: to - from, ...bounded(from, to)};
  const seconds = Number(first(parameters, 'span'));
  const span = seconds > 0 ? seconds * 1000 : kSpans[0];
  return {isLive: true, span: Math.min(kMostSpan, Math.max(kLeastSpan, span)), from: 0, to: 0};
}

// A part of the time that is neither too short nor too long, around the same middle.
export function bounded(from, to) {
  const span = Math.min(kMostSpan, Math.max(kLeastSpan, to - from));
  const middle = (from + to) / 2;
  return {from: Math.round(middle - span / 2), to: Math.round(middle + span / 2)};
}

function isNumeric(variable, index) {
  const value = Array.isArray(variable.value) ? variable.value[index ?? 0] : variable.value;
  return value === null || value === undefined || typeof value !== 'string';
}

// The value that a trend draws: NaN without a good one.
function drawn(variable, index) {
  const value = Array.isArray(variable.value) ? variable.value[index ?? 0] : variable.value;
  if (variable.quality !== 'good' || value === null || typeof value === 'string')
    return NaN;
  return Number(value);
}

// Trends are drawn with numbers that hold 53 bits: of a larger integer they have not all digits.
export function trendText(number, type) {
  const shown = numberText(number, type);
  const isRounded = isIntegerType(type) && Number.isFinite(number) && Math.abs(number) >= 2 ** 53;
  return isRounded ? text('trend.about', {number: shown}) : shown;
}

// How far the gateway's clock is ahead of this browser's. It tells seconds only, so less than two
// is taken for the same time.
async function clockAhead() {
  const asked = Date.now();
  const response = await fetch('/healthz', {cache: 'no-store'});
  const told = Date.parse(response.headers.get('Date')) + 500;
  const ahead = told - (asked + Date.now()) / 2;
  return Math.abs(ahead) < 2000 || Number.isNaN(ahead) ? 0 : ahead;
}

// Null: not known yet.
function hasHistory() {
  return plant.status ? plant.status.history?.state !== 'off' : null;
}

function noteOf(problem) {
  return text('trend.noHistory', {reason: visible(problem.message)});
}

class Trend {
  constructor(root, parameters) {
    this.root = root;
    this.references = [];
    this.series = [];
    this.window = windowOf(parameters);
    this.chart = null;
    this.ahead = 0;
    this.lostAt = null;
    this.isDirty = true;
    this.lastDraw = 0;
    this.query = null;
    this.hasHistory = null; // not known yet
    this.waiting = 0;
    this.build();
    this.setReferences(parameters.get('v') ?? []);
    this.endings = [
      on('values', changed => this.takeValues(changed)),
      on('variables', () => this.resolve()),
      on('connection', () => this.handleConnection()),
      on('status', () => this.handleStatus()),
    ];
    this.timer = setInterval(() => this.tick(), kTickMs);
    this.scheme = matchMedia('(prefers-color-scheme: dark)');
    this.recolour = () => this.draw();
    this.scheme.addEventListener('change', this.recolour);
    this.start();
  }

  close() {
    this.isClosed = true;
    clearInterval(this.timer);
    clearTimeout(this.waiting);
    this.query?.abort();
    this.scheme.removeEventListener('change', this.recolour);
    for (const end of this.endings)
      end();
    this.chart?.destroy();
  }

  async start() {
    try {
      const [Dygraph, ahead] = await Promise.all([loadCharts(), clockAhead().catch(() => 0)]);
      if (this.isClosed)
        return;
      this.ahead = ahead;
      this.chart = new Chart(Dygraph, this.place, locale, {
        window: (from, to) => this.moveTo(from, to),
        cursor: time => this.showLegend(time),
        reset: () => this.showLive(this.isLive() ? this.window.span : kSpans[0]),
      });
      this.draw();
      this.load();
    } catch (error) {
      if (!this.isClosed)
        setText(this.note, text('trend.noCharts', {file: error.message}));
    }
  }

  isLive() {
    return this.window.isLive;
  }

  now() {
    return this.lostAt ?? Date.now() + this.ahead;
  }

  // What is seen: [from, to].
  seen() {
    const {isLive, span, from, to} = this.window;
    const now = this.now();
    return isLive ? [now - span, now] : [from, to];
  }

  // --- What is on the page

  button(key, handler, attributes = {}) {
    return element('button', {type: 'button', onclick: handler, ...attributes}, text(key));
  }

  build() {
    this.picker = new Picker(text('trend.add'), text('trend.addHint'), typed => this.offered(typed),
      candidate => this.add(referenceOf(candidate.variable, candidate.element)));
    this.spans = kSpans.map(span => this.button(`trend.span${span / kMinute}`,
      () => this.showLive(span)));
    this.liveButton = this.button('trend.live', () => this.showLive(this.window.span),
      {class: 'live'});
    const sign = (key, shown, handler) => element('button', {type: 'button', onclick: handler,
      'aria-label': text(key), title: text(key)}, shown);
    this.note = element('p', {class: 'note', role: 'status'});
    this.units = [element('div', {class: 'unit'}), element('div', {class: 'unit'})];
    this.place = element('div', {class: 'place'});
    this.frame = element('div', {class: 'chart', tabindex: '0', role: 'group',
      'aria-label': text('trend.chart'), 'aria-describedby': 'trend-keys',
      onkeydown: event => this.handleKey(event)}, this.place);
    this.rows = element('tbody');
    this.root.append(element('div', {class: 'trend'},
      element('div', {class: 'tools'}, this.picker.root,
        element('div', {class: 'spans', role: 'group', 'aria-label': text('trend.spans')},
          this.spans),
        element('div', {class: 'moves', role: 'group', 'aria-label': text('trend.moves')},
          sign('trend.earlier', '◀', () => this.pan(-0.5)),
          sign('trend.later', '▶', () => this.pan(0.5)),
          sign('trend.closer', '+', () => this.zoom(0.5)),
          sign('trend.farther', '−', () => this.zoom(2)), this.liveButton),
        element('div', {class: 'outputs'}, this.button('trend.csv', () => this.download()),
          this.button('trend.copy', () => this.copyLink()))),
      this.note,
      element('div', {class: 'units'}, this.units),
      this.frame,
      element('p', {class: 'keys', id: 'trend-keys'}, text('trend.keys')),
      this.legendTable()));
  }

  legendTable() {
    const head = key => element('th', {scope: 'col'}, text(key));
    this.caption = element('caption', {}, text('trend.at', {time: '–'}));
    return element('table', {class: 'legend'},
      this.caption,
      element('thead', {}, element('tr', {}, head('trend.variable'), head('trend.value'),
        head('trend.least'), head('trend.greatest'), head('trend.time'),
        element('td', {class: 'last'}))),
      this.rows);
  }

  showSpans() {
    this.spans.forEach((button, at) => button.setAttribute('aria-pressed',
      String(this.isLive() && Math.abs(this.window.span - kSpans[at]) < 1)));
    this.liveButton.setAttribute('aria-pressed', String(this.isLive()));
  }

  // The legend: the values at the cursor, else the newest ones.
  showLegend(time = this.chart?.cursorTime ?? null) {
    const at = time ?? this.seen()[1];
    setText(this.caption, text('trend.at', {time: timeText(Math.round(at))}));
    for (const line of this.lines)
      this.showLine(line, at);
  }

  showLine({series, cells}, time) {
    const point = series.problem ? null : series.at(time);
    const type = series.found?.variable.type ?? '';
    const unit = series.unit ? ` ${visible(series.unit)}` : '';
    const shown = number => (point ? trendText(number, type) + unit : '–');
    setText(cells.value, series.problem ? visible(series.problem) : shown(point?.last));
    setText(cells.least, shown(point?.least));
    setText(cells.greatest, shown(point?.greatest));
    const since = point ? timeText(point.time) : '–';
    setText(cells.time, point?.isBefore ? text('trend.before', {time: since}) : since);
  }

  makeLegend() {
    this.lines = this.series.map((series, number) => {
      const pen = penOf(number);
      const swatch = element('span', {class: 'swatch', 'aria-hidden': 'true'});
      swatch.style.borderTopColor = pen.colour;
      swatch.style.borderTopStyle = pen.dashes ? 'dashed' : 'solid';
      const cells = {};
      for (const name of ['value', 'least', 'greatest', 'time'])
        cells[name] = element('td', {class: name, 'data-head': text(`trend.${name}`)});
      const label = visible(series.variable.label);
      const row = element('tr', {}, element('th', {scope: 'row'}, swatch, label), cells.value,
        cells.least, cells.greatest, cells.time, element('td', {class: 'last'}, element('button',
          {type: 'button', 'aria-label': text('trend.remove', {name: label}),
            title: text('trend.remove', {name: label}),
            onclick: () => this.remove(series.variable.label)}, '×')));
      return {series, cells, row};
    });
    this.rows.replaceChildren(...this.lines.map(line => line.row));
    this.picker.setEnabled(this.series.length < kMostVariables);
    if (this.series.length === 0)
      setText(this.note, text('trend.choose'));
  }

  // --- Which variables

  offered(typed) {
    const units = new Set(this.series.filter(one => !one.problem).map(one => one.unit));
    return candidates(plant.variables, typed, (variable, index) => isNumeric(variable, index) &&
      !this.references.includes(referenceOf(variable, index)) &&
      (units.size < 2 || units.has(variable.unit ?? '')));
  }

  setReferences(references) {
    const wanted = [...new Set(references)].slice(0, kMostVariables);
    const before = new Map(this.series.map(series => [series.variable.label, series]));
    this.references = wanted;
    this.series = wanted.map(label => before.get(label) ?? new Series({label}));
    setText(this.note, '');
    this.makeLegend();
    this.resolve();
  }

  // Which variables the names mean, as soon as the gateway has told what there is.
  resolve() {
    let isNew = false;
    for (const series of this.series) {
      const found = findReference(series.variable.label, find);
      const wasThere = series.found !== null;
      const isOther = series.mean(found);
      isNew = isNew || (found !== null && (isOther || !wasThere));
      if (found)
        series.unit = found.variable.unit ?? '';
      series.problem = found || !plant.hasValues ? '' : text('trend.unknown');
      if (found && !isNumeric(found.variable, found.element))
        series.problem = text('trend.noNumber');
    }
    axesOf(this.series).forEach((axis, at) => {
      if (axis === 0)
        this.series[at].problem ||= text('trend.thirdUnit');
    });
    this.isDirty = true;
    this.showLegend();
    if (isNew)
      this.load();
  }

  add(reference) {
    this.setReferences([...this.references, reference]);
    this.writeLink(goTo);
  }

  remove(reference) {
    this.setReferences(this.references.filter(other => other !== reference));
    this.writeLink(goTo);
    this.draw();
    this.picker.input.focus();
  }

  // --- Which part of the time

  parameters() {
    const {isLive, span, from, to} = this.window;
    const part = isLive ? {span: Math.round(span / 1000)} :
      {from: new Date(from).toISOString(), to: new Date(to).toISOString()};
    return {v: this.references, ...part};
  }

  // The address brings this view back.
  writeLink(write) {
    const parameters = this.parameters();
    if (fragmentOf('trend', parameters) !== location.hash)
      write('trend', parameters);
    this.showSpans();
  }

  change(parameters) {
    if (fragmentOf('trend', this.parameters()) === location.hash)
      return;
    this.window = windowOf(parameters);
    this.setReferences(parameters.get('v') ?? []);
    this.showSpans();
    this.draw();
    this.load();
  }

  showLive(span) {
    this.window = {isLive: true, span, from: 0, to: 0};
    this.writeLink(goTo);
    this.draw();
    this.load();
  }

  // Shown at once with what is there; what is finer or further comes when the move has ended.
  moveTo(from, to) {
    const part = bounded(from, to);
    this.window = {isLive: false, span: part.to - part.from, ...part};
    this.showSpans();
    this.draw();
    clearTimeout(this.waiting);
    this.waiting = setTimeout(() => {
      // The first move away from the present and each zoom is a step that "back" takes back.
      const before = windowOf(parseFragment(location.hash).parameters);
      const isStep = before.isLive || Math.abs(before.span - this.window.span) > 1;
      this.writeLink(isStep ? goTo : rewrite);
      this.load();
    }, 150);
  }

  pan(part) {
    const [from, to] = this.seen();
    const step = (to - from) * part;
    this.moveTo(from + step, to + step);
  }

  zoom(scale) {
    const [from, to] = this.seen();
    if (this.isLive() && this.window.span * scale <= kMostSpan)
      this.showLive(Math.max(kLeastSpan, this.window.span * scale));
    else
      this.moveTo((from + to) / 2 - (to - from) * scale / 2, (from + to) / 2 + (to - from) * scale / 2);
  }

  handleKey(event) {
    if (event.ctrlKey || event.altKey || event.metaKey || !this.chart)
      return;
    const [from, to] = this.seen();
    const keys = {
      ArrowLeft: () => (event.shiftKey ? this.pan(-0.25) : this.chart.stepCursor(-kCursorStep)),
      ArrowRight: () => (event.shiftKey ? this.pan(0.25) : this.chart.stepCursor(kCursorStep)),
      Home: () => this.chart.setCursor(from),
      End: () => this.chart.setCursor(to),
      '+': () => this.zoom(0.5),
      '-': () => this.zoom(2),
      Escape: () => this.chart.setCursor(null),
    };
    if (!Object.hasOwn(keys, event.key))
      return;
    event.preventDefault();
    keys[event.key]();
  }

  // --- Data

  // Once, however many reasons come together.
  load() {
    if (this.isAsked)
      return;
    this.isAsked = true;
    queueMicrotask(() => {
      this.isAsked = false;
      if (!this.isClosed)
        this.loadNow();
    });
  }

  async loadNow() {
    this.query?.abort();
    const query = new AbortController();
    this.query = query;
    const asked = this.series.filter(series => series.found && !series.problem);
    this.hasHistory = hasHistory();
    if (!this.chart || asked.length === 0 || this.hasHistory === null)
      return;
    const [from, to] = this.seen();
    this.frame.setAttribute('aria-busy', 'true');
    const note = this.hasHistory ? await this.loadHistory(asked, from, to, query)
      : await this.loadMemory(asked, to, query).then(() => text('trend.onlyMemory'), noteOf);
    if (this.query !== query || this.isClosed)
      return;
    this.frame.setAttribute('aria-busy', 'false');
    setText(this.note, note);
    this.draw();
  }

  async loadHistory(asked, from, to, query) {
    const failed = await Promise.all(asked.map(series => this.loadOne(series, from, to, query)));
    const problem = failed.find(one => one);
    return problem ? noteOf(problem) : '';
  }

  // Gives the problem, null without one.
  async loadOne(series, from, to, query) {
    const {variable, element: index} = series.found;
    const points = Math.max(100, Math.min(2000, this.place.clientWidth || 800));
    try {
      const answer = await get('/api/v1/history', {line: variable.line, name: variable.name,
        element: index, from: new Date(from).toISOString(), to: new Date(to).toISOString(), points},
      query.signal);
      if (query.signal.aborted)
        return null;
      series.replace(answer.points, answer.resolutionMs, from);
      series.takeRecent(this.isLive() ? Infinity : to);
      return null;
    } catch (problem) {
      if (query.signal.aborted)
        return null;
      if (series.times.length === 0)
        await this.loadMemory([series], to, query).catch(() => {});
      return problem;
    }
  }

  // Without a history the gateway remembers the last ten minutes of what is one number.
  async loadMemory(asked, to, query) {
    const {end, stepMs, trends} = await get('/api/v1/trends', {}, query.signal);
    for (const series of asked) {
      const {variable, element: index} = series.found;
      const points = index !== null ? [] : trends.find(one => one.line === variable.line &&
        one.name === variable.name)?.points ?? [];
      series.replace(points.map((part, at) => [end - (points.length - at) * stepMs,
        part?.[0] ?? null, part?.[1] ?? null, part?.[1] ?? null]), stepMs);
      series.takeRecent(this.isLive() ? Infinity : to);
    }
  }

  // Whether there is a history is known with the first status only, and changes with a reload.
  handleStatus() {
    if (this.hasHistory !== hasHistory())
      this.load();
  }

  takeValues(changed) {
    const names = new Set(changed);
    for (const series of this.series) {
      const found = series.found;
      if (!found || series.problem || !names.has(found.variable))
        continue;
      const value = drawn(found.variable, found.element);
      const time = Number.isNaN(value) ? this.now() : Date.parse(found.variable.time);
      series.takeLive(time, value, kMostRecent, this.isLive());
      this.isDirty = true;
    }
  }

  handleConnection() {
    if (plant.connection !== 'live') {
      this.lostAt ??= this.now();
      return;
    }
    const wasLost = this.lostAt !== null;
    this.lostAt = null;
    if (wasLost)
      this.load();
  }

  // Live, the chart moves by a pixel at a time at most, and at once when a value came.
  tick() {
    const now = Date.now();
    const step = Math.min(10000, this.window.span / 1000);
    const isDue = this.isDirty || (this.isLive() && now - this.lastDraw >= step);
    if (isDue && !document.hidden)
      this.draw();
    if (this.isLive() && this.series.some(one => one.times.length > kMostLivePoints))
      this.load();
  }

  draw() {
    this.isDirty = false;
    this.lastDraw = Date.now();
    if (!this.chart)
      return;
    const [from, to] = this.seen();
    const axes = axesOf(this.series);
    const shown = this.series.filter((series, at) => axes[at] > 0);
    if (this.isLive())
      shown.forEach(series => series.forgetBefore(from));
    this.showUnits(shown, axes.filter(axis => axis > 0));
    this.frame.hidden = shown.length === 0;
    if (shown.length > 0) {
      const pens = this.series.map((series, number) => penOf(number))
        .filter((pen, at) => axes[at] > 0);
      this.chart.draw(rowsOf(shown, Math.min(to, this.now())), axes.filter(axis => axis > 0), pens,
        from, to);
    }
    this.showLegend();
  }

  showUnits(shown, axes) {
    this.units.forEach((place, at) => {
      const of = shown.find((series, column) => axes[column] === at + 1);
      setText(place, of ? visible(of.unit) : '');
    });
  }

  // --- What goes out

  download() {
    const [from, to] = this.seen();
    const shown = this.series.filter(series => !series.problem);
    const table = new Blob(['\ufeff', csvOf(shown, from, to)], {type: 'text/csv;charset=utf-8'});
    const address = URL.createObjectURL(table);
    const link = element('a', {href: address,
      download: `trend-${new Date(from).toISOString().replace(/[:.]/g, '')}.csv`});
    link.click();
    setTimeout(() => URL.revokeObjectURL(address), 60000);
  }

  async copyLink() {
    this.writeLink(rewrite);
    try {
      await navigator.clipboard.writeText(location.href);
      setText(this.note, text('trend.copied'));
    } catch {
      // Only of pages that came encrypted or from this machine; the address itself is the link.
      setText(this.note, location.href);
    }
  }
}

export function open(root, parameters) {
  const trend = new Trend(root, parameters);
  trend.showSpans();
  return {change: changed => trend.change(changed), close: () => trend.close()};
}
