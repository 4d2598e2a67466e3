// The stream of events of the gateway, and the latest of everything that it told. One feed serves
// all tabs of a browser (worker.js), since a browser opens six connections to a server at most.
// Messages that it gives, for those who joined later too (latest()):
//   {kind: 'connection', state: 'connecting' | 'live' | 'lost' | 'login'}
//   {kind: 'variables', variables}      what the gateway lists
//   {kind: 'snapshot', values}          all latest values
//   {kind: 'values', values}, {kind: 'ages', ages}, {kind: 'status', status}
//   {kind: 'state', event}, {kind: 'write', event}

import {parseExact} from './exact.js';

// Ages and the status come every two seconds: a stream that is silent for longer is dead, even when
// the browser does not know it, as after a cable was pulled.
const kSilentMs = 7000;
// A connection that is not there after this time is begun anew.
const kPatienceMs = 15000;
const kAgainMs = 1500;
const kSoonMs = 100;

export class Feed {
  constructor(deliver) {
    this.deliver = deliver;
    this.state = 'connecting';
    this.variables = null;
    this.values = null; // Map by line and name, in the gateway's order
    this.status = null;
    this.parts = [];
    this.source = null;
    this.opening = null; // while the values come, before the stream
    this.again = 0;
    this.soon = 0;
    this.asksVariables = false;
    this.asked = 0;
    this.lastHeard = Date.now();
    this.open();
    setInterval(() => this.watch(), 1000);
  }

  latest() {
    const messages = [{kind: 'connection', state: this.state}];
    if (this.variables)
      messages.push({kind: 'variables', variables: this.variables});
    if (this.values)
      messages.push({kind: 'snapshot', values: [...this.values.values()]});
    if (this.status)
      messages.push({kind: 'status', status: this.status});
    return messages;
  }

  // Somebody looks: a stream that waits for a login is tried again.
  join() {
    if (this.state !== 'login')
      return;
    this.tell(this.values ? 'lost' : 'connecting');
    this.open();
  }

  // The values come first, since they are compressed, unlike the events.
  async open() {
    clearTimeout(this.again);
    this.source?.close();
    this.source = null;
    this.parts = [];
    this.lastHeard = Date.now();
    const opening = this.opening = Symbol('opening');
    this.askStatus();
    this.askVariables();
    const lastEvent = await this.askValues(opening);
    if (this.opening !== opening)
      return;
    this.opening = null;
    const source = new EventSource(
      lastEvent ? `/api/v1/events?after=${encodeURIComponent(lastEvent)}` : '/api/v1/events');
    this.source = source;
    const on = (name, handle, parse = JSON.parse) => source.addEventListener(name, event => {
      if (source !== this.source)
        return;
      this.lastHeard = Date.now();
      handle(parse(event.data || 'null'));
    });
    let isAgain = false;
    source.onopen = () => {
      this.handleOpen(source, isAgain);
      isAgain = true;
    };
    source.onerror = () => this.handleError(source);
    on('snapshot', data => this.takeSnapshot(data));
    on('values', data => this.takeValues(data.values));
    on('ages', data => this.takeAges(data.ages));
    on('status', data => this.takeStatus(data));
    on('state', data => this.takeState(data));
    on('write', data => this.deliver({kind: 'write', event: data}), parseExact);
    on('reloaded', () => this.takeReload());
  }

  handleOpen(source, isAgain) {
    if (source !== this.source)
      return;
    // What is known is old until the stream has told what came meanwhile. A snapshot that was cut
    // off begins anew.
    this.lastHeard = Date.now();
    this.parts = [];
    if (isAgain)
      this.askVariables();
  }

  handleError(source) {
    if (source !== this.source)
      return;
    if (this.state !== 'login')
      this.tell('lost');
    // In the state CONNECTING the browser tries again by itself, and tells where it was.
    if (source.readyState === EventSource.CLOSED)
      this.findReason();
  }

