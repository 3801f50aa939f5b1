// One group: its settings, edits of them, and how these are saved.
import { useCallback, useEffect, useRef, useState } from './vendor/standalone.module.js';
import { changed, lastReset } from './live.js';
import {
  dropDone, dropEdit, dropEdits, drafts, editsOf, findConflicts, isConflict, save, setEdit, wantedOf,
} from './drafts.js';
import { ask, canWrite, device, go, has, keepLater, linkTo, session, useValue } from './store.js';
import { count, fromField, isSameValue, spellName, toField, toName } from './text.js';
import {
  Badge, ChangeTable, Confirm, Dialog, html, Loading, Origin, ProblemBox, TrialChoice, useAction, Value,
} from './ui.js';

const kReadPause = 300; // ms between two readings of a group that goes on changing
const kMaxShown = 200; // settings, before somebody asks for all
const kFlash = 2500; // ms that a changed value is marked

export async function readGroup(name) {
  try {
    const group = await ask('GET', 'group', { query: { name } });
    return { ...group, exists: true, settings: new Map(Object.entries(group.keys)) };
  } catch (problem) {
    if (problem.status !== 404) throw problem;
    return { name, exists: false, masked: false, origin: 'default', settings: new Map() };
  }
}

// What the group is behind a change. Where a value comes from is a guess, until the group has been read again.
function applyChange(group, change) {
  if (change.gone) return { ...group, exists: false, settings: new Map() };
  const settings = Object.entries(change.new).map(([key, value]) => {
    const before = group.settings.get(key);
    return [key, before && isSameValue(before.value, value) ? before : { value, origin: group.masked ? 'restricted' : 'user' }];
  });
  return { ...group, exists: true, version: change.version, settings: new Map(settings) };
}

function changedKeys(before, after) {
  return [...after.settings.keys()].filter((key) => !isSameValue(before.settings.get(key)?.value, after.settings.get(key).value));
}

// The group as it is on the device at any moment: {group, problem, flashing, read}.
function useGroup(name) {
  const [state, setState] = useState({ group: null, problem: null, flashing: new Set() });
  const current = useRef({ name, number: 0, timer: null });

  const read = useCallback(async () => {
    const number = ++current.current.number;
    try {
      const group = await readGroup(name);
      if (number === current.current.number) setState((before) => ({ ...before, group, problem: null }));
    } catch (problem) {
      if (number === current.current.number) setState((before) => ({ ...before, problem }));
    }
  }, [name]);

  useEffect(() => {
    const here = current.current;
    const readSoon = () => {
      here.timer ??= setTimeout(() => { here.timer = null; read(); }, kReadPause);
    };
    const onChanges = (changes) => {
      const change = changes.get(name);
      if (!change) return;
      ++here.number; // what is being read is older
      setState((before) => {
        if (!before.group) return before;
        const group = applyChange(before.group, change);
        return { ...before, group, flashing: new Set(changedKeys(before.group, group)) };
      });
      readSoon();
    };
    setState({ group: null, problem: null, flashing: new Set() });
    read();
    const ends = [changed.subscribe(onChanges), lastReset.subscribe(read), session.subscribe((value) => value.needsLogin || read())];
    return () => {
      ++here.number;
      clearTimeout(here.timer);
      here.timer = null;
      ends.forEach((end) => end());
    };
  }, [name]);

  useEffect(() => {
    if (state.flashing.size === 0) return undefined;
    const timer = setTimeout(() => setState((before) => ({ ...before, flashing: new Set() })), kFlash);
    return () => clearTimeout(timer);
  }, [state.flashing]);

  useEffect(() => {
    if (state.group) dropDone(name, state.group.settings);
  }, [state.group]);

  return { ...state, read };
}

function problemOf(edit) {
  try {
    wantedOf(edit);
    return null;
  } catch (error) {
    return error.message;
  }
}

