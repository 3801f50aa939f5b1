// The page itself: what is around its views, and which of them is shown.
import { render, useEffect, useRef, useState } from './vendor/standalone.module.js';
import { drafts } from './drafts.js';
import { GroupView } from './group.js';
import { connection, followChanges, lastReset, recent } from './live.js';
import {
  announce, ask, canWrite, device, followKeeping, go, has, keeping, linkTo, pending, readDevice, refreshPending, route, session,
  stopKeeping, useValue,
} from './store.js';
import { count, showAuthor, spellName, valueAt } from './text.js';
import { followTree, TreePane } from './tree.js';
import { Dialog, GroupLink, html, Loading, ProblemBox, useAction, Value, View } from './ui.js';

// Views that are read when they are first opened.
const kViews = {
  search: { title: 'Search', load: () => import('./search.js'), part: 'SearchView', isHidden: true },
  changes: { title: 'Changes', load: () => import('./reports.js'), part: 'ChangesView' },
  differences: { title: 'Differences', load: () => import('./differences.js'), part: 'DifferencesView' },
  history: { title: 'History', load: () => import('./history.js'), part: 'HistoryView', feature: 'history' },
  resources: { title: 'Resources', load: () => import('./reports.js'), part: 'ResourcesView' },
  subscribers: { title: 'Subscribers', load: () => import('./reports.js'), part: 'SubscribersView' },
  'log-levels': { title: 'Log levels', load: () => import('./reports.js'), part: 'LogLevelsView' },
  backup: { title: 'Backup', load: () => import('./backup.js'), part: 'BackupView' },
};

const kMaxPaint = 1000; // ms

const kConnections = {
  connecting: 'connecting…', live: 'live', lost: 'no daemon', offline: 'not reached',
};

// Whether somebody has logged in is kept for other visits: the cookie itself can't be seen from here.
const kLoginMark = 'tavix-settings-login';

function markLogin(isIn) {
  try {
    if (isIn) localStorage.setItem(kLoginMark, '1');
    else localStorage.removeItem(kLoginMark);
  } catch {
    // A browser that keeps nothing shows no button to log out after the next visit.
  }
}

function hasLogin() {
  try {
    return localStorage.getItem(kLoginMark) === '1';
  } catch {
    return false;
  }
}

function Login() {
  const [password, setPassword] = useState('');
  const [run, isBusy, problem] = useAction();
  const element = useRef(null);
  useEffect(() => element.current.showModal(), []);
  const submit = async (event) => {
    event.preventDefault();
    if (!await run(() => ask('POST', 'login', { body: { password } }))) return;
    markLogin(true);
    session.set({ needsLogin: false, round: session.value.round + 1 });
    readDevice().then(refreshPending, () => {});
  };
  return html`<dialog ref=${element} aria-label="Log in" onCancel=${(event) => event.preventDefault()}>
    <header><h2>Log in</h2></header>
    <form onSubmit=${submit}>
      <p class="quiet">to the settings of <strong>${location.host}</strong></p>
      <input type="text" autocomplete="username" value="settings" hidden />
      <label class="field">Password
        <input type="password" autocomplete="current-password" autofocus value=${password} onInput=${(event) => setPassword(event.target.value)} /></label>
      ${problem ? html`<div class="note bad" role="alert"><strong>${problem.message}</strong></div>` : null}
      <footer><button class="primary" disabled=${isBusy || password === ''}>Log in</button></footer>
    </form>
  </dialog>`;
}

async function logOut() {
  await ask('POST', 'logout').catch(() => {});
  markLogin(false);
  session.set({ ...session.value, needsLogin: true });
}

// The seconds that are left, drawn each second.
function useSecondsLeft(end) {
  const [, redraw] = useState(null);
  const seconds = Math.max(0, Math.ceil((end - Date.now()) / 1000));
  useEffect(() => {
    const timer = setInterval(() => {
      redraw({});
      if (Date.now() > end) refreshPending();
    }, 1000);
    return () => clearInterval(timer);
  }, [end]);
  return seconds;
}

// due: when this tab keeps the change by itself; undefined: it does not.
function TrialEnd({ seconds, due }) {
  const wait = Math.max(0, Math.ceil((due - Date.now()) / 1000));
  const back = html`<span class="seconds">${seconds}</span> s until it goes back`;
  if (due === undefined) return back;
  return html`${back}, unless this page still gets through ${wait > 0 ? `in ${wait} s` : 'now'}`;
}

