// Each view: what it is made of, in both colours, on a wide and on a narrow screen.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { checkAccess, checkBothColours, checkWidth, goTo, settle, Visit } from './browser.mjs';
import { Device } from './device.mjs';
import { compareStructure } from './expected.mjs';
import { onOnePage } from './page.mjs';

const kViews = [
  ['browse', 'browse', 'Settings of this device'],
  ['group', 'group?name=Network/Eth0', 'Network/Eth0'],
  ['restricted', 'group?name=Secure/Users/admin', 'Secure/Users/admin'],
  ['missing', 'group?name=Nothing', 'Nothing'],
  ['search', 'search?q=rtsp', 'Search'],
  ['changes', 'changes', 'Changes'],
  ['differences', 'differences', 'Differences to the defaults'],
  ['history', 'history', 'History'],
  ['resources', 'resources', 'Resources'],
  ['subscribers', 'subscribers', 'Subscribers'],
  ['log-levels', 'log-levels', 'Log levels'],
  ['backup', 'backup', 'Backup'],
];

let device = null;
let page = null;

async function prepare(fresh) {
  await fresh.set('Network/Eth0', { mtu: '1400' });
  await fresh.set('Video/Streams/Main', { fps: '30' });
  await fresh.ask('POST', 'apply', { set: { 'Resources/Bandwidth/Consumers/LiveView': { CurrentlyUsed: '9000' } } });
  await fresh.remove('Events/Motion/2');
}

onOnePage({ allows: [/status of 404/], prepare }, (made) => { ({ device, page } = made); }); // of the group that is not there

for (const [name, path, heading] of kViews) {
  test(`the view ${name} is as expected, and everybody can use it`, async () => {
    await goTo(page, path, heading);
    await compareStructure(page.locator(name === 'browse' ? 'main' : 'main .view'), name);
    await checkBothColours(page, name);
    await page.setViewportSize({ width: 320, height: 640 });
    await checkWidth(page, name);
    await checkAccess(page, `${name}, narrow`);
    await page.setViewportSize({ width: 1280, height: 800 });
    await checkWidth(page, name);
  });
}

test('a narrow screen shows the list, a group, and the way back', async () => {
  await page.setViewportSize({ width: 320, height: 640 });
  await goTo(page, 'group?name=Video/Osd', 'Video/Osd');
  await page.getByRole('link', { name: 'All groups' }).click();
  await page.getByRole('treeitem', { name: 'Network' }).waitFor();
  await page.getByRole('button', { name: 'Menu' }).click();
  await page.getByRole('link', { name: 'Resources' }).click();
  await page.getByRole('heading', { level: 1, name: 'Resources' }).waitFor();
  await page.setViewportSize({ width: 1280, height: 800 });
});

test('the page is small', async () => {
  const fresh = await Visit.begin({ origin: device.url });
  const sizes = new Map();
  fresh.context.on('requestfinished', async (request) => {
    const path = request.url().slice(device.url.length);
    if (!path.startsWith('api/')) sizes.set(path, request.sizes());
  });
  const tab = await fresh.open();
  await tab.getByText('live', { exact: true }).waitFor();
  await settle(tab);
  const all = await Promise.all(sizes.values());
  const bytes = all.reduce((sum, size) => sum + size.responseBodySize, 0);
  assert.ok(all.length > 5 && all.length <= 12, `${all.length} requests`);
  assert.ok(bytes > 10000 && bytes <= 60 * 1024, `${bytes} bytes`);
  await fresh.end();
});

test('of 100,000 groups only those in sight are drawn', async () => {
  let defaults = '';
  for (let number = 0; number < 100000; ++number) defaults += `[Many/Group${number}]\nkey=${number}\n`;
  const large = await Device.start({ defaults });
  const crowd = await Visit.begin({ origin: large.url });
  const tab = await crowd.open('#/group?name=Many/Group99999');
  await tab.getByLabel('key', { exact: true }).waitFor();
  await tab.getByRole('treeitem', { name: 'Group99999' }).waitFor();
  await tab.setViewportSize({ width: 1280, height: 4000 });
  await tab.getByRole('tree').focus();
  for (const key of ['Home', 'End', 'PageUp', 'ArrowDown']) {
    await tab.keyboard.press(key);
    const elements = await tab.evaluate(() => document.querySelectorAll('.tree *').length);
    assert.ok(elements > 20 && elements <= 300, `${elements} elements behind ${key}`);
  }
  await crowd.end();
  await large.stop();
});
