// Changes as they come. One tab of the browser holds the stream and passes its events to the others: a browser opens
// only a few connections to one host, and streams of eight tabs would leave none for their requests.
//
// Who leads is found by messages alone, as there are no locks on a page without HTTPS. A tab asks whether anybody leads,
// and leads when nobody answers. Of two that lead, the one with the smaller name goes on. A hidden leader still answers,
// since messages wake it; one that is frozen does not, and loses its place. A tab that hears a new leader reads all
// again, because it can't know what lies between the two.
import { announce, ask, refreshPending, State, session } from './store.js';
import { count, isSameValue, spellName, spellValue, valueAt } from './text.js';

const kBeat = 2000; // ms between two messages of a leader
const kSilence = 6000; // ms without any, behind which others ask
const kAnswer = 300; // ms that a leader has to answer, each of two times
const kDraw = 200; // ms between two times that changes are drawn
const kMaxRecent = 200;

export const connection = new State('connecting'); // or 'live', 'lost' (no daemon), 'offline' (no program)
export const recent = new State([]); // the last changes, the newest first
export const lastReset = new State(0); // grows whenever all has to be read again
export const changed = new State(new Map()); // what was drawn last: groups and their last change

// Changes that wait to be drawn.
let waiting = new Map();
let waitingRecent = [];
let drawnAt = 0;
let drawTimer = null;
let number = 0;

function keysOf(change) {
  const was = change.old ?? {};
  const is = change.new ?? {};
  if (change.old === undefined) return [];
  return [...new Set([...Object.keys(was), ...Object.keys(is)])].filter((key) => !isSameValue(valueAt(was, key), valueAt(is, key))).sort();
}

function describe(change) {
  const name = spellName(change.group);
  if (change.gone) return `${name} was deleted`;
  if (change.old === null) return `${name} is new`;
  if (change.keys.length !== 1) return `${name} changed`;
  const [key] = change.keys;
  const value = valueAt(change.new, key);
  return value === undefined ? `${name}, ${spellName(key)} was removed` : `${name}, ${spellName(key)} is now ${spellValue(value)}`;
}

function draw() {
  drawTimer = null;
  drawnAt = Date.now();
  const groups = waiting;
  const list = waitingRecent;
  waiting = new Map();
  waitingRecent = [];
  recent.set([...list.reverse(), ...recent.value].slice(0, kMaxRecent));
  changed.set(groups);
  if (groups.size === 1) announce(describe([...groups.values()][0]));
  else announce(`${count(groups.size, 'group')} changed`);
  refreshPending();
}

function take(change, id) {
  if (recent.value.some((other) => other.id === id && other.group === change.group)) return; // two leaders sent it
  const before = waiting.get(change.group);
  const item = { ...change, id, time: Date.now(), number: ++number };
  if (before) item.old = before.old;
  item.keys = keysOf(item);
  waiting.set(change.group, item);
  waitingRecent.push({ ...item, old: change.old, keys: keysOf(change) });
  if (waitingRecent.length > kMaxRecent) waitingRecent.shift();
  if (!drawTimer) drawTimer = setTimeout(draw, Math.max(0, drawnAt + kDraw - Date.now()));
}

function readAgain() {
  lastReset.set(lastReset.value + 1);
  refreshPending();
}

// The stream itself, which the leader alone has.
class Stream {
  #source = null;
  #retry = null;
  #pause = 1000;

  // pass: gets the name, the data and the id of each event.
  constructor(pass) {
    this.pass = pass;
  }

