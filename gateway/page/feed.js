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
    this.again = 0;
    this.soon = 0;
    this.asksVariables = false;
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

  open() {
    clearTimeout(this.again);
    this.source?.close();
    this.parts = [];
    this.lastHeard = Date.now();
    const source = new EventSource('/api/v1/events');
    this.source = source;
    this.askStatus();
    const on = (name, handle, parse = JSON.parse) => source.addEventListener(name, event => {
      if (source !== this.source)
        return;
      this.lastHeard = Date.now();
      handle(parse(event.data || 'null'));
    });
    source.onopen = () => this.handleOpen(source);
    source.onerror = () => this.handleError(source);
    on('snapshot', data => this.takeSnapshot(data));
    on('values', data => this.takeValues(data.values));
    on('ages', data => this.takeAges(data.ages));
    on('status', data => this.takeStatus(data));
    on('state', data => this.takeState(data));
    on('write', data => this.deliver({kind: 'write', event: data}), parseExact);
    on('reloaded', () => this.askVariables());
  }

  handleOpen(source) {
    if (source !== this.source)
      return;
    // What is known is old until the stream has told what came meanwhile.
    this.lastHeard = Date.now();
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
    if (this.source)
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
    } else if (this.state !== 'live' && this.source && silent > kPatienceMs) {
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

  async askVariables() {
    this.asksVariables = false;
    try {
      const response = await fetch('/api/v1/variables', {cache: 'no-store'});
      if (!response.ok)
        throw new Error(String(response.status));
      this.variables = (await response.json()).variables;
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
    this.values = new Map();
    for (const value of this.parts)
      this.values.set(keyOf(value), value);
    this.parts = [];
    this.deliver({kind: 'snapshot', values: [...this.values.values()]});
    this.tell('live');
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
