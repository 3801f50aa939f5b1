// Edits that are not saved yet, by group. They outlive the view of a group: changes that arrive, another group that is
// looked at, and a login that has to be renewed.
//
// An edit has the value that its author saw ("base"; undefined: there was none). Where the device holds something else
// by now, somebody else has changed it: a conflict, until the author has seen the new value.
import { ask, State } from './store.js';
import { fromField, isSameValue } from './text.js';

export const drafts = new State(new Map()); // of groups: Map of keys and edits

window.addEventListener('beforeunload', (event) => {
  if (drafts.value.size === 0) return;
  event.preventDefault();
  event.returnValue = ''; // what older browsers look at
});

export function editsOf(group) {
  return drafts.value.get(group) ?? new Map();
}

function setEdits(group, edits) {
  const all = new Map(drafts.value);
  if (edits.size > 0) all.set(group, edits);
  else all.delete(group);
  drafts.set(all);
}

// edit: {kind: 'set', base, field}, or {kind: 'unset', base}, which takes the user's value away.
export function setEdit(group, key, edit) {
  setEdits(group, new Map(editsOf(group)).set(key, edit));
}

export function dropEdit(group, key) {
  const edits = new Map(editsOf(group));
  edits.delete(key);
  setEdits(group, edits);
}

export function dropEdits(group) {
  setEdits(group, new Map());
}

// The value that an edit would set; undefined: it takes one away. Throws Error where the field holds none.
export function wantedOf(edit) {
  return edit.kind === 'set' ? fromField(edit.field) : undefined;
}

function isDone(edit, setting) {
  if (edit.kind === 'unset') return !setting || setting.origin === 'default';
  try {
    return setting !== undefined && isSameValue(fromField(edit.field), setting.value);
  } catch {
    return false;
  }
}

// Drops the edits that the device holds already. settings: of the group by keys, a Map of {value, origin}.
export function dropDone(group, settings) {
  const edits = editsOf(group);
  const left = new Map([...edits].filter(([key, edit]) => !isDone(edit, settings.get(key))));
  if (left.size !== edits.size) setEdits(group, left);
}

export function isConflict(edit, setting) {
  return !isSameValue(edit.base, setting?.value);
}

// The keys whose settings somebody else has changed since they were edited.
export function findConflicts(edits, settings) {
  return [...edits].filter(([key, edit]) => isConflict(edit, settings.get(key))).map(([key]) => key);
}

function fields(edits, want) {
  return Object.fromEntries([...edits].flatMap(([key, edit]) => (want(edit) ? [[key, wantedOf(edit)]] : [])));
}

function ifKeys(group, keys) {
  return keys.length > 0 ? { [group]: keys } : {};
}

// The request that saves edits if the device holds what their author saw.
export function makeChange(group, edits, exists) {
  const all = [...edits];
  const present = all.filter(([, edit]) => edit.base !== undefined).map(([key, edit]) => [key, edit.base]);
  const absent = all.filter(([, edit]) => edit.base === undefined).map(([key]) => key);
  const set = fields(edits, (edit) => edit.kind === 'set');
  const unset = all.filter(([, edit]) => edit.kind === 'unset').map(([key]) => key);
  return {
    if: present.length > 0 ? { [group]: Object.fromEntries(present) } : {},
    absent: exists ? ifKeys(group, absent) : { [group]: [] },
    set: Object.keys(set).length > 0 ? { [group]: set } : {},
    unset: ifKeys(group, unset),
  };
}

// seconds: how long the change is on trial; 0: it is not.
export async function save(group, edits, exists, seconds) {
  const change = makeChange(group, edits, exists);
  return ask('POST', 'apply', { body: seconds > 0 ? { ...change, confirm: seconds } : change });
}