// A field of one line grows with its lines. Enter saves a value of one line, and is a line break in others.
function Field({ label, id, field, isDisabled, error, onInput, onSave }) {
  const lines = field.text.split('\n').length;
  const onKeyDown = (event) => {
    if (event.key !== 'Enter' || event.isComposing) return;
    if (event.shiftKey || (lines > 1 && !event.ctrlKey)) return;
    event.preventDefault();
    onSave();
  };
  const notes = [field.hasEscapes ? `${id}-escapes` : null, error ? `${id}-error` : null].filter(Boolean).join(' ');
  return html`<textarea id=${id} aria-label=${label} rows=${Math.min(lines, 10)} disabled=${isDisabled} spellcheck=${false}
      autocomplete="off" autocapitalize="off" value=${field.text} aria-invalid=${error ? 'true' : undefined} aria-describedby=${notes || undefined}
      onInput=${(event) => onInput({ ...field, text: event.target.value })} onKeyDown=${onKeyDown}></textarea>
    ${field.hasEscapes ? html`<p class="hint" id=${`${id}-escapes`}>With escapes: ${'\\n, \\t, \\r, \\\\, \\xHH'}</p>` : null}
    ${error ? html`<p class="hint bad-text" id=${`${id}-error`}>${error}</p>` : null}`;
}

function Conflict({ group, name, edit, setting }) {
  const keep = () => setEdit(group, name, { ...edit, base: setting?.value });
  return html`<div class="conflict" role="group" aria-label=${`Two values of ${spellName(name)}`}>
    <p><strong>Changed by somebody else.</strong> On the device now: <${Value} value=${setting?.value} /></p>
    <div class="actions">
      <button type="button" onClick=${() => dropEdit(group, name)}>Take theirs</button>
      <button type="button" onClick=${keep}>Keep mine</button>
    </div>
  </div>`;
}

function SettingText({ name, setting, isMasked, isFlashing }) {
  return html`<li class=${`setting ${isFlashing ? 'flash' : ''}`}>
    <span class="key"><code>${spellName(name) || '(empty key)'}</code></span>
    <div class="cell"><${Value} value=${setting.value} isMasked=${isMasked} /></div>
    <span class="origin"><${Origin} origin=${setting.origin} /></span>
  </li>`;
}

function Setting({ group, name, setting, edit, isFlashing, index, onSave, onRemove }) {
  const field = edit?.kind === 'set' ? edit.field : toField(setting?.value ?? '');
  const base = edit ? edit.base : setting?.value;
  const onInput = (typed) => {
    const next = { kind: 'set', base, field: typed };
    const isSame = setting && problemOf(next) === null && isSameValue(fromField(typed), setting.value);
    if (isSame) dropEdit(group, name);
    else setEdit(group, name, next);
  };
  const spelled = spellName(name) || '(empty key)';
  const isUnset = edit?.kind === 'unset';
  return html`<li class=${`setting ${edit ? 'edited' : ''} ${isFlashing ? 'flash' : ''}`}>
    <label class="key" for=${`value-${index}`}><code>${spelled}</code></label>
    <div class="cell">
      <${Field} id=${`value-${index}`} label=${spelled} field=${field} isDisabled=${isUnset} onInput=${onInput} onSave=${onSave}
        error=${edit ? problemOf(edit) : null} />
      ${edit && !isConflict(edit, setting) ? html`<p class="hint">
        ${isUnset ? 'Goes back to its default. ' : null}Now: <${Value} value=${setting?.value} /></p>` : null}
      ${edit && isConflict(edit, setting) ? html`<${Conflict} group=${group} name=${name} edit=${edit} setting=${setting} />` : null}
    </div>
    <span class="origin">${setting ? html`<${Origin} origin=${setting.origin} />` : html`<${Badge} kind="new">new</${Badge}>`}</span>
    <span class="actions">
      ${edit ? html`<button type="button" class="plain" aria-label=${`Undo the edit of ${spelled}`} onClick=${() => dropEdit(group, name)}>Undo</button>` : null}
      ${!edit && setting?.origin === 'user' ? html`<button type="button" class="plain" aria-label=${`Reset ${spelled}`}
        onClick=${() => setEdit(group, name, { kind: 'unset', base: setting.value })}>Reset</button>` : null}
      ${!edit && setting ? html`<button type="button" class="plain" aria-label=${`Remove ${spelled}`} onClick=${() => onRemove(name)}>Remove</button>` : null}
      ${has('history') ? html`<a class="plain" aria-label=${`History of ${spelled}`} href=${linkTo('history', { name: group, key: name })}>History</a>` : null}
    </span>
  </li>`;
}

function AddSetting({ group, settings }) {
  const [key, setKey] = useState('');
  const isKnown = settings.has(toName(key)) || editsOf(group).has(toName(key));
  const add = (event) => {
    event.preventDefault();
    if (key === '' || isKnown) return;
    setEdit(group, toName(key), { kind: 'set', base: undefined, field: { text: '', hasEscapes: false } });
    setKey('');
  };
  return html`<form class="add" onSubmit=${add}>
    <label class="field">Another setting
      <input type="text" placeholder="key" value=${key} spellcheck=${false} autocomplete="off" autocapitalize="off"
        onInput=${(event) => setKey(event.target.value)} /></label>
    <button disabled=${key === '' || isKnown}>Add</button>
    ${isKnown ? html`<p class="hint">The group has it already.</p>` : null}
  </form>`;
}

