// What users set and deleted, against the defaults; and the way back to these, also for all groups of a pattern.
import { useState } from './vendor/standalone.module.js';
import { ask, canWrite } from './store.js';
import { count, spellName, toName } from './text.js';
import { Badge, Confirm, GroupLink, html, Loading, ProblemBox, useAction, useLoad, useReload, Value, View } from './ui.js';

const kMaxGroups = 200;

function namesOf(preview) {
  return [...new Set([...preview.groups, ...preview.deleted])];
}

function ResetDialog({ pattern, preview, onDone, onClose }) {
  const names = namesOf(preview);
  return html`<${Confirm} title=${`Reset ${count(names.length, 'group')}?`} word=${`Reset ${count(names.length, 'group')}`}
      act=${() => ask('POST', 'reset', { body: { groups: [pattern] } })} onDone=${onDone} onClose=${onClose}>
    <p>All that users set or deleted in <code>${spellName(pattern)}</code> goes, and the defaults show again:</p>
    <ul class="plain-list">${names.slice(0, 20).map((name) => html`<li key=${name}><code>${spellName(name)}</code>
      ${preview.deleted.includes(name) ? html` <${Badge} kind="new">comes back</${Badge}>` : null}</li>`)}</ul>
    ${names.length > 20 ? html`<p>and ${count(names.length - 20, 'group')} more.</p>` : null}
  </${Confirm}>`;
}

// Deletes what a pattern matches, one group after the other: each only as it was when it was listed.
async function deleteAll(groups, onProgress) {
  for (const [index, group] of groups.entries()) {
    await ask('DELETE', 'group', { query: { name: group.name }, headers: { 'If-Match': `"${group.version}"` } });
    onProgress(index + 1);
  }
  return { deleted: groups.length };
}

function DeleteDialog({ pattern, groups, onDone, onClose }) {
  const [done, setDone] = useState(0);
  return html`<${Confirm} title=${`Delete ${count(groups.length, 'group')}?`} word=${`Delete ${count(groups.length, 'group')}`} isDanger
      act=${() => deleteAll(groups, setDone)} onDone=${onDone} onClose=${onClose}>
    <p>These match <code>${spellName(pattern)}</code>. Their defaults do not come back by themselves.</p>
    <ul class="plain-list">${groups.slice(0, 20).map((group) => html`<li key=${group.name}><code>${spellName(group.name)}</code></li>`)}</ul>
    ${groups.length > 20 ? html`<p>and ${count(groups.length - 20, 'group')} more.</p>` : null}
    ${done > 0 ? html`<p role="status">${done} of ${groups.length} deleted.</p>` : null}
  </${Confirm}>`;
}

async function listGroups(pattern) {
  const groups = [];
  for (let after = null; ;) {
    const part = await ask('GET', 'groups', { query: { pattern, after } });
    groups.push(...part.groups.filter((group) => group.origin !== 'restricted'));
    if (part.next === null) return { groups };
    after = part.next;
  }
}

// A pattern, and what may be done to all groups that match.
function PatternTools({ pattern, setPattern, onChanged }) {
  const [run, isBusy, problem] = useAction();
  const [dialog, setDialog] = useState(null);
  const [done, setDone] = useState('');
  const name = toName(pattern);
  const prepare = async (kind) => {
    setDone('');
    const found = await run(() => (kind === 'reset' ? ask('POST', 'reset', { body: { groups: [name], dryRun: true } }) : listGroups(name)));
    if (!found) return;
    const number = kind === 'reset' ? namesOf(found).length : found.groups.length;
    if (number === 0) setDone(kind === 'reset' ? 'Nothing there differs from its defaults.' : 'No group matches that may be deleted.');
    else setDialog({ kind, found });
  };
  const finish = (text) => {
    setDialog(null);
    setDone(text);
    onChanged();
  };
  return html`<div class="tools">
      <label class="field">Groups, with “*” for any text
        <input type="text" value=${pattern} spellcheck=${false} autocomplete="off" autocapitalize="off" onInput=${(event) => setPattern(event.target.value)} /></label>
      ${canWrite() ? html`<button type="button" disabled=${isBusy || pattern === ''} onClick=${() => prepare('reset')}>Reset these…</button>
        <button type="button" class="danger-text" disabled=${isBusy || pattern === ''} onClick=${() => prepare('delete')}>Delete these…</button>` : null}
    </div>
    <p role="status">${done}</p>
    <${ProblemBox} problem=${problem} />
    ${dialog?.kind === 'reset' ? html`<${ResetDialog} pattern=${name} preview=${dialog.found} onClose=${() => setDialog(null)}
      onDone=${(answer) => finish(`${count(answer.changes.length, 'setting')} went back.`)} />` : null}
    ${dialog?.kind === 'delete' ? html`<${DeleteDialog} pattern=${name} groups=${dialog.found.groups} onClose=${() => { setDialog(null); onChanged(); }}
      onDone=${(answer) => finish(`${count(answer.deleted, 'group')} deleted.`)} />` : null}`;
}

function byGroup(changes) {
  const groups = new Map();
  for (const change of changes) groups.set(change.group, [...(groups.get(change.group) ?? []), change]);
  return groups;
}

export function DifferencesView() {
  const [pattern, setPattern] = useState('*');
  const name = toName(pattern);
  const { data, problem, isLoading, reload } = useLoad(() => ask('GET', 'diff', { query: { pattern: name === '' ? null : name } }), [name]);
  useReload(reload, isLoading);
  const groups = byGroup(data?.changes ?? []);
  const shown = [...groups].slice(0, kMaxGroups);
  return html`<${View} title="Differences to the defaults">
    <p class="quiet">What users set and deleted. All else is as the device came.</p>
    <${PatternTools} pattern=${pattern} setPattern=${setPattern} onChanged=${reload} />
    <${ProblemBox} problem=${problem} />
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    ${data && groups.size === 0 && data.deleted.length === 0 ? html`<p>Nothing differs.</p>` : null}
    ${data?.deleted.length > 0 ? html`<h2>Deleted</h2><ul class="feed">${data.deleted.map((one) => html`<li key=${one}><${GroupLink} name=${one} /></li>`)}</ul>` : null}
    ${groups.size > 0 ? html`<h2>Set by users</h2>` : null}
    <ul class="feed">${shown.map(([group, changes]) => html`<li key=${group} class="difference"><${GroupLink} name=${group} />
      <ul>${changes.map((change) => html`<li key=${change.key}><code>${spellName(change.key)}</code>${' = '}<${Value} value=${change.new} /></li>`)}</ul></li>`)}</ul>
    ${groups.size > shown.length ? html`<p class="quiet">And ${count(groups.size - shown.length, 'group')} more: narrow the pattern.</p>` : null}
  </${View}>`;
}
