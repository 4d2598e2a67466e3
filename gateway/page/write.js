// The dialogue that writes a value: the new one is typed, the gateway is asked whether it is
// allowed, the person confirms old and new, and the value that was read back is shown.
import {loadSession, path, Problem, send, session} from './api.js';
import {element, setText} from './dom.js';
import {valueFromInput} from './exact.js';
import {ageText, kNothing, numberText, valueText, visible} from './format.js';
import {ageOf, find, on, plant} from './live.js';
import {logInAddress} from './session.js';
import {locale, text, wordFor} from './texts.js';

// The gateway takes a ticket for a minute.
const kTicketMs = 45000;

const decimalSign = new Intl.NumberFormat(locale).formatToParts(1.5)
  .find(part => part.type === 'decimal')?.value ?? '.';

// A value of a reply: exact digits of wide integers are a text there.
export function shownValue(value, type, unit = '') {
  if (value === null || value === undefined)
    return kNothing;
  const one = item => (typeof item === 'number' ? numberText(item, type) : visible(item));
  const shown = Array.isArray(value) ? `[${value.map(one).join('; ')}]` : one(value);
  return unit ? `${shown} ${visible(unit)}` : shown;
}

// Nobody answered, or only a proxy in between.
function isWithoutAnswer(problem) {
  return problem.status === 0 || (problem.status >= 500 && !problem.code);
}

// Why a write was refused, in words. `problem` is a Problem; `wasSent`: the write itself, no check.
export function reasonOf(problem, wasSent) {
  if (problem.status === 401 || problem.code === 'synchronizer')
    return text('write.loggedOut');
  if (isWithoutAnswer(problem))
    return text(wasSent ? 'write.connectionLost' : 'write.noConnection');
  const word = wordFor('outcome', problem.code);
  return problem.code ? `${word}: ${visible(problem.detail)}` : visible(problem.detail);
}

// What a person looks at while typing: when it changes, the new value was not meant for it.
function seenOf({revision, type, minimum, maximum}) {
  return {revision, type, minimum, maximum};
}

class WriteDialog {
  constructor(variable, index) {
    this.line = variable.line;
    this.name = variable.name;
    this.length = variable.length ?? 1;
    this.index = index ?? (this.length > 1 ? 0 : null);
    this.isBusy = false;
    // The gateway writes only what the person has seen here.
    this.seen = seenOf(variable);
    this.isOver = false;
    this.root = element('dialog', {class: 'write', 'aria-labelledby': 'write-title',
      oncancel: event => {
        if (this.isBusy)
          event.preventDefault();
      },
      onclose: () => this.end()});
    document.body.append(this.root);
    this.endings = [on('values', () => this.refresh()), on('ages', () => this.refresh()),
      on('variables', () => this.refresh()), on('connection', () => this.refresh())];
    this.showInput('');
    this.root.showModal();
    this.field?.focus();
  }

  end() {
    for (const end of this.endings)
      end();
    this.root.remove();
  }

  // The newest of what the gateway told; undefined when the variable is gone.
  variable() {
    return find(this.line, this.name) ?? undefined;
  }

  type() {
    return this.variable()?.type ?? '';
  }

  label() {
    return visible(`${this.line}/${this.name}${this.index === null ? '' : `[${this.index}]`}`);
  }

  currentText() {
    const variable = this.variable();
    if (!variable)
      return text('write.gone');
    const shown = valueText(variable, this.index);
    return variable.unit && shown !== kNothing ? `${shown} ${visible(variable.unit)}` : shown;
  }

  currentState() {
    const variable = this.variable();
    if (!variable)
      return '';
    const quality = plant.connection === 'live' ? variable.quality : 'lost';
    return `${text(`quality.${quality}`)}, ${text('ago', {age: ageText(ageOf(variable))})}`;
  }

  // Another variable may have the name after the configuration was read again.
  isAnother() {
    const variable = this.variable();
    if (!variable)
      return false;
    const now = seenOf(variable);
    this.seen.type ||= now.type; // told with the first value
    now.type ||= this.seen.type;
    return Object.keys(now).some(key => now[key] !== this.seen[key]);
  }

  refresh() {
    // While a write is under way its answer tells what became of it.
    if (!this.isBusy && !this.isOver && this.isAnother()) {
      this.showChanged();
      return;
    }
    if (this.current)
      setText(this.current, this.currentText());
    if (this.state)
      setText(this.state, this.currentState());
  }