// One conflict: whose value is to count. choice: {whose, field}.
function Choice({ name, edit, setting, index, choice, onChange }) {
  const spelled = spellName(name);
  const radio = (whose, text, value) => html`<label class="option"><input type="radio" name=${`whose-${index}`}
    checked=${choice.whose === whose} onChange=${() => onChange({ ...choice, whose })} /> ${text} ${value}</label>`;
  const mine = edit.kind === 'unset' ? html`<span class="quiet">its default</span>` : html`<code class="value">${edit.field.text}</code>`;
  return html`<fieldset class="whose"><legend><code>${spelled}</code></legend>
    ${radio('theirs', 'Theirs:', html`<${Value} value=${setting?.value} />`)}
    ${radio('mine', 'Mine:', mine)}
    ${radio('edit', 'Edit:', null)}
    <textarea rows="1" aria-label=${`Another value of ${spelled}`} spellcheck=${false} value=${choice.field.text}
      onInput=${(event) => onChange({ whose: 'edit', field: { ...choice.field, text: event.target.value } })}></textarea>
  </fieldset>`;
}

// Somebody else has changed what is edited here: asks whose values are to count, before anything is saved.
function ConflictDialog({ group, settings, onDone, onClose }) {
  const edits = editsOf(group.name);
  const keys = findConflicts(edits, settings);
  const [choices, setChoices] = useState(new Map());
  const choiceOf = (key) => choices.get(key)
    ?? { whose: null, field: edits.get(key).kind === 'set' ? edits.get(key).field : toField(settings.get(key)?.value ?? '') };
  const problem = (key) => choiceOf(key).whose === 'edit' ? problemOf({ kind: 'set', field: choiceOf(key).field }) : null;
  const isReady = keys.every((key) => choiceOf(key).whose !== null && problem(key) === null);
  const decide = () => {
    for (const key of keys) {
      const { whose, field } = choiceOf(key);
      const base = settings.get(key)?.value; // the one that is shown
      if (whose === 'theirs') dropEdit(group.name, key);
      else setEdit(group.name, key, { ...edits.get(key), ...(whose === 'edit' ? { kind: 'set', field } : {}), base });
    }
    onDone();
  };
  return html`<${Dialog} title="Somebody else changed this, too" onClose=${onClose} isWide>
    <p>Nothing of it was saved. Which value is to count?</p>
    ${keys.map((key, index) => html`<${Choice} key=${key} name=${key} index=${index} edit=${edits.get(key)} setting=${settings.get(key)}
      choice=${choiceOf(key)} onChange=${(choice) => setChoices(new Map(choices).set(key, choice))} />`)}
    <footer><button type="button" onClick=${onClose}>Cancel</button>
      <button type="button" class="primary" disabled=${!isReady} onClick=${decide}>Go on</button></footer>
  </${Dialog}>`;
}

function differencesOf(name, edits, settings) {
  return [...edits].map(([key, edit]) => ({
    group: name, key, old: settings.get(key)?.value, new: wantedOf(edit), unset: edit.kind === 'unset',
  }));
}

// Shows what would change, and saves it.
function ReviewDialog({ group, settings, onSaved, onConflict, onClose }) {
  const edits = editsOf(group.name);
  const [seconds, setSeconds] = useState(0);
  const [run, isBusy, problem] = useAction();
  const confirm = async () => {
    const answer = await run(async () => {
      try {
        return await save(group.name, edits, group.exists, seconds);
      } catch (failure) {
        if (failure.status === 412) return { isConflict: true };
        if (failure.isUnknown) onSaved(false);
        throw failure;
      }
    });
    if (answer?.isConflict) onConflict();
    else if (answer) onSaved(true, answer.pending);
  };
  return html`<${Dialog} title=${`Save ${count(edits.size, 'change')}`} onClose=${onClose} isWide>
    <p class="quiet">in <code>${spellName(group.name)}</code></p>
    <${ChangeTable} caption="What changes" showsGroup=${false} changes=${differencesOf(group.name, edits, settings)} />
    ${has('trial') ? html`<${TrialChoice} seconds=${seconds} onChange=${setSeconds} />` : null}
    <${ProblemBox} problem=${problem} />
    <footer><button type="button" onClick=${onClose}>Go on editing</button>
      <button type="button" class="primary" disabled=${isBusy || edits.size === 0} onClick=${confirm}>Save</button></footer>
  </${Dialog}>`;
}

