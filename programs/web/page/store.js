// What the page knows of the device, and how it asks. Components follow a State by useValue().
import { useEffect, useState } from './vendor/standalone.module.js';

const kRoot = new URL('api/v1/', document.baseURI);
const kKeepingMark = 'tavix-settings-trials';
const kSettling = 1 / 6; // the part of the time on trial behind which a change is kept
const kPatience = 15000; // ms; the program itself answers within a few seconds, also where the daemon is silent

// A value that many look at.
export class State {
  #listeners = new Set();

  constructor(value) {
    this.value = value;
  }

  set(value) {
    this.value = value;
    for (const listener of [...this.#listeners]) listener(value);
  }

  subscribe(listener) {
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }
}

export function useValue(state) {
  const [, redraw] = useState(null);
  useEffect(() => {
    redraw({}); // it may have changed before this ran
    return state.subscribe(() => redraw({}));
  }, [state]);
  return state.value;
}

// A request that failed. status 0: there was no answer. data: the problem that the program describes.
export class Problem extends Error {
  constructor(status, data) {
    super(data.detail ?? data.title ?? `The device answered ${status}.`);
    this.status = status;
    this.data = data;
  }

  // Whether a write may have been carried out all the same.
  get isUnknown() {
    return this.status === 0 || this.data.outcome === 'unknown';
  }
}

export const session = new State({ needsLogin: false, round: 0 }); // round: how often somebody has logged in
export const device = new State(null); // what /status says; null: not known yet
export const pending = new State([]); // changes on trial
export const reached = new State(0); // the time of the last answer

// query: values may be lists. body: a text or bytes are sent as they are, all else as JSON.
export async function ask(method, path, { query = {}, body, headers = {} } = {}) {
  const url = new URL(path, kRoot);
  for (const [name, value] of Object.entries(query)) {
    for (const one of [value].flat()) {
      if (one !== undefined && one !== null) url.searchParams.append(name, one);
    }
  }
  const response = await send(url, method, body, headers);
  if (response.status === 401 && path !== 'login') session.set({ ...session.value, needsLogin: true });
  const data = await readBody(response);
  if (response.ok) reached.set(Date.now());
  if (!response.ok) throw new Problem(response.status, describe(response, data));
  return data;
}

async function send(url, method, body, headers) {
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), kPatience);
  const isPlain = typeof body === 'string' || body instanceof Uint8Array;
  const type = isPlain ? 'text/plain' : 'application/json';
  try {
    return await fetch(url, {
      method,
      headers: body === undefined ? headers : { 'Content-Type': type, ...headers },
      body: body === undefined || isPlain ? body : JSON.stringify(body),
      cache: 'no-store',
      credentials: 'same-origin',
      signal: abort.signal,
    });
  } catch {
    throw new Problem(0, { detail: abort.signal.aborted ? 'The device did not answer in time.' : 'The device can’t be reached.' });
  } finally {
    clearTimeout(timer);
  }
}

async function readBody(response) {
  try {
    const text = await response.text();
    const isJson = /json/.test(response.headers.get('content-type') ?? '');
    return isJson && text ? JSON.parse(text) : text || null;
  } catch {
    throw new Problem(0, { detail: 'The answer of the device was cut off.' });
  }
}

function describe(response, data) {
  const problem = data !== null && typeof data === 'object' ? data : { detail: `The device answered ${response.status}.` };
  const wait = response.headers.get('retry-after');
  return response.status === 429 && wait ? { ...problem, detail: `${problem.detail}: wait ${wait} s` } : problem;
}

// Whether the daemon has a feature: "trial", or "history", which has figures behind it.
export function has(feature) {
  return (device.value?.features ?? []).some((one) => one === feature || one.startsWith(`${feature} `));
}

export function canWrite() {
  return device.value?.read_only !== true;
}

export async function readDevice() {
  device.set(await ask('GET', 'status'));
}

let pendingTimer = null;

