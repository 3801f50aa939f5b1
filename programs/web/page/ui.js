// Parts that several views share.
import { html, useEffect, useLayoutEffect, useRef, useState } from './vendor/standalone.module.js';
import { changed, lastReset } from './live.js';
import { session, useValue } from './store.js';
import { count, kDeletedGroups, nameOf, spellName, spellValue } from './text.js';

const kMaxRows = 300;
const kReload = 1000; // ms

export { html };

// What a request answers: {data, problem, isLoading, reload}. It is made again when one of "inputs" changes, when
// changes were missed, and behind a login. The last answer stays until the next one is there.
export function useLoad(load, inputs) {
  const [state, setState] = useState({ isLoading: true });
  const [asked, reload] = useState(0);
  const reset = useValue(lastReset);
  const { round } = useValue(session);
  useEffect(() => {
    let isCurrent = true;
    setState((before) => ({ ...before, isLoading: true }));
    load().then(
      (data) => isCurrent && setState({ data, isLoading: false }),
      (problem) => isCurrent && setState((before) => ({ data: before.data, problem, isLoading: false })),
    );
    return () => { isCurrent = false; };
  }, [...inputs, asked, reset, round]);
  return { ...state, reload: () => reload((times) => times + 1) };
}

// Reads again what useLoad() has read when a group that matters has changed: at most each second, and not while it is
// being read.
export function useReload(reload, isLoading, matters = () => true) {
  const busy = useRef(isLoading);
  busy.current = isLoading;
  useEffect(() => {
    let timer = null;
    const again = () => {
      timer = busy.current ? setTimeout(again, kReload) : null;
      if (timer === null) reload();
    };
    const end = changed.subscribe((groups) => {
      if (timer === null && [...groups.keys()].some(matters)) timer = setTimeout(again, kReload);
    });
    return () => {
      end();
      clearTimeout(timer);
    };
  }, []);
}

// What runs one request at a time: [run, isBusy, problem]. run: resolves to the answer, or to nothing when it failed.
export function useAction() {
  const [state, setState] = useState({ isBusy: false, problem: null });
  const run = async (action) => {
    setState({ isBusy: true, problem: null });
    try {
      const answer = await action();
      setState({ isBusy: false, problem: null });
      return answer ?? {};
    } catch (problem) {
      setState({ isBusy: false, problem });
      return undefined;
    }
  };
  return [run, state.isBusy, state.problem];
}

export function ProblemBox({ problem }) {
  if (!problem || problem.status === 401) return null;
  const line = problem.data?.line ? html` <span>(line ${problem.data.line})</span>` : null;
  const isUnknown = problem.data?.outcome === 'unknown';
  return html`<div class="note bad" role="alert">
    <strong>${problem.message}</strong>${line}
    ${isUnknown ? html`<p>It is not known whether the change was made. The values here are read anew.</p>` : null}
  </div>`;
}

export function Value({ value, isMasked }) {
  if (isMasked) return html`<span class="quiet">hidden</span>`;
  if (value === undefined || value === null) return html`<span class="quiet">not set</span>`;
  const text = spellValue(value);
  return text === '' ? html`<span class="quiet">empty</span>` : html`<code class="value">${text}</code>`;
}

export function Badge({ kind, children }) {
  return html`<span class=${`badge ${kind}`}>${children}</span>`;
}

const kOrigins = { user: 'set by users', default: 'default', restricted: 'restricted', mixed: 'partly set by users' };

export function Origin({ origin }) {
  return html`<${Badge} kind=${origin}>${kOrigins[origin] ?? origin}</${Badge}>`;
}

export function GroupLink({ name }) {
  const query = new URLSearchParams({ name });
  return html`<a class="name" href=${`#/group?${query}`}>${spellName(name) || '(empty name)'}</a>`;
}

// A dialog that holds the focus; Esc and the button beside its title close it.
export function Dialog({ title, onClose, children, isWide }) {
  const element = useRef(null);
  useLayoutEffect(() => {
    const opener = document.activeElement;
    element.current.showModal();
    return () => opener?.isConnected && opener.focus();
  }, []);
  const onCancel = (event) => {
    event.preventDefault();
    onClose();
  };
  return html`<dialog ref=${element} class=${isWide ? 'wide' : ''} aria-label=${title} onCancel=${onCancel}>
    <header><h2>${title}</h2><button type="button" class="plain" aria-label="Close" onClick=${onClose}>✕</button></header>
    ${children}
  </dialog>`;
}

