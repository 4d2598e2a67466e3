// The view that the page shows is told by the fragment of its address, so that a link brings it
// back: "#/trend?v=press%2FLevel&span=600".

// {view: 'trend', parameters: Map of lists}
export function parseFragment(fragment) {
  const text = fragment.replace(/^#\/?/, '');
  const cut = text.indexOf('?');
  const parameters = new Map();
  // A fragment that somebody typed can have any bytes; URLSearchParams takes them all.
  for (const [key, value] of new URLSearchParams(cut < 0 ? '' : text.slice(cut + 1))) {
    if (!parameters.has(key))
      parameters.set(key, []);
    parameters.get(key).push(value);
  }
  return {view: cut < 0 ? text : text.slice(0, cut), parameters};
}

// Of fragmentOf('trend', {v: ['press/Level', 'press/Flow'], span: 600}); null, undefined and ''
// are left out.
export function fragmentOf(view, parameters = {}) {
  const parts = [];
  for (const [key, value] of Object.entries(parameters)) {
    for (const one of Array.isArray(value) ? value : [value]) {
      if (one !== null && one !== undefined && one !== '')
        parts.push(`${encodeURIComponent(key)}=${encodeURIComponent(one)}`);
    }
  }
  return `#/${view}${parts.length ? '?' : ''}${parts.join('&')}`;
}

// Shows a view; the browser's button "back" returns to the one before.
export function goTo(view, parameters = {}) {
  location.hash = fragmentOf(view, parameters);
}

// Changes the address of the view that is shown, without a step back for it.
export function rewrite(view, parameters = {}) {
  history.replaceState(history.state, '', fragmentOf(view, parameters));
}

// The first value of a parameter; '' when there is none.
export function first(parameters, key) {
  return parameters.get(key)?.[0] ?? '';
}

// How a link names a variable, or an element of an array: "press/Level", "press/Recipe[3]".
export function referenceOf(variable, element = null) {
  return `${variable.line}/${variable.name}${element === null ? '' : `[${element}]`}`;
}

// The variable and element that such a text means; null when there is none. `find(line, name)`
// gives the variable. A name can end like an element, so the whole name is tried first.
export function findReference(text, find) {
  const cut = text.indexOf('/');
  if (cut < 0)
    return null;
  const line = text.slice(0, cut);
  const name = text.slice(cut + 1);
  const whole = find(line, name);
  if (whole)
    return {variable: whole, element: whole.length > 1 ? 0 : null};
  const parts = /^(.*)\[(\d{1,6})\]$/s.exec(name);
  const variable = parts ? find(line, parts[1]) : null;
  const element = parts ? Number(parts[2]) : 0;
  return variable && element < variable.length ? {variable, element} : null;
}
