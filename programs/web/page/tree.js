// The names of all groups as a tree. Parts are read when they are opened. However long the list is, only the rows that
// are in sight are drawn.
import { useEffect, useLayoutEffect, useRef, useState } from './vendor/standalone.module.js';
import { changed, lastReset } from './live.js';
import { drafts } from './drafts.js';
import { ask, canWrite, go, session, State, useValue } from './store.js';
import { count, spellName, toName } from './text.js';
import { Dialog, html, ProblemBox } from './ui.js';

const kRowHeight = 32; // px, as style.css has it
const kMaxRows = 56; // of five elements at most
const kMargin = 6; // rows drawn above and below of what is in sight
const kMaxReads = 3; // of names that go on coming and going while they are read

// What has been read: prefixes, each a Map of the names of its parts.
class Tree {
  rows = new State([]);
  problem = new State(null);
  #levels = new Map();
  #open = new Set();
  #changes = 0; // groups that may have come or gone

  // An answer may lack what came while it was on its way, which the tree had taken in already: it is read again then.
  async load(prefix) {
    try {
      for (let reads = 0, seen = -1; reads < kMaxReads && seen !== this.#changes; ++reads) {
        seen = this.#changes;
        const { parts } = await ask('GET', 'tree', { query: { prefix } });
        this.#levels.set(prefix, new Map(parts.map((part) => [part.name, part])));
      }
      this.problem.set(null);
    } catch (problem) {
      this.problem.set(problem);
    }
    this.#layOut();
  }

  async reload() {
    await Promise.all(['', ...this.#open].map((prefix) => this.load(prefix)));
  }

  isOpen(prefix) {
    return this.#open.has(prefix);
  }

  async setOpen(prefix, isOpen) {
    if (isOpen) this.#open.add(prefix);
    else this.#open.delete(prefix);
    if (isOpen && !this.#levels.has(prefix)) await this.load(prefix);
    else this.#layOut();
  }

  // Opens all that a group lies in.
  async reveal(name) {
    for (let at = name.indexOf('/'); at >= 0; at = name.indexOf('/', at + 1)) {
      if (!this.#levels.has(name.slice(0, at + 1))) await this.load(name.slice(0, at + 1));
      this.#open.add(name.slice(0, at + 1));
    }
    this.#layOut();
  }

  // Takes in groups that came and went, without reading again what may be many names.
  apply(changes) {
    let isOther = false;
    for (const change of changes.values()) {
      if (change.gone || change.old === null || change.old === undefined) ++this.#changes;
      if (change.gone) isOther = this.#add(change.group, -1) || isOther;
      else if (change.old === null || (change.old === undefined && this.#misses(change.group))) {
        isOther = this.#add(change.group, 1) || isOther;
      }
    }
    if (isOther) this.#layOut();
  }

  #misses(name) {
    const level = this.#levels.get(name.slice(0, name.lastIndexOf('/') + 1));
    return level !== undefined && !level.has(name);
  }

  #add(name, difference) {
    const parent = this.#levels.get(name.slice(0, name.lastIndexOf('/') + 1));
    if (parent && parent.has(name) === difference > 0) return false; // it is known already
    for (let at = 0; at >= 0;) {
      const slash = name.indexOf('/', at);
      const level = this.#levels.get(name.slice(0, at));
      if (level) this.#addPart(level, slash < 0 ? name : name.slice(0, slash + 1), slash < 0, difference);
      at = slash < 0 ? -1 : slash + 1;
    }
    return true;
  }

  #addPart(level, name, isGroup, difference) {
    const part = level.get(name) ?? { name, isGroup, count: 0 };
    const left = part.count + difference;
    if (left > 0) level.set(name, { ...part, count: left });
    else level.delete(name);
  }

  #layOut() {
    const rows = [];
    this.#addRows(rows, '', 1);
    this.rows.set(rows);
  }

  // "a" and "a/" are one row, which is a group and holds others.
  #addRows(rows, prefix, level) {
    const parts = this.#levels.get(prefix);
    if (!parts) return;
    const names = [];
    for (const [name, part] of parts) {
      if (!part.isGroup || !parts.has(`${name}/`)) names.push(name);
    }
    names.sort((a, b) => (a < b ? -1 : 1));
    names.forEach((name, index) => {
      const part = parts.get(name);
      const branch = part.isGroup ? null : name;
      const group = part.isGroup ? name : parts.get(name.slice(0, -1))?.isGroup ? name.slice(0, -1) : null;
      const row = {
        id: branch ?? `=${group}`, branch, group, prefix, level, position: index + 1, size: names.length,
        count: branch ? part.count : 0, isOpen: branch !== null && this.#open.has(branch),
      };
      rows.push(row);
      if (row.isOpen) this.#addRows(rows, branch, level + 1);
    });
  }
}

