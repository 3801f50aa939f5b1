// What the page looks like, in the pictures that docs/web.md shows.
import { test } from 'node:test';
import { goTo } from './browser.mjs';
import { comparePicture, compareStructure } from './expected.mjs';
import { onOnePage } from './page.mjs';

const kStream = 'Video/Streams/Main';
const kWide = { width: 1040, height: 620 };

let device = null;
let page = null;

async function prepare(fresh) {
  await fresh.set('Network/Eth0', { address: '10.0.0.17', dhcp: 'false', mtu: '1400' });
  await fresh.set(kStream, { fps: '30' });
  await fresh.set('Video/Osd', { text: 'Gate 4' });
  await fresh.ask('POST', 'apply', { set: { 'Resources/Bandwidth/Consumers/LiveView': { CurrentlyUsed: '9000' } } });
  await fresh.ask('POST', 'apply', { set: { 'Resources/Bandwidth/Consumers/Recorder': { CurrentlyUsed: '6500' } } });
  await fresh.remove('Events/Motion/2');
}

onOnePage({ prepare, time: new Date('2026-05-04T12:00:00Z') }, (made) => { ({ device, page } = made); });

async function open(path, heading, { colorScheme = 'light', ...size } = {}) {
  await page.setViewportSize({ ...kWide, ...size });
  await page.emulateMedia({ colorScheme, reducedMotion: 'reduce' });
  await goTo(page, path, heading);
}

const field = (key) => page.getByLabel(key, { exact: true });
const button = (name) => page.getByRole('button', { name, exact: true });

test('a group', async (run) => {
  await open('group?name=Network/Eth0', 'Network/Eth0');
  await page.getByRole('treeitem', { name: 'Eth0' }).waitFor();
  await comparePicture(run, page, 'group');
});

test('the history', async (run) => {
  await open('history', 'History');
  await comparePicture(run, page, 'history');
});

test('resources, in the dark', async (run) => {
  await open('resources', 'Resources', { colorScheme: 'dark' });
  await comparePicture(run, page, 'resources');
});

test('a narrow screen', async (run) => {
  await open('group?name=Video/Osd', 'Video/Osd', { width: 320, height: 640 });
  await comparePicture(run, page, 'narrow');
});

test('a setting that somebody else changes while it is edited', async (run) => {
  await open(`group?name=${kStream}`, kStream, { colorScheme: 'dark' });
  await page.getByRole('treeitem', { name: 'Main' }).waitFor();
  await field('fps').fill('15');
  await device.set(kStream, { fps: '50' });
  const conflict = page.getByRole('group', { name: 'Two values of fps' });
  await conflict.getByText('50', { exact: true }).waitFor();
  await compareStructure(page.getByRole('main').locator('.view'), 'conflict');
  await comparePicture(run, page, 'conflict');
  await button('Discard').click();
});

test('a look at what is saved, and its trial', async (run) => {
  await device.set(kStream, { fps: '50' });
  await open(`group?name=${kStream}`, kStream);
  await page.waitForFunction(() => document.querySelector('textarea[aria-label=fps]')?.value === '50');
  await field('fps').fill('15');
  await field('codec').fill('h265');
  await button('Review and save').click();
  await page.getByLabel('Take it back by itself').check();
  await page.getByLabel('after').fill('600');
  await page.getByLabel('after').press('Tab');
  await compareStructure(page.getByRole('dialog'), 'save');
  await comparePicture(run, page, 'save');
  await button('Save').click();
  const banner = page.getByRole('region', { name: 'Changes on trial' });
  await banner.getByText('unless this page still gets through').waitFor();
  await open('browse', 'Settings of this device');
  await page.getByRole('region', { name: 'Settings of this device' }).getByText('h265').waitFor();
  await compareStructure(banner, 'trial');
  await comparePicture(run, page, 'trial');
  await button('Take back').click();
  await banner.waitFor({ state: 'detached' });
});
