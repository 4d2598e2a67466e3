// The table of all variables: search, order, groups by station, arrays that open, small trends.
import {onSession, session} from './api.js';
import {drawer, element, setAttribute, setClass, setText} from './dom.js';
import {ageText, kNothing, numberText, valueText, visible} from './format.js';
import {ageOf, on, plant} from './live.js';
import {stationName, stateClass} from './overview.js';
import {first, fragmentOf, referenceOf, rewrite} from './route.js';
import {RowWindow} from './rows.js';
import {drawTrend, rangeOf, startTrends, versionOf} from './smalltrends.js';
import {locale, text, wordFor} from './texts.js';

const kQualityClass = {good: 'is-good', stale: 'is-bad', never: 'is-warn'};
const kColumns = ['name', 'value', 'trend', 'type', 'age', 'quality', 'action'];
const kOrders = ['project', 'name', 'value', 'type', 'age', 'quality'];
const kQualities = ['good', 'stale', 'never'];
// Their order changes with the values.
const kMovingOrders = new Set(['value', 'age', 'quality']);
const collator = new Intl.Collator(locale, {numeric: true, sensitivity: 'base'});

// ---- What is shown, as the address tells it -----------------------------------------------------

function stateOf(parameters) {
  const sort = first(parameters, 'sort');
  const order = sort.replace(/^-/, '');
  const quality = first(parameters, 'quality');
  return {
    search: first(parameters, 'search'),
    order: kOrders.includes(order) ? order : 'project',
    descending: sort.startsWith('-'),
    groups: first(parameters, 'group') !== '0',
    quality: kQualities.includes(quality) ? quality : '',
    open: new Set(parameters.get('open') ?? []),
  };
}

function parametersOf(state) {
  const sort = (state.descending ? '-' : '') + state.order;
  return {search: state.search, sort: sort === 'project' ? '' : sort,
    group: state.groups ? '' : '0', quality: state.quality, open: [...state.open]};
}

// A part of the name, of the tag or of the line; or a pattern with * and ?.
function matcher(search) {
  const wanted = search.trim().toLowerCase();
  if (!wanted)
    return () => true;
  if (!/[*?]/.test(wanted)) {
    return variable => `${variable.name}\n${variable.tag}\n${variable.line}`.toLowerCase()
      .includes(wanted);
  }
  const pattern = wanted.replace(/[.+^${}()|[\]\\]/g, '\\$&').replace(/\*+/g, '.*')
    .replace(/\?/g, '.');
  const expression = new RegExp(`^${pattern}$`, 's');
  return variable => [variable.name, variable.tag, `${variable.line}/${variable.name}`]
    .some(one => expression.test(String(one).toLowerCase()));
}

// Numbers before texts before nothing.
function rankOf(value) {
  if (value === null || value === undefined)
    return 2;
  return typeof value === 'string' || Array.isArray(value) ? 1 : 0;
}

function compareValues(a, b) {
  return rankOf(a.value) === 0 ? Number(a.value) - Number(b.value)
    : collator.compare(valueText(a), valueText(b));
}

const kCompare = {
  name: (a, b) => collator.compare(a.name, b.name),
  value: compareValues,
  type: (a, b) => collator.compare(a.type ?? '', b.type ?? ''),
  age: (a, b) => (ageOf(a) ?? 0) - (ageOf(b) ?? 0),
  quality: (a, b) => kQualities.indexOf(b.quality) - kQualities.indexOf(a.quality),
};

// What has no value or no age is last in both directions.
const kRank = {
  value: variable => rankOf(variable.value),
  age: variable => Number(ageOf(variable) === null),
};

function comparerOf(state) {
  const compare = kCompare[state.order];
  const rank = kRank[state.order] ?? (() => 0);
  const sign = state.descending ? -1 : 1;
  return compare && ((a, b) => rank(a) - rank(b) || sign * compare(a, b));
}

function chosen(state) {
  const matches = matcher(state.search);
  const variables = plant.variables.filter(
    variable => matches(variable) && (!state.quality || variable.quality === state.quality));
  const compare = comparerOf(state);
  if (compare)
    variables.sort(compare);
  else if (state.descending)
    variables.reverse();
  return variables;
}

function withElements(variable, state, items) {
  // After a reload of the configuration, the same name can be another variable: another row.
  const id = `${variable.key}\n${variable.tag}\n${variable.length > 1}`;
  items.push({id, kind: 'variable', variable, element: null});
  if (variable.length <= 1 || !state.open.has(referenceOf(variable)))
    return;
  for (let i = 0; i < variable.length; ++i)
    items.push({id: `${id}\n${i}`, kind: 'variable', variable, element: i});
}

