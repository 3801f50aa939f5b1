// A client of the settings protocol for Node 14 and later: one file, no dependency. docs/clients.md says all that it needs.
//
//     const { connect } = require('./tavix-settings.js');
//     const store = await connect('127.0.0.1:7211');
//     console.log(await store.get(['Network/*']));                 // Map of groups, each a Map of keys
//     await store.merge(new Map([['Network/Eth0', new Map([['mtu', '9000']])]]));
//     const watch = await store.watch(['Network/*'], (change) => console.log(change));
//
// Names, keys and values are "latin1" strings: a character is a byte, so that each byte survives. bytes() makes one of
// text, and text() makes text of it.
//
// Calls may be made at once: they are sent and answered in order. No write is sent twice. A call that fails in any way
// but by its arguments closes the connection, and the next call makes a new one: no call gets the reply of another.
'use strict';

const net = require('net');

const MAX_LINE = 32 * 1024 * 1024;
const MAX_MESSAGE = 256 * 1024 * 1024;
const FIRST_RETRY = 100; // milliseconds, doubling up to
const LAST_RETRY = 5000;

// code: TIMEOUT, LOST, PARSE, USAGE or UNSUPPORTED.
class SettingsError extends Error {
  constructor(code, message) {
    super(message);
    this.code = code;
  }
}

const bytes = (string) => Buffer.from(string, 'utf8').toString('latin1');
const text = (latin1) => Buffer.from(latin1, 'latin1').toString('utf8');

// ---- settings text

const NAMED = { n: '\n', r: '\r', t: '\t', s: ' ', '\\': '\\' };

function unescape(string) {
  return string.replace(/\\(?:x([0-9a-fA-F]{2})|([nrts\\]))/g, (_, hex, name) =>
    hex ? String.fromCharCode(parseInt(hex, 16)) : NAMED[name]
  );
}