// Of a row that is drawn or looked for: most of a long list never are.
function labelOf({ branch, group, prefix }) {
  const whole = spellName(branch ? branch.slice(0, -1) : group);
  const before = spellName(prefix);
  return (whole.startsWith(before) ? whole.slice(before.length) : whole) || '(empty)';
}

const tree = new Tree();

export function followTree() {
  const reload = () => session.value.needsLogin || tree.reload();
  changed.subscribe((changes) => tree.apply(changes));
  lastReset.subscribe(reload);
  reload();
}

function Row({ row, isActive, isChosen, hasDraft, top, onPick }) {
  return html`<div role="treeitem" id=${isActive ? 'active-row' : undefined} class=${`row ${isChosen ? 'chosen' : ''} ${isActive ? 'active' : ''}`}
    aria-level=${row.level} aria-setsize=${row.size} aria-posinset=${row.position} aria-selected=${isChosen}
    aria-expanded=${row.branch === null ? undefined : row.isOpen} style=${{ top: `${top}px`, paddingLeft: `${8 + Math.min(row.level - 1, 8) * 16}px` }}
    title=${spellName(row.group ?? row.branch)} onClick=${() => onPick(row)}>
    <span class=${`twist ${row.branch === null ? '' : row.isOpen ? 'open' : 'shut'}`} aria-hidden="true"></span>
    <span class=${`label ${row.group === null ? 'branch' : ''}`}>${labelOf(row)}</span>
    ${hasDraft ? html`<span class="dot" title="unsaved edits"><span class="unseen">unsaved edits</span></span>` : null}
    ${row.branch === null ? null : html`<span class="count" aria-hidden="true">${row.count.toLocaleString('en')}</span>`}
  </div>`;
}

// The part of the rows that is in sight, and how that part is followed.
function useSight(frame) {
  const [sight, setSight] = useState({ top: 0, height: 640 });
  useLayoutEffect(() => {
    const element = frame.current;
    const look = () => setSight((before) => {
      const [top, height] = [element.scrollTop, element.clientHeight];
      return before.top === top && before.height === height ? before : { top, height };
    });
    const observer = new ResizeObserver(look); // looks once there is a layout, and forces none
    element.addEventListener('scroll', look, { passive: true });
    observer.observe(element);
    return () => {
      element.removeEventListener('scroll', look);
      observer.disconnect();
    };
  }, []);
  const first = Math.max(0, Math.floor(sight.top / kRowHeight) - kMargin);
  return { first, last: first + Math.min(kMaxRows, Math.ceil(sight.height / kRowHeight) + 2 * kMargin) };
}

function scrollTo(element, index) {
  const top = index * kRowHeight;
  if (top < element.scrollTop) element.scrollTop = top;
  if (top + kRowHeight > element.scrollTop + element.clientHeight) element.scrollTop = top + kRowHeight - element.clientHeight;
}

async function open(row, setActive) {
  if (row.branch !== null && (row.group === null || !row.isOpen)) await tree.setOpen(row.branch, !row.isOpen);
  if (row.group !== null) go('group', { name: row.group });
  setActive(row.id);
}

function parentOf(rows, index) {
  for (let at = index - 1; at >= 0; --at) {
    if (rows[at].level < rows[index].level) return at;
  }
  return index;
}