function SaveBar({ name, edits, onReview }) {
  const isWrong = [...edits.values()].some((edit) => problemOf(edit) !== null);
  return html`<div class="save-bar" role="region" aria-label="Unsaved changes">
    <strong>${count(edits.size, 'unsaved change')}</strong>
    <div class="actions">
      <button type="button" onClick=${() => dropEdits(name)}>Discard</button>
      <button type="button" class="primary" disabled=${isWrong} onClick=${onReview}>Review and save</button>
    </div>
  </div>`;
}

function DeleteDialog({ group, onDone, onClose }) {
  const remove = () => ask('DELETE', 'group', { query: { name: group.name }, headers: { 'If-Match': `"${group.version}"` } });
  return html`<${Confirm} title="Delete this group?" word="Delete" isDanger act=${remove} onDone=${onDone} onClose=${onClose}>
    <p><code>${spellName(group.name)}</code> and its ${count(group.settings.size, 'setting')} go. Defaults of it do not come back by themselves.</p>
  </${Confirm}>`;
}

// No condition of a change takes a default away: the group is replaced as a whole, which the device does for the version
// that is shown here alone.
function RemoveDialog({ group, name, onDone, onClose }) {
  const [seconds, setSeconds] = useState(0);
  const spelled = spellName(name) || '(empty key)';
  const isFromUser = group.settings.get(name)?.origin === 'user';
  const remove = () => ask('PATCH', 'group', {
    query: { name: group.name, confirm: seconds > 0 ? seconds : null }, body: { [name]: null }, headers: { 'If-Match': `"${group.version}"` },
  });
  return html`<${Confirm} title="Remove this setting?" word="Remove" isDanger act=${remove} onDone=${onDone} onClose=${onClose}>
    <p><code>${spelled}</code> of <code>${spellName(group.name)}</code> goes, and so does its default: it shows again once the whole group is reset.</p>
    <p>Other settings of the group stay as they are, and count as set by users from then on.</p>
    ${isFromUser ? html`<p class="quiet">Reset takes away what users set alone.</p>` : null}
    ${has('trial') ? html`<${TrialChoice} seconds=${seconds} onChange=${setSeconds} />` : null}
  </${Confirm}>`;
}

function ResetDialog({ group, onDone, onClose }) {
  const [seconds, setSeconds] = useState(0);
  const own = [...group.settings].filter(([, setting]) => setting.origin === 'user');
  const change = { unset: { [group.name]: [] } };
  const reset = () => ask('POST', 'apply', { body: seconds > 0 ? { ...change, confirm: seconds } : change });
  return html`<${Confirm} title="Back to the defaults?" word="Reset" act=${reset} onDone=${onDone} onClose=${onClose}>
    <p>${count(own.length, 'setting')} of <code>${spellName(group.name)}</code> that users set:</p>
    <${ChangeTable} caption="What goes" showsGroup=${false}
      changes=${own.map(([key, setting]) => ({ group: group.name, key, old: setting.value, unset: true }))} />
    ${has('trial') ? html`<${TrialChoice} seconds=${seconds} onChange=${setSeconds} />` : null}
  </${Confirm}>`;
}

function GroupHead({ group, isWritable, onDelete, onReset }) {
  const parts = (spellName(group.name) || '(empty name)').split('/');
  const hasOwn = [...group.settings.values()].some((setting) => setting.origin === 'user');
  return html`<header class="view-head group-head">
    <a class="back" href=${linkTo('browse')}>‹ All groups</a>
    <h1 tabindex="-1" id="group-name">${parts.map((part, index) => html`${index > 0 ? html`<span class="quiet">/</span><wbr />` : null}${part}`)}</h1>
    <p class="facts">
      ${group.exists ? html`<${Origin} origin=${group.origin} /> ${count(group.settings.size, 'setting')}` : 'This group is not there yet.'}
      ${device.value?.read_only ? html`<${Badge} kind="restricted">read only</${Badge}>` : null}
    </p>
    <div class="actions">
      ${has('history') ? html`<a class="button" href=${linkTo('history', { name: group.name })}>History</a>` : null}
      ${isWritable && group.exists && hasOwn ? html`<button type="button" onClick=${onReset}>Reset…</button>` : null}
      ${isWritable && group.exists ? html`<button type="button" class="danger-text" onClick=${onDelete}>Delete…</button>` : null}
    </div>
  </header>`;
}