function escape(string) {
  const hex = (char) => '\\x' + char.charCodeAt(0).toString(16).padStart(2, '0');
  return string.replace(/[\x00-\x20\x7f\\=[\]#;]/g, hex);
}

function trim(string) {
  return string.replace(/^[ \t]+|[ \t]+$/g, '');
}

function parseDocument(lines) {
  const document = new Map();
  let keys = null;
  for (const whole of lines) {
    const line = trim(whole.endsWith('\r') ? whole.slice(0, -1) : whole);
    if (line === '' || line[0] === '#' || line[0] === ';') continue;
    if (line[0] === '[') {
      if (!line.endsWith(']')) throw new SettingsError('PARSE', `expected "[group]", found ${JSON.stringify(line)}`);
      const name = unescape(line.slice(1, -1));
      if (!document.has(name)) document.set(name, new Map());
      keys = document.get(name);
      continue;
    }
    const found = /^((?:[^\\=]|\\[^])*?)=([^]*)$/.exec(line);
    if (!found || !keys) {
      throw new SettingsError('PARSE', `expected "key=value" of a group, found ${JSON.stringify(line.slice(0, 80))}`);
    }
    keys.set(unescape(trim(found[1])), unescape(trim(found[2])));
  }
  return document;
}

function payload(document) {
  let result = '';
  for (const [group, keys] of document) {
    requireLine(group);
    result += `[${escape(group)}]\n`;
    for (const [key, value] of keys) result += `${escape(key)}=${escape(value)}\n`;
  }
  return result + '.\n';
}

// Lines of a list are not escaped.
function list(names) {
  names.forEach(requireLine);
  return names.map((name) => name + '\n').join('') + '.\n';
}

function requireLine(name) {
  if (name.includes('\n') || name === '.') {
    throw new SettingsError('USAGE', `${JSON.stringify(name)} can't stand on a line of its own`);
  }
}

// ---- messages

// Bytes in, lines out. Throws when a line does not end in time.
class Lines {
  constructor() {
    this.chunks = [];
    this.size = 0;
  }

  take(data) {
    this.chunks.push(data);
    this.size += data.length;
    if (!data.includes(10)) {
      if (this.size > MAX_LINE) throw new SettingsError('PARSE', `a line is longer than ${MAX_LINE} bytes`);
      return [];
    }
    const lines = Buffer.concat(this.chunks).toString('latin1').split('\n');
    const rest = Buffer.from(lines.pop(), 'latin1');
    this.chunks = [rest];
    this.size = rest.length;
    return lines;
  }
}

// Lines in, messages out. A message begins with its head; "." ends a list and a document, an empty line what "info"
// shows.
class Messages {
  constructor() {
    this.lines = null;
    this.head = '';
    this.ends = 0;
    this.size = 0;
  }

  // Returns a message once its last line has come: {head, lists}, each a list of lines.
  take(line) {
    if (!this.lines) {
      if (!['async change', 'data', 'result', 'Features'].includes(line)) {
        throw new SettingsError('PARSE', `expected a reply, found ${JSON.stringify(line.slice(0, 80))}`);
      }
      this.head = line;
      this.lines = [[]];
      this.ends = line === 'async change' ? 2 : 1;
      this.size = 0;
      return null;
    }
    this.size += line.length;
    if (this.size > MAX_MESSAGE) throw new SettingsError('PARSE', `a reply is longer than ${MAX_MESSAGE} bytes`);
    const isEnd = this.head === 'result' || line === (this.head === 'Features' ? '' : '.');
    if (!isEnd || this.head === 'result') this.lines[this.lines.length - 1].push(line);
    if (!isEnd) return null;
    if (--this.ends > 0) {
      this.lines.push([]);
      return null;
    }
    const message = { head: this.head, lists: this.lines };
    this.lines = null;
    return message;
  }
}

// ---- one connection

// Sends requests and gives each its reply. onNotice, onEnd: called with what nobody asked for, and once it has ended.
class Connection {
  constructor(socket, onNotice, onEnd) {
    this.socket = socket;
    this.waiting = []; // {head, onReply, isOptional, writes, resolve, reject}, in the order of their requests
    this.onNotice = onNotice;
    this.onEnd = onEnd;
    this.isOpen = true;
    this.features = null;
    this.error = null; // with which it has ended
    this.writes = 0; // that were sent
    this.proven = 0; // of these, by the reply of a request behind them
    const lines = new Lines();
    const messages = new Messages();
    socket.on('data', (data) => {
      try {
        for (const line of lines.take(data)) {
          const message = this.isOpen && messages.take(line);
          if (message) this.dispatch(message);
        }
      } catch (error) {
        this.end(error);
      }
    });
    socket.on('error', (error) => this.end(new SettingsError('LOST', error.message)));
    socket.on('close', () => this.end(new SettingsError('LOST', 'the daemon has ended the connection')));
  }

  dispatch(message) {
    if (message.head === 'async change') {
      this.onNotice(message.lists[0], parseDocument(message.lists[1]));
      return;
    }
    if (this.waiting.length && this.waiting[0].isOptional && message.head === 'data') {
      this.waiting.shift().resolve(null); // it does not know the word, and this is the reply of the request behind it
    }
    const next = this.waiting[0];
    if (!next || next.head !== message.head) {
      throw new SettingsError('PARSE', `expected ${next ? next.head : 'a notice'}, found ${message.head}`);
    }
    const result = message.head === 'data' ? parseDocument(message.lists[0]) : message.lists[0];
    next.onReply(result);
    this.waiting.shift();
    this.proven = next.writes;
    next.resolve(result);
  }

  // No reply is due: it only goes out. Throws if the connection has ended: nothing was sent.
  write(request) {
    if (!this.isOpen) throw this.error;
    this.writes++;
    this.socket.write(request, 'latin1');
  }

  // head: with which the reply begins. onReply: gets it at once, before anything that came behind it is looked at.
  exchange(request, head, timeout, onReply = () => {}) {
    if (this.isOpen) this.socket.write(request, 'latin1');
    return this.await(head, timeout, { onReply });
  }

  // isOptional: an older daemon answers nothing; there is a reply that begins with "data" due behind it.
  await(head, timeout, { onReply = () => {}, isOptional = false } = {}) {
    if (!this.isOpen) return Promise.reject(this.error);
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => this.end(new SettingsError('TIMEOUT', `no reply within ${timeout} ms`)), timeout);
      const done = (finish) => (value) => {
        clearTimeout(timer);
        finish(value);
      };
      const { writes } = this;
      this.waiting.push({ head, onReply, isOptional, writes, resolve: done(resolve), reject: done(reject) });
    });
  }

  end(error) {
    if (!this.isOpen) return;
    this.isOpen = false;
    this.error = error;
    this.socket.destroy();
    for (const each of this.waiting.splice(0)) each.reject(error);
    this.onEnd(error);
  }
}

