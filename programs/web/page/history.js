// Who changed what, and the way back. A rollback shows what it would change before it does so.
import { useEffect, useRef, useState } from './vendor/standalone.module.js';
import { save } from './drafts.js';
import { readGroup } from './group.js';
import { ask, canWrite, go, has, keepLater, linkTo } from './store.js';
import { count, kDeletedGroups, nameOf, showAuthor, showTime, spellName, spellValue, toField, toName } from './text.js';
import {
  Badge, ChangeTable, Confirm, Dialog, GroupLink, html, Loading, ProblemBox, TrialChoice, useAction, useLoad, useReload, View,
} from './ui.js';

const kPage = 30;
const kMaxEmptyParts = 20; // of the history, that are passed over at once

// Whether a change is about one group: a setting of it, or that users deleted it. name: null stands for all groups.
function isAbout(name, change) {
  return name === null || change.group === name
    || (change.group === kDeletedGroups && [change.old, change.new].some((value) => value && nameOf(value) === name));
}

// What a rollback would change: {changes, isAlone}. Of a name with a "*", or with blanks at its ends, the device can't bring back
// that group alone where others differ, too, and refuses to: then the page itself sets what goes back.
async function preview(to, name, pattern) {
  const look = (scope) => ask('POST', 'rollback', { body: { to, ...scope, dryRun: true } });
  if (name === null) return look(pattern === '' ? {} : { pattern });
  try {
    return await look({ group: name });
  } catch (problem) {
    if (problem.status !== 409 || problem.data.group === undefined) throw problem;
    const { changes } = await look({});
    return { changes: changes.filter((change) => isAbout(name, change)), isAlone: true };
  }
}

async function bringBackAlone(name, changes, seconds) {
  const group = await readGroup(name);
  const edits = new Map(changes.map((change) => [change.key, {
    kind: change.new === null ? 'unset' : 'set', base: group.settings.get(change.key)?.value, field: toField(change.new ?? ''),
  }]));
  return { ...await save(name, edits, group.exists, seconds), changes };
}

// to: a revision, or "@NAME" of a checkpoint. name: of the only group that goes back; null: the pattern counts.
function RollbackDialog({ to, label, name, pattern, onDone, onClose }) {
  const scope = name ?? pattern;
  const [seconds, setSeconds] = useState(0);
  const { data, problem, isLoading } = useLoad(() => preview(to, name, pattern), [to, name, pattern]);
  const [run, isBusy, failure] = useAction();
  const changes = data?.changes ?? [];
  const isImpossible = data?.isAlone && changes.some((change) => change.group !== name || change.key === undefined);
  const bringBack = () => {
    if (data.isAlone) return bringBackAlone(name, changes, seconds);
    const body = { to, ...(name !== null ? { group: name } : pattern === '' ? {} : { pattern }), ...(seconds > 0 ? { confirm: seconds } : {}) };
    return ask('POST', 'rollback', { body });
  };
  const confirm = async () => {
    const answer = await run(bringBack);
    if (!answer) return;
    keepLater(answer.pending);
    onDone(`${count(answer.changes.length, 'setting')} went back.`);
  };
  const number = isImpossible ? 0 : changes.length;
  return html`<${Dialog} title="Bring back" onClose=${onClose} isWide>
    <p>Settings ${scope ? html`of <code>${spellName(scope)}</code> ` : ''}go back to ${label}. What others have changed since goes back as well.</p>
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    ${data ? html`<${ChangeTable} caption="What changes" changes=${changes} />` : null}
    ${isImpossible ? html`<p class="note bad">The device can’t have this group come or go alone: it takes its name for that of others, too.</p>` : null}
    ${number > 0 && has('trial') ? html`<${TrialChoice} seconds=${seconds} onChange=${setSeconds} />` : null}
    <${ProblemBox} problem=${failure ?? problem} />
    <footer><button type="button" onClick=${onClose}>Cancel</button>
      <button type="button" class="primary" disabled=${isBusy || number === 0} onClick=${confirm}>Bring back ${count(number, 'setting')}</button></footer>
  </${Dialog}>`;
}

