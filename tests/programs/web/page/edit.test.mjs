// Changes that somebody makes on the page, alone and beside others.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { checkBothColours, goTo } from './browser.mjs';
import { onOnePage } from './page.mjs';

const kGroup = 'Video/Streams/Main';

let device = null;
let page = null;

onOnePage({ allows: [/status of 4(04|12)/] }, (made) => { ({ device, page } = made); }); // of a new group, and of a lost race

const field = (key) => page.getByLabel(key, { exact: true });
const button = (name) => page.getByRole('button', { name, exact: true });
const dialog = (name) => page.getByRole('dialog', { name });

async function openGroup(fps) {
  await device.set(kGroup, { fps });
  await goTo(page, 'browse', 'Settings of this device');
  await goTo(page, `group?name=${kGroup}`, kGroup);
}

// Waits until the page shows a value that somebody else has set.
async function seeOnDevice(value) {
  await page.getByRole('group', { name: 'Two values of fps' }).getByText(value, { exact: true }).waitFor();
}

test('an edit is shown as a difference before it is saved', async () => {
  await openGroup('25');
  await field('fps').fill('15');
  await button('Review and save').click();
  const row = dialog('Save 1 change').getByRole('row', { name: /fps/ });
  assert.match(await row.innerText(), /25\s+15/);
  await checkBothColours(page, 'the review');
  await button('Save').click();
  await dialog('Save 1 change').waitFor({ state: 'detached' });
  assert.equal(await device.value(kGroup, 'fps'), '15');
  await page.getByRole('region', { name: 'Unsaved changes' }).waitFor({ state: 'detached' });
});

test('a setting is added, and reset', async () => {
  await openGroup('25');
  await page.getByLabel('Another setting').fill('extra');
  await button('Add').click();
  await field('extra').fill('one\ntwo');
  await button('Review and save').click();
  await button('Save').click();
  await button('Reset extra').click();
  assert.equal(await device.value(kGroup, 'extra'), 'one\ntwo');
  await button('Review and save').click();
  await button('Save').click();
  await field('extra').waitFor({ state: 'detached' });
  assert.equal(await device.value(kGroup, 'extra'), undefined);
});

test('one setting is removed, and its default with it', async () => {
  await openGroup('25');
  await button('Remove codec').click();
  await checkBothColours(page, 'a removal');
  await button('Remove').click();
  await field('codec').waitFor({ state: 'detached' });
  assert.equal(await device.value(kGroup, 'codec'), undefined);
  assert.equal(await device.value(kGroup, 'fps'), '25');
  await button('Reset…').click();
  await button('Reset').click();
  await field('codec').waitFor();
});

for (const [what, open, word] of [['one setting', 'Remove fps', 'Remove'], ['what users set', 'Reset…', 'Reset']]) {
  test(`${what} is taken away on trial, and comes back`, async () => {
    await openGroup('24');
    await button(open).click();
    await page.getByLabel('Take it back by itself').check();
    await page.getByLabel('after').fill('600');
    await page.getByLabel('after').press('Tab');
    await checkBothColours(page, `${word} on trial`);
    await button(word).click();
    const banner = page.getByRole('region', { name: 'Changes on trial' });
    await banner.getByText('s until it goes back, unless this page still gets through in').waitFor();
    assert.notEqual(await device.value(kGroup, 'fps'), '24');
    await banner.getByRole('button', { name: 'Take back' }).click();
    await banner.waitFor({ state: 'detached' });
    assert.equal(await device.value(kGroup, 'fps'), '24');
  });
}

test('seconds that are typed stay while changes arrive', async () => {
  await openGroup('24');
  await button('Remove fps').click();
  await page.getByLabel('Take it back by itself').check();
  await page.getByLabel('after').fill('600');
  await device.set(kGroup, { arrived: '1' });
  await field('arrived').waitFor({ state: 'attached' });
  assert.equal(await page.getByLabel('after').inputValue(), '600');
  await page.getByLabel('after').fill('5');
  await page.getByLabel('after').press('Tab');
  assert.equal(await page.getByLabel('after').inputValue(), '10');
  await page.keyboard.press('Escape');
  await page.getByRole('dialog').waitFor({ state: 'detached' });
});

test('a setting that somebody changes meanwhile is not removed', async () => {
  await openGroup('25');
  await button('Remove fps').click();
  await page.route('**/api/v1/group?*', async (route) => {
    if (route.request().method() === 'PATCH') await device.set(kGroup, { fps: '24' });
    await route.continue();
  });
  await button('Remove').click();
  await page.getByRole('alert').waitFor();
  await page.unrouteAll();
  assert.equal(await device.value(kGroup, 'fps'), '24');
  await page.keyboard.press('Escape');
  await page.getByRole('dialog').waitFor({ state: 'detached' });
});