function open(address, timeout, onNotice, onEnd) {
  return new Promise((resolve, reject) => {
    const socket = net.connect(whereIs(address));
    const fail = (error) => {
      socket.destroy();
      const why = error ? error.message : 'no connection in time';
      reject(new SettingsError(error ? 'LOST' : 'TIMEOUT', `${address}: ${why}`));
    };
    const timer = setTimeout(fail, timeout);
    socket.once('error', (error) => {
      clearTimeout(timer);
      fail(error);
    });
    socket.once('connect', () => {
      clearTimeout(timer);
      socket.removeAllListeners('error');
      socket.setNoDelay(true);
      resolve(new Connection(socket, onNotice, onEnd));
    });
  });
}

// HOST, HOST:PORT, [V6], [V6]:PORT or unix:PATH
function whereIs(address) {
  if (address.startsWith('unix:')) return { path: address.slice(5) };
  const found = /^(?:\[(.*)\]|([^:]*))(?::(\d+))?$/.exec(address);
  if (!found) throw new SettingsError('USAGE', `${address} is no HOST:PORT, [V6]:PORT or unix:PATH`);
  return { host: found[1] || found[2], port: Number(found[3] || 7211) };
}

// ---- watches

// What a callback throws is the program's own error, as that of any listener: the other changes are reported all the
// same, and the connection goes on.
function report(callback, ...values) {
  try {
    callback(...values);
  } catch (error) {
    process.nextTick(() => {
      throw error;
    });
  }
}

// Has a connection of its own. known: what its groups held when changes were last reported.
class Watch {
  constructor(store, names, onChange, onResync) {
    this.store = store;
    this.names = names;
    this.onChange = onChange;
    this.onResync = onResync;
    this.known = new Map();
    this.connection = null;
    this.retry = FIRST_RETRY;
    this.timer = null;
    this.isClosed = false;
    this.isRead = false; // on this connection; notices before that are older than what is read
  }

  // Subscribes, and reads behind that: what changes in between comes as a notice. onRead: gets what was read before any
  // notice behind it is looked at, which may have come with it.
  async begin(onRead) {
    this.isRead = false;
    const onEnd = () => this.comeBackLater();
    this.connection = await open(this.store.address, this.store.timeout, (names, now) => this.take(names, now), onEnd);
    const request = `subscribe\n${list(this.names)}get delimited\n${list(this.names)}`;
    await this.connection.exchange(request, 'data', this.store.timeout, (now) => {
      this.isRead = true;
      this.retry = FIRST_RETRY;
      onRead(now);
    });
  }

  comeBackLater() {
    if (this.isClosed || this.timer || !this.hasBegun) return;
    const pause = this.retry * (0.5 + Math.random() / 2);
    this.retry = Math.min(2 * this.retry, LAST_RETRY);
    this.timer = setTimeout(async () => {
      this.timer = null;
      try {
        await this.begin((now) => {
          if (this.isClosed) return;
          this.compare(now);
          report(this.onResync);
        });
        if (this.isClosed) this.close();
      } catch (error) {
        this.comeBackLater();
      }
    }, pause);
  }

  take(names, now) {
    if (!this.isRead || this.isClosed) return;
    const next = new Map(this.known);
    names.forEach((name) => next.delete(name));
    now.forEach((keys, name) => next.set(name, keys));
    this.compare(next);
  }

  compare(next) {
    const before = this.known;
    this.known = next;
    for (const group of new Set([...before.keys(), ...next.keys()])) {
      const old = before.get(group) || new Map();
      const now = next.get(group) || new Map();
      const gone = !next.has(group);
      for (const key of new Set([...old.keys(), ...now.keys()])) {
        if (old.get(key) !== now.get(key)) {
          const value = (keys) => (keys.has(key) ? keys.get(key) : null);
          report(this.onChange, { group, key, old: value(old), new: value(now), gone });
        }
      }
      if (old.size + now.size === 0 && before.has(group) !== next.has(group)) {
        report(this.onChange, { group, key: null, old: null, new: null, gone });
      }
    }
  }

  close() {
    this.isClosed = true;
    clearTimeout(this.timer);
    if (this.connection) this.connection.end(new SettingsError('LOST', 'the watch was closed'));
  }
}

// ---- the store

class Store {
  constructor(address, timeout) {
    this.address = address;
    this.timeout = timeout; // milliseconds that each call may take
    this.opening = null; // the connection, or the promise of one
    this.hasLostWrite = false; // since the last flush
    this.watches = new Set();
  }