function itemsOf(variables, state) {
  const items = [];
  if (!state.groups) {
    variables.forEach(variable => withElements(variable, state, items));
    return items;
  }
  const groups = new Map();
  for (const variable of plant.variables) // the order of the groups is that of the project
    groups.set(`${variable.line}\n${variable.station}`, []);
  for (const variable of variables)
    groups.get(`${variable.line}\n${variable.station}`).push(variable);
  for (const [key, members] of groups) {
    if (!members.length)
      continue;
    const {line, station} = members[0];
    items.push({id: `${key}\n\n`, kind: 'group', line, station, count: members.length});
    members.forEach(variable => withElements(variable, state, items));
  }
  return items;
}

// ---- Rows ---------------------------------------------------------------------------------------

function cell(name, ...children) {
  return element('div', {class: `cell ${name}`, role: 'cell'}, children);
}

// A reason that there is no room for is shown whole to who touches it or reaches it by the keyboard.
function showReason(node, told, isReason) {
  setText(node, told);
  setAttribute(node, 'tabindex', told && isReason ? '0' : null);
}

class GroupRow {
  constructor() {
    this.name = element('span');
    this.word = element('span');
    this.reason = element('span', {class: 'soft'});
    this.root = element('div', {class: 'row group', role: 'row'},
      element('div', {class: 'cell', role: 'rowheader'}, this.name), this.word,
      element('div', {class: 'cell soft', role: 'cell'}, this.reason));
  }

  show(group) {
    const line = plant.status?.lines.find(one => one.line === group.line);
    const station = line?.stations?.find(one => one.station === group.station);
    setText(this.name, text('values.groupOf', {line: visible(group.line),
      station: stationName(station ?? {station: group.station})}));
    const state = station?.state ?? (line && !line.up ? 'down' : '');
    setClass(this.word, state ? `word ${stateClass(state)}` : '');
    setText(this.word, state ? wordFor('state', visible(state)) : '');
    showReason(this.reason, visible(station?.problem ?? line?.error ?? ''), true);
  }
}

class ValueRow {
  constructor(item, view) {
    this.variable = item.variable;
    this.element = item.element;
    this.view = view;
    this.label = visible(item.variable.name) + (item.element === null ? '' : `[${item.element}]`);
    this.isArray = item.element === null && item.variable.length > 1;
    this.drawn = '';
    this.value = element('span');
    this.unit = element('span', {class: 'unit'});
    this.valueCell = cell('value', this.value, this.unit);
    this.type = cell('type');
    this.age = cell('age');
    this.word = element('span');
    this.action = cell('action');
    this.root = element('div', {class: 'row', role: 'row'}, this.makeOpen(), this.makeName(),
      this.valueCell, this.makeTrend(), this.type, this.age, cell('quality', this.word),
      this.action);
  }

  makeOpen() {
    if (!this.isArray)
      return cell('open');
    this.opener = element('button', {type: 'button', 'aria-expanded': 'false',
      'aria-label': text('values.open', {name: this.label}),
      onclick: () => this.view.toggle(referenceOf(this.variable))}, '▸');
    return cell('open', this.opener);
  }

  makeName() {
    this.detail = element('span', {class: 'soft'});
    const hasTrend = !this.isArray && typeof this.variable.value !== 'string';
    const label = hasTrend
      ? element('a', {href: fragmentOf('trend', {v: referenceOf(this.variable, this.element)}),
        title: text('values.trendOf', {name: this.label})}, this.label)
      : element('span', {}, this.label);
    this.nameCell = element('div', {class: 'cell name', role: 'rowheader'}, label, this.detail);
    return this.nameCell;
  }

  makeTrend() {
    if (this.isArray || this.element !== null)
      return cell('trend');
    this.canvas = element('canvas', {width: 132, height: 28, role: 'img'});
    return cell('trend', this.canvas);
  }

  show(item) {
    this.variable = item.variable;
    const {variable} = this;
    const isOld = variable.quality !== 'good';
    this.showAction();
    setClass(this.root, `row${this.element === null ? '' : ' element'}${isOld ? ' is-old' : ''}` +
      (this.writer ? ' has-action' : ''));
    const shown = valueText(variable, this.element);
    setText(this.value, shown);
    setAttribute(this.valueCell, 'title', shown.length > 12 ? shown : null);
    setClass(this.valueCell, shown.length > 12 ? 'cell value is-long' : 'cell value');
    setText(this.unit, variable.unit && shown !== kNothing ? visible(variable.unit) : '');
    setText(this.type, visible(variable.type ?? '') +
      (this.isArray ? `[${variable.length}]` : ''));
    setText(this.age, ageText(ageOf(variable)));
    this.showQuality();
    if (this.opener) {
      const isOpen = this.view.state.open.has(referenceOf(variable));
      setAttribute(this.opener, 'aria-expanded', isOpen);
      setText(this.opener, isOpen ? '▾' : '▸');
    }
    this.showTrend();
  }

