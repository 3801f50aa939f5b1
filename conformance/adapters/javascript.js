#!/usr/bin/env node
// The example of a JavaScript client, as a client under test: docs/clients.md.
'use strict';

const readline = require('readline');
const { connect, bytes, text } = require('../../examples/javascript/tavix-settings.js');

const FEATURES = [
  ...['get', 'merge', 'test-and-merge', 'overwrite', 'amend', 'restore', 'watch', 'unwatch', 'flush'],
  ...['nopersist', 'initial', 'resync', 'once', 'timeout', 'bounded'],
];
const PREFIX = 'base64:';

const isText = (latin1) => bytes(text(latin1)) === latin1;
const toBase64 = (latin1) => Buffer.from(latin1, 'latin1').toString('base64');
const fromBase64 = (base64) => Buffer.from(base64, 'base64').toString('latin1');
const nameToJson = (name) => (isText(name) && !name.startsWith(PREFIX) ? text(name) : PREFIX + toBase64(name));
const nameFromJson = (name) => (name.startsWith(PREFIX) ? fromBase64(name.slice(PREFIX.length)) : bytes(name));
const valueToJson = (value) => (value === null ? null : isText(value) ? text(value) : { base64: toBase64(value) });
const valueFromJson = (value) => (typeof value === 'string' ? bytes(value) : fromBase64(value.base64));

const mapFromJson = (object, fromJson) =>
  new Map(Object.entries(object || {}).map(([name, value]) => [nameFromJson(name), fromJson(value)]));
const documentFromJson = (object) => mapFromJson(object, (keys) => mapFromJson(keys, valueFromJson));
const keysFromJson = (object) => mapFromJson(object, (keys) => keys.map(nameFromJson));

// A prototype's names are names like any other.
function objectOf(map, toJson) {
  const object = Object.create(null);
  for (const [name, value] of map) object[nameToJson(name)] = toJson(value);
  return object;
}

const documentToJson = (document) => objectOf(document, (keys) => objectOf(keys, valueToJson));
const write = (message) => process.stdout.write(JSON.stringify(message) + '\n');

let store = null;
const watches = new Map();

function writeChange(watch, change) {
  const { group, key, gone } = change;
  const place = { group: nameToJson(group), key: key === null ? null : nameToJson(key) };
  write({ event: 'change', watch, ...place, old: valueToJson(change.old), new: valueToJson(change.new), gone });
}

const calls = {
  hello: async () => ({ features: FEATURES }),
  connect: async (request) => void (store = await connect(request.address, request.timeout_ms)),
  get: async (request) => ({ groups: documentToJson(await store.get(request.names.map(nameFromJson))) }),
  merge: (request) => store.merge(documentFromJson(request.change), request.persist !== false),
  overwrite: (request) => store.overwrite(request.names.map(nameFromJson), documentFromJson(request.change)),
  restore: (request) => store.restore(request.names.map(nameFromJson)),
  flush: () => store.flush(),
  'test-and-merge': async (request) => ({
    done: await store.testAndMerge(documentFromJson(request.test), documentFromJson(request.change)),
  }),
  amend: async (request) => ({
    done: await store.amend({
      present: documentFromJson(request.present),
      absent: keysFromJson(request.absent),
      set: documentFromJson(request.set),
      unset: keysFromJson(request.unset),
      replace: documentFromJson(request.replace),
    }),
  }),
  watch: async (request) => {
    const number = ++calls.watches;
    const onChange = (change) => writeChange(number, change);
    const onResync = () => write({ event: 'resync', watch: number });
    const names = request.names.map(nameFromJson);
    watches.set(number, await store.watch(names, onChange, onResync, request.initial === true));
    return { watch: number };
  },
  unwatch: async (request) => {
    watches.get(request.watch).close();
    watches.delete(request.watch);
  },
  close: () => store.close(),
  watches: 0,
};

async function run() {
  for await (const line of readline.createInterface({ input: process.stdin })) {
    const request = JSON.parse(line);
    try {
      write({ id: request.id, ok: true, ...(await calls[request.do](request)) });
    } catch (error) {
      write({ id: request.id, ok: false, error: error.code || 'INTERNAL', text: error.message });
    }
  }
  if (store) await store.close();
}

run();