function Settings({ group, edits, flashing, isWritable, onSave, onRemove }) {
  const [showsAll, setShowsAll] = useState(false);
  const names = [...new Set([...group.settings.keys(), ...(isWritable ? edits.keys() : [])])];
  const shown = showsAll ? names : names.slice(0, kMaxShown);
  return html`<ul class="settings">
    ${shown.map((key, index) => (isWritable
      ? html`<${Setting} key=${key} group=${group.name} name=${key} index=${index} setting=${group.settings.get(key)} edit=${edits.get(key)}
          isFlashing=${flashing.has(key)} onSave=${onSave} onRemove=${onRemove} />`
      : html`<${SettingText} key=${key} name=${key} setting=${group.settings.get(key)} isMasked=${group.masked} isFlashing=${flashing.has(key)} />`))}
    </ul>
    ${names.length > shown.length ? html`<button type="button" onClick=${() => setShowsAll(true)}>Show all ${names.length} settings</button>` : null}
    ${names.length === 0 && group.exists ? html`<p class="quiet">An empty group: it is there, and has no settings.</p>` : null}`;
}

export function GroupView({ name }) {
  const { group, problem, flashing, read } = useGroup(name);
  useValue(device);
  useValue(drafts);
  const [dialog, setDialog] = useState(null);
  const [removed, setRemoved] = useState(null);
  const edits = editsOf(name);
  if (!group) return html`<section class="view"><${Loading} isLoading=${!problem} isEmpty /><${ProblemBox} problem=${problem} /></section>`;

  const isWritable = canWrite() && group.origin !== 'restricted';
  const close = () => setDialog(null);
  const review = () => {
    if (edits.size === 0 || [...edits.values()].some((edit) => problemOf(edit) !== null)) return;
    setDialog(findConflicts(edits, group.settings).length > 0 ? 'conflict' : 'review');
  };
  const onSaved = (isDone, trial) => {
    if (isDone) {
      dropEdits(name);
      close();
    }
    read();
    keepLater(trial);
  };
  const onConflict = async () => {
    close();
    await read();
    setDialog('conflict');
  };
  const onDecided = () => setDialog(editsOf(name).size > 0 ? 'review' : null);
  const onRemove = (key) => {
    setRemoved(key);
    setDialog('remove');
  };
  const onRemoved = (answer) => {
    close();
    read();
    keepLater(answer.pending);
  };
  const onGone = () => {
    close();
    go('browse');
  };
  const hasConflicts = findConflicts(edits, group.settings).length > 0;
  return html`<section class="view" aria-labelledby="group-name">
    <${GroupHead} group=${group} isWritable=${isWritable} onDelete=${() => setDialog('delete')} onReset=${() => setDialog('reset')} />
    <${ProblemBox} problem=${problem} />
    ${group.origin === 'restricted' ? html`<p class="note">Files on the device set this group; nobody can write it here.
      ${group.masked ? ' Its values are not shown.' : null}</p>` : null}
    <${Settings} group=${group} edits=${edits} flashing=${flashing} isWritable=${isWritable} onSave=${review} onRemove=${onRemove} />
    ${isWritable ? html`<${AddSetting} group=${name} settings=${group.settings} />` : null}
    ${edits.size > 0 ? html`<${SaveBar} name=${name} edits=${edits} onReview=${review} />` : null}
    ${dialog === 'review' || (dialog === 'conflict' && !hasConflicts) ? html`<${ReviewDialog} group=${group} settings=${group.settings} onSaved=${onSaved} onConflict=${onConflict} onClose=${close} />` : null}
    ${dialog === 'conflict' && hasConflicts ? html`<${ConflictDialog} group=${group} settings=${group.settings} onDone=${onDecided} onClose=${close} />` : null}
    ${dialog === 'delete' ? html`<${DeleteDialog} group=${group} onDone=${onGone} onClose=${close} />` : null}
    ${dialog === 'remove' ? html`<${RemoveDialog} group=${group} name=${removed} onDone=${onRemoved} onClose=${close} />` : null}
    ${dialog === 'reset' ? html`<${ResetDialog} group=${group} onDone=${(answer) => onSaved(true, answer.pending)} onClose=${close} />` : null}
  </section>`;
}
