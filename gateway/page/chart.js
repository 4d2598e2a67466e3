// Draws a trend with dygraphs, which is loaded when the first trend is opened. Its legend is not
// used: that writes styles into markup, which the policy of this page refuses.
import {element} from './dom.js';

const kScript = '/dygraphs/dygraph.min.js';
const kStyle = '/dygraphs/dygraph.min.css';
const kDashes = [null, [8, 4], [2, 3], [10, 3, 2, 3]];
const kColours = 8;
const kNarrow = 500;

let loading = null;

// Once, also when several ask at the same time. Fails when the package is not installed.
export function loadCharts() {
  loading ??= new Promise((resolve, reject) => {
    const fail = () => {
      loading = null;
      reject(new Error(kScript));
    };
    document.head.append(element('link', {rel: 'stylesheet', href: kStyle}),
      element('script', {src: kScript, onload: () => resolve(prepared(window.Dygraph)),
        onerror: fail}));
  });
  return loading;
}

function prepared(Dygraph) {
  Dygraph.PLUGINS = [Dygraph.Plugins.Axes, Dygraph.Plugins.Grid];
  return Dygraph;
}

// The line of the variable with this number: its colour in the current scheme, and its dashes.
export function penOf(number) {
  const styles = getComputedStyle(document.documentElement);
  return {
    colour: styles.getPropertyValue(`--series-${number % kColours + 1}`).trim() || '#777',
    dashes: kDashes[Math.floor(number / 2) % kDashes.length],
  };
}

// The least and the greatest value of each part of the span, as wide as the part.
function drawBand(event) {
  const context = event.drawingContext;
  const area = event.plotArea;
  context.save();
  context.fillStyle = event.color;
  context.globalAlpha = 0.35;
  const points = event.points.filter(point => point.yval !== null);
  points.forEach((point, index) => {
    const height = (point.y_bottom - point.y_top) * area.h;
    if (!(Math.abs(height) > 0))
      return;
    const next = points[index + 1]?.canvasx ?? point.canvasx;
    const width = Math.max(1, next - point.canvasx);
    context.fillRect(point.canvasx, area.y + point.y_top * area.h, width, height);
  });
  context.restore();
}

const kMinute = 60000;
const kDay = 24 * 60 * kMinute;

// The labels of the time axis, as short as the span allows.
function timeLabel(language, spanMs) {
  const hours = {hour: '2-digit', minute: '2-digit', hourCycle: 'h23'};
  const clock = new Intl.DateTimeFormat(language,
    spanMs < 20 * kMinute ? {...hours, second: '2-digit'} : hours);
  const day = new Intl.DateTimeFormat(language, {day: 'numeric', month: 'short'});
  return date => {
    const isMidnight = date.getHours() + date.getMinutes() + date.getSeconds() === 0;
    return spanMs > 4 * kDay || isMidnight ? day.format(date) : clock.format(date);
  };
}

export class Chart {
  // `told`: {window(from, to): somebody zoomed or moved; cursor(time or null); reset()}.
  constructor(Dygraph, place, language, told) {
    this.Dygraph = Dygraph;
    this.language = language;
    this.told = told;
    this.graph = null;
    this.shape = '';
    this.window = [0, 1];
    this.cursorTime = null;
    this.isHeld = false; // somebody draws a zoom or moves: the chart must stay as it is
    this.hairline = element('div', {class: 'hairline', hidden: true});
    this.plot = element('div', {class: 'plot'});
    place.append(this.plot, this.hairline);
    this.watcher = new ResizeObserver(() => this.resize());
    this.watcher.observe(place);
    this.number = new Intl.NumberFormat(language, {maximumSignificantDigits: 6,
      useGrouping: false});
    this.shortNumber = new Intl.NumberFormat(language, {notation: 'scientific',
      maximumFractionDigits: 2});
  }

  destroy() {
    this.watcher.disconnect();
    const graph = this.graph;
    this.graph = null;
    graph?.destroy();
  }

  resize() {
    const {clientWidth, clientHeight} = this.plot;
    if (!this.graph || clientWidth === 0 || clientHeight === 0)
      return;
    if (clientWidth !== this.graph.width_ || clientHeight !== this.graph.height_)
      this.graph.resize();
    this.drawCursor();
  }

  // `axes` of each column of the rows: 1 or 2. `pens` of each: {colour, dashes}.
  draw(rows, axes, pens, from, to) {
    if (this.isHeld)
      return;
    this.window = [from, to];
    const gaps = axes.map(() => [NaN, NaN, NaN]);
    const file = rows.length > 0 ? rows : [[new Date(from), ...gaps], [new Date(to), ...gaps]];
    const shape = JSON.stringify([axes, pens, this.frameColours()]);
    if (this.graph && shape === this.shape) {
      this.graph.updateOptions({file, dateWindow: [from, to], axes: this.axisOptions()});
    } else {
      this.shape = shape;
      const before = this.graph;
      this.graph = null;
      before?.destroy();
      this.graph = new this.Dygraph(this.plot, file, this.options(axes, pens));
    }
    this.drawCursor();
  }

