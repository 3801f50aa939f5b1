// Backups: a file of all settings, or of what users set; and one brought back, behind a look at what that would change.
import { useState } from './vendor/standalone.module.js';
import { ask, canWrite, device, Problem, useValue } from './store.js';
import { count, spellName, toName } from './text.js';
import { ChangeTable, Confirm, html, ProblemBox, useAction, View } from './ui.js';

const kMaxBytes = 1024 * 1024; // of a request, unless the program was told otherwise
const kModes = {
  merge: 'Add to what is there',
  replace: 'Replace the groups that the backup is about',
  'replace-user': 'Replace what users set',
};

function Export() {
  const [pattern, setPattern] = useState('');
  const [format, setFormat] = useState('ini');
  const [isUser, setIsUser] = useState(false);
  const query = new URLSearchParams({ format, ...(pattern ? { pattern: toName(pattern) } : {}), ...(isUser ? { user: '1' } : {}) });
  return html`<h2>Make a backup</h2>
    <div class="tools">
      <label class="field">Groups, with “*” for any text
        <input type="text" placeholder="all" value=${pattern} spellcheck=${false} autocomplete="off" onInput=${(event) => setPattern(event.target.value)} /></label>
      <label class="field narrow">Form <select value=${format} onChange=${(event) => setFormat(event.target.value)}>
        <option value="ini">settings text</option><option value="json">JSON</option></select></label>
      <label><input type="checkbox" checked=${isUser} onChange=${(event) => setIsUser(event.target.checked)} />only what users set</label>
      <a class="button" download=${`settings.${format}`} href=${`api/v1/export?${query}`}>Save to a file</a>
    </div>`;
}

function Gone({ gone }) {
  const names = [...gone.deleted, ...gone.reset];
  if (names.length === 0) return null;
  return html`<p class="note bad"><strong>${count(names.length, 'group')}</strong> that the backup does not have ${names.length === 1 ? 'goes' : 'go'}:
    ${' '}${names.slice(0, 10).map(spellName).join(', ')}${names.length > 10 ? ' and more' : ''}</p>`;
}

function ImportDialog({ preview, mode, act, onDone, onClose }) {
  const number = preview.changes.length + (preview.gone ? preview.gone.deleted.length + preview.gone.reset.length : 0);
  return html`<${Confirm} title=${`Bring back ${count(number, 'difference')}?`} word="Bring back" isDanger=${mode !== 'merge'} act=${act} onDone=${onDone} onClose=${onClose}>
    ${preview.gone ? html`<${Gone} gone=${preview.gone} />` : null}
    <${ChangeTable} caption="What changes" changes=${preview.changes} />
  </${Confirm}>`;
}

// As they are: values that are not UTF-8 would not survive as text.
async function readBytes(file) {
  try {
    return new Uint8Array(await file.arrayBuffer());
  } catch {
    throw new Problem(0, { detail: 'The file can’t be read. Choose it again.' });
  }
}

function Import() {
  const [file, setFile] = useState(null);
  const [mode, setMode] = useState('merge');
  const [pattern, setPattern] = useState('');
  const [preview, setPreview] = useState(null);
  const [done, setDone] = useState('');
  const [run, isBusy, problem] = useAction();
  const send = (bytes, isDryRun) => ask('POST', 'import', {
    query: { mode, pattern: pattern === '' ? null : toName(pattern), dryRun: isDryRun ? '1' : null }, body: bytes,
  });
  const show = async (event) => {
    event.preventDefault();
    setDone('');
    let bytes = null;
    const answer = await run(async () => {
      bytes = await readBytes(file);
      return send(bytes, true);
    });
    const isEmpty = answer && answer.changes.length === 0 && !answer.gone?.deleted.length && !answer.gone?.reset.length;
    if (isEmpty) setDone('The device holds all of it already.');
    else if (answer) setPreview({ ...answer, bytes });
  };
  const finish = (answer) => {
    setPreview(null);
    setDone(`${count(answer.differences, 'difference')} brought back.`);
  };
  return html`<h2>Bring one back</h2>
    <form class="import" onSubmit=${show}>
      <div class="tools">
        <label class="field">File <input type="file" accept=".ini,.json,.txt,text/plain,application/json" onChange=${(event) => setFile(event.target.files[0] ?? null)} /></label>
        <label class="field">Only groups, with “*” for any text
          <input type="text" placeholder="all of the file" value=${pattern} spellcheck=${false} autocomplete="off" onInput=${(event) => setPattern(event.target.value)} /></label>
      </div>
      <fieldset><legend class="unseen">How</legend>
        ${Object.entries(kModes).map(([name, text]) => html`<label class="option" key=${name}><input type="radio" name="mode" checked=${mode === name} onChange=${() => setMode(name)} />${text}</label>`)}
      </fieldset>
      ${file && file.size > kMaxBytes ? html`<p class="note">This file is large: the device takes ${count(kMaxBytes, 'byte')} unless it is told otherwise.</p>` : null}
      <button class="primary" disabled=${isBusy || !file}>Show what it changes…</button>
    </form>
    <p role="status">${done}</p>
    <${ProblemBox} problem=${problem} />
    ${preview ? html`<${ImportDialog} preview=${preview} mode=${mode} act=${() => send(preview.bytes, false)} onDone=${finish} onClose=${() => setPreview(null)} />` : null}`;
}

export function BackupView() {
  useValue(device);
  return html`<${View} title="Backup"><${Export} />${canWrite() ? html`<${Import} />` : null}</${View}>`;
}