// Asks before something is done. act: the request; onDone gets its answer.
export function Confirm({ title, word, act, onDone, onClose, isDanger, children }) {
  const [run, isBusy, problem] = useAction();
  const confirm = async () => {
    const answer = await run(act);
    if (answer) onDone(answer);
  };
  return html`<${Dialog} title=${title} onClose=${onClose}>
    ${children}
    <${ProblemBox} problem=${problem} />
    <footer>
      <button type="button" onClick=${onClose}>Cancel</button>
      <button type="button" class=${isDanger ? 'danger' : 'primary'} disabled=${isBusy} onClick=${confirm}>${word}</button>
    </footer>
  </${Dialog}>`;
}

// Of the record of what users deleted, in which values are names and patterns.
function DeletionRow({ change }) {
  const isDeleted = change.new !== undefined && change.new !== null;
  const name = nameOf(isDeleted ? change.new : change.old);
  return html`<tr>
    <th scope="row">${name.includes('*') ? html`<code>${spellName(name)}</code>` : html`<${GroupLink} name=${name} />`}</th>
    <td colspan="3"><span class="quiet">${isDeleted ? 'deleted: its defaults no longer show' : 'no longer deleted: its defaults show again'}</span></td>
  </tr>`;
}

function ChangeRow({ change, showsGroup }) {
  const name = spellName(change.key ?? '');
  const isGroup = change.key === undefined || change.key === null;
  if (change.group === kDeletedGroups && !isGroup) return html`<${DeletionRow} change=${change} />`;
  return html`<tr>
    ${showsGroup ? html`<th scope="row"><${GroupLink} name=${change.group} /></th>` : null}
    ${isGroup
      ? html`<td colspan="3"><span class="quiet">the group ${change.event === 'group added' ? 'came' : 'went'}</span></td>`
      : html`<td class="key"><code>${name || '(empty key)'}</code></td>
        <td class="before" data-label="before"><${Value} value=${change.old} /></td>
        <td class="after" data-label="after">${change.unset
          ? html`<span class="quiet">its default</span>` : html`<${Value} value=${change.new} />`}</td>`}
  </tr>`;
}

// changes: {group, key, old, new}, or {group, event}.
export function ChangeTable({ changes, caption, showsGroup = true }) {
  if (changes.length === 0) return html`<p class="quiet">No differences.</p>`;
  const more = changes.length - kMaxRows;
  return html`<div class="table-frame" tabindex="0" role="region" aria-label=${caption}>
    <table class="changes">
      <caption class="unseen">${caption}</caption>
      <thead><tr>
        ${showsGroup ? html`<th scope="col">Group</th>` : null}
        <th scope="col">Setting</th><th scope="col">Before</th><th scope="col">After</th>
      </tr></thead>
      <tbody>${changes.slice(0, kMaxRows).map((change) => html`<${ChangeRow} change=${change} showsGroup=${showsGroup} />`)}</tbody>
    </table>
    ${more > 0 ? html`<p class="quiet">And ${count(more, 'change')} more.</p>` : null}
  </div>`;
}

// seconds: how long a change is on trial; 0: it is not.
export function TrialChoice({ seconds, onChange }) {
  const [typed, setTyped] = useState(null); // what has not been left yet stays, whatever else is drawn anew
  const take = (text) => {
    setTyped(null);
    onChange(Math.min(600, Math.max(10, Number(text) || 90)));
  };
  return html`<fieldset class="choice">
    <legend>If the change cuts you off</legend>
    <label><input type="checkbox" checked=${seconds > 0} onChange=${(event) => onChange(event.target.checked ? 90 : 0)} />
      Take it back by itself</label>
    ${seconds > 0 ? html`<label>after <input type="number" min="10" max="600" value=${typed ?? seconds}
      onInput=${(event) => setTyped(event.target.value)} onChange=${(event) => take(event.target.value)} /> seconds,</label>
      <span>unless this page gets through before</span>` : null}
  </fieldset>`;
}

export function View({ title, actions, children }) {
  return html`<section class="view" aria-label=${title}>
    <header class="view-head"><h1 tabindex="-1">${title}</h1><div class="actions">${actions}</div></header>
    ${children}
  </section>`;
}

export function Loading({ isLoading, isEmpty }) {
  return isLoading && isEmpty ? html`<p class="quiet" role="status">Reading…</p>` : null;
}