  frameColours() {
    const styles = getComputedStyle(this.plot);
    return [styles.getPropertyValue('--edge').trim() || '#999', styles.color];
  }

  axisOptions() {
    const number = value => {
      const size = Math.abs(value);
      const isLong = size >= 1e6 || (size < 1e-4 && size > 0);
      return (isLong ? this.shortNumber : this.number).format(value);
    };
    const axisLabelWidth = this.plot.clientWidth < kNarrow ? 42 : 64;
    return {
      x: {axisLabelFormatter: timeLabel(this.language, this.window[1] - this.window[0]),
        axisLabelWidth: 80},
      y: {axisLabelFormatter: number, axisLabelWidth},
      y2: {axisLabelFormatter: number, axisLabelWidth, independentTicks: true,
        drawGrid: false},
    };
  }

  options(axes, pens) {
    const series = {};
    axes.forEach((axis, column) => {
      series[`s${column}`] = {axis: axis === 2 ? 'y2' : 'y1', color: pens[column].colour,
        strokePattern: pens[column].dashes};
    });
    const [grid, ink] = this.frameColours();
    return {
      labels: ['time', ...Object.keys(series)],
      series,
      customBars: true,
      stepPlot: true,
      connectSeparatedPoints: true,
      plotter: [drawBand, this.Dygraph.Plotters.linePlotter],
      strokeWidth: 1.5,
      highlightCircleSize: 0,
      axes: this.axisOptions(),
      dateWindow: this.window,
      yRangePad: 10,
      gridLineColor: grid,
      axisLineColor: ink,
      interactionModel: this.interaction(),
      drawCallback: graph => this.handleDraw(graph),
      highlightCallback: event => this.moveCursor(event),
      unhighlightCallback: () => this.setCursor(null),
    };
  }

  // A drag zooms, with Shift it moves; two fingers zoom; a double click shows the whole span again.
  interaction() {
    const model = this.Dygraph.defaultInteractionModel;
    const held = (handle, isHeld) => (event, graph, context) => {
      this.isHeld = isHeld;
      handle(event, graph, context);
    };
    return {
      ...model,
      mousedown: (event, graph, context) => {
        this.isHeld = true;
        addEventListener('mouseup', () => {
          // After the chart's own listener, which zooms.
          setTimeout(() => {
            this.isHeld = false;
          });
        }, {once: true});
        model.mousedown(event, graph, context);
      },
      touchstart: held(model.touchstart, true),
      touchend: held(model.touchend, false),
      dblclick: event => {
        event.preventDefault();
        this.told.reset();
      },
      wheel: (event, graph) => this.zoomByWheel(event, graph),
    };
  }

  // With Ctrl, as two fingers on a touch pad give it: without it the wheel moves the page.
  zoomByWheel(event, graph) {
    if (!event.ctrlKey)
      return;
    event.preventDefault();
    const at = graph.toDataXCoord(graph.eventToDomCoords(event)[0]);
    const [from, to] = this.window;
    const scale = Math.exp(Math.max(-1, Math.min(1, event.deltaY / 200)));
    this.told.window(at - (at - from) * scale, at + (to - at) * scale);
  }

  handleDraw(graph) {
    if (graph !== this.graph) // while it is made or taken away
      return;
    const [from, to] = graph.xAxisRange();
    this.drawCursor();
    if (Math.abs(from - this.window[0]) < 1 && Math.abs(to - this.window[1]) < 1)
      return;
    this.window = [from, to];
    this.told.window(from, to);
  }

  moveCursor(event) {
    if (!this.graph)
      return;
    this.setCursor(this.graph.toDataXCoord(this.graph.eventToDomCoords(event)[0]));
  }

  setCursor(time) {
    this.cursorTime = time === null ? null :
      Math.min(this.window[1], Math.max(this.window[0], time));
    this.drawCursor();
    this.told.cursor(this.cursorTime);
  }

  // By so many pixels, for keys.
  stepCursor(pixels) {
    if (!this.graph)
      return;
    const [from, to] = this.window;
    const step = (to - from) / Math.max(1, this.graph.getArea().w);
    this.setCursor((this.cursorTime ?? (pixels > 0 ? from : to)) + pixels * step);
  }

  drawCursor() {
    const isShown = this.graph && this.cursorTime !== null &&
      this.cursorTime >= this.window[0] && this.cursorTime <= this.window[1];
    this.hairline.hidden = !isShown;
    if (isShown)
      this.hairline.style.left = `${this.graph.toDomXCoord(this.cursorTime)}px`;
  }
}