  showQuality() {
    const {quality, error} = this.variable;
    const isLost = plant.connection === 'lost' || plant.connection === 'login';
    setClass(this.word, `word ${isLost ? '' : kQualityClass[quality] ?? ''}`);
    setText(this.word, wordFor('quality', isLost ? 'lost' : quality));
    setAttribute(this.word, 'title', error ? visible(error) : null);
    const detail = this.detailText();
    showReason(this.detail, detail, Boolean(error) && this.variable.quality !== 'good');
    setAttribute(this.nameCell, 'title', detail ? `${this.label}: ${detail}` : this.label);
  }

  // Why there is no fresh value; else the tag, where it is not the name.
  detailText() {
    const {error, name, quality, tag} = this.variable;
    if (quality !== 'good' && error)
      return visible(error);
    return this.element === null && tag !== name ? visible(tag ?? '') : '';
  }

  showAction() {
    const mayWrite = Boolean(session.mayWrite && this.variable.writable && !this.isArray);
    if (mayWrite === Boolean(this.writer))
      return;
    if (mayWrite) {
      this.writer = element('button', {type: 'button',
        'aria-label': text('values.writeOf', {name: this.label}),
        onclick: () => this.view.write(this.variable, this.element)},
      element('span', {class: 'in-words'}, text('values.write')),
      element('span', {class: 'as-sign', 'aria-hidden': 'true'}, '✎'));
      this.action.append(this.writer);
    } else {
      this.writer.remove();
      this.writer = null;
    }
  }

  showTrend() {
    if (!this.canvas)
      return;
    const version = `${versionOf(this.variable)} ${devicePixelRatio}`;
    if (version === this.drawn)
      return;
    this.drawn = version;
    drawTrend(this.canvas, this.variable);
    const range = rangeOf(this.variable);
    const type = this.variable.type;
    setAttribute(this.canvas, 'aria-label', range ? text('values.trendPicture', {name: this.label,
      least: numberText(range.least, type), greatest: numberText(range.greatest, type)}) : null);
    setAttribute(this.canvas, 'aria-hidden', range ? null : 'true');
  }
}

// ---- The view -----------------------------------------------------------------------------------

class ValuesView {
  constructor(root, parameters) {
    this.state = stateOf(parameters);
    this.isOrdered = false;
    this.makeTools();
    this.makeTable();
    root.append(element('h2', {class: 'hidden'}, text('values.table')), this.tools, this.table,
      this.note);
    this.pictures = drawer(() => this.draw());
    const ask = () => this.pictures.ask();
    this.ends = [
      on('variables', () => this.reorder()),
      on('values', ask),
      on('ages', () => {
        // Rows do not move under the hand more often than this.
        if (kMovingOrders.has(this.state.order) || this.state.quality)
          this.isOrdered = false;
        ask();
      }),
      on('status', ask),
      on('connection', ask),
      onSession(ask),
      this.listen('scroll', ask),
      this.listen('resize', ask),
    ];
    // When the gateway tells no ages they grow by themselves.
    const timer = setInterval(ask, 1000);
    this.ends.push(() => clearInterval(timer));
    startTrends();
    this.showState();
    this.draw();
  }

  listen(name, handler) {
    addEventListener(name, handler, {passive: true});
    return () => removeEventListener(name, handler);
  }

  makeTools() {
    this.search = element('input', {type: 'search', placeholder: text('values.searchHint'),
      'aria-label': text('values.search'), autocomplete: 'off', spellcheck: 'false',
      oninput: () => this.set({search: this.search.value})});
    this.groups = element('input', {type: 'checkbox',
      onchange: () => this.set({groups: this.groups.checked})});
    this.quality = element('select', {onchange: () => this.set({quality: this.quality.value})},
      element('option', {value: ''}, text('values.all')),
      kQualities.map(one => element('option', {value: one}, wordFor('quality', one))));
    this.order = element('select', {onchange: () => this.set({order: this.order.value})},
      kOrders.map(one => element('option', {value: one},
        one === 'project' ? text('values.order.project') : text(`values.${one}`))));
    this.descending = element('input', {type: 'checkbox',
      onchange: () => this.set({descending: this.descending.checked})});
    this.count = element('span', {class: 'count', role: 'status'});
    this.tools = element('div', {class: 'tools', role: 'search'}, this.search,
      element('label', {}, text('values.only'), ' ', this.quality),
      element('label', {}, this.groups, text('values.group')),
      element('label', {class: 'sort'}, text('values.sortBy'), ' ', this.order),
      element('label', {class: 'sort'}, this.descending, text('values.descending')), this.count);
  }

