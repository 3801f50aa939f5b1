// What the page is expected to be: structures of views, compared exactly, and their pictures, which docs/web.md shows.
// A picture is compared by the version of Chromium that made it alone: others draw letters and edges differently.
import assert from 'node:assert/strict';
import { existsSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { launch } from './browser.mjs';

const kExpected = fileURLToPath(new URL('expected/', import.meta.url));
const kPictures = join(process.env.TAVIX_SOURCES, 'docs/pictures');
const kVersion = join(kExpected, 'chromium.txt');
const kFont = 'DejaVu Sans'; // of Debian's fonts-dejavu-core
const kMaxDistance = 32; // of 255, between two colours that count as the same
const kMaxShare = 0.001; // of the pixels of a picture, that may differ

const isWriting = Boolean(process.env.TAVIX_TEST_WRITE);

// What differs from run to run.
function plain(structure) {
  return `${structure
    .replace(/127\.0\.0\.1:\d+/g, 'ADDRESS')
    .replace(/(\d+ \w+ \d{4}, )?\d\d:\d\d:\d\d/g, 'TIME')
    .replace(/process \d+/g, 'process N')
    .replace(/user \d+/g, 'user N')
    .replace(/\b\d+ s\b/g, 'N s')
    .replace(/^ *- button "Bring back .*\n/gm, '') // of daemons that can
    .replace(/(text: |definition: )\d+\.\d+\.\d+\S*/g, '$1VERSION')}\n`;
}

export async function compareStructure(locator, name) {
  const structure = plain(await locator.ariaSnapshot());
  const path = `${kExpected}${name}.txt`;
  if (isWriting) {
    mkdirSync(kExpected, { recursive: true });
    writeFileSync(path, structure);
  }
  assert.ok(existsSync(path), `${path} is missing: ./dev test-web --write makes it`);
  assert.equal(structure, readFileSync(path, 'utf8'), name);
}

// The same for what is seen: the text nodes stay, so that the page goes on with them.
function steady(font) {
  document.documentElement.style.setProperty('--sans', `"${font}"`);
  document.documentElement.style.setProperty('--mono', `"${font} Mono"`);
  const texts = document.createTreeWalker(document.getElementById('page'), NodeFilter.SHOW_TEXT);
  for (let node = texts.nextNode(); node; node = texts.nextNode()) {
    const text = node.data
      .replace(/127\.0\.0\.1:\d+/g, '127.0.0.1:6070')
      .replace(/(\d+ \w+ \d{4}, )?\d\d:\d\d:\d\d/g, '4 May 2026, 12:00:00')
      .replace(/^\d+\.\d+\.\d+(?!\.)\S*$/, '1.0.0')
      .replace(/^in \d+ s$/, 'in 95 s');
    const shown = node.parentElement.className === 'seconds' ? '595' : text;
    if (shown !== node.data) node.data = shown;
  }
}

// Runs in the browser. Resolves to the share of pixels that differ; 1: the sizes do.
async function differ([left, right, maxDistance]) {
  const read = async (base64) => {
    const image = await createImageBitmap(new Blob([Uint8Array.from(atob(base64), (c) => c.charCodeAt(0))]));
    const context = new OffscreenCanvas(image.width, image.height).getContext('2d');
    context.drawImage(image, 0, 0);
    return context.getImageData(0, 0, image.width, image.height);
  };
  const [a, b] = [await read(left), await read(right)];
  if (a.width !== b.width || a.height !== b.height) return 1;
  let count = 0;
  for (let at = 0; at < a.data.length; at += 4) {
    if ([0, 1, 2].some((part) => Math.abs(a.data[at + part] - b.data[at + part]) > maxDistance)) ++count;
  }
  return count * 4 / a.data.length;
}

async function shareOfDifferences(left, right) {
  const context = await (await launch()).newContext();
  try {
    const page = await context.newPage();
    return await page.evaluate(differ, [left.toString('base64'), right.toString('base64'), kMaxDistance]);
  } finally {
    await context.close();
  }
}

// run: of the test, which is told when the picture is not compared.
export async function comparePicture(run, page, name) {
  const version = `${(await launch()).version()}\n`;
  const path = join(kPictures, `${name}.png`);
  await page.mouse.move(0, 0);
  await page.locator('.flash').first().waitFor({ state: 'detached' }); // of what has just changed
  await page.evaluate(steady, kFont);
  const picture = await page.screenshot({ animations: 'disabled', caret: 'hide' });
  if (isWriting) {
    const isNew = !existsSync(path) || await shareOfDifferences(picture, readFileSync(path)) > kMaxShare;
    mkdirSync(kPictures, { recursive: true });
    if (isNew) writeFileSync(path, picture); // others stay as they are, byte by byte
    writeFileSync(kVersion, version);
  }
  assert.ok(existsSync(path), `${path} is missing: ./dev test-web --write makes it`);
  const made = readFileSync(kVersion, 'utf8');
  if (made !== version) {
    run.diagnostic(`${name}.png is not compared: Chromium ${made.trim()} made it, this is ${version.trim()}`);
    return;
  }
  const share = await shareOfDifferences(picture, readFileSync(path));
  const seen = join(process.env.TAVIX_TEST_PACKAGES, `${name}.png`);
  if (share > kMaxShare) writeFileSync(seen, picture);
  assert.ok(share <= kMaxShare, `${(100 * share).toFixed(2)} % of ${path} differ from ${seen}; ./dev test-web --write takes all anew`);
}
