// Who gets in, what they may do, and that the keyboard is enough for it.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { after, test } from 'node:test';
import { checkBothColours, checkWidth, goTo, Visit } from './browser.mjs';
import { Device } from './device.mjs';

const devices = [];

async function startDevice(options) {
  const device = await Device.start(options);
  devices.push(device);
  return device;
}

after(() => Promise.all(devices.map((device) => device.stop())));

const focused = (page) => page.evaluate(() => document.activeElement.getAttribute('aria-label') ?? document.activeElement.textContent);

test('the page asks for the password, and takes it back', async () => {
  const hash = execFileSync(process.env.TAVIX_SETTINGS_WEB_PROGRAM, ['--hash-password'], { input: 'open' }).toString();
  const device = await startDevice();
  await device.web.stop();
  device.webArguments = ['--password-file', await device.write('password', hash)];
  device.web = await device.startWeb();
  const visit = await Visit.begin({ origin: device.url, allows: [/status of 401/] });
  const page = await visit.open();
  await page.getByLabel('Password').fill('shut');
  await page.getByLabel('Password').press('Enter');
  await page.getByText('the password is wrong').waitFor();
  await checkBothColours(page, 'the login');
  await page.getByLabel('Password').fill('open');
  await page.getByLabel('Password').press('Enter');
  await page.getByText('live', { exact: true }).waitFor();
  await page.getByRole('treeitem', { name: 'Network' }).waitFor();
  await page.getByRole('button', { name: 'Log out' }).click();
  await page.getByLabel('Password').waitFor();
  await visit.end();
});

test('what nobody may write has no buttons for it', async () => {
  const device = await startDevice({ web: ['--read-only'] });
  const visit = await Visit.begin({ origin: device.url });
  const page = await visit.open('#/group?name=Network/Eth0');
  await page.getByText('read only').waitFor();
  assert.equal(await page.locator('main textarea').count(), 0);
  for (const [path, heading] of [['differences', 'Differences to the defaults'], ['log-levels', 'Log levels'], ['backup', 'Backup'], ['history', 'History']]) {
    await goTo(page, path, heading);
    assert.equal(await page.getByRole('button', { name: /Delete|Reset|Bring|Keep|Show what/ }).count(), 0, path);
    assert.equal(await page.getByRole('combobox', { name: /Log level/ }).count(), 0, path);
  }
  await visit.end();
});

test('what the daemon lacks is not shown', async () => {
  const device = await startDevice({ history: false });
  const visit = await Visit.begin({ origin: device.url });
  const page = await visit.open('#/group?name=Network/Eth0');
  await page.getByLabel('mtu', { exact: true }).waitFor();
  await page.getByRole('link', { name: 'Resources' }).waitFor();
  assert.equal(await page.getByRole('link', { name: 'History' }).count(), 0);
  await visit.end();
});

test('the keyboard is enough to find, change and save a setting', async () => {
  const device = await startDevice();
  const visit = await Visit.begin({ origin: device.url });
  const page = await visit.open();
  const press = (key) => page.keyboard.press(key);
  await page.getByRole('treeitem', { name: 'Network' }).waitFor();
  await press('/');
  assert.equal(await focused(page), 'Search names, keys and values');
  await page.keyboard.type('snapshots');
  await press('Enter');
  await page.getByText('1 hit', { exact: false }).waitFor();
  await goTo(page, 'browse', 'Settings of this device');
  await page.getByRole('treeitem', { name: 'Video' }).waitFor();
  await press('Escape');
  assert.equal(await focused(page), 'Groups');
  await press('v');
  await press('ArrowRight');
  await page.getByRole('treeitem', { name: 'Osd' }).waitFor();
  await press('ArrowRight');
  await press('o');
  await press('Enter');
  await page.getByRole('heading', { name: 'Video/Osd' }).waitFor();
  await page.getByLabel('font_size', { exact: true }).focus();
  await page.keyboard.press('Control+a');
  await page.keyboard.type('31');
  await press('Enter');
  await page.getByRole('dialog', { name: 'Save 1 change' }).waitFor();
  for (let times = 0; times < 8 && await focused(page) !== 'Save'; ++times) await press('Tab');
  assert.equal(await focused(page), 'Save');
  await press('Enter');
  await page.getByRole('dialog').waitFor({ state: 'detached' });
  assert.equal(await device.value('Video/Osd', 'font_size'), '31');
  await press('Escape');
  assert.equal(await focused(page), 'Groups');
  await visit.end();
});

test('text of twice the size fits a narrow screen', async () => {
  const device = await startDevice();
  const visit = await Visit.begin({ origin: device.url, width: 320 });
  const page = await visit.open('#/group?name=Events/Actions/Mail');
  await page.getByLabel('subject', { exact: true }).waitFor();
  await page.evaluate(() => { document.body.style.fontSize = '200%'; });
  await checkWidth(page, 'a group');
  await visit.end();
});