function Trial({ trial }) {
  const [run, isBusy, problem] = useAction();
  const seconds = useSecondsLeft(trial.end);
  const due = useValue(keeping).get(trial.name)?.due;
  useEffect(() => announce(`A change is on trial for ${seconds} seconds`), [trial.name]);
  const end = (method, path, options, text) => async () => {
    stopKeeping(trial.name);
    if (await run(() => ask(method, path, options))) announce(text);
    refreshPending();
  };
  const groups = [...new Set(trial.changes.map((change) => change.group))];
  return html`<li class="trial">
    <p><strong>On trial: ${count(trial.changes.length, 'setting')}</strong> of ${groups.slice(0, 3).map((name, index) => html`${index > 0 ? ', ' : ''}<${GroupLink} name=${name} />`)}
      ${groups.length > 3 ? ` and ${groups.length - 3} more` : null}
      ${trial.own ? null : html` <span class="quiet">by others (${showAuthor(trial.by)})</span>`}</p>
    <p class="countdown"><${TrialEnd} seconds=${seconds} due=${due} /></p>
    ${trial.own && canWrite() ? html`<div class="actions">
      <button type="button" disabled=${isBusy} onClick=${end('DELETE', 'pending', { query: { name: trial.name } }, 'The change was taken back')}>Take back</button>
      <button type="button" class="primary" disabled=${isBusy} onClick=${end('POST', 'pending/confirm', { body: { name: trial.name } }, 'The change is kept')}>Keep</button>
    </div>` : null}
    <${ProblemBox} problem=${problem} />
  </li>`;
}

function Trials() {
  const list = useValue(pending);
  if (list.length === 0) return null;
  return html`<section class="trials" aria-label="Changes on trial"><ul>
    ${list.map((trial) => html`<${Trial} key=${trial.name} trial=${trial} />`)}
  </ul></section>`;
}

function Unsaved({ here }) {
  const names = [...useValue(drafts).keys()].filter((name) => name !== here);
  if (names.length === 0) return null;
  return html`<p class="unsaved">Unsaved edits in ${names.map((name, index) => html`${index > 0 ? ', ' : ''}<${GroupLink} name=${name} />`)}</p>`;
}

function SearchField() {
  const { path, query } = useValue(route);
  const [text, setText] = useState('');
  useEffect(() => { if (path === 'search') setText(query.get('q') ?? ''); }, [path, query]);
  const submit = (event) => {
    event.preventDefault();
    if (text !== '') go('search', { q: text });
  };
  return html`<form class="search" role="search" onSubmit=${submit}>
    <input id="search" type="search" aria-label="Search names, keys and values" aria-keyshortcuts="/" placeholder="Search  /" value=${text}
      autocomplete="off" spellcheck=${false} onInput=${(event) => setText(event.target.value)} />
  </form>`;
}

function Navigation({ path }) {
  const [isOpen, setIsOpen] = useState(false);
  useValue(device);
  useEffect(() => setIsOpen(false), [path]);
  const entries = Object.entries(kViews).filter(([, view]) => !view.isHidden && (!view.feature || has(view.feature)));
  const isCurrent = (name) => (name === path || (name === 'browse' && path === 'group') ? 'page' : undefined);
  return html`<nav aria-label="Views" class=${isOpen ? 'open' : ''}>
    <button type="button" class="menu" aria-expanded=${isOpen} onClick=${() => setIsOpen(!isOpen)}>Menu</button>
    <ul>
      <li><a href=${linkTo('browse')} aria-current=${isCurrent('browse')}>Browse</a></li>
      ${entries.map(([name, view]) => html`<li key=${name}><a href=${linkTo(name)} aria-current=${isCurrent(name)}>${view.title}</a></li>`)}
      ${hasLogin() ? html`<li class="last"><button type="button" class="plain" onClick=${logOut}>Log out</button></li>` : null}
    </ul>
  </nav>`;
}

function Connection() {
  const state = useValue(connection);
  return html`<p class=${`connection ${state}`} role="status"><span class="lamp" aria-hidden="true"></span>${kConnections[state]}</p>`;
}

