'use strict';

// A client of the settings daemon for Node 18 or later: one file, no dependency.
//
//   const { connect } = require('./tavix-settings.js');
//   const client = connect();                            // or connect('unix:/run/settings', { timeout: 2000 })
//   const groups = await client.get(['Video/*']);        // a Map of groups, each a Map of keys with values
//   console.log(groups.get('Video/1')?.get('fps'));
//   await client.set('Video/1', 'fps', '25');            // or merge() as often as needed, and then flush()
//   const watch = await client.watch(['Video/*']);
//   watch.on('change', ({ group, key, old, now, isGone }) => console.log(group, key, old, now, isGone));
//   watch.on('resync', () => console.log('the watch was lost for a while, and has come back'));
//   await client.close();                                // or watch.close(), to end that one alone
//
// Names and values are byte strings. Here they are JavaScript strings of their UTF-8, in which a byte that is not part
// of valid UTF-8, 0x80 to 0xff, is the lone surrogate 0xdc00 + byte: each string that comes can be sent again and stays
// the same. toBytes() and fromBytes() convert; what is sent may be a Uint8Array too. Documents are taken as Maps or as
// plain objects, and given as Maps: a group may be named "__proto__".
//
// What it promises:
// - Times: each call ends within the time-out of connect(), 5 s without one, and close() within 1 s. A call whose time
//   is over fails with TIMEOUT and ends the connection: no late reply is taken for that of another request.
// - Lost connections: what waits for a reply fails with LOST, and nothing of a reply that was cut off is used. The next
//   call connects again.
// - Sent twice: no request but the subscription of a watch, with its reading. A write is never sent again: merge(),
//   overwrite() and restore() end once they are handed to the system, flush() once the daemon has carried them out. It
//   fails with LOST if a connection was lost that had carried writes, unless a flush() has covered or reported them.
// - Watches: each has a connection of its own, subscribes and then reads, so no change is missed. A lost watch comes
//   back, a second later at the earliest, passes the differences as changes, and then 'resync'. Nothing but differences
//   is passed, and none before watch() has ended or after its close(). `old` and `now` are undefined where there is no
//   value, and `key` where a group without keys came or went.
// - Errors: all are SettingsError with a `code`: LOST, TIMEOUT, PARSE (what came can't be read; the connection ends),
//   USAGE (nothing was sent), or UNSUPPORTED (the daemon is older than the request; nothing of it was sent).
// - close() leaves nothing open: no socket, no timer. What was sent and not flushed may be lost.

const { EventEmitter } = require('events');
const net = require('net');

const RETRY_PAUSE = 1000; // ms: the daemon asks for a second between two connections of a watch
const CLOSE_PATIENCE = 1000; // ms that the daemon has to end a connection which is closed here
const MAX_LINE = 80 * 1024 * 1024; // bytes: the daemon takes 16 MiB, and escapes make four bytes of one

class SettingsError extends Error {
  constructor(code, text, found) {
    super(found === undefined ? text : `${text}: ${JSON.stringify(String(found).slice(0, 200))}`);
    this.name = 'SettingsError';
    this.code = code;
  }
}

// Bytes and strings. A "byte string" is a string of characters 0 to 255, one a byte; the readers work on these.

const utf8 = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true });
const UTF8_OR_BYTE = new RegExp('[\xc2-\xdf][\x80-\xbf]|\xe0[\xa0-\xbf][\x80-\xbf]|[\xe1-\xec\xee\xef][\x80-\xbf]{2}|'
  + '\xed[\x80-\x9f][\x80-\xbf]|\xf0[\x90-\xbf][\x80-\xbf]{2}|[\xf1-\xf3][\x80-\xbf]{3}|\xf4[\x80-\x8f][\x80-\xbf]{2}|'
  + '[\x80-\xff]', 'g');

function fromByteString(text) {
  if (!/[\x80-\xff]/.test(text)) return text;
  try {
    return utf8.decode(Buffer.from(text, 'latin1'));
  } catch {
    return text.replace(UTF8_OR_BYTE, (part) => (
      part.length > 1 ? Buffer.from(part, 'latin1').toString() : String.fromCharCode(0xdc00 + part.charCodeAt(0))));
  }
}

