// A list of rows, of which only those in sight are in the page: five thousand variables cost as
// much as forty.
import {arrange, setAttribute} from './dom.js';

// So many pixels more on both sides: a step of the keyboard or the wheel finds its rows drawn.
const kSpare = 400;

export class RowWindow {
  // `probes` has an element of the height of a row for each kind. `makeRow(item)` gives
  // {root, show(item)} for an item; an item has an `id` of its own and its `kind`.
  constructor(body, probes, makeRow) {
    this.body = body;
    this.probes = probes;
    this.makeRow = makeRow;
    this.items = [];
    this.tops = [0];
    this.heights = '';
    this.rows = new Map();
  }

  setItems(items) {
    this.items = items;
    this.heights = '';
  }

  // Where each row begins, and where the last one ends. Heights change with the window's width.
  measure() {
    const heights = new Map();
    for (const [kind, probe] of Object.entries(this.probes))
      heights.set(kind, probe.offsetHeight);
    const told = [...heights.values()].join(' ');
    if (told === this.heights)
      return;
    this.heights = told;
    this.tops = new Array(this.items.length + 1);
    this.tops[0] = 0;
    this.items.forEach((item, i) => {
      this.tops[i + 1] = this.tops[i] + heights.get(item.kind);
    });
    this.body.style.height = `${this.tops[this.items.length]}px`;
  }

  // The first row that ends below `y`.
  rowAt(y) {
    let low = 0;
    let high = this.items.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.tops[middle + 1] > y)
        high = middle;
      else
        low = middle + 1;
    }
    return low;
  }

  // Draws what is in sight, and removes what is not.
  draw() {
    this.measure();
    const top = this.body.getBoundingClientRect().top;
    const first = this.rowAt(-top - kSpare);
    const last = this.rowAt(innerHeight - top + kSpare);
    const numbers = [];
    const focused = this.focusedNumber();
    if (focused >= 0 && focused < first)
      numbers.push(focused);
    for (let i = first; i <= last && i < this.items.length; ++i)
      numbers.push(i);
    if (focused > last)
      numbers.push(focused);
    const kept = new Map();
    const nodes = numbers.map(number => {
      const row = this.drawRow(number);
      kept.set(this.items[number].id, row);
      return row.root;
    });
    this.rows = kept;
    arrange(this.body, nodes);
  }

  // The row that has the focus stays, wherever it is: else the keyboard would lose its place.
  // Below 0: none has it.
  focusedNumber() {
    if (!this.body.contains(document.activeElement))
      return -1;
    for (const [id, row] of this.rows) {
      if (row.root.contains(document.activeElement))
        return this.items.findIndex(item => item.id === id);
    }
    return -1;
  }

  drawRow(number) {
    const item = this.items[number];
    const row = this.rows.get(item.id) ?? this.makeRow(item);
    const place = `${this.tops[number]}px`;
    if (row.root.style.top !== place)
      row.root.style.top = place;
    setAttribute(row.root, 'aria-rowindex', number + 2);
    row.show(item);
    return row;
  }
}