function Revision({ revision, changes, onRollback }) {
  const isGap = revision.command === 'gap';
  return html`<li class="revision">
    <header>
      <strong>${revision.revision}</strong> <time datetime=${revision.time}>${showTime(revision.time)}</time>
      <span class="quiet">${showAuthor(revision.by)}, ${spellValue(revision.command)}</span>
      ${revision.trial ? html`<${Badge} kind="new">trial</${Badge}>` : null}
      ${canWrite() && has('rollback') && !isGap ? html`<button type="button" aria-label=${`Bring back revision ${revision.revision}`} onClick=${onRollback}>Bring back…</button>` : null}
    </header>
    ${revision.note ? html`<p>“${spellValue(revision.note)}”</p>` : null}
    ${isGap ? html`<p class="quiet">Revisions up to here are missing.</p>` : null}
    ${revision.omitted_bytes ? html`<p class="quiet">Too large to be shown: ${count(revision.omitted_bytes, 'byte')}.</p>` : null}
    ${changes.length > 0 ? html`<${ChangeTable} caption=${`Changes of revision ${revision.revision}`} changes=${changes} />` : null}
  </li>`;
}

function Checkpoints({ onRollback }) {
  const { data, problem, reload } = useLoad(() => ask('GET', 'checkpoints'), []);
  const [name, setName] = useState('');
  const [forgotten, setForgotten] = useState(null);
  const [run, isBusy, failure] = useAction();
  const keep = async (event) => {
    event.preventDefault();
    if (!await run(() => ask('POST', 'checkpoints', { body: { name } }))) return;
    setName('');
    reload();
  };
  const list = data?.checkpoints ?? [];
  if (problem?.status === 501) return null; // this daemon keeps none
  return html`<h2>Checkpoints</h2>
    <p class="quiet">Copies of all that users set, which stay when the history no longer goes back so far.</p>
    ${canWrite() ? html`<form class="tools" onSubmit=${keep}>
      <label class="field">Keep what is set now as <input type="text" value=${name} pattern="[A-Za-z0-9._\\-]+" maxlength="64" spellcheck=${false} autocomplete="off"
        onInput=${(event) => setName(event.target.value)} /></label>
      <button disabled=${isBusy || name === ''}>${list.some((one) => one.name === name) ? 'Replace' : 'Keep'}</button></form>` : null}
    <${ProblemBox} problem=${failure ?? problem} />
    <ul class="feed">${list.map((one) => html`<li key=${one.name}><strong>${spellName(one.name)}</strong>
      <span class="quiet">${one.damaged ? `damaged: ${spellValue(one.damaged)}` : `${showTime(one.time)}, revision ${one.revision}`}</span>
      ${canWrite() ? html`<span class="actions end">
        ${has('rollback') && !one.damaged ? html`<button type="button" aria-label=${`Bring back checkpoint ${one.name}`} onClick=${() => onRollback({ isAll: true, to: `@${one.name}`, label: html`checkpoint <strong>${one.name}</strong>` })}>Bring back…</button>` : null}
        <button type="button" class="danger-text" aria-label=${`Forget checkpoint ${one.name}`} onClick=${() => setForgotten(one.name)}>Forget…</button></span>` : null}
    </li>`)}</ul>
    ${data && list.length === 0 ? html`<p>None is kept.</p>` : null}
    ${forgotten ? html`<${Confirm} title="Forget this checkpoint?" word="Forget" isDanger onClose=${() => setForgotten(null)}
      act=${() => ask('DELETE', 'checkpoints', { query: { name: forgotten } })} onDone=${() => { setForgotten(null); reload(); }}>
      <p><strong>${forgotten}</strong> goes for good. The settings stay as they are.</p></${Confirm}>` : null}`;
}

function Filter({ pattern }) {
  const [text, setText] = useState(pattern === '' ? '' : spellName(pattern));
  const submit = (event) => {
    event.preventDefault();
    go('history', text === '' ? {} : { pattern: toName(text) });
  };
  return html`<form class="tools" onSubmit=${submit}>
    <label class="field">Groups, with “*” for any text
      <input type="text" placeholder="all" value=${text} spellcheck=${false} autocomplete="off" autocapitalize="off" onInput=${(event) => setText(event.target.value)} /></label>
    <button>Show</button>
  </form>`;
}