function toByteString(text) {
  if (text instanceof Uint8Array) return Buffer.from(text).toString('latin1');
  if (typeof text !== 'string') throw new SettingsError('USAGE', 'a name or value is no string', text);
  if (!/\p{Surrogate}/u.test(text)) return Buffer.from(text).toString('latin1');
  return text.replace(/[^\x00-\x7f]/gu, (character) => {
    const code = character.codePointAt(0);
    if (code >= 0xdc80 && code <= 0xdcff) return String.fromCharCode(code - 0xdc00);
    if (code < 0xd800 || code > 0xdfff) return Buffer.from(character).toString('latin1');
    throw new SettingsError('USAGE', 'a lone surrogate means no byte', code.toString(16));
  });
}

const toBytes = (text) => Buffer.from(toByteString(text), 'latin1');
const fromBytes = (bytes) => fromByteString(Buffer.from(bytes).toString('latin1'));

// What is sent: lines as byte strings

const hex = (byte) => `\\x${byte.charCodeAt(0).toString(16).padStart(2, '0')}`;
const escape = (text) => toByteString(text).replace(/[\x00-\x20\x7f\\=[\]#;]/g, hex);
const entries = (map) => (map instanceof Map ? [...map] : Object.entries(map ?? {}));

// The lines of a document with its end.
function documentLines(document) {
  const lines = [];
  for (const [group, keys] of entries(document)) {
    if (toByteString(group).includes('\n')) throw new SettingsError('USAGE', 'a group has a line break', group);
    lines.push(`[${escape(group)}]`);
    for (const [key, value] of entries(keys)) lines.push(`${escape(key)}=${escape(value)}`);
  }
  return [...lines, '.'];
}

// As documentLines(), for groups that have lists of keys.
const keyLines = (groups) => documentLines(new Map(entries(groups).map(([group, keys]) => (
  [group, new Map([...keys].map((key) => [key, '']))]))));

// The lines of a list of names with its end. They are not escaped, so not every name can stand there.
function listLines(names) {
  const lines = [...names].map(toByteString);
  const bad = lines.find((line) => line.includes('\n') || line === '.');
  if (bad !== undefined) throw new SettingsError('USAGE', 'no list of names can hold this one', bad);
  return [...lines, '.'];
}

// What comes: generators that are given a line, a byte string, with each next(), and return what they have read. Those
// of replies are called with the first line.

function* readList() {
  const names = [];
  for (let line = yield; line !== '.'; line = yield) names.push(fromByteString(line));
  return names;
}

const LETTERS = { n: '\n', r: '\r', t: '\t', s: ' ', '\\': '\\' };
function unescape(text) {
  const byteOf = (_, digits, letter) => (digits ? String.fromCharCode(parseInt(digits, 16)) : LETTERS[letter]);
  return fromByteString(text.replace(/\\(?:x([0-9a-fA-F]{2})|([nrts\\]))/g, byteOf)); // no other "\" is an escape
}

function trim(text) {
  let end = text.length;
  while (end > 0 && (text[end - 1] === ' ' || text[end - 1] === '\t')) end -= 1;
  return text.slice(0, end).replace(/^[ \t]+/, '');
}

// Blanks and tabs at the ends of a line and around its first "=" belong to no name and no value.
function* readDocument() {
  const groups = new Map();
  let keys;
  for (let line = yield; line !== '.'; line = yield) {
    const text = trim(line);
    const equals = text.indexOf('=');
    if (text.startsWith('[') && text.endsWith(']')) {
      const group = unescape(text.slice(1, -1));
      if (!groups.has(group)) groups.set(group, new Map());
      keys = groups.get(group);
    } else if (!text.startsWith('[') && equals >= 0 && keys) {
      keys.set(unescape(trim(text.slice(0, equals))), unescape(trim(text.slice(equals + 1))));
    } else {
      throw new SettingsError('PARSE', 'expected "[group]" or "key=value"', line);
    }
  }
  return groups;
}

function* readData(line) {
  if (line !== 'data') throw new SettingsError('PARSE', 'expected "data"', line);
  return yield* readDocument();
}

function* readDone(line) {
  if (line !== 'result') throw new SettingsError('PARSE', 'expected "result"', line);
  const outcome = yield;
  if (!['ok', 'failure'].includes(outcome)) throw new SettingsError('PARSE', 'expected "ok" or "failure"', outcome);
  return outcome === 'ok';
}

function* readFeatures(line) {
  if (line !== 'Features') throw new SettingsError('PARSE', 'expected "Features"', line);
  yield; // the line of dashes
  const names = new Set();
  for (let feature = yield; feature !== ''; feature = yield) names.add(feature.split(/\s/, 1)[0]);
  return names;
}

// A connection, which connects when it is made and is never used again once it has ended. Requests are carried out and
// answered in their order. `onNotice(names, groups)` is called for each notice, and `onEnd()` once, if the connection
// ends by anything but close(). Times (`until`) are those of performance.now().
class Connection {
  #socket;
  #waiting = new Set(); // requests that have not finished,
  #pending = []; // and those of them that wait for replies, in their order
  #parts = []; // of a line whose end has not come yet
  #size = 0; // of the parts
  #reader = this.#readMessages();
  #handlers;
  #features;
  isOpen = true;
  wasConnected = false;
  written = 0; // requests that have no reply,
  flushed = 0; // and how many of them the daemon has carried out for certain

  constructor(address, { onNotice = () => {}, onEnd }) {
    this.#handlers = { onNotice, onEnd };
    this.#reader.next();
    this.#socket = net.connect({ ...address, autoSelectFamily: true, noDelay: true, keepAlive: true });
    this.#socket.on('connect', () => { this.wasConnected = true; });
    this.#socket.on('data', (bytes) => this.#take(bytes));
    this.#socket.on('error', (error) => this.#fail(new SettingsError('LOST', `no connection: ${error.message}`)));
    this.#socket.on('close', () => this.#fail(new SettingsError('LOST', 'the daemon has ended the connection')));
  }

  // Sends lines in one go. `read` reads the reply; `onReply` is given the result before any later message is read. If
  // `isOlder` says so of the line that comes, there is no reply; the line belongs to that of the next request.
  request(lines, until, { read, onReply = () => {}, isOlder = () => false }) {
    const request = { read, onReply, isOlder };
    this.#pending.push(request);
    return this.#send(lines, until, request);
  }

  // Sends the lines of a request that has no reply; it has finished once the system has all of them.
  write(lines, until) {
    this.written += 1;
    const request = {};
    return this.#send(lines, until, request, (error) => error || request.finish());
  }

  // What the daemon can do beyond what all can, asked for once.
  features(until) {
    if (this.#features) return this.#features;
    const reply = { read: readFeatures, isOlder: (line) => line === 'data' };
    this.#features = this.request(['info features'], until, reply);
    this.request(['get delimited', '.'], until, { read: readData }).catch(() => {});
    return this.#features;
  }

  // Ends the connection in order: what was handed to the system is still sent.
  async close() {
    if (!this.isOpen) return;
    const socket = this.#socket;
    this.#end(new SettingsError('LOST', 'the client was closed'));
    if (this.wasConnected) socket.end();
    else socket.destroy();
    const timer = setTimeout(() => socket.destroy(), CLOSE_PATIENCE);
    await new Promise((resolve) => socket.once('close', resolve));
    clearTimeout(timer);
  }

  // Ends the connection at once; `culprit` is the request that is at fault, if any is: the others are lost.
  #fail(error, culprit) {
    if (!this.isOpen) return;
    this.#socket.destroy();
    this.#handlers.onEnd();
    this.#end(error, culprit);
  }

  #end(error, culprit) {
    this.isOpen = false;
    this.#parts = [];
    const others = culprit ? new SettingsError('LOST', 'the connection has ended') : error;
    for (const request of this.#waiting) request.finish(request === culprit ? error : others);
  }

  #send(lines, until, request, onSent) {
    // What came before the time was over counts, so the timer lets the system's events pass before it fails.
    const expire = () => setImmediate(() => {
      if (this.#waiting.has(request)) this.#fail(new SettingsError('TIMEOUT', 'the time is over'), request);
    });
    const timer = setTimeout(expire, Math.max(until - performance.now(), 0));
    this.#waiting.add(request);
    this.#socket.write(Buffer.from(`${lines.join('\n')}\n`, 'latin1'), onSent);
    return new Promise((resolve, reject) => {
      request.finish = (error, result) => {
        this.#waiting.delete(request);
        clearTimeout(timer);
        if (error) reject(error);
        else resolve(result);
      };
    });
  }

  #take(bytes) {
    let begin = 0;
    try {
      for (let end; this.isOpen && (end = bytes.indexOf(10, begin)) >= 0; begin = end + 1) {
        const line = Buffer.concat([...this.#parts, bytes.subarray(begin, end)]).toString('latin1');
        this.#parts = [];
        this.#size = 0;
        this.#reader.next(line);
      }
      if (!this.isOpen || begin === bytes.length) return;
      this.#parts.push(bytes.subarray(begin));
      this.#size += bytes.length - begin;
      if (this.#size > MAX_LINE) throw new SettingsError('PARSE', `a line has more than ${MAX_LINE} bytes`);
    } catch (error) {
      this.#fail(error, this.#pending[0]);
    }
  }

  * #readMessages() {
    for (;;) {
      const line = yield;
      if (line === 'async change') {
        const names = yield* readList();
        this.#handlers.onNotice(names, yield* readDocument());
        continue;
      }
      while (this.#pending[0]?.isOlder(line)) this.#pending.shift().finish(undefined, new Set());
      if (!this.#pending[0]) throw new SettingsError('PARSE', 'a line came that nothing had asked for', line);
      const result = yield* this.#pending[0].read(line);
      const request = this.#pending.shift();
      request.onReply(result);
      request.finish(undefined, result);
    }
  }
}

// What a call of Client.watch() gives. Emits 'change' and 'resync'; see the top.
class Watch extends EventEmitter {
  #client;
  #names;
  #isInitial;
  #connection;
  #timer;
  #known; // what the groups hold, as far as it was passed on; undefined before the first reading
  #isClosed = false;

  constructor(client, names, isInitial) {
    super();
    this.#client = client;
    this.#names = [...names];
    this.#isInitial = isInitial;
  }

  // Called by the client once: subscribes and then reads with a new connection. Fails if that can't be done.
  async start() {
    const lines = listLines(this.#names);
    let isRead = false; // what is announced before the reading is part of it
    const onReply = (groups) => { this.#takeReading(groups); isRead = true; };
    const onNotice = (names, groups) => isRead && this.#update([...names, ...groups.keys()], groups);
    const onEnd = () => isRead && this.#comeBackLater();
    this.#connection = new Connection(this.#client.address, { onNotice, onEnd });
    const all = ['subscribe', ...lines, 'get delimited', ...lines];
    await this.#connection.request(all, performance.now() + this.#client.timeout, { read: readData, onReply });
  }

  // Nothing is passed on any more.
  async close() {
    this.#isClosed = true;
    clearTimeout(this.#timer);
    this.#client.watches.delete(this);
    await this.#connection?.close();
  }

  #comeBackLater() {
    if (!this.#isClosed) this.#timer = setTimeout(() => this.start().catch(() => this.#comeBackLater()), RETRY_PAUSE);
  }

  #takeReading(groups) {
    const isFirst = !this.#known;
    this.#known ??= this.#isInitial ? new Map() : groups;
    this.#update([...this.#known.keys(), ...groups.keys()], groups);
    if (!isFirst) this.#pass('resync');
  }

  // Passes on how the named groups differ from what is known, and keeps what they hold now.
  #update(names, groups) {
    for (const group of new Set(names)) {
      const [before, after] = [this.#known.get(group), groups.get(group)];
      const keys = new Set([...(before?.keys() ?? []), ...(after?.keys() ?? [])]);
      const isGone = !after;
      for (const key of keys) {
        const [old, now] = [before?.get(key), after?.get(key)];
        if (old !== now) this.#pass('change', { group, key, old, now, isGone });
      }
      if (keys.size === 0 && !before !== isGone) this.#pass('change', { group, isGone });
      if (isGone) this.#known.delete(group);
      else this.#known.set(group, after);
    }
  }

  // Later, so that nobody is called before watch() has ended, and what a listener throws can't hurt the reading.
  #pass(event, argument) {
    setImmediate(() => this.#isClosed || this.emit(event, argument));
  }
}

function parseAddress(address) {
  if (address.startsWith('unix:')) return { path: address.slice(5) };
  const [, v6, host, port = '7211'] = /^(?:\[(.*)\]|([^:]*))(?::(\d+))?$/.exec(address) ?? [];
  if (!(v6 || host) || port > 65535) throw new SettingsError('USAGE', 'expected HOST:PORT or unix:PATH', address);
  return { host: v6 || host, port: Number(port) };
}

// What connect() gives. Calls may be made at any time, and are sent in their order.
class Client {
  #connection;
  watches = new Set(); // those that are open; they remove themselves
  #isWriteLost = false; // and no flush has reported it yet
  #isClosed = false;

  constructor(address, timeout) {
    this.address = parseAddress(address);
    this.timeout = timeout;
  }

  // What the groups hold that have these names, or match them where they are patterns.
  async get(names) {
    return this.#ask(['get delimited', ...listLines(names)], readData);
  }

  // Sets values. Those of a change with `persist: false` are not saved.
  async merge(change, { persist = true } = {}) {
    await this.#write([persist ? 'merge' : 'merge nopersist', ...documentLines(change)]);
  }

  // Replaces the groups that names or patterns mean by `change`.
  async overwrite(names, change) {
    await this.#write(['overwrite', ...listLines(names), ...documentLines(change)]);
  }

  // Gives the groups that names or patterns mean their defaults again.
  async restore(names) {
    await this.#write(['restore', ...listLines(names)]);
  }

  // Sets one value, and waits until the daemon has carried that out.
  async set(group, key, value) {
    const until = this.#begin();
    await this.#write(['merge', ...documentLines(new Map([[group, new Map([[key, value]])]]))], until);
    await this.flush(until);
  }

  // Makes `change` if all values are as in `test`, as one step. Whether it was made.
  async testAndMerge(test, change) {
    return this.#ask(['test-and-merge', ...documentLines(test), ...documentLines(change)], readDone);
  }

  // As one step, if all values are as in `present` and no key of `absent` is there: sets the values of `set`, removes
  // the keys of `unset`, and gives the groups of `replace` these keys alone. Whether it was made. The first one of a
  // connection asks what the daemon can do before it is sent, so other calls may be sent before it.
  async amend({ present, absent, set, unset, replace } = {}) {
    const until = this.#begin();
    const conditions = [...documentLines(present), ...keyLines(absent)];
    const lines = ['amend', ...conditions, ...documentLines(set), ...keyLines(unset), ...documentLines(replace)];
    const connection = this.#connect();
    const features = await connection.features(until);
    if (!features.has('amend')) throw new SettingsError('UNSUPPORTED', 'the daemon does not know "amend"');
    if (!connection.isOpen) throw new SettingsError('LOST', 'the connection has ended');
    return connection.request(lines, until, { read: readDone });
  }

  // Waits until all that was written is carried out; see the top.
  async flush(until = this.#begin()) {
    try {
      if (this.#isWriteLost) throw new SettingsError('LOST', 'a connection that had carried writes was lost');
      const connection = this.#connect();
      const { written } = connection;
      await connection.request(['get delimited', '.'], until, { read: readData });
      connection.flushed = Math.max(connection.flushed, written);
    } catch (error) {
      if (error.code === 'LOST') this.#isWriteLost = false;
      throw error;
    }
  }

  // A Watch of the groups that names or patterns mean. With `initial`, what there is comes first, as changes.
  async watch(names, { initial = false } = {}) {
    this.#begin();
    const watch = new Watch(this, names, initial);
    this.watches.add(watch);
    await watch.start().catch((error) => watch.close().finally(() => { throw error; }));
    return watch;
  }

  // Ends all watches and the connection; what waits fails with LOST, and later calls with USAGE.
  async close() {
    this.#isClosed = true;
    await Promise.all([this.#connection, ...this.watches].map((each) => each?.close()));
  }

  // Begins a call: when it has to end.
  #begin() {
    if (this.#isClosed) throw new SettingsError('USAGE', 'the client is closed');
    return performance.now() + this.timeout;
  }

  #connect() {
    if (this.#connection?.isOpen) return this.#connection;
    const onEnd = () => { this.#isWriteLost ||= connection.wasConnected && connection.written > connection.flushed; };
    const connection = new Connection(this.address, { onEnd });
    this.#connection = connection;
    return this.#connection;
  }

  #ask(lines, read, until = this.#begin()) {
    return this.#connect().request(lines, until, { read });
  }

  #write(lines, until = this.#begin()) {
    return this.#connect().write(lines, until);
  }
}

// A client of the daemon at `address`: HOST, HOST:PORT, [V6]:PORT or unix:PATH. It connects with the first call. The
// time-out, in ms, is that of each call.
function connect(address = process.env.TAVIX_SETTINGS_SERVER || '127.0.0.1', { timeout = 5000 } = {}) {
  return new Client(address, timeout);
}

module.exports = { connect, Client, Watch, SettingsError, toBytes, fromBytes };
