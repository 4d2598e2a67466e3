// The last ten minutes of every number, for the small trends: what the gateway kept, continued by
// the values that come.
import {get} from './api.js';
import {on, plant} from './live.js';
import {keyOf} from './feed.js';

const kPoints = 60;
let stepMs = 10000;
// Of the clock of the gateway, minus performance.now(): when the last part ends.
let end = 0;
let newest = 0; // the place of the last part in the rings
let trends = new Map(); // by key: {least, greatest}, rings with NaN where there is no value
let isStarted = false;
let isAsking = false;
let isFilled = false;
// Grows when a part begins: all pictures are to be drawn again.
let generation = 0;

function numberOf(variable) {
  const value = typeof variable.value === 'boolean' ? Number(variable.value) : variable.value;
  return variable.quality === 'good' && typeof value === 'number' && plant.connection === 'live'
    ? value : NaN;
}

function put(trend, place, number) {
  if (Number.isNaN(number))
    return;
  // Comparisons with NaN are false: the first number of a part is both.
  if (!(trend.least[place] <= number))
    trend.least[place] = number;
  if (!(trend.greatest[place] >= number))
    trend.greatest[place] = number;
}

function emptyTrend() {
  return {least: new Float64Array(kPoints).fill(NaN),
    greatest: new Float64Array(kPoints).fill(NaN), version: 0};
}

function beginPart() {
  newest = (newest + 1) % kPoints;
  end += stepMs;
  ++generation;
  for (const [key, trend] of trends) {
    const variable = plant.byKey.get(key);
    trend.least[newest] = trend.greatest[newest] = NaN;
    if (variable)
      put(trend, newest, numberOf(variable));
  }
}

function advance() {
  const now = performance.now();
  // After a long sleep everything that was kept is old.
  if (now - end > kPoints * stepMs)
    end = now - kPoints * stepMs;
  while (isFilled && now >= end)
    beginPart();
}

function fill(answer) {
  stepMs = answer.stepMs > 0 ? answer.stepMs : stepMs;
  // The last part is not over yet. The clocks of two machines can differ.
  end = performance.now() + Math.min(stepMs, Math.max(0, answer.end - Date.now()));
  newest = kPoints - 1;
  trends = new Map();
  for (const {line, name, points} of answer.trends) {
    const trend = emptyTrend();
    const some = points.slice(-kPoints);
    some.forEach((point, i) => {
      if (point)
        [trend.least[kPoints - some.length + i], trend.greatest[kPoints - some.length + i]] = point;
    });
    trends.set(keyOf({line, name}), trend);
  }
  isFilled = true;
  take(plant.variables);
  ++generation;
}

async function ask() {
  if (isAsking)
    return;
  isAsking = true;
  try {
    fill(await get('/api/v1/trends'));
  } catch {
    // They are asked for again with the next connection; until then there are none.
  }
  isAsking = false;
}

function take(variables) {
  if (!isFilled)
    return;
  advance();
  for (const variable of variables) {
    const number = numberOf(variable);
    if (Number.isNaN(number))
      continue;
    if (!trends.has(variable.key))
      trends.set(variable.key, emptyTrend());
    const trend = trends.get(variable.key);
    put(trend, newest, number);
    ++trend.version;
  }
}

// The first time somebody wants to see them.
export function startTrends() {
  if (isStarted)
    return;
  isStarted = true;
  on('values', take);
  on('ages', advance);
  on('connection', () => {
    if (plant.connection === 'live')
      ask();
  });
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => ++generation);
  ask();
}

// A text that changes when the picture is to be drawn again; '' when there is no trend.
export function versionOf(variable) {
  const trend = trends.get(variable.key);
  return trend ? `${generation}.${trend.version}` : '';
}

// {least, greatest} of all parts; null without any value.
export function rangeOf(variable) {
  const trend = trends.get(variable.key);
  let least = Infinity;
  let greatest = -Infinity;
  for (let i = 0; trend && i < kPoints; ++i) {
    if (trend.least[i] < least)
      least = trend.least[i];
    if (trend.greatest[i] > greatest)
      greatest = trend.greatest[i];
  }
  return least <= greatest ? {least, greatest} : null;
}

// Of all pictures, as the style sheet has it for this browser; asked for once.
let known = {generation: -1, colour: ''};

function colour() {
  if (known.generation !== generation) {
    known = {generation,
      colour: getComputedStyle(document.documentElement).getPropertyValue('--trend').trim()};
  }
  return known.colour;
}

// Sets the size of the picture for this screen; gives what draws on it, in pixels of the page.
function prepare(canvas) {
  const scale = devicePixelRatio || 1;
  const width = 132;
  const height = 28;
  if (canvas.width !== Math.round(width * scale) || canvas.height !== Math.round(height * scale)) {
    canvas.width = Math.round(width * scale);
    canvas.height = Math.round(height * scale);
  }
  const pen = canvas.getContext('2d');
  pen.setTransform(scale, 0, 0, scale, 0, 0);
  pen.clearRect(0, 0, width, height);
  return {pen, width, height};
}

// Draws the trend: in each part a stroke from the least to the greatest value, joined to the next;
// a gap where there was no value.
export function drawTrend(canvas, variable) {
  const {pen, width, height} = prepare(canvas);
  const trend = trends.get(variable.key);
  const range = rangeOf(variable);
  if (!range)
    return;
  const margin = 3;
  // The gateway keeps seven digits: what differs by less does not move.
  const span = range.greatest - range.least;
  const isFlat = span <= 1e-6 * Math.max(Math.abs(range.least), Math.abs(range.greatest));
  const yOf = number => (isFlat ? height / 2
    : height - margin - (number - range.least) / span * (height - 2 * margin));
  const step = width / kPoints;
  pen.strokeStyle = colour();
  pen.lineWidth = 1.5;
  pen.lineJoin = 'round';
  pen.beginPath();
  let isDrawing = false;
  for (let i = 0; i < kPoints; ++i) {
    const place = (newest + 1 + i) % kPoints;
    if (Number.isNaN(trend.least[place])) {
      isDrawing = false;
      continue;
    }
    const x = (i + 0.5) * step;
    if (isDrawing)
      pen.lineTo(x, yOf(trend.least[place]));
    else
      pen.moveTo(x - step / 2, yOf(trend.least[place]));
    pen.lineTo(x, yOf(trend.greatest[place]));
    pen.lineTo(x + step / 2, yOf(trend.greatest[place]));
    isDrawing = true;
  }
  pen.stroke();
}
