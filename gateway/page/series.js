// The data of a trend: what the history gave for each variable, and what came since.

// Times and values of one variable. A gap is a point whose values are NaN.
export class Series {
  constructor(variable) {
    this.variable = variable; // {label: 'press/Level'}
    this.found = null; // the variable and the element that this means
    this.recent = []; // [time, value] of what came live
    this.unit = '';
    this.resolutionMs = 0;
    this.problem = ''; // why there is nothing to draw
    this.clear();
  }

  clear() {
    this.times = [];
    this.least = [];
    this.greatest = [];
    this.last = [];
  }

  // What the reference means now. Points of what it meant before a reload are of something else.
  // Gives whether it is something else than before.
  mean(found) {
    const of = found?.variable;
    const identity = of ? JSON.stringify([of.station, of.tag, of.element, of.type, of.unit,
      of.gain, of.offset, found.element]) : '';
    const isOther = found !== null && identity !== this.identity;
    if (isOther && this.identity !== undefined) {
      this.clear();
      this.recent = [];
    }
    if (isOther)
      this.identity = identity;
    this.found = found;
    return isOther;
  }

  // Points of the history: [time, least, greatest, last], null for no value. `from`: where they
  // were asked from; a value that holds there was there before.
  replace(points, resolutionMs, from = null) {
    this.clear();
    this.resolutionMs = resolutionMs;
    this.from = from;
    for (const [time, least, greatest, last] of points)
      this.append(time, least ?? NaN, greatest ?? NaN, last ?? NaN);
  }

  append(time, least, greatest, last) {
    this.times.push(time);
    this.least.push(least);
    this.greatest.push(greatest);
    this.last.push(last);
  }

  // A value that came just now; NaN: there is none any more. It is only kept for takeRecent()
  // when it is not drawn.
  takeLive(time, value, most, isDrawn) {
    this.recent.push([time, value]);
    if (this.recent.length > most)
      this.recent.shift();
    if (isDrawn)
      this.appendLive(time, value);
  }

  // The history is a little late: what came since its last point, up to `until`, is added again.
  takeRecent(until) {
    const end = this.times.length > 0 ? this.times[this.times.length - 1] : -Infinity;
    for (const [time, value] of this.recent) {
      if (time > end && time <= until)
        this.appendLive(time, value);
    }
  }

  appendLive(time, value) {
    const end = this.times.length - 1;
    if (end >= 0 && Number.isNaN(value) && Number.isNaN(this.last[end]))
      return;
    this.append(end >= 0 ? Math.max(time, this.times[end]) : time, value, value, value);
  }

  // Forgets what is before a time, but for the point that still holds then.
  forgetBefore(time) {
    const count = Math.max(0, this.indexAt(time));
    if (count > 0)
      this.times[count] = this.times[this.beginAt(count)];
    for (const list of [this.times, this.least, this.greatest, this.last])
      list.splice(0, count);
  }

  // The index of the last point at or before a time; -1 without one.
  indexAt(time) {
    let low = 0;
    let high = this.times.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.times[middle] <= time)
        low = middle + 1;
      else
        high = middle;
    }
    return low - 1;
  }

  // The index of the point since which the value of a point holds. A value is told again and again,
  // and what the history gives ends with a point that is no change.
  beginAt(index) {
    let begin = index;
    while (begin > 0 && this.last[begin - 1] === this.last[begin] &&
        this.least[begin] === this.greatest[begin])
      --begin;
    return begin;
  }

  // {time, isBefore, least, greatest, last} at a time, null in a gap. The value holds since `time`
  // or, with isBefore, since some time before it.
  at(time) {
    const index = this.indexAt(time);
    if (index < 0 || Number.isNaN(this.last[index]))
      return null;
    const begin = this.times[this.beginAt(index)];
    const isBefore = begin === this.from;
    return {
      time: isBefore ? begin + this.resolutionMs : begin, isBefore, least: this.least[index], greatest: this.greatest[index],
      last: this.last[index],
    };
  }
}

const kGap = [NaN, NaN, NaN];

// Rows for the chart: [time, [least, last, greatest], ...] with a column for each series; null where
// a series has no point at this time. The last value of each goes on to `end`.
export function rowsOf(seriesList, end) {
  const columns = seriesList.map(series => columnOf(series, end));
  const places = columns.map(() => 0);
  const rows = [];
  for (;;) {
    let time = Infinity;
    columns.forEach(({times}, at) => {
      if (places[at] < times.length && times[places[at]] < time)
        time = times[places[at]];
    });
    if (time === Infinity)
      return rows;
    rows.push([new Date(time), ...columns.map(({times, cells}, at) => {
      let cell = null;
      // Two points of one time: the later one holds.
      while (places[at] < times.length && times[places[at]] === time)
        cell = joined(cell, cells[places[at]++]);
      return cell;
    })]);
  }
}

function columnOf(series, end) {
  const times = series.times.slice();
  const cells = times.map((time, index) => (Number.isNaN(series.last[index]) ? kGap :
    [series.least[index], series.last[index], series.greatest[index]]));
  if (times.length > 0 && times[times.length - 1] < end) {
    const last = series.last[times.length - 1];
    times.push(end);
    cells.push(Number.isNaN(last) ? kGap : [last, last, last]);
  }
  return {times, cells};
}

function joined(before, cell) {
  if (before === null || before === kGap || cell === kGap)
    return cell;
  return [Math.min(before[0], cell[0]), cell[1], Math.max(before[2], cell[2])];
}

// Which axis each series has: 1 or 2 by its unit, 0 when there is no third axis for it.
export function axesOf(seriesList) {
  const units = [];
  return seriesList.map(series => {
    if (series.problem)
      return 0;
    if (!units.includes(series.unit) && units.length < 2)
      units.push(series.unit);
    return units.indexOf(series.unit) + 1;
  });
}

// A spreadsheet would calculate a text that begins like a formula: such a text is in quotes.
function csvText(text) {
  const isPlain = !/^[=+\-@]/.test(text) && !/[\u0000-\u001f\u007f-\u009f]/.test(text);
  const shown = isPlain ? text : JSON.stringify(text);
  return /[",\r\n;]/.test(shown) ? `"${shown.replace(/"/g, '""')}"` : shown;
}

// What is seen between two times, as a table for spreadsheets. The numbers have a decimal point
// in every language. Where a variable has no point of its own, its cells are empty; in a gap, too.
export function csvOf(seriesList, from, to) {
  const heading = ['time'];
  for (const series of seriesList) {
    const unit = series.unit ? ` (${series.unit})` : '';
    for (const part of ['minimum', 'maximum', 'last'])
      heading.push(csvText(`${series.variable.label} ${part}${unit}`));
  }
  const lines = [heading.join(',')];
  for (const [time, ...cells] of rowsOf(seriesList, -Infinity)) {
    if (time.getTime() < from || time.getTime() > to)
      continue;
    const fields = [time.toISOString()];
    for (const cell of cells) {
      const isEmpty = cell === null || Number.isNaN(cell[1]);
      fields.push(...(isEmpty ? ['', '', ''] : [cell[0], cell[2], cell[1]]));
    }
    lines.push(fields.join(','));
  }
  return lines.join('\r\n') + '\r\n';
}