async function readPending() {
  const { pending: list } = await ask('GET', 'pending');
  const now = Date.now();
  pending.set(list.map((trial) => ({ ...trial, end: now + (trial.seconds ?? 0) * 1000 })));
}

// Reads what is on trial, once for all that ask within a moment.
export function refreshPending() {
  if (pendingTimer || !has('trial')) return;
  pendingTimer = setTimeout(() => {
    pendingTimer = null;
    if (!document.hidden) readPending().catch(() => {}); // they are shown again once the device answers
  }, 250);
}

// What this tab has put on trial: names, with the times when it looks whether it still gets through, and when the trial
// is over. What cuts the device off may do so a while behind the change: so the tab waits for a part of the time, and
// then asks for all that loading it again takes. It keeps the change behind these answers alone. A tab that gets none,
// or is closed, keeps nothing, and the daemon takes the change back.
export const keeping = new State(new Map(recallKeeping()));
let keepTimer = null;

function recallKeeping() {
  try {
    return JSON.parse(sessionStorage.getItem(kKeepingMark) ?? '[]');
  } catch {
    return [];
  }
}

function setKeeping(trials) {
  keeping.set(trials);
  try {
    sessionStorage.setItem(kKeepingMark, JSON.stringify([...trials]));
  } catch {
    // Where a browser keeps nothing, loading the page again leaves the trial to the buttons.
  }
}

export function stopKeeping(name) {
  const left = new Map(keeping.value);
  if (left.delete(name)) setKeeping(left);
}

// trial: of the answer to a change; null: nothing is on trial.
export function keepLater(trial) {
  refreshPending();
  if (!trial) return;
  const length = (trial.seconds ?? 0) * 1000;
  const now = Date.now();
  setKeeping(new Map(keeping.value).set(trial.name, { due: now + length * kSettling, end: now + length }));
  followKeeping();
}

// Also what it put on trial before it was loaded again.
export function followKeeping() {
  if (keeping.value.size > 0) keepTimer ??= setTimeout(keepDue, 1000);
}

async function keepDue() {
  for (const [name, { due, end }] of keeping.value) {
    if (Date.now() >= due) await tryToKeep(name, end);
  }
  keepTimer = null;
  followKeeping();
}

// A failure is tried again until the trial is over, unless the trial is.
async function tryToKeep(name, end) {
  try {
    await ask('GET', document.baseURI);
    await readDevice();
    await readPending();
    if (!keeping.value.has(name)) return; // somebody has decided meanwhile
    const isThere = pending.value.some((trial) => trial.name === name);
    if (isThere) await ask('POST', 'pending/confirm', { body: { name } });
    announce(isThere ? 'The change is kept' : 'The change on trial has ended');
  } catch (problem) {
    if (Date.now() < end && ![403, 404, 409].includes(problem.status)) return;
  }
  stopKeeping(name);
  refreshPending();
}

// Names of groups and what else a view is about stand behind the '#', so that going back works.
function parseRoute() {
  const [path, query] = location.hash.replace(/^#\/?/, '').split('?');
  return { path: path || 'browse', query: new URLSearchParams(query ?? '') };
}

export const route = new State(parseRoute());
window.addEventListener('hashchange', () => route.set(parseRoute()));

export function linkTo(path, query = {}) {
  const text = new URLSearchParams(query).toString();
  return `#/${path}${text ? `?${text}` : ''}`;
}

export function go(path, query = {}) {
  location.hash = linkTo(path, query);
}

const news = [];
let newsTimer = null;

// Tells people who can't see the page; at most once a second, the rest as one.
export function announce(text) {
  news.push(text);
  if (newsTimer) return;
  const tell = () => {
    newsTimer = null;
    if (news.length === 0) return;
    const last = news.splice(0);
    document.getElementById('news').textContent =
      last.length < 4 ? last.join('. ') : `${last.length} changes, the last: ${last[last.length - 1]}`;
    newsTimer = setTimeout(tell, 1000);
  };
  newsTimer = setTimeout(tell, 50);
}
