// Requests to the gateway.
import {parseExact} from './exact.js';

// What the gateway refused: `status` of HTTP (0: no answer), `code` of the protocol, `detail`, a
// line for people.
export class Problem extends Error {
  constructor(status, code, detail) {
    super(detail);
    this.status = status;
    this.code = code;
    this.detail = detail;
  }
}

// Of this browser: {mayWrite, needsLogin, isSession, synchronizer}.
export const session = {mayWrite: false, needsLogin: false, isSession: false, synchronizer: ''};
const listeners = new Set();

// Calls `handler` whenever the session changes; returns what ends that.
export function onSession(handler) {
  listeners.add(handler);
  return () => listeners.delete(handler);
}

export async function loadSession() {
  Object.assign(session, await get('/api/v1/session'));
  for (const handler of [...listeners])
    handler();
}

// path('api', 'v1', 'values', name)
export function path(...parts) {
  return '/' + parts.map(encodeURIComponent).join('/');
}

// `query`: {line: 'press', points: 800}; null and undefined are left out.
export function addressOf(address, query = {}) {
  const parts = Object.entries(query)
    .filter(([, value]) => value !== null && value !== undefined && value !== '')
    .map(([key, value]) => `${encodeURIComponent(key)}=${encodeURIComponent(value)}`);
  return address + (parts.length ? '?' + parts.join('&') : '');
}

async function request(address, options, parse = JSON.parse) {
  let response;
  try {
    response = await fetch(address, {cache: 'no-store', credentials: 'same-origin', ...options});
  } catch (error) {
    throw options.signal?.aborted ? error : new Problem(0, 'unreachable', String(error.message));
  }
  let body = null;
  try {
    body = parse(await response.text());
  } catch {
    // An answer without a body, or of a proxy.
  }
  if (!response.ok)
    throw new Problem(response.status, body?.code ?? '', body?.detail ?? `HTTP ${response.status}`);
  return body;
}

// Gives the object of the answer; throws Problem. `signal` of an AbortController takes it back.
export function get(address, query = {}, signal = undefined) {
  return request(addressOf(address, query), {method: 'GET', signal});
}

// The same, with integers that a browser's numbers cannot hold as texts of their digits.
export function getExact(address, query = {}, signal = undefined) {
  return request(addressOf(address, query), {method: 'GET', signal}, parseExact);
}

// The same for what changes something. A `body` that is a text is JSON already.
export function send(method, address, body, query = {}) {
  const headers = {'Content-Type': 'application/json', 'X-Synchronizer': session.synchronizer};
  return request(addressOf(address, query),
    {method, headers, body: typeof body === 'string' ? body : JSON.stringify(body)}, parseExact);
}