test('bytes that are no text are typed as escapes', async () => {
  await openGroup('25');
  await device.set(kGroup, { bytes: { base64: '/wA=' } });
  await field('bytes').waitFor();
  assert.equal(await field('bytes').inputValue(), '\\xff\\x00');
  await field('bytes').fill('\\q');
  await page.getByText('A "\\" begins one of').waitFor();
  assert.ok(await button('Review and save').isDisabled());
  await field('bytes').fill('\\xfe\\r');
  await button('Review and save').click();
  await button('Save').click();
  await dialog('Save 1 change').waitFor({ state: 'detached' });
  assert.deepEqual(await device.value(kGroup, 'bytes'), { base64: '/g0=' });
});

test('a change that arrives shows both values and keeps the edit', async () => {
  await openGroup('25');
  await field('fps').fill('12');
  await device.set(kGroup, { fps: '50', gop: '7' });
  await seeOnDevice('50');
  assert.equal(await field('fps').inputValue(), '12');
  assert.equal(await field('gop').inputValue(), '7');
  await checkBothColours(page, 'a conflict');
  await button('Take theirs').click();
  assert.equal(await field('fps').inputValue(), '50');
});

for (const [choice, wanted] of [['Theirs:', '50'], ['Mine:', '12'], ['Edit:', '33']]) {
  test(`saving over somebody's change asks first: ${choice}`, async () => {
    await openGroup('25');
    await field('fps').fill('12');
    await device.set(kGroup, { fps: '50' });
    await seeOnDevice('50');
    await button('Review and save').click();
    const asking = dialog('Somebody else changed this, too');
    assert.ok(await button('Go on').isDisabled());
    if (wanted === '33') await asking.getByLabel('Another value of fps').fill('33');
    else await asking.getByLabel(choice).check();
    await checkBothColours(page, 'the dialog of a conflict');
    await button('Go on').click();
    if (wanted !== '50') await button('Save').click();
    await page.getByRole('dialog').waitFor({ state: 'detached' });
    assert.equal(await device.value(kGroup, 'fps'), wanted);
  });
}

test('a change between the look and the save is found by the device', async () => {
  await openGroup('25');
  await field('fps').fill('12');
  await button('Review and save').click();
  await device.set(kGroup, { fps: '50' });
  await button('Save').click();
  await dialog('Somebody else changed this, too').waitFor();
  assert.equal(await device.value(kGroup, 'fps'), '50');
  await page.keyboard.press('Escape');
  await button('Discard').click();
});

test('unsaved edits stay while other groups are looked at, and warn before leaving', async () => {
  await openGroup('25');
  await field('fps').fill('12');
  await goTo(page, 'group?name=Network/Eth0', 'Network/Eth0');
  await page.getByText('Unsaved edits in').getByRole('link', { name: kGroup }).click();
  await page.getByRole('heading', { name: kGroup }).waitFor();
  assert.equal(await field('fps').inputValue(), '12');
  const asked = page.waitForEvent('dialog');
  const left = page.close({ runBeforeUnload: true });
  const question = await asked;
  assert.equal(question.type(), 'beforeunload');
  await question.dismiss();
  await left;
  assert.equal(await field('fps').inputValue(), '12');
  await button('Discard').click();
});

test('a group is made, and deleted', async () => {
  await goTo(page, 'browse', 'Settings of this device');
  await button('New group').click();
  await page.getByLabel('Name, with').fill('A/New one');
  await button('Go on').click();
  await page.getByText('This group is not there yet.').waitFor();
  await page.getByLabel('Another setting').fill('key');
  await button('Add').click();
  await field('key').fill('value');
  await button('Review and save').click();
  await button('Save').click();
  await page.getByText(/1 setting$/).waitFor();
  assert.equal(await device.value('A/New one', 'key'), 'value');
  await button('Delete…').click();
  await button('Delete').click();
  await page.getByRole('heading', { name: 'Settings of this device' }).waitFor();
  await assert.rejects(device.value('A/New one', 'key'), /404/);
});

// On trial for so long that this page asks for nothing while the test goes on.
async function tryFrames(fps) {
  await openGroup('25');
  await field('fps').fill(fps);
  await button('Review and save').click();
  await page.getByLabel('Take it back by itself').check();
  await page.getByLabel('after').fill('600');
  await page.getByLabel('after').press('Tab');
  await button('Save').click();
  const banner = page.getByRole('region', { name: 'Changes on trial' });
  await banner.getByText('s until it goes back, unless this page still gets through in').waitFor();
  return banner;
}

test('a change on trial is kept', async () => {
  const banner = await tryFrames('20');
  await checkBothColours(page, 'a trial');
  await banner.getByRole('button', { name: 'Keep' }).click();
  await banner.waitFor({ state: 'detached' });
  assert.deepEqual(await device.ask('GET', 'pending'), { pending: [] });
  assert.equal(await device.value(kGroup, 'fps'), '20');
});

test('a change on trial is taken back', async () => {
  const banner = await tryFrames('21');
  await banner.getByRole('button', { name: 'Take back' }).click();
  await banner.waitFor({ state: 'detached' });
  assert.equal(await device.value(kGroup, 'fps'), '25');
});