  // The gateway refused the stream. A session that has ended needs a login, everything else passes.
  async findReason() {
    this.source.close();
    this.source = null;
    let status = 0;
    try {
      const response = await fetch('/api/v1/session', {cache: 'no-store'});
      status = response.status;
    } catch {
      // Not there yet.
    }
    if (this.source || this.opening)
      return;
    if (status === 401)
      this.tell('login');
    else
      this.again = setTimeout(() => this.open(), kAgainMs + Math.random() * kAgainMs);
  }

  watch() {
    const silent = Date.now() - this.lastHeard;
    if (this.state === 'live' && silent > kSilentMs) {
      this.tell('lost');
      this.open();
    } else if (this.state !== 'live' && (this.source || this.opening) && silent > kPatienceMs) {
      this.tell('lost');
      this.open();
    } else if (this.state === 'live' && this.asksVariables) {
      this.askVariables();
    }
  }

  tell(state) {
    if (this.state === state)
      return;
    this.state = state;
    this.deliver({kind: 'connection', state});
  }

  // The stream tells it after two seconds first.
  async askStatus() {
    try {
      const response = await fetch('/api/v1/status', {cache: 'no-store'});
      if (response.ok)
        this.takeStatus(await response.json());
    } catch {
      // Then the stream tells it.
    }
  }

  // Returns the id of the event after which the stream is to go on. Without an answer the stream
  // tells all values itself, or why there are none.
  async askValues(opening) {
    try {
      const response = await fetch('/api/v1/values?lastEvent=1', {cache: 'no-store'});
      if (!response.ok)
        return null;
      const {values, lastEvent} = await response.json();
      if (this.opening !== opening)
        return null;
      this.takeAll(values.map(value => ({...value, heard: Date.now()})));
      return lastEvent;
    } catch {
      return null;
    }
  }

  async askVariables() {
    this.asksVariables = false;
    const ask = ++this.asked;
    try {
      const response = await fetch('/api/v1/variables', {cache: 'no-store'});
      if (!response.ok)
        throw new Error(String(response.status));
      const {variables} = await response.json();
      if (ask !== this.asked)
        return; // it was asked again: the configuration was read again meanwhile
      this.variables = variables;
      this.deliver({kind: 'variables', variables: this.variables});
    } catch {
      this.asksVariables = true; // with the next look at the stream
    }
  }

  takeSnapshot(data) {
    // The first part can be old when the last one comes.
    const now = Date.now();
    for (const value of data.values)
      this.parts.push({...value, heard: now});
    if (data.more)
      return;
    this.takeAll(this.parts);
    this.parts = [];
    this.tell('live');
  }

  // The parts that came are of variables that may be gone.
  takeReload() {
    this.parts = [];
    this.askVariables();
  }

  takeAll(values) {
    this.values = new Map(values.map(value => [keyOf(value), value]));
    this.deliver({kind: 'snapshot', values});
  }

  takeValues(values) {
    if (!this.values)
      return;
    const now = Date.now();
    const known = [];
    for (const value of values) {
      const key = keyOf(value);
      if (!this.values.has(key))
        continue;
      value.heard = now;
      this.values.set(key, value);
      known.push(value);
    }
    this.deliver({kind: 'values', values: known});
  }

  // A stream that goes on where it was lost tells ages when it has told what came meanwhile.
  takeAges(ages) {
    if (!this.values || this.parts.length)
      return;
    const now = Date.now();
    const next = new Map();
    for (const value of this.values.values()) {
      const number = next.get(value.line) ?? 0;
      next.set(value.line, number + 1);
      const age = ages[value.line]?.[number];
      if (age !== undefined) {
        value.ageMs = age;
        value.heard = now;
      }
    }
    this.deliver({kind: 'ages', ages});
    this.tell('live');
  }

  // What a line or a station does now is in the status, too: it does not wait for the next one.
  takeState(event) {
    this.deliver({kind: 'state', event});
    clearTimeout(this.soon);
    this.soon = setTimeout(() => this.askStatus(), kSoonMs);
  }

  takeStatus(status) {
    this.status = status;
    this.deliver({kind: 'status', status});
  }
}

export function keyOf(value) {
  return `${value.line}\n${value.name}`;
}