  connection() {
    if (!this.opening) {
      let connection = null;
      const forget = () => {
        if (connection && connection.proven < connection.writes) this.hasLostWrite = true;
        if (this.opening === opening) this.opening = null;
      };
      const opening = open(this.address, this.timeout, () => {}, forget).then((made) => (connection = made));
      opening.catch(forget);
      this.opening = opening;
    }
    return this.opening;
  }

  // names: names and patterns, in which each "*" stands for any run of bytes.
  async get(names) {
    const request = `get delimited\n${list(names)}`;
    return (await this.connection()).exchange(request, 'data', this.timeout);
  }

  // Writes return once they are on their way: flush() waits until they were carried out.
  async merge(change, persist = true) {
    const request = `${persist ? 'merge' : 'merge nopersist'}\n${payload(change)}`;
    (await this.connection()).write(request);
  }

  async overwrite(names, change) {
    const request = `overwrite\n${list(names)}${payload(change)}`;
    (await this.connection()).write(request);
  }

  async restore(names) {
    const request = `restore\n${list(names)}`;
    (await this.connection()).write(request);
  }

  // Whether the test held, and the change was made.
  async testAndMerge(test, change) {
    return this.decide(await this.connection(), `test-and-merge\n${payload(test)}${payload(change)}`);
  }

  // parts: {present, absent, set, unset, replace}, each may be missing; absent and unset are Maps of groups with lists
  // of keys.
  async amend(parts) {
    const unset = (list) => new Map(list.map((key) => [key, '']));
    const keys = (part) => new Map([...(part || [])].map(([name, list]) => [name, unset(list)]));
    const documents = [parts.present, keys(parts.absent), parts.set, keys(parts.unset), parts.replace];
    const request = 'amend\n' + documents.map((document) => payload(document || new Map())).join('');
    const connection = await this.connection();
    if (!(await this.features(connection)).includes('amend')) {
      throw new SettingsError('UNSUPPORTED', `the daemon at ${this.address} does not know amend`);
    }
    return this.decide(connection, request);
  }

  async decide(connection, request) {
    const result = await connection.exchange(request, 'result', this.timeout);
    if (result[0] !== 'ok' && result[0] !== 'failure') {
      const error = new SettingsError('PARSE', `expected "ok" or "failure", found ${result[0]}`);
      connection.end(error);
      throw error;
    }
    return result[0] === 'ok';
  }

  // An older daemon does not answer: the reply of the request behind it comes then.
  async features(connection) {
    if (!connection.features) {
      if (connection.isOpen) connection.socket.write('info features\nget delimited\n.\n', 'latin1');
      const shown = connection.await('Features', this.timeout, { isOptional: true });
      const [lines] = await Promise.all([shown, connection.await('data', this.timeout)]);
      connection.features = lines ? lines.slice(1).map((line) => line.split(' ')[0]) : [];
    }
    return connection.features;
  }

  // Throws LOST if a connection was lost before a write that was sent over it was proven. A flush that fails otherwise,
  // by its time, leaves that to the next one.
  async flush() {
    try {
      await (await this.connection()).exchange('get delimited\n.\n', 'data', this.timeout);
      if (this.hasLostWrite) throw new SettingsError('LOST', 'a connection was lost, and a write with it perhaps');
    } catch (error) {
      if (error.code === 'LOST') this.hasLostWrite = false;
      throw error;
    }
  }

  // onChange: gets {group, key, old, new, gone}; key is null where a group without keys came or went. onResync: the
  // connection was lost and made again; what differs since was reported before. isInitial: begins with what there is.
  async watch(names, onChange, onResync = () => {}, isInitial = false) {
    list(names);
    const watch = new Watch(this, names, onChange, onResync);
    await watch.begin((now) => {
      if (isInitial) watch.compare(now);
      else watch.known = now;
    });
    watch.hasBegun = true;
    if (!watch.connection.isOpen) watch.comeBackLater();
    this.watches.add(watch);
    return watch;
  }

  async close() {
    this.watches.forEach((watch) => watch.close());
    this.watches.clear();
    const opening = this.opening;
    this.opening = null;
    if (opening) {
      const connection = await opening.catch(() => null);
      if (connection) connection.end(new SettingsError('LOST', 'the store was closed'));
    }
  }
}

// address: HOST, HOST:PORT, [V6]:PORT or unix:PATH; by default what TAVIX_SETTINGS_SERVER says.
async function connect(address = process.env.TAVIX_SETTINGS_SERVER || '127.0.0.1', timeout = 10000) {
  const store = new Store(address, timeout);
  await store.connection();
  return store;
}

module.exports = { connect, bytes, text, parseDocument, SettingsError };
