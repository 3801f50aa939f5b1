// What the device reports: changes as they come, resources, subscribers, log levels.
import { useState } from './vendor/standalone.module.js';
import { recent } from './live.js';
import { ask, canWrite, useValue } from './store.js';
import { count, spellName, valueAt } from './text.js';
import { GroupLink, html, Loading, ProblemBox, useAction, useLoad, useReload, Value, View } from './ui.js';

const kMaxKeys = 20;

function ChangedSettings({ change }) {
  if (change.gone) return html`<span>was deleted</span>`;
  if (change.old === null) return html`<span>is new, with ${count(Object.keys(change.new).length, 'setting')}</span>`;
  if (change.keys.length === 0) return html`<span>changed</span>`;
  return html`<ul>${change.keys.slice(0, kMaxKeys).map((key) => html`<li key=${key}><code>${spellName(key)}</code>:
      <${Value} value=${valueAt(change.old, key)} /> → <${Value} value=${valueAt(change.new, key)} /></li>`)}
    ${change.keys.length > kMaxKeys ? html`<li>and ${count(change.keys.length - kMaxKeys, 'setting')} more</li>` : null}</ul>`;
}

export function ChangesView() {
  const list = useValue(recent);
  const [held, setHeld] = useState(null);
  const shown = held ?? list;
  const behind = held ? list.filter((change) => change.number > (held[0]?.number ?? 0)).length : 0;
  const button = html`<button type="button" aria-pressed=${held !== null} onClick=${() => setHeld(held ? null : list)}>${held ? 'Go on' : 'Hold'}</button>`;
  return html`<${View} title="Changes" actions=${button}>
    <p class="quiet">As they come; the last 200 since this page was opened.</p>
    ${behind > 0 ? html`<p role="status">${count(behind, 'change')} since.</p>` : null}
    ${shown.length === 0 ? html`<p>Nothing has changed yet.</p>` : null}
    <ul class="feed">${shown.map((change) => html`<li key=${change.number}><${GroupLink} name=${change.group} />
      <${ChangedSettings} change=${change} /><time>${new Date(change.time).toLocaleTimeString()}</time></li>`)}</ul>
  </${View}>`;
}

function Consumer({ consumer, total }) {
  const name = spellName(consumer.consumer);
  const limit = consumer.most === null ? '' : `, at most ${consumer.most.toLocaleString('en')}`;
  return html`<div class="bar-row"><span>${name}</span>
    <meter min="0" max=${Math.max(1, total)} value=${consumer.used} aria-label=${`${name}: ${consumer.used} of ${total}`}></meter>
    <span class="number">${consumer.used.toLocaleString('en')}${limit}</span></div>`;
}

function Resource({ resource }) {
  const name = spellName(resource.resource);
  const max = Math.max(1, resource.total);
  return html`<li>
    <div class="bar-head"><h2>${name}</h2>
      <span>${resource.used.toLocaleString('en')} of ${resource.total.toLocaleString('en')} used, ${resource.free.toLocaleString('en')} free</span></div>
    <meter min="0" max=${max} high=${max * 0.9} optimum="0" low=${max * 0.7} value=${resource.used} aria-label=${`${name}: ${resource.used} of ${resource.total} used`}></meter>
    ${resource.consumers.map((consumer) => html`<${Consumer} key=${consumer.consumer} consumer=${consumer} total=${resource.total} />`)}
  </li>`;
}

export function ResourcesView() {
  const { data, problem, isLoading, reload } = useLoad(() => ask('GET', 'resources'), []);
  useReload(reload, isLoading, (group) => group.startsWith('Resources/'));
  return html`<${View} title="Resources">
    <p class="quiet">What programs have booked of what they share.</p>
    <${ProblemBox} problem=${problem} />
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    ${data?.length === 0 ? html`<p>This device has none.</p>` : null}
    <ul class="bars">${(data ?? []).map((resource) => html`<${Resource} key=${resource.resource} resource=${resource} />`)}</ul>
  </${View}>`;
}

export function SubscribersView() {
  const { data, problem, isLoading, reload } = useLoad(() => ask('GET', 'subscribers'), []);
  const button = html`<button type="button" disabled=${isLoading} onClick=${reload}>Read again</button>`;
  return html`<${View} title="Subscribers" actions=${button}>
    <p class="quiet">What programs ask to be told of: names of groups, and patterns.</p>
    <${ProblemBox} problem=${problem} />
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    ${data?.length === 0 ? html`<p>Nobody has subscribed.</p>` : null}
    <ul class="feed">${(data ?? []).slice(0, 1000).map((name) => html`<li key=${name}><code>${spellName(name) || '(empty name)'}</code></li>`)}</ul>
  </${View}>`;
}

const kLevels = ['emergency', 'alert', 'critical', 'error', 'warning', 'notice', 'information', 'debug', 'trace'];

function Level({ group, level, onChanged }) {
  const [run, isBusy, problem] = useAction();
  const name = spellName(group);
  const isKnown = typeof level === 'string' && kLevels[Number(level)] !== undefined;
  const set = async (event) => {
    const levels = await run(() => ask('PATCH', 'log-levels', { body: { [group]: event.target.value } }));
    if (levels) onChanged();
  };
  return html`<li class="level"><${GroupLink} name=${group} />
    ${canWrite() && level !== null ? html`<select aria-label=${`Log level of ${name}`} disabled=${isBusy} value=${String(level)} onChange=${set}>
        ${isKnown ? null : html`<option value=${String(level)}><${Value} value=${level} /></option>`}
        ${kLevels.map((text, number) => html`<option key=${text} value=${String(number)}>${number} ${text}</option>`)}
      </select>` : html`<span>${isKnown ? kLevels[Number(level)] : html`<${Value} value=${level} isMasked=${level === null} />`}</span>`}
    <${ProblemBox} problem=${problem} /></li>`;
}

export function LogLevelsView() {
  const { data, problem, isLoading, reload } = useLoad(() => ask('GET', 'log-levels'), []);
  const groups = Object.keys(data ?? {});
  useReload(reload, isLoading);
  return html`<${View} title="Log levels">
    <p class="quiet">How much each program logs. A change counts at once.</p>
    <${ProblemBox} problem=${problem} />
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    ${data && groups.length === 0 ? html`<p>No program has a log level.</p>` : null}
    <ul class="feed">${groups.map((group) => html`<${Level} key=${group} group=${group} level=${data[group]} onChanged=${reload} />`)}</ul>
  </${View}>`;
}