  makeTable() {
    this.heads = new Map();
    const heads = kColumns.map(name => {
      if (!kOrders.includes(name))
        return element('div', {class: `cell ${name}`, role: 'columnheader'}, text(`values.${name}`));
      const head = element('div', {class: `cell ${name}`, role: 'columnheader'},
        element('button', {type: 'button', onclick: () => this.sortBy(name)},
          text(`values.${name}`)));
      this.heads.set(name, head);
      return head;
    });
    const body = element('div', {class: 'body', role: 'rowgroup'});
    const probes = {variable: element('div', {class: 'probe', 'aria-hidden': 'true'}),
      group: element('div', {class: 'probe of-group', 'aria-hidden': 'true'})};
    this.table = element('div', {class: 'values', role: 'table', 'aria-label': text('values.table'),
      onkeydown: event => this.step(event)},
    element('div', {class: 'row heads', role: 'row', 'aria-rowindex': 1},
      element('div', {class: 'cell open', role: 'columnheader'},
        element('span', {class: 'hidden'}, text('values.open', {name: ''}))), heads), body);
    this.table.append(...Object.values(probes));
    this.note = element('p', {class: 'notice'});
    this.window = new RowWindow(body, probes,
      item => (item.kind === 'group' ? new GroupRow() : new ValueRow(item, this)));
  }

  // Arrow keys go from row to row, to the same thing in the next row.
  step(event) {
    const by = {ArrowDown: 1, ArrowUp: -1}[event.key];
    const row = event.target.closest('.row');
    if (!by || !row?.parentNode.classList.contains('body') || event.altKey || event.ctrlKey)
      return;
    const column = event.target.closest('.cell').className;
    for (let next = row; next;) {
      next = by > 0 ? next.nextElementSibling : next.previousElementSibling;
      const same = next?.querySelector(`[class="${column}"] a, [class="${column}"] button`);
      if (same) {
        event.preventDefault();
        same.focus();
        return;
      }
    }
  }

  sortBy(order) {
    const isSame = this.state.order === order;
    if (isSame && this.state.descending)
      this.set({order: 'project', descending: false});
    else
      this.set({order, descending: isSame});
  }

  set(changes) {
    Object.assign(this.state, changes);
    rewrite('values', parametersOf(this.state));
    this.showState();
    this.reorder();
  }

  toggle(reference) {
    const open = new Set(this.state.open);
    if (!open.delete(reference))
      open.add(reference);
    this.set({open});
  }

  async write(variable, index) {
    const {openWriteDialog} = await import('./write.js');
    openWriteDialog(variable, index);
  }

  change(parameters) {
    this.state = stateOf(parameters);
    this.showState();
    this.reorder();
  }

  showState() {
    const {search, groups, quality, order, descending} = this.state;
    if (this.search.value !== search)
      this.search.value = search;
    this.groups.checked = groups;
    this.quality.value = quality;
    this.order.value = order;
    this.descending.checked = descending;
    for (const [name, head] of this.heads) {
      setAttribute(head, 'aria-sort',
        name === order ? (descending ? 'descending' : 'ascending') : null);
    }
  }

  reorder() {
    this.isOrdered = false;
    this.pictures.ask();
  }

  putInOrder() {
    const variables = chosen(this.state);
    const items = itemsOf(variables, this.state);
    this.isOrdered = true;
    this.window.setItems(items);
    setAttribute(this.table, 'aria-rowcount', items.length + 1);
    setText(this.count, text('values.count',
      {shown: variables.length, all: plant.variables.length}));
    const note = !plant.hasValues ? 'waiting'
      : plant.variables.length === 0 ? 'values.noVariables' : 'values.none';
    setText(this.note, items.length ? '' : text(note));
  }

  draw() {
    if (!this.isOrdered)
      this.putInOrder();
    this.window.draw();
  }

  close() {
    this.pictures.stop();
    this.ends.forEach(end => end());
  }
}

export function open(root, parameters) {
  return new ValuesView(root, parameters);
}
