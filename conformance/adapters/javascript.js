#!/usr/bin/env node
'use strict';

// The client under test around examples/javascript/tavix-settings.js: JSON lines from standard input, and to standard
// output.

const path = require('path');
const readline = require('readline');

const CLIENT = path.join(__dirname, '../../examples/javascript/tavix-settings.js');
const { connect, SettingsError, toBytes, fromBytes } = require(CLIENT);

const PREFIX = 'base64:';
const LONE_SURROGATE = /\p{Surrogate}/u;

const toBase64 = (text) => toBytes(text).toString('base64');
const fromBase64 = (text) => fromBytes(Buffer.from(text, 'base64'));

const nameIn = (name) => (name.startsWith(PREFIX) ? fromBase64(name.slice(PREFIX.length)) : name);
const nameOut = (name) => (LONE_SURROGATE.test(name) || name.startsWith(PREFIX) ? PREFIX + toBase64(name) : name);
const valueIn = (value) => (typeof value === 'string' ? value : fromBase64(value.base64));
const valueOut = (value) => {
  if (value === undefined) return null;
  return LONE_SURROGATE.test(value) ? { base64: toBase64(value) } : value;
};

const namesIn = (names) => names.map(nameIn);
const groupsIn = (groups, valuesOf) => (
  new Map(Object.entries(groups ?? {}).map(([name, keys]) => [nameIn(name), valuesOf(keys)])));
const valuesIn = (keys) => new Map(Object.entries(keys).map(([key, value]) => [nameIn(key), valueIn(value)]));
const documentIn = (document) => groupsIn(document, valuesIn);
const keysIn = (groups) => groupsIn(groups, namesIn);
const valuesOut = (keys) => Object.fromEntries([...keys].map(([key, value]) => [nameOut(key), valueOut(value)]));
const documentOut = (groups) => Object.fromEntries([...groups].map(([name, keys]) => [nameOut(name), valuesOut(keys)]));

let client;
let lastWatch = 0;
const watches = new Map();

const write = (object) => process.stdout.write(`${JSON.stringify(object)}\n`);

function writeChange(watch, { group, key, old, now, isGone }) {
  write({
    event: 'change', watch, group: nameOut(group), key: key === undefined ? null : nameOut(key), old: valueOut(old),
    new: valueOut(now), gone: isGone,
  });
}

const requests = {
  async connect({ address, timeout_ms: timeout }) {
    await client?.close();
    client = connect(address, { timeout });
  },
  async get({ names }) {
    return { groups: documentOut(await client.get(namesIn(names))) };
  },
  async merge({ change, persist }) {
    await client.merge(documentIn(change), { persist });
  },
  async 'test-and-merge'({ test, change }) {
    return { done: await client.testAndMerge(documentIn(test), documentIn(change)) };
  },
  async overwrite({ names, change }) {
    await client.overwrite(namesIn(names), documentIn(change));
  },
  async amend({ present, absent, set, unset, replace }) {
    const done = await client.amend({
      present: documentIn(present), absent: keysIn(absent), set: documentIn(set), unset: keysIn(unset),
      replace: documentIn(replace),
    });
    return { done };
  },
  async restore({ names }) {
    await client.restore(namesIn(names));
  },
  async watch({ names, initial }) {
    const watch = await client.watch(namesIn(names), { initial });
    lastWatch += 1;
    const number = lastWatch;
    watches.set(number, watch);
    watch.on('change', (change) => writeChange(number, change));
    watch.on('resync', () => write({ event: 'resync', watch: number }));
    return { watch: number };
  },
  async unwatch({ watch }) {
    await watches.get(watch)?.close();
    watches.delete(watch);
  },
  async flush() {
    await client.flush();
  },
  async close() {
    await client?.close();
    watches.clear();
  },
};

const CAPABILITIES = ['nopersist', 'initial', 'resync', 'once', 'timeout', 'bounded'];

requests.hello = async () => {
  const names = Object.keys(requests).filter((name) => !['hello', 'connect', 'close'].includes(name));
  return { features: [...names, ...CAPABILITIES] };
};

async function answer(line) {
  const request = JSON.parse(line);
  const { id } = request;
  try {
    write({ id, ok: true, ...await requests[request.do](request) });
  } catch (error) {
    write({ id, ok: false, error: error instanceof SettingsError ? error.code : 'INTERNAL', text: error.message });
  }
}

const input = readline.createInterface({ input: process.stdin });
input.on('line', answer);
input.on('close', () => client?.close());
