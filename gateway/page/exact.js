// JSON and numbers without loss: a browser's numbers are exact up to 2^53 only, and a wrong digit
// moves a valve.

const kTokens = /"(?:[^"\\]|\\.)*"|-?\d+(?:\.\d+)?(?:[eE][+-]?\d+)?/g;

// Parses JSON. An integer that a number cannot hold exactly becomes a text with its digits.
export function parseExact(text) {
  return JSON.parse(text.replace(kTokens, token => {
    const isWide = token[0] !== '"' && /^-?\d{16,}$/.test(token);
    return isWide && !Number.isSafeInteger(Number(token)) ? `"${token}"` : token;
  }));
}

const kIntegerRanges = {
  SINT: [-128n, 127n], INT: [-32768n, 32767n], DINT: [-(2n ** 31n), 2n ** 31n - 1n],
  LINT: [-(2n ** 63n), 2n ** 63n - 1n], USINT: [0n, 255n], UINT: [0n, 65535n],
  UDINT: [0n, 2n ** 32n - 1n], ULINT: [0n, 2n ** 64n - 1n],
};

export function isIntegerType(type) {
  return type in kIntegerRanges;
}

// A number as people type it, as JSON text with exactly these digits: {json} or {problem}, a key
// of the texts. `decimalSign` is that of the language, "." or ",". A text that means one thousand
// to some and one to others is no number: "1.000" where the decimal sign is a comma.
export function numberFromInput(input, decimalSign) {
  const text = input.trim().replace(/^\u2212/, '-');
  const parts = /^([+-]?)(\d+)(?:([.,])(\d+))?(?:[eE]([+-]?\d{1,3}))?$/.exec(text);
  if (!parts)
    return {problem: 'noNumber'};
  const [, sign, whole, point, decimals, exponent] = parts;
  if (point && point !== decimalSign && decimals.length === 3)
    return {problem: 'ambiguous'};
  const digits = whole.replace(/^0+(?=\d)/, '');
  return {
    json: (sign === '-' ? '-' : '') + digits + (point ? '.' + decimals : '') +
          (exponent === undefined ? '' : 'e' + Number(exponent)),
  };
}

// What was typed for a value of a type, as JSON text: {json} or {problem}, a key of the texts.
// `isScaled`: the variable shows an integer with gain and offset.
export function valueFromInput(input, type, isScaled, decimalSign) {
  if (type === 'BOOL') {
    const word = input.trim().toLowerCase();
    if (['true', '1'].includes(word))
      return {json: 'true'};
    return ['false', '0'].includes(word) ? {json: 'false'} : {problem: 'noBool'};
  }
  if (type === 'STRING' || type === 'SHORT_STRING')
    return {json: JSON.stringify(input)};
  const number = numberFromInput(input, decimalSign);
  if (number.problem || isScaled || !isIntegerType(type))
    return number;
  if (!/^-?\d+$/.test(number.json))
    return {problem: 'noInteger'};
  const [least, greatest] = kIntegerRanges[type];
  const value = BigInt(number.json);
  return value < least || value > greatest ? {problem: 'outOfRange'} : number;
}
