// Small helpers to build and change the page. Text goes in as text, never as markup.

// element('button', {class: 'plain', onclick: f, 'aria-label': 'Open'}, 'Open', child): attributes,
// listeners ("on..." with a function), children; null and undefined are left out.
export function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false)
      continue;
    if (typeof value === 'function')
      made.addEventListener(key.slice(2), value);
    else
      made.setAttribute(key, value === true ? '' : String(value));
  }
  for (const child of children.flat()) {
    if (child !== null && child !== undefined)
      made.append(child);
  }
  return made;
}

// Changes the text only when it differs: an unchanged cell costs nothing and keeps a selection.
export function setText(node, text) {
  if (node.textContent !== text)
    node.textContent = text;
}

// A value of null or undefined removes the attribute.
export function setAttribute(node, name, value) {
  if (value === null || value === undefined) {
    if (node.hasAttribute(name))
      node.removeAttribute(name);
  } else if (node.getAttribute(name) !== String(value)) {
    node.setAttribute(name, String(value));
  }
}

export function setClass(node, text) {
  if (node.className !== text)
    node.className = text;
}

// Makes the children of `parent` these, in this order. Nodes that are there already stay; the one
// that has the focus is never moved, because it would lose the focus.
export function arrange(parent, children) {
  const wanted = new Set(children);
  for (const child of [...parent.children]) {
    if (!wanted.has(child))
      child.remove();
  }
  const focused = children.findIndex(child => child.contains(document.activeElement));
  let next = null;
  for (let i = children.length - 1; i > focused; --i) {
    if (children[i].nextSibling !== next || children[i].parentNode !== parent)
      parent.insertBefore(children[i], next);
    next = children[i];
  }
  if (focused < 0)
    return;
  for (let i = 0; i < focused; ++i) {
    const before = i === 0 ? parent.firstChild : children[i - 1].nextSibling;
    if (before !== children[i])
      parent.insertBefore(children[i], before);
  }
}

// Calls `draw` once, with the next picture of the browser, however often it is asked; at the latest
// after a second, since a page in the background is not drawn but can be looked at by programs.
export function drawer(draw) {
  let frame = 0;
  let timer = 0;
  const run = () => {
    cancelAnimationFrame(frame);
    clearTimeout(timer);
    frame = timer = 0;
    draw();
  };
  return {
    ask() {
      if (timer)
        return;
      frame = requestAnimationFrame(run);
      timer = setTimeout(run, 1000);
    },
    stop() {
      cancelAnimationFrame(frame);
      clearTimeout(timer);
      frame = timer = 0;
    },
  };
}
