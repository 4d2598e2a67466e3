// Compares what two libraries say of the same messages of Sparkplug B.
//
// sparkplug_witness.js FILE: each line of FILE is a message in hexadecimal, a tab, and the message as JSON as Python's
// library decodes it. Decodes the message with the npm package sparkplug-payload, which NODE_PATH must find. The package
// decodes a value only where the metric has its data type, so that values are compared in births. Exit status 0: all are
// alike, 1: some are not. Called by scripts/sparkplug-witness.
'use strict';

const fs = require('fs');
const package_ = require('sparkplug-payload').get('spBv1.0');

const NAMES = ['Unknown', 'Int8', 'Int16', 'Int32', 'Int64', 'UInt8', 'UInt16', 'UInt32', 'UInt64', 'Float', 'Double',
  'Boolean', 'String', 'DateTime'];
const BITS = {Int8: 8, Int16: 16, Int32: 32, Int64: 64};

const wide = (value) => (value === undefined || value === null ? undefined : BigInt(value.toString()));

// A value as the data type means it, comparable as a text.
function expected(metric) {
  const type = NAMES[metric.datatype];
  if (metric.is_null || metric.bytes_value !== undefined || metric.dataset_value !== undefined) return 'null';
  if (BITS[type]) return BigInt.asIntN(BITS[type], BigInt(metric.int_value ?? metric.long_value)).toString();
  if (type === 'String') return metric.string_value ?? '';
  if (type === 'Boolean') return String(metric.boolean_value);
  if (type === 'Float' || type === 'Double') return String(Number(metric.float_value ?? metric.double_value));
  return BigInt(metric.int_value ?? metric.long_value).toString();
}

function found(metric) {
  const value = metric.value;
  if (value === null || value === undefined) return 'null';
  if (value instanceof Date) return String(value.getTime());
  if (NAMES.indexOf(metric.type) === 9) return String(Math.fround(value)); // Float
  return value.toString();
}

let problems = 0;
let values = 0;
const expect = (line, what, one, other) => {
  if (one === other) return;
  problems += 1;
  console.error(`sparkplug-witness: message ${line}: ${what}: ${other} (Python's library: ${one})`);
};

function compareMetric(line, python, npm) {
  expect(line, 'name', python.name ?? '', npm.name ?? '');
  expect(line, 'alias', wide(python.alias), wide(npm.alias));
  expect(line, 'timestamp', wide(python.timestamp), wide(npm.timestamp));
  expect(line, 'isHistorical', python.is_historical ?? false, npm.isHistorical ?? false);
  for (const [i, key] of (python.properties?.keys ?? []).entries()) {
    const property = python.properties.values[i];
    const text = property.int_value ?? property.double_value ?? property.boolean_value ?? property.string_value;
    expect(line, `property ${key}`, String(text), String(npm.properties?.[key]?.value));
  }
  if (!python.datatype || !NAMES[python.datatype]) return; // data, or an array
  values += 1;
  expect(line, 'type', NAMES[python.datatype], npm.type);
  const one = NAMES[python.datatype] === 'Float' && python.float_value !== undefined
    ? String(Math.fround(Number(python.float_value))) : expected(python);
  expect(line, `value of ${python.name ?? python.alias}`, one, found(npm));
}

const lines = fs.readFileSync(process.argv[2], 'utf8').split('\n').filter((line) => line);
lines.forEach((text, at) => {
  const [bytes, json] = text.split('\t');
  const python = JSON.parse(json);
  const npm = package_.decodePayload(Buffer.from(bytes, 'hex'));
  expect(at + 1, 'timestamp', wide(python.timestamp), wide(npm.timestamp));
  expect(at + 1, 'seq', wide(python.seq), wide(npm.seq));
  const metrics = python.metrics ?? [];
  expect(at + 1, 'metrics', metrics.length, (npm.metrics ?? []).length);
  metrics.forEach((metric, i) => compareMetric(at + 1, metric, npm.metrics[i]));
});
console.log(`sparkplug-witness: ${lines.length} messages, ${values} values of known type: ` +
  (problems === 0 ? 'both libraries say the same' : `${problems} differences`));
process.exit(problems === 0 && values > 0 ? 0 : 1);