  fill(parts) {
    this.current = null;
    this.state = null;
    this.problem = element('p', {class: 'problem', role: 'alert'});
    this.title = element('h2', {id: 'write-title', tabindex: '-1'},
      text('write.title', {name: this.label()}));
    this.root.replaceChildren(this.title, ...parts(), this.problem);
  }

  facts(pairs) {
    return element('dl', {class: 'facts'}, pairs.filter(pair => pair).map(([key, shown]) =>
      element('div', {}, element('dt', {}, text(key)), element('dd', {}, shown))));
  }

  buttons(...made) {
    this.made = made;
    return element('div', {class: 'buttons'}, made);
  }

  closeButton(key) {
    return element('button', {type: 'button', onclick: () => this.root.close()}, text(key));
  }

  setBusy(isBusy) {
    this.isBusy = isBusy;
    for (const button of this.made)
      button.disabled = isBusy;
    for (const field of this.root.querySelectorAll('input, select'))
      field.disabled = isBusy;
    this.root.setAttribute('aria-busy', String(isBusy));
  }

  // --- The first step: what is to be written

  showInput(typed) {
    if (!session.mayWrite) {
      this.showForbidden();
      return;
    }
    const variable = this.variable() ?? {};
    const {minimum, maximum, unit, type, writesPerMinute} = variable;
    this.fill(() => {
      this.current = element('dd', {class: 'current'});
      this.state = element('span', {class: 'soft'});
      const limit = number => shownValue(number, type, unit);
      const facts = this.facts([
        ['write.type', visible(type ?? kNothing)],
        minimum !== undefined && ['write.minimum', limit(minimum)],
        maximum !== undefined && ['write.maximum', limit(maximum)],
        writesPerMinute !== undefined && ['write.perMinute', String(writesPerMinute)],
      ]);
      facts.prepend(element('div', {class: 'wide'}, element('dt', {}, text('write.current')),
        this.current, this.state));
      this.field = this.fieldFor(type, typed);
      const form = element('form', {onsubmit: event => {
        event.preventDefault();
        this.check();
      }}, this.elementField(), element('label', {}, element('span', {},
        text(unit ? 'write.newIn' : 'write.new', {unit: visible(unit ?? '')})), this.field),
      this.buttons(this.closeButton('write.cancel'),
        element('button', {type: 'submit', class: 'primary'}, text('write.continue'))));
      return [facts, form];
    });
    this.refresh();
  }

  fieldFor(type, typed) {
    if (type !== 'BOOL') {
      return element('input', {type: 'text', name: 'value', value: typed, autocomplete: 'off',
        spellcheck: 'false', inputmode: type === 'STRING' ? 'text' : 'decimal',
        class: 'number'});
    }
    // Nothing is chosen before: whoever presses Enter too early changes nothing.
    const field = element('select', {name: 'value'}, element('option', {value: ''}, kNothing),
      ['false', 'true'].map(word => element('option', {value: word}, word)));
    field.value = typed;
    return field;
  }

  elementField() {
    if (this.length <= 1)
      return null;
    const field = element('input', {type: 'number', name: 'element', min: '0',
      max: String(this.length - 1), step: '1', value: String(this.index), required: true,
      onchange: () => {
        const index = Number(field.value);
        if (Number.isInteger(index) && index >= 0 && index < this.length)
          this.index = index;
        field.value = String(this.index);
        setText(this.title, text('write.title', {name: this.label()}));
        this.refresh();
      }});
    return element('label', {}, element('span', {}, text('write.element')), field);
  }

  showForbidden() {
    this.field = null;
    this.fill(() => [
      element('p', {}, text(session.needsLogin ? 'write.login' : 'write.forbidden')),
      this.buttons(this.closeButton('write.close'), session.needsLogin ?
        element('a', {class: 'button', href: logInAddress()}, text('session.login')) : null),
    ]);
  }

  // --- Asking the gateway

  // `ticket`: that of the check, for one write; null asks for a check.
  request(json, ticket) {
    const {revision, type} = this.seen;
    const more = {revision, type: type ?? undefined, ...(ticket === null ? {check: true} : {ticket})};
    if (this.index !== null)
      more.element = this.index;
    const parts = [`"value":${json}`];
    for (const [key, given] of Object.entries(more)) {
      if (given !== undefined)
        parts.push(`"${key}":${JSON.stringify(given)}`);
    }
    return send('PUT', path('api', 'v1', 'values', this.name), `{${parts.join(',')}}`,
      {line: this.line});
  }

