// How values, numbers and times are shown, in the language of the page.
import {locale, text} from './texts.js';

export const kNothing = '–';

// Bytes of a controller are data: what would act on the text around it is shown as a sign.
export function visible(from) {
  return String(from)
    .replace(/[\u0000-\u001f]/g, sign => String.fromCharCode(0x2400 + sign.charCodeAt(0)))
    .replace(/[\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]/g, '\ufffd');
}

const formats = new Map();

function formatOf(options) {
  const key = JSON.stringify(options);
  if (!formats.has(key))
    formats.set(key, new Intl.NumberFormat(locale, {useGrouping: false, ...options}));
  return formats.get(key);
}

// With exactly so many digits after the point: columns stay aligned.
export function fixed(number, digits) {
  return formatOf({minimumFractionDigits: digits, maximumFractionDigits: digits}).format(number);
}

// The digits that the type holds: seven of a REAL, all of an integer.
export function numberText(number, type = '') {
  if (!Number.isFinite(number))
    return String(number);
  const digits = type === 'REAL' ? 7 : 15;
  const size = Math.abs(number);
  if (size !== 0 && (size < 1e-4 || size >= 1e15) && !Number.isSafeInteger(number))
    return formatOf({notation: 'scientific', maximumSignificantDigits: digits}).format(number);
  return formatOf({maximumSignificantDigits: Number.isInteger(number) ? 17 : digits}).format(number);
}

function oneText(value, exact, type) {
  if (value === null || value === undefined)
    return kNothing;
  if (typeof value === 'number')
    return exact !== undefined && exact !== null ? visible(exact) : numberText(value, type);
  return visible(value);
}

const kMostShown = 4;

// The value of a variable, or of one element of its array, without the unit.
export function valueText(variable, element = null) {
  const {value, text: exact, type} = variable;
  if (!Array.isArray(value))
    return oneText(value, exact, type);
  if (element !== null)
    return oneText(value[element], exact?.[element], type);
  const some = value.slice(0, kMostShown).map((one, i) => oneText(one, exact?.[i], type));
  return `[${some.join('; ')}${value.length > kMostShown ? '; …' : ''}]`;
}

// "41.5 cm"
export function valueWithUnit(variable, element = null) {
  const shown = valueText(variable, element);
  return variable.unit && shown !== kNothing ? `${shown} ${visible(variable.unit)}` : shown;
}

const kMinute = 60000;
const kHour = 60 * kMinute;

// "0.4 s", "35 s", "12 min", "3 h"; null: "–".
export function ageText(ms) {
  if (ms === null || ms === undefined)
    return kNothing;
  if (ms < 10000)
    return `${fixed(Math.floor(ms / 100) / 10, 1)} s`;
  if (ms < 2 * kMinute)
    return `${Math.floor(ms / 1000)} s`;
  if (ms < 2 * kHour)
    return `${Math.floor(ms / kMinute)} min`;
  if (ms < 48 * kHour)
    return `${Math.floor(ms / kHour)} h`;
  return `${Math.floor(ms / 24 / kHour)} d`;
}

// "3 d 04:05:06"
export function durationText(seconds) {
  const two = number => String(Math.floor(number)).padStart(2, '0');
  const time = `${two(seconds % 86400 / 3600)}:${two(seconds % 3600 / 60)}:${two(seconds % 60)}`;
  return seconds < 86400 ? time : text('overview.days', {days: Math.floor(seconds / 86400), time});
}

export function megabytesText(bytes) {
  return `${fixed(bytes / 1e6, 1)} MB`;
}

// Milliseconds since 1970 of what the gateway tells: such a number, or ISO 8601.
export function millisecondsOf(time) {
  return typeof time === 'number' ? time : Date.parse(time);
}

const timeFormat = new Intl.DateTimeFormat(locale,
  {year: 'numeric', month: '2-digit', day: '2-digit', hour: '2-digit', minute: '2-digit',
    second: '2-digit', hourCycle: 'h23'});

// Date and time of this browser's place.
export function timeText(time) {
  const ms = millisecondsOf(time);
  return Number.isFinite(ms) ? timeFormat.format(ms) : kNothing;
}