function Overview() {
  const status = useValue(device);
  const changes = useValue(recent).slice(0, 12);
  const facts = status ? [
    ['Daemon', status.server], ['Groups', status.groups?.toLocaleString('en')], ['Settings', status.settings?.toLocaleString('en')],
    ['Version', status.version],
  ].filter(([, value]) => value !== undefined) : [];
  return html`<${View} title="Settings of this device">
    <dl class="facts-list">${facts.map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd>${value}</dd></div>`)}</dl>
    <h2>Latest changes</h2>
    ${changes.length === 0 ? html`<p class="quiet">None since this page was opened. They appear here as they come.</p>`
      : html`<ul class="feed">${changes.map((change) => html`<li key=${change.number}><${GroupLink} name=${change.group} />
        <${ChangedKeys} change=${change} /></li>`)}</ul>`}
    <p class="quiet keys"><kbd>/</kbd> search <kbd>↑</kbd> <kbd>↓</kbd> <kbd>←</kbd> <kbd>→</kbd> in the list <kbd>Enter</kbd> open <kbd>Esc</kbd> back to the list</p>
  </${View}>`;
}

function ChangedKeys({ change }) {
  if (change.gone) return html`<span>was deleted</span>`;
  if (change.old === null) return html`<span>is new</span>`;
  if (change.keys.length === 0) return html`<span>changed</span>`;
  return html`<span>${change.keys.slice(0, 3).map((key) => html`<span class="one"><code>${spellName(key)}</code> → <${Value} value=${valueAt(change.new, key)} /></span>`)}
    ${change.keys.length > 3 ? `and ${change.keys.length - 3} more` : null}</span>`;
}

function Browse({ name }) {
  return html`<div class=${`browse ${name === null ? '' : 'has-group'}`}>
    <${TreePane} chosen=${name} />
    <div class="detail">${name === null ? html`<${Overview} />` : html`<${GroupView} key=${name} name=${name} />`}</div>
  </div>`;
}

function LazyView({ view, query }) {
  const [loaded, setLoaded] = useState({});
  useEffect(() => {
    view.load().then((module) => setLoaded({ view, Part: module[view.part] }), (problem) => setLoaded({ view, problem }));
  }, [view]);
  if (loaded.view !== view) return html`<section class="view"><${Loading} isLoading isEmpty /></section>`;
  if (loaded.problem) return html`<section class="view"><p class="note bad" role="alert">This view could not be read. Load the page again.</p></section>`;
  return html`<${loaded.Part} query=${query} />`;
}

function Page() {
  const { path, query } = useValue(route);
  const { needsLogin } = useValue(session);
  const view = valueAt(kViews, path);
  const name = path === 'group' ? query.get('name') : null;
  useEffect(() => {
    window.scrollTo(0, 0);
    document.title = `${name === null ? view?.title ?? 'Settings' : spellName(name)} – ${location.host}`;
  }, [path, name]);
  return html`<a class="skip" href="#main" onClick=${(event) => { event.preventDefault(); document.getElementById('main').focus(); }}>To the content</a>
    <header class="top">
      <a class="brand" href=${linkTo('browse')}><img src="icon.svg" alt="" width="24" height="24" /> Settings</a>
      <${SearchField} />
      <${Connection} />
    </header>
    <${Navigation} path=${path} />
    <div class="content">
      <${Trials} />
      <${Unsaved} here=${name} />
      <main id="main" tabindex="-1">${view ? html`<${LazyView} view=${view} query=${query} />` : html`<${Browse} name=${name} />`}</main>
    </div>
    ${needsLogin ? html`<${Login} />` : null}`;
}

// "/" goes to the search, Esc back to the list of groups. Dialogs have their own Esc.
function onKey(event) {
  const isTyping = /^(input|textarea|select)$/i.test(event.target.tagName);
  if (event.key === '/' && !isTyping && !event.ctrlKey && !event.altKey && !event.metaKey) {
    event.preventDefault();
    document.getElementById('search').focus();
  }
  if (event.key === 'Escape' && !document.querySelector('dialog[open]')) {
    const list = document.querySelector('.tree');
    if (list?.offsetParent) list.focus();
    else document.getElementById('main').focus();
  }
}

// Resolves once what lies in index.html is painted; at once where nobody looks.
function awaitPaint() {
  return new Promise((resolve) => {
    setTimeout(resolve, document.hidden ? 0 : kMaxPaint);
    requestAnimationFrame(() => setTimeout(resolve));
  });
}

async function begin() {
  const page = document.getElementById('page');
  followTree(); // beside all else: it takes a while
  await awaitPaint();
  page.textContent = '';
  render(html`<${Page} />`, page);
  window.addEventListener('keydown', onKey);
  document.addEventListener('visibilitychange', () => document.hidden || refreshPending());
  await readDevice().catch(() => {});
  lastReset.subscribe(() => readDevice().then(refreshPending, () => {}));
  connection.subscribe((state) => state === 'live' && !device.value && readDevice().then(refreshPending, () => {}));
  followChanges();
  followKeeping();
  refreshPending();
}

begin();