  async check() {
    if (this.isBusy)
      return;
    const variable = this.variable();
    const typed = this.field.value;
    const scaled = variable?.gain !== undefined || variable?.offset !== undefined;
    const input = valueFromInput(typed, this.type(), scaled, decimalSign);
    if (input.problem) {
      this.refuse(text(`write.${input.problem}`, {typed: visible(typed)}));
      return;
    }
    setText(this.problem, '');
    this.setBusy(true);
    try {
      await loadSession();
      if (!session.mayWrite) {
        this.isBusy = false;
        this.showForbidden();
        return;
      }
      this.checked = Date.now();
      const reply = await this.request(input.json, null);
      this.isBusy = false;
      this.showConfirmation(typed, input.json, reply);
    } catch (problem) {
      this.setBusy(false);
      if (problem.code === 'changed') {
        this.showChanged();
        return;
      }
      this.refuse(problem instanceof Problem ? reasonOf(problem, false) : problem.message);
    }
  }

  refuse(reason) {
    setText(this.problem, reason);
    this.field.focus();
  }

  // --- The second step: old and new

  showConfirmation(typed, json, reply) {
    const unit = this.variable()?.unit;
    this.field = null;
    this.fill(() => {
      this.current = element('dd', {class: 'old'});
      this.state = element('span', {class: 'soft'});
      return [
        element('p', {}, text('write.confirm')),
        element('dl', {class: 'change'},
          element('div', {}, element('dt', {}, text('write.old')), this.current, this.state),
          element('div', {}, element('dt', {}, text('write.new')),
            element('dd', {class: 'new'}, shownValue(reply.value, this.type(), unit)))),
        this.buttons(
          element('button', {type: 'button', onclick: () => {
            this.showInput(typed);
            this.field?.focus();
          }}, text('write.back')),
          element('button', {type: 'button', class: 'primary', onclick: () => this.write(json, reply.ticket)},
            text('write.write'))),
      ];
    });
    this.refresh();
    // No button has the focus: Enter that is held down writes nothing.
    this.title.focus();
  }

  // The ticket of the check; that of another one when a person has thought about it for long.
  async goodTicket(json, ticket) {
    const age = Date.now() - this.checked;
    return age >= 0 && age < kTicketMs ? ticket : (await this.request(json, null)).ticket;
  }

  async write(json, ticket) {
    if (this.isBusy)
      return;
    this.setBusy(true);
    setText(this.problem, text('write.writing'));
    let wasSent = false;
    try {
      const good = await this.goodTicket(json, ticket);
      wasSent = true;
      const reply = await this.request(json, good);
      this.isBusy = false;
      this.showWritten(reply);
    } catch (problem) {
      this.isBusy = false;
      this.showFailed(problem, wasSent);
    }
  }

  // --- The third step: what became of it

  showWritten(reply) {
    this.isOver = true;
    const unit = this.variable()?.unit;
    const shown = value => shownValue(value, this.type(), unit);
    const isSame = reply.verified !== false;
    this.fill(() => [
      element('p', {class: isSame ? 'outcome is-good' : 'outcome is-bad', role: 'status'},
        text(isSame ? 'write.written' : 'write.different')),
      this.facts([['write.old', shown(reply.old)], ['write.readBack', shown(reply.value)]]),
      this.buttons(this.closeButton('write.close')),
    ]);
    this.made[0].focus();
  }

  // Nothing of what was typed is kept: it was meant for another variable.
  showChanged() {
    this.isOver = true;
    this.field = null;
    this.fill(() => [
      element('p', {class: 'outcome is-bad', role: 'status'}, text('write.changed')),
      this.buttons(this.closeButton('write.close')),
    ]);
    this.made[0].focus();
  }

  showFailed(problem, wasSent) {
    if (problem.code === 'changed') {
      this.showChanged();
      return;
    }
    this.isOver = true;
    const isKnown = problem instanceof Problem;
    const isUnknown = wasSent && (!isKnown || problem.code === 'unknown-outcome' ||
      problem.code === 'repeated' || isWithoutAnswer(problem));
    this.fill(() => [
      element('p', {class: 'outcome is-bad', role: 'status'},
        text(isUnknown ? 'write.unknown' : 'write.failed')),
      element('p', {}, isKnown ? reasonOf(problem, wasSent) : problem.message),
      this.buttons(this.closeButton('write.close')),
    ]);
    this.made[0].focus();
  }
}

// Opens the dialogue for a variable; `index` is an element of an array, null for none.
export async function openWriteDialog(variable, index = null) {
  if (!session.mayWrite)
    await loadSession().catch(() => {});
  return new WriteDialog(variable, index);
}
