// Names and values as people read and type them. The interface has bytes that are not UTF-8 as base64: a name as
// "base64:...", a value as {base64: "..."}. Here they are shown, and typed, with escapes: \xff is one byte.

const kNamePrefix = 'base64:';

// Where the daemon records what users deleted.
export const kDeletedGroups = 'TavixSettings/Data/DeletedGroups';

// Bytes that a reader could not see, or that would make the text look like another: controls, and what turns the
// direction of writing.
const kUnseen = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/;
const kUnseenInField = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/;
const kShort = { '\n': '\\n', '\t': '\\t', '\r': '\\r', '\\': '\\\\' };

function toBytes(base64) {
  return Uint8Array.from(atob(base64), (c) => c.charCodeAt(0));
}

function toBase64(bytes) {
  let text = '';
  for (const byte of bytes) text += String.fromCharCode(byte);
  return btoa(text);
}

function hex(byte) {
  return `\\x${byte.toString(16).padStart(2, '0')}`;
}

function escapeChar(c) {
  return kShort[c] ?? [...new TextEncoder().encode(c)].map(hex).join('');
}

// A value of the interface that is the name of a group, as the interface has names.
export function nameOf(value) {
  return typeof value === 'string' ? toName(value) : kNamePrefix + value.base64;
}

// Text that is UTF-8 stays readable; of all else each byte is an escape.
function spellBytes(bytes) {
  let spelled = '';
  for (let at = 0; at < bytes.length;) {
    const length = [1, 2, 3, 4].find((count) => isCharacter(bytes.subarray(at, at + count), count));
    spelled += length ? spellText(new TextDecoder('utf-8', { ignoreBOM: true }).decode(bytes.subarray(at, at + length)))
      : hex(bytes[at]);
    at += length ?? 1;
  }
  return spelled;
}

function isCharacter(bytes, count) {
  if (bytes.length !== count) return false;
  try {
    return [...new TextDecoder('utf-8', { fatal: true, ignoreBOM: true }).decode(bytes)].length === 1;
  } catch {
    return false;
  }
}

function spellText(text) {
  return [...text].map((c) => (c === '\\' || kUnseen.test(c) ? escapeChar(c) : c)).join('');
}

// A name or key of the interface, for reading alone.
export function spellName(name) {
  if (name.startsWith(kNamePrefix)) return spellBytes(toBytes(name.slice(kNamePrefix.length)));
  return kUnseen.test(name) ? spellText(name) : name;
}

// A value of the interface, for reading on one line. null: there is none, or it is masked.
export function spellValue(value) {
  if (value === null || value === undefined) return '';
  if (typeof value !== 'string') return spellBytes(toBytes(value.base64));
  return kUnseen.test(value) ? spellText(value) : value;
}

// What an object of the interface holds under a name; undefined: nothing. Each object has parts of its own, such as
// "constructor", which names of settings may be, too.
export function valueAt(values, name) {
  return Object.prototype.hasOwnProperty.call(values, name) ? values[name] : undefined;
}

export function isSameValue(a, b) {
  return (a?.base64 ?? a) === (b?.base64 ?? b) && typeof a === typeof b;
}

// A value as a field has it: text, and whether that text has escapes. A text with line feeds and tabs is typed as it is.
export function toField(value) {
  if (typeof value === 'string' && !kUnseenInField.test(value)) return { text: value, hasEscapes: false };
  return { text: spellValue(value), hasEscapes: true };
}

// The value that a field stands for. Throws Error for an escape that is none.
export function fromField({ text, hasEscapes }) {
  if (!hasEscapes) return text.replace(/\r\n?/g, '\n');
  const bytes = unescapeBytes(text);
  try {
    return new TextDecoder('utf-8', { fatal: true, ignoreBOM: true }).decode(bytes);
  } catch {
    return { base64: toBase64(bytes) };
  }
}

function unescapeBytes(text) {
  const bytes = [];
  const encoder = new TextEncoder();
  const parts = text.matchAll(/\\x([0-9a-fA-F]{2})|\\([ntr\\])|(\\)|([^\\]+)/gs);
  for (const [, code, short, wrong, plain] of parts) {
    if (wrong) throw new Error('A "\\" begins one of \\n, \\t, \\r, \\\\ and \\xHH.');
    if (code) bytes.push(parseInt(code, 16));
    if (short) bytes.push({ n: 10, t: 9, r: 13, '\\': 92 }[short]);
    if (plain) bytes.push(...encoder.encode(plain));
  }
  return new Uint8Array(bytes);
}

// What somebody typed as a name, as the interface has it.
export function toName(typed) {
  return typed.startsWith(kNamePrefix) ? kNamePrefix + toBase64(new TextEncoder().encode(typed)) : typed;
}

export function count(number, word) {
  const plural = word.endsWith('s') ? `${word}es` : `${word}s`;
  return `${number.toLocaleString('en')} ${number === 1 ? word : plural}`;
}

export function showTime(text) {
  const time = new Date(text);
  const isToday = time.toDateString() === new Date().toDateString();
  const day = time.toLocaleDateString(undefined, { year: 'numeric', month: 'short', day: 'numeric' });
  return isToday ? time.toLocaleTimeString() : `${day}, ${time.toLocaleTimeString()}`;
}

// Who made a change, as the kernel told the daemon.
export function showAuthor(by) {
  const parts = [{ tcp: 'over TCP', unix: 'on this device', local: 'inside the daemon', daemon: 'the daemon' }[by.connection]
    ?? by.connection];
  if (by.user !== undefined) parts.push(`user ${by.user}`);
  if (by.process !== undefined) parts.push(`process ${by.process}`);
  return parts.join(', ');
}
