// A field that finds a variable while its name is typed, by mouse or by keys alone.
import {element, setAttribute} from './dom.js';
import {visible} from './format.js';
import {referenceOf} from './route.js';

const kMostShown = 40;
let made = 0;

// What fits to a text: [{variable, element, label}], elements of arrays one by one. "recipe[3" finds
// elements of an array.
export function candidates(variables, typed, isOffered) {
  const [wanted, bracket] = typed.trim().toLowerCase().split('[');
  const number = bracket?.replace(']', '');
  const found = [];
  for (const variable of variables) {
    if (!`${variable.line}/${variable.name}`.toLowerCase().includes(wanted))
      continue;
    const count = variable.length > 1 ? variable.length : 1;
    for (let at = 0; at < count && found.length < kMostShown; ++at) {
      const index = count > 1 ? at : null;
      if (number && !String(at).startsWith(number))
        continue;
      if (isOffered(variable, index))
        found.push({variable, element: index, label: visible(referenceOf(variable, index))});
    }
    if (found.length >= kMostShown)
      break;
  }
  return found;
}

// `offered(typed)` gives candidates; `chosen(candidate)` is told of one.
export class Picker {
  constructor(label, hint, offered, chosen) {
    this.offered = offered;
    this.chosen = chosen;
    this.found = [];
    this.marked = -1;
    const id = `picker-${++made}`;
    this.list = element('ul', {id, class: 'choices', role: 'listbox', 'aria-label': label,
      hidden: true});
    this.input = element('input', {type: 'text', role: 'combobox', autocomplete: 'off',
      spellcheck: 'false', 'aria-label': label, 'aria-controls': id, 'aria-expanded': 'false',
      'aria-autocomplete': 'list', placeholder: hint, oninput: () => this.show(),
      onfocus: () => this.show(), onclick: () => this.show(), onblur: () => this.hide(),
      onkeydown: event => this.handleKey(event)});
    this.root = element('div', {class: 'picker'}, this.input, this.list);
  }

  setEnabled(isEnabled) {
    this.input.disabled = !isEnabled;
  }

  show() {
    this.found = this.offered(this.input.value);
    this.marked = this.found.length > 0 ? 0 : -1;
    this.list.replaceChildren(...this.found.map((candidate, index) => element('li',
      {role: 'option', id: `${this.list.id}-${index}`,
        // Before the field loses the focus.
        onmousedown: event => {
          event.preventDefault();
          this.choose(index);
        }}, candidate.label)));
    this.list.hidden = this.found.length === 0;
    setAttribute(this.input, 'aria-expanded', String(!this.list.hidden));
    this.mark(this.marked);
  }

  hide() {
    this.list.hidden = true;
    this.input.setAttribute('aria-expanded', 'false');
    setAttribute(this.input, 'aria-activedescendant', null);
  }

  mark(index) {
    this.marked = index;
    [...this.list.children].forEach((item, at) => {
      item.setAttribute('aria-selected', String(at === index));
      if (at === index)
        item.scrollIntoView({block: 'nearest'});
    });
    setAttribute(this.input, 'aria-activedescendant',
      index < 0 ? null : `${this.list.id}-${index}`);
  }

  choose(index) {
    const candidate = this.found[index];
    if (!candidate)
      return;
    this.input.value = '';
    this.hide();
    this.chosen(candidate);
  }

  handleKey(event) {
    const steps = {ArrowDown: 1, ArrowUp: -1};
    if (event.key in steps) {
      if (this.list.hidden)
        this.show();
      else
        this.mark((this.marked + steps[event.key] + this.found.length) % this.found.length);
    } else if (event.key === 'Enter' && !this.list.hidden) {
      this.choose(this.marked);
    } else if (event.key === 'Escape' && !this.list.hidden) {
      this.hide();
    } else {
      return;
    }
    event.preventDefault();
  }
}
