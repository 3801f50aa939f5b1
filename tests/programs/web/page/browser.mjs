// One Chromium for all tests, and what each of its pages must not do: write to the console, or ask another host.
import assert from 'node:assert/strict';
import { EventEmitter, once } from 'node:events';
import { createRequire } from 'node:module';
import { readFileSync } from 'node:fs';
import { kPatience } from './device.mjs';

const require = createRequire(`${process.env.TAVIX_TEST_PACKAGES}/`);
const { chromium } = require('playwright-core');
const axe = readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');

const kRules = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa'];

// A name that leads here, so that a page has neither HTTPS nor what browsers grant to the machine itself.
export const kHostName = 'device.example';

// Pictures of pages are the same on machines with different screens.
const kPictureArguments = ['--font-render-hinting=none', '--disable-lcd-text', '--force-color-profile=srgb'];

let browser = null; // a promise: several tests may begin at once

export function launch() {
  browser ??= chromium.launch({
    executablePath: process.env.TAVIX_TEST_CHROMIUM,
    timeout: kPatience,
    args: ['--no-sandbox', '--disable-dev-shm-usage', '--disable-gpu', `--host-resolver-rules=MAP ${kHostName} 127.0.0.1`,
      ...kPictureArguments],
  });
  return browser;
}

export async function closeBrowser() {
  await (await browser)?.close();
}

// The tabs of one person.
export class Visit {
  static async begin({ origin, width = 1280, height = 800, colorScheme = 'light', allows = [] }) {
    const visit = new Visit();
    visit.origin = origin;
    visit.allows = allows;
    visit.wrong = [];
    visit.streams = new Set(); // of changes, that are open
    visit.news = new EventEmitter();
    visit.context = await (await launch()).newContext({
      viewport: { width, height }, colorScheme, reducedMotion: 'reduce', locale: 'en-GB', timezoneId: 'UTC', acceptDownloads: true,
    });
    visit.context.setDefaultTimeout(kPatience);
    visit.context.on('request', (request) => visit.#look(request));
    for (const end of ['requestfinished', 'requestfailed']) visit.context.on(end, (request) => visit.#forget(request));
    visit.context.on('console', (message) => visit.#note(message.type(), message.text()));
    visit.context.on('weberror', (error) => visit.#note('error', String(error.error())));
    return visit;
  }

  #look(request) {
    const url = request.url();
    if (!url.startsWith(this.origin)) this.wrong.push(`a request to ${url}`);
    if (!url.includes('/changes')) return;
    this.streams.add(request);
    this.news.emit('streams');
  }

  #forget(request) {
    if (this.streams.delete(request)) this.news.emit('streams');
  }

  // Waits until one stream of changes is open. A tab that answers late is taken for gone: then two are, for a moment.
  async seeOneStream() {
    while (this.streams.size !== 1) await once(this.news, 'streams', { signal: AbortSignal.timeout(kPatience) });
  }

  #note(type, text) {
    if (!this.allows.some((expression) => expression.test(text))) this.wrong.push(`${type}: ${text}`);
  }

  async open(path = '') {
    const page = await this.context.newPage();
    await page.goto(this.origin + path);
    return page;
  }

  async end() {
    await this.context.close();
    assert.deepEqual(this.wrong, [], 'console and requests');
  }
}

// Goes to a view without loading the page again, and waits until it is there.
export async function goTo(page, path, heading) {
  await page.evaluate((hash) => { location.hash = hash; }, `#/${path}`);
  await page.getByRole('heading', { level: 1, name: heading }).waitFor();
  await settle(page);
}

// Waits until nothing is read any more.
export async function settle(page) {
  await page.getByText('Reading…').first().waitFor({ state: 'detached' });
}

// Asserts that axe finds nothing. rules: all of WCAG 2.2 AA, or the ones that are named.
export async function checkAccess(page, what, rules = null) {
  if (!await page.evaluate(() => 'axe' in window)) await page.evaluate(axe);
  const violations = await page.evaluate(async ({ tags, names }) => {
    const runOnly = names ? { type: 'rule', values: names } : { type: 'tag', values: tags };
    const { violations: found } = await window.axe.run(document, { runOnly, resultTypes: ['violations'] });
    return found.map((one) => `${one.id}: ${one.nodes.map((node) => `${node.target.join(' ')}: ${node.failureSummary}`).join('; ')}`);
  }, { tags: kRules, names: rules });
  assert.deepEqual(violations, [], `axe: ${what}`);
}

export async function checkBothColours(page, what) {
  await checkAccess(page, `${what}, light`);
  await page.emulateMedia({ colorScheme: 'dark', reducedMotion: 'reduce' });
  await checkAccess(page, `${what}, dark`, ['color-contrast']);
  await page.emulateMedia({ colorScheme: 'light', reducedMotion: 'reduce' });
}

// Asserts that nothing is wider than the page.
export async function checkWidth(page, what) {
  const widths = await page.evaluate(() => [document.scrollingElement.scrollWidth, document.documentElement.clientWidth]);
  assert.ok(widths[0] <= widths[1], `${what} is ${widths[0]} px wide on ${widths[1]}`);
}