  open(lastId) {
    this.close();
    const since = lastId ? `?since=${encodeURIComponent(lastId)}` : '';
    const source = new EventSource(new URL(`api/v1/changes${since}`, document.baseURI));
    this.#source = source;
    for (const name of ['ready', 'change', 'lost', 'reset']) {
      source.addEventListener(name, (event) => {
        this.#pause = 1000;
        this.lastId = event.lastEventId || this.lastId;
        this.pass(name, JSON.parse(event.data), event.lastEventId);
      });
    }
    source.addEventListener('error', () => this.#onError(source));
  }

  // A browser tries again by itself, but not behind an answer that is an error: this finds out which.
  #onError(source) {
    if (source !== this.#source) return;
    this.pass('offline', {}, '');
    if (source.readyState !== EventSource.CLOSED) return;
    this.close();
    ask('GET', 'status').catch(() => {});
    this.#retry = setTimeout(() => this.open(this.lastId), this.#pause);
    this.#pause = Math.min(this.#pause * 2, 15000);
  }

  close() {
    clearTimeout(this.#retry);
    this.#source?.close();
    this.#source = null;
  }
}

class Tabs {
  #channel = typeof BroadcastChannel === 'function' ? new BroadcastChannel('tavix-settings') : null;
  #name = [...crypto.getRandomValues(new Uint8Array(8))].map((byte) => byte.toString(16).padStart(2, '0')).join('');
  #leader = null; // the name of who leads
  #heard = 0;
  #asking = null;
  #lastId = '';
  #stream = new Stream((name, data, id) => this.#pass(name, data, id));

  start() {
    if (!this.#channel) {
      this.#lead();
      return;
    }
    this.#channel.onmessage = ({ data }) => this.#onMessage(data);
    window.addEventListener('pagehide', () => this.#leave());
    window.addEventListener('pageshow', (event) => event.persisted && this.#find());
    setInterval(() => this.#beat(), kBeat);
    this.#find();
  }

  // Opens the stream anew, for a login that has just begun.
  restart() {
    if (this.#leader === this.#name) this.#stream.open(this.#lastId);
    else this.#send({ type: 'restart' });
  }

  #send(message) {
    this.#channel?.postMessage({ ...message, from: this.#name });
  }

  #find() {
    if (!this.#asking) this.#ask(() => this.#ask(() => this.#lead()));
  }

  // Behind a standstill of the machine the time is over before an answer could come: hence the second time.
  #ask(next) {
    this.#send({ type: 'who' });
    this.#asking = setTimeout(next, kAnswer + Math.random() * 100);
  }

  #lead() {
    this.#stopAsking();
    this.#leader = this.#name;
    this.#send({ type: 'here', state: connection.value });
    this.#stream.open(this.#lastId);
  }

  #leave() {
    this.#stopAsking();
    if (this.#leader === this.#name) this.#send({ type: 'bye' });
    this.#stream.close();
    this.#leader = null;
  }

  #stopAsking() {
    clearTimeout(this.#asking);
    this.#asking = null;
  }

  #beat() {
    if (this.#leader === this.#name) this.#send({ type: 'here', state: connection.value });
    else if (this.#leader && Date.now() - this.#heard > kSilence) this.#find();
  }

  #onMessage(message) {
    const leads = this.#leader === this.#name;
    if (message.type === 'who') {
      if (leads) this.#send({ type: 'here', state: connection.value });
    } else if (message.type === 'bye') {
      if (this.#leader === message.from) this.#find();
    } else if (message.type === 'restart') {
      if (leads) this.#stream.open(this.#lastId);
    } else if (leads && message.from > this.#name) {
      this.#send({ type: 'here', state: connection.value });
    } else {
      this.#follow(message, leads);
    }
  }

  #follow(message, hasLed) {
    const isNew = this.#leader !== message.from;
    this.#stopAsking();
    if (hasLed) this.#stream.close();
    this.#leader = message.from;
    this.#heard = Date.now();
    if (isNew) readAgain();
    if (message.type === 'event') this.#apply(message.name, message.data, message.id);
    else if (message.state !== connection.value) connection.set(message.state);
  }

  #pass(name, data, id) {
    this.#apply(name, data, id);
    this.#send({ type: 'event', name, data, id });
  }

  #apply(name, data, id) {
    const isFirst = name === 'ready' && this.#lastId === ''; // what was read before may have changed since
    if (id) this.#lastId = id;
    const state = { lost: 'lost', offline: 'offline' }[name] ?? 'live';
    if (connection.value !== state) connection.set(state);
    if (name === 'change') take(data, id);
    if (name === 'reset' || isFirst) readAgain();
  }
}

const tabs = new Tabs();

export function followChanges() {
  tabs.start();
  let { round } = session.value;
  session.subscribe((value) => {
    if (value.round === round) return;
    round = value.round;
    tabs.restart();
    readAgain();
  });
}
