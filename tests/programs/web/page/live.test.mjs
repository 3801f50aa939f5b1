// Changes as they come, in one tab and in many, with and without a connection.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { kHostName, Visit } from './browser.mjs';
import { Device } from './device.mjs';

const kGroup = 'Video/Streams/Main';

let device = null;

before(async () => {
  device = await Device.start({ web: ['--host', kHostName] });
});

after(() => device?.stop());

const path = (name) => `#/group?name=${name}`;

async function seeValue(page, value) {
  await page.waitForFunction((wanted) => document.querySelector('textarea[aria-label=fps]')?.value === wanted, value);
}

async function seeState(page, text) {
  await page.getByText(text, { exact: true }).waitFor();
}

test('a change is shown, marked and announced', async () => {
  await device.set(kGroup, { fps: '25' });
  const visit = await Visit.begin({ origin: device.url });
  const page = await visit.open(path(kGroup));
  await seeState(page, 'live');
  await device.set(kGroup, { fps: '26' });
  await seeValue(page, '26');
  await page.getByRole('status').getByText('Video/Streams/Main, fps is now 26').waitFor();
  await visit.end();
});

// Runs in the page. Notes the times, by the page's clock, at which the list of changes and what is announced are new, and
// counts the events that the page has taken in: it passes them to other tabs.
function noteDrawing() {
  window.noted = { events: 0, draws: [], news: [] };
  const note = (selector, times) => new MutationObserver(() => times.push(Date.now()))
    .observe(document.querySelector(selector), { childList: true, characterData: true, subtree: true });
  note('main .feed', window.noted.draws);
  note('#news', window.noted.news);
  window.listener = new BroadcastChannel('tavix-settings');
  window.listener.onmessage = ({ data }) => { window.noted.events += data.name === 'change' ? 1 : 0; };
}

test('1,000 events a second are drawn at most 5 times a second, and announced once', async () => {
  const visit = await Visit.begin({ origin: device.url });
  await visit.context.clock.install({ time: 0 });
  const page = await visit.open('#/changes');
  await seeState(page, 'live');
  await page.getByRole('heading', { level: 1, name: 'Changes' }).waitFor();
  await page.clock.pauseAt(3600000);
  await page.evaluate(noteDrawing);
  const groups = Array.from({ length: 100 }, (_, number) => `Fast/${number}`);
  for (let tick = 1; tick <= 30; ++tick) {
    await device.ask('POST', 'apply', { set: Object.fromEntries(groups.map((group) => [group, { key: `${tick}` }])) });
    await page.waitForFunction((count) => window.noted.events >= count, tick * groups.length, { polling: 20 });
    await page.clock.runFor(100);
  }
  await page.clock.runFor(1000);
  const { events, draws, news } = await page.evaluate(() => window.noted);
  assert.equal(events, 3000);
  const pauses = (times) => times.slice(1).map((time, at) => time - times[at]);
  assert.ok(draws.length >= 10 && Math.min(...pauses(draws)) >= 200, `drawn at ${draws}`);
  assert.ok(news.length >= 3 && Math.min(...pauses(news)) >= 1000, `announced at ${news}`);
  assert.equal(await page.locator('main .feed > li').count(), 200);
  assert.equal(await page.locator('#news').getAttribute('aria-live'), 'polite');
  await device.ask('POST', 'reset', { groups: ['Fast/*'] });
  await visit.end();
});

test('groups come and go in the list', async () => {
  const visit = await Visit.begin({ origin: device.url });
  const page = await visit.open();
  await seeState(page, 'live');
  await device.set('New/Group', { key: 'value' });
  await page.getByRole('treeitem', { name: 'New' }).click();
  const group = page.getByRole('treeitem', { name: 'Group' });
  await group.waitFor();
  await device.remove('New/Group');
  await group.waitFor({ state: 'detached' });
  await visit.end();
});

test('eight tabs share one stream, also when the one that holds it goes', async () => {
  await device.set(kGroup, { fps: '25' });
  const visit = await Visit.begin({ origin: device.url });
  const tabs = [];
  for (let number = 0; number < 8; ++number) {
    tabs.push(await visit.open(path(kGroup)));
    await seeState(tabs[number], 'live');
  }
  await visit.seeOneStream();
  await device.set(kGroup, { fps: '26' });
  await Promise.all(tabs.map((tab) => seeValue(tab, '26')));
  await tabs[0].close();
  await device.set(kGroup, { fps: '27' });
  await Promise.all(tabs.slice(1).map((tab) => seeValue(tab, '27')));
  await visit.end();
});