// The keys of a tree as the ARIA practices have them. Returns the index of the next active row; undefined: not a key.
function onTreeKey(key, rows, index, page) {
  const row = rows[index];
  switch (key) {
    case 'ArrowDown': return Math.min(index + 1, rows.length - 1);
    case 'ArrowUp': return Math.max(index - 1, 0);
    case 'PageDown': return Math.min(index + page, rows.length - 1);
    case 'PageUp': return Math.max(index - page, 0);
    case 'Home': return 0;
    case 'End': return rows.length - 1;
    case 'ArrowRight':
      if (row?.branch === null) return index;
      if (row.isOpen) return Math.min(index + 1, rows.length - 1);
      tree.setOpen(row.branch, true);
      return index;
    case 'ArrowLeft':
      if (row?.isOpen) tree.setOpen(row.branch, false);
      else return parentOf(rows, index);
      return index;
    default:
  }
  if (key.length !== 1 || key === '/' || key === ' ') return undefined;
  const order = [...rows.keys()].map((at) => (index + 1 + at) % rows.length);
  return order.find((at) => labelOf(rows[at]).toLowerCase().startsWith(key.toLowerCase()));
}

function NewGroup({ onClose }) {
  const [name, setName] = useState('');
  const create = (event) => {
    event.preventDefault();
    onClose();
    go('group', { name: toName(name) });
  };
  return html`<${Dialog} title="New group" onClose=${onClose}>
    <form onSubmit=${create}>
      <label class="field">Name, with “/” between its parts
        <input type="text" value=${name} autofocus spellcheck=${false} autocomplete="off" onInput=${(event) => setName(event.target.value)} /></label>
      <p class="quiet">The group is made when its first setting is saved.</p>
      <footer><button type="button" onClick=${onClose}>Cancel</button><button class="primary" disabled=${name === ''}>Go on</button></footer>
    </form>
  </${Dialog}>`;
}

export function TreePane({ chosen }) {
  const rows = useValue(tree.rows);
  const problem = useValue(tree.problem);
  const edited = useValue(drafts);
  const [active, setActive] = useState(null);
  const [isMaking, setIsMaking] = useState(false);
  const frame = useRef(null);
  const { first, last } = useSight(frame);

  useEffect(() => {
    if (chosen === null) return;
    tree.reveal(chosen).then(() => {
      const index = tree.rows.value.findIndex((row) => row.group === chosen);
      if (index < 0 || !frame.current) return;
      setActive(tree.rows.value[index].id);
      scrollTo(frame.current, index);
    });
  }, [chosen]);

  const index = Math.max(0, rows.findIndex((row) => row.id === active));
  const onKeyDown = (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey || rows.length === 0) return;
    if (event.key === 'Enter' || event.key === ' ') {
      event.preventDefault();
      open(rows[index], setActive);
      return;
    }
    const next = onTreeKey(event.key, rows, index, Math.floor(frame.current.clientHeight / kRowHeight));
    if (next === undefined) return;
    event.preventDefault();
    setActive(rows[next].id);
    scrollTo(frame.current, next);
  };
  // What has the focus is drawn wherever it is: a screen reader looks for it.
  const drawn = rows.slice(first, last).map((row, at) => ({ row, at: first + at }));
  if (rows[index] && (index < first || index >= last)) drawn.push({ row: rows[index], at: index });
  const total = rows.reduce((sum, row) => (row.level === 1 ? sum + (row.branch === null ? 1 : row.count + (row.group === null ? 0 : 1)) : sum), 0);

  return html`<div class="tree-pane">
    <header class="pane-head"><h2>${count(total, 'group')}</h2>
      ${canWrite() ? html`<button type="button" onClick=${() => setIsMaking(true)}>New group</button>` : null}</header>
    <${ProblemBox} problem=${problem} />
    <div class="tree" role="tree" aria-label="Groups" tabindex="0" ref=${frame} onKeyDown=${onKeyDown}
      aria-activedescendant=${rows.length > 0 ? 'active-row' : undefined}>
      <div class="rows" role="none" style=${{ height: `${rows.length * kRowHeight}px` }}>
        ${drawn.map(({ row, at }) => html`<${Row} key=${row.id} row=${row} top=${at * kRowHeight} isActive=${at === index}
          isChosen=${row.group !== null && row.group === chosen} hasDraft=${edited.has(row.group)} onPick=${(picked) => open(picked, setActive)} />`)}
      </div>
    </div>
    ${isMaking ? html`<${NewGroup} onClose=${() => setIsMaking(false)} />` : null}
  </div>`;
}
