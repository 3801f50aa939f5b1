// Finds text in names, keys and values.
import { useEffect, useState } from './vendor/standalone.module.js';
import { ask, go } from './store.js';
import { count, spellName, spellValue } from './text.js';
import { GroupLink, html, Loading, ProblemBox, useAction, useLoad, View } from './ui.js';

const kPlaces = { groups: 'names', keys: 'keys', values: 'values' };

// The text with the places that were looked for.
function Marked({ text, q, ignoresCase }) {
  const where = ignoresCase ? text.toLowerCase() : text;
  const what = ignoresCase ? q.toLowerCase() : q;
  const parts = [];
  let at = 0;
  // Letters whose other case has another length would move the places: such text is left unmarked.
  if (what !== '' && where.length === text.length) {
    for (let found = where.indexOf(what); found >= 0; found = where.indexOf(what, at)) {
      parts.push(text.slice(at, found), html`<mark>${text.slice(found, found + what.length)}</mark>`);
      at = found + what.length;
    }
  }
  return html`${parts}${text.slice(at)}`;
}

function Hit({ hit, q, ignoresCase }) {
  const mark = (text, isIn) => (isIn ? html`<${Marked} text=${text} q=${q} ignoresCase=${ignoresCase} />` : text);
  const name = spellName(hit.group) || '(empty name)';
  return html`<li>
    <a class="name" href=${`#/group?${new URLSearchParams({ name: hit.group })}`}>${mark(name, hit.in === 'groups')}</a>
    ${hit.key === undefined ? null : html`<span><code>${mark(spellName(hit.key), hit.in === 'keys')}</code>${' = '}
      ${hit.value === null ? html`<span class="quiet">hidden</span>` : html`<code class="value">${mark(spellValue(hit.value), hit.in === 'values')}</code>`}</span>`}
  </li>`;
}

export function SearchView({ query }) {
  const q = query.get('q') ?? '';
  const places = (query.get('in') ?? Object.keys(kPlaces).join(',')).split(',');
  const ignoresCase = query.get('case') !== '1';
  const find = (next) => ask('GET', 'search', { query: { q, in: places.join(','), ignoreCase: ignoresCase ? '1' : null, ...next } });
  const { data, problem, isLoading } = useLoad(() => (q === '' ? Promise.resolve({ hits: [], next: null }) : find({})), [q, places.join(','), ignoresCase]);
  const [more, setMore] = useState({ hits: [], next: null });
  const [run, isBusy, moreProblem] = useAction();
  useEffect(() => setMore({ hits: [], next: data?.next ?? null }), [data]);

  const change = (values) => go('search', { q, in: places.join(','), case: ignoresCase ? '0' : '1', ...values });
  const toggle = (place, isOn) => {
    const next = Object.keys(kPlaces).filter((one) => (one === place ? isOn : places.includes(one)));
    if (next.length > 0) change({ in: next.join(',') });
  };
  const readMore = async () => {
    const answer = await run(() => find(more.next));
    if (answer) setMore({ hits: [...more.hits, ...answer.hits], next: answer.next });
  };
  const hits = [...(data?.hits ?? []), ...more.hits];
  return html`<${View} title="Search">
    <fieldset class="tools"><legend class="unseen">Where to look</legend>
      ${Object.entries(kPlaces).map(([place, text]) => html`<label key=${place}><input type="checkbox" checked=${places.includes(place)}
        onChange=${(event) => toggle(place, event.target.checked)} />${text}</label>`)}
      <label><input type="checkbox" checked=${!ignoresCase} onChange=${(event) => change({ case: event.target.checked ? '1' : '0' })} />as written, capitals count</label>
    </fieldset>
    <${ProblemBox} problem=${problem ?? moreProblem} />
    <${Loading} isLoading=${isLoading} isEmpty=${!data} />
    <p role="status">${q === '' ? 'Type what to look for.' : data && !isLoading ? html`${count(hits.length, 'hit')}${more.next ? ' so far' : ''} for <code>${spellValue(q)}</code>` : null}</p>
    <ul class="feed">${hits.map((hit, index) => html`<${Hit} key=${index} hit=${hit} q=${q} ignoresCase=${ignoresCase} />`)}</ul>
    ${more.next ? html`<button type="button" disabled=${isBusy} onClick=${readMore}>Show more</button>` : null}
  </${View}>`;
}