test('all of it works without HTTPS, under a name of the host', async () => {
  await device.set(kGroup, { fps: '25' });
  const origin = `http://${kHostName}:${device.web.address.split(':')[1]}/`;
  const visit = await Visit.begin({ origin });
  const first = await visit.open(path(kGroup));
  await seeState(first, 'live');
  assert.equal(await first.evaluate(() => window.isSecureContext), false);
  const second = await visit.open(path(kGroup));
  await seeState(second, 'live');
  await seeValue(second, '25');
  await first.getByLabel('fps', { exact: true }).fill('24');
  await first.getByRole('button', { name: 'Review and save' }).click();
  await first.getByRole('button', { name: 'Save', exact: true }).click();
  await seeValue(second, '24');
  await visit.end();
});

test('a daemon that is away is shown, and all is read again when it is back', async () => {
  const visit = await Visit.begin({ origin: device.url, allows: [/status of 50[234]/] });
  const page = await visit.open(path(kGroup));
  await seeState(page, 'live');
  await device.daemon.stop();
  await seeState(page, 'no daemon');
  await device.startDaemonAgain();
  await seeState(page, 'live');
  await device.set(kGroup, { fps: '28' });
  await seeValue(page, '28');
  await visit.end();
});

// Saves a change of fps on trial.
async function saveOnTrial(page, fps, seconds) {
  await page.getByLabel('fps', { exact: true }).fill(fps);
  await page.getByRole('button', { name: 'Review and save' }).click();
  await page.getByLabel('Take it back by itself').check();
  await page.getByLabel('after').fill(seconds);
  await page.getByLabel('after').press('Tab');
  await page.getByRole('button', { name: 'Save', exact: true }).click();
}

test('a change on trial is kept by the page that still gets through', async () => {
  await device.set(kGroup, { fps: '25' });
  const visit = await Visit.begin({ origin: device.url });
  await visit.context.clock.install();
  const page = await visit.open(path(kGroup));
  await seeState(page, 'live');
  await saveOnTrial(page, '20', '600');
  const banner = page.getByRole('region', { name: 'Changes on trial' });
  await banner.getByText('unless this page still gets through in').waitFor();
  assert.equal((await device.ask('GET', 'pending')).pending.length, 1);
  await page.reload(); // which is no reason to forget it
  await banner.getByText('unless this page still gets through in').waitFor();
  await page.clock.fastForward(600000 / 6);
  await banner.waitFor({ state: 'detached' });
  await page.getByRole('status').getByText('The change is kept').waitFor();
  assert.deepEqual(await device.ask('GET', 'pending'), { pending: [] });
  assert.equal(await device.value(kGroup, 'fps'), '20');
  await visit.end();
});

test('a change that cuts the page off goes back by itself', async () => {
  await device.set(kGroup, { fps: '25' });
  const visit = await Visit.begin({ origin: device.url, allows: [/ERR_/] });
  await visit.context.clock.install();
  const page = await visit.open(path(kGroup));
  await seeState(page, 'live');
  let isCut = false;
  await page.route('**/*', async (route) => {
    if (isCut) return route.abort();
    if (!route.request().url().endsWith('/apply')) return route.continue();
    const response = await route.fetch();
    isCut = true; // no answer comes behind that of the change
    return route.fulfill({ response });
  });
  await saveOnTrial(page, '20', '10');
  await page.getByRole('dialog').waitFor({ state: 'detached' });
  const { address } = device.web;
  await device.web.stop('SIGKILL');
  await seeState(page, 'not reached');
  await page.clock.fastForward(5000); // it would keep the change now
  const other = await device.startWeb();
  await untilValue(other.address, '25');
  device.web = await device.startWeb(address);
  isCut = false;
  await page.clock.fastForward(60000);
  await seeState(page, 'live');
  await seeValue(page, '25');
  await page.getByRole('region', { name: 'Changes on trial' }).waitFor({ state: 'detached' });
  await visit.end();
});

// Waits for changes until the device holds the value.
async function untilValue(address, value) {
  const ask = async (request) => (await fetch(`http://${address}/api/v1/${request}`)).json();
  for (let since = ''; ;) {
    const { next } = await ask(`changes?wait=60${since}`);
    if ((await ask(`group?name=${kGroup}`)).keys.fps.value === value) return;
    since = `&since=${next}`;
  }
}