// query: "name" is one group, "key" one setting of it, "pattern" all groups that match.
export function HistoryView({ query }) {
  const name = query.get('name');
  const pattern = query.get('pattern') ?? '';
  const wantedKey = query.get('key');
  const isWanted = (change) => isAbout(name, change) && (wantedKey === null || change.key === wantedKey || change.group === kDeletedGroups);
  const isShown = (revision) => name === null || revision.changes.some(isWanted) || revision.command === 'gap' || revision.omitted_bytes;
  // What is about one group may lie far back, behind parts that have nothing of it.
  const read = async (before) => {
    const scope = name !== null ? { group: name } : { pattern: pattern === '' ? null : pattern };
    for (let parts = 1, from = before; ; ++parts) {
      const answer = await ask('GET', 'history', { query: { ...scope, count: kPage, before: from } });
      if (answer.next === null || parts === kMaxEmptyParts || answer.revisions.some(isShown)) return answer;
      from = answer.next;
    }
  };
  const { data, problem, isLoading, reload } = useLoad(() => read(null), [name, pattern, wantedKey]);
  const [more, setMore] = useState({ revisions: [], next: null });
  const [run, isBusy, moreProblem] = useAction();
  const [goal, setGoal] = useState(null);
  const [done, setDone] = useState('');
  const [isBehind, setIsBehind] = useState(false);
  const goesBack = useRef(false);
  goesBack.current = isBusy || more.revisions.length > 0;
  useEffect(() => {
    setMore({ revisions: [], next: data?.next ?? null });
    setIsBehind(false);
  }, [data]);
  // Earlier revisions that somebody looks at stay.
  useReload(() => (goesBack.current ? setIsBehind(true) : reload()), isLoading);
  const readMore = async () => {
    const answer = await run(() => read(more.next));
    if (answer) setMore({ revisions: [...more.revisions, ...answer.revisions], next: answer.next });
  };
  const finish = (text) => {
    setGoal(null);
    setDone(text);
    reload();
  };
  const revisions = [...(data?.revisions ?? []), ...more.revisions].filter(isShown)
    .map((revision) => ({ revision, changes: revision.changes.filter(isWanted) }));
  return html`<${View} title="History">
    <${Filter} key=${pattern} pattern=${pattern} />
    ${name === null ? null : html`<p>Only changes of ${wantedKey === null ? null : html`<code>${spellName(wantedKey)}</code> in `}<${GroupLink} name=${name} />.
      ${' '}<a href=${linkTo('history', wantedKey === null ? {} : { name })}>${wantedKey === null ? 'Show all' : 'Show all of the group'}</a></p>`}
    <p role="status">${done}</p>
    ${isBehind ? html`<p class="note" role="status">There are newer changes. <button type="button" onClick=${reload}>Show them</button></p>` : null}
    <${ProblemBox} problem=${problem ?? moreProblem} />
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    <ol class="revisions">${revisions.map(({ revision, changes }) => html`<${Revision} key=${revision.revision} revision=${revision} changes=${changes}
      onRollback=${() => setGoal({ to: revision.revision, label: html`what they were after revision <strong>${revision.revision}</strong>` })} />`)}</ol>
    ${data && revisions.length === 0 ? html`<p>${more.next ? 'None among the latest changes.' : 'No change is kept.'}</p>` : null}
    ${more.next ? html`<button type="button" disabled=${isBusy || isLoading} onClick=${readMore}>Show earlier ones</button>` : null}
    ${has('history') ? html`<${Checkpoints} onRollback=${setGoal} />` : null}
    ${goal ? html`<${RollbackDialog} to=${goal.to} label=${goal.label} name=${goal.isAll ? null : name} pattern=${goal.isAll ? '' : pattern} onDone=${finish} onClose=${() => setGoal(null)} />` : null}
  </${View}>`;
}
