// A list of rows of one height, of which only those in sight are in the page: five thousand
// variables cost as much as forty.
import {arrange, setAttribute} from './dom.js';

// So many more on both sides: a step of the keyboard or the wheel finds them drawn.
const kSpare = 12;

export class RowWindow {
  // `makeRow(item)` gives {root, show()} for an item; an item has an `id` of its own and a `kind`.
  constructor(body, probe, makeRow) {
    this.body = body;
    this.probe = probe;
    this.makeRow = makeRow;
    this.items = [];
    this.rows = new Map();
  }

  setItems(items) {
    this.items = items;
    this.placed = null;
  }

  rowHeight() {
    return this.probe.offsetHeight || 36;
  }

  // Draws what is in sight, and removes what is not.
  draw() {
    const height = this.rowHeight();
    const wanted = `${this.items.length * height}px`;
    if (this.body.style.height !== wanted)
      this.body.style.height = wanted;
    const top = this.body.getBoundingClientRect().top;
    const first = Math.max(0, Math.floor(-top / height) - kSpare);
    const last = Math.min(this.items.length, Math.ceil((innerHeight - top) / height) + kSpare);
    const nodes = [];
    const kept = new Map();
    for (let i = 0; i < this.items.length; ++i) {
      const id = this.items[i].id;
      const known = this.rows.get(id);
      // The row that has the focus stays, wherever it is: else the keyboard would lose its place.
      if ((i < first || i >= last) && !known?.root.contains(document.activeElement))
        continue;
      const row = known ?? this.makeRow(this.items[i]);
      const place = `${i * height}px`;
      if (row.root.style.top !== place)
        row.root.style.top = place;
      setAttribute(row.root, 'aria-rowindex', i + 2);
      row.show(this.items[i]);
      kept.set(id, row);
      nodes.push(row.root);
    }
    this.rows = kept;
    arrange(this.body, nodes);
  }
}
