// Search, differences, history, reports and backups: what is done in them.
import assert from 'node:assert/strict';
import { readFile } from 'node:fs/promises';
import { test } from 'node:test';
import { checkBothColours, goTo, settle } from './browser.mjs';
import { onOnePage } from './page.mjs';

let device = null;
let page = null;

onOnePage({ allows: [/status of (409|422)/] }, (made) => { ({ device, page } = made); });

const button = (name) => page.getByRole('button', { name, exact: true });
const dialog = (name) => page.getByRole('dialog', { name });

test('a search finds names, keys and values, where it is told to', async () => {
  await goTo(page, 'search?q=WPA3', 'Search');
  await page.getByText('1 hit', { exact: false }).waitFor();
  assert.equal(await page.locator('mark').innerText(), 'wpa3');
  await page.getByLabel('as written, capitals count').check();
  await page.getByText('0 hits', { exact: false }).waitFor();
});

test('groups of a pattern go back to their defaults, behind a question', async () => {
  await device.set('Ptz/Motor', { speed: '1' });
  await device.set('Ptz/Limits', { zoom_max: '2' });
  await goTo(page, 'differences', 'Differences to the defaults');
  await page.getByLabel('Groups, with').fill('Ptz/*');
  await button('Reset these…').click();
  await dialog('Reset 2 groups?').waitFor();
  await checkBothColours(page, 'a reset');
  await button('Reset 2 groups').click();
  await page.getByText('2 settings went back.').waitFor();
  assert.equal(await device.value('Ptz/Motor', 'speed'), '60');
});

test('groups of a pattern are deleted, behind a question', async () => {
  for (const name of ['Gone/1', 'Gone/2', 'Gone/3']) await device.set(name, { key: 'value' });
  await goTo(page, 'differences', 'Differences to the defaults');
  await page.getByLabel('Groups, with').fill('Gone/*');
  await button('Delete these…').click();
  await dialog('Delete 3 groups?').waitFor();
  await button('Delete 3 groups').click();
  await page.getByText('3 groups deleted.').waitFor();
  assert.deepEqual((await device.ask('GET', 'groups?pattern=Gone/*')).groups, []);
});

test('a rollback is shown before it is done', async () => {
  await device.set('Audio/Output', { volume: '1' });
  await device.set('Audio/Output', { volume: '2' });
  await goTo(page, 'history?pattern=Audio/Output', 'History');
  await page.getByRole('button', { name: /Bring back revision/ }).nth(1).click();
  const row = dialog('Bring back').getByRole('row', { name: /volume/ });
  assert.match(await row.innerText(), /2\s+1/);
  await checkBothColours(page, 'a rollback');
  assert.equal(await device.value('Audio/Output', 'volume'), '2');
  await button('Bring back 1 setting').click();
  await page.getByText('1 setting went back.').waitFor();
  assert.equal(await device.value('Audio/Output', 'volume'), '1');
});

test('the history of one key shows that key alone', async () => {
  await device.set('Video/Osd', { text: 'one', font_size: '30' });
  await goTo(page, 'history?name=Video/Osd&key=text', 'History');
  await page.getByText('Only changes of').waitFor();
  assert.equal(await page.getByRole('cell', { name: 'font_size' }).count(), 0);
  await page.getByRole('cell', { name: 'text' }).waitFor();
});

test('a name with a "*" is one group, not a pattern, for its history and its way back', async () => {
  await device.ask('POST', 'apply', { set: { 'Star/*': { key: '1' }, 'Star/Other': { key: '1' } } });
  await device.ask('POST', 'apply', { set: { 'Star/*': { key: '2', more: '2' }, 'Star/Other': { key: '2' } } });
  await goTo(page, 'group?name=Star/*', 'Star/*');
  await page.getByRole('link', { name: 'History', exact: true }).last().click();
  await page.getByText('Only changes of').waitFor();
  await page.getByRole('cell', { name: 'more' }).waitFor();
  assert.equal(await page.getByRole('link', { name: 'Star/Other' }).count(), 0);
  await page.getByRole('button', { name: /Bring back revision/ }).nth(1).click();
  await button('Bring back 2 settings').click();
  await page.getByText('2 settings went back.').waitFor();
  assert.equal(await device.value('Star/*', 'key'), '1');
  assert.equal(await device.value('Star/*', 'more'), undefined);
  assert.equal(await device.value('Star/Other', 'key'), '2');
});

test('a name with blanks at its ends is one group, too', async () => {
  const name = ' Blanks ';
  await device.ask('POST', 'apply', { set: { [name]: { key: '1' }, Blanks: { key: '1' } } });
  await device.ask('POST', 'apply', { set: { [name]: { key: '2' }, Blanks: { key: '2' } } });
  await goTo(page, `history?${new URLSearchParams({ name })}`, 'History');
  await page.getByRole('row', { name: /key 1 2$/ }).waitFor();
  assert.equal(await page.getByRole('row', { name: /key 1 2$/ }).count(), 1);
  await page.getByRole('button', { name: /Bring back revision/ }).nth(1).click();
  await button('Bring back 1 setting').click();
  await page.getByText('1 setting went back.').waitFor();
  assert.equal(await device.value(name, 'key'), '1');
  assert.equal(await device.value('Blanks', 'key'), '2');
});

test('changes of a group are found far behind those of others', async () => {
  await device.set('Far/*', { key: 'early' });
  for (let number = 0; number < 70; ++number) await device.set('Far/Other', { key: `${number}` });
  await goTo(page, 'history?name=Far/*', 'History');
  await page.getByRole('row', { name: /not set early$/ }).waitFor();
});

test('a group that was deleted stands in the history in words', async () => {
  await device.remove('Events/Motion/1');
  await goTo(page, 'history?name=Events/Motion/1', 'History');
  await page.getByRole('row', { name: 'Events/Motion/1 deleted: its defaults no longer show' }).waitFor();
  assert.equal(await page.getByText('DeletedGroups').count(), 0);
});

test('differences follow changes', async () => {
  await goTo(page, 'differences', 'Differences to the defaults');
  await device.set('Storage/SdCard', { label: 'from elsewhere' });
  await page.getByRole('main').getByText('from elsewhere').waitFor();
});

test('earlier changes stay while newer ones come', async () => {
  for (let number = 1; number <= 32; ++number) await device.set('Many/Changes', { key: `value ${number}` });
  await goTo(page, 'changes', 'Changes'); // all of them have come: none has the history read anew later
  await page.getByRole('main').getByText('value 32', { exact: true }).first().waitFor();
  await goTo(page, 'history?name=Many/Changes', 'History');
  await page.getByRole('row', { name: /value 31 value 32/ }).waitFor();
  await button('Show earlier ones').click();
  await page.getByRole('row', { name: /not set value 1$/ }).waitFor();
  await device.set('Many/Changes', { key: 'newest' });
  await page.getByText('There are newer changes.').waitFor();
  assert.equal(await page.getByRole('row', { name: /not set value 1$/ }).count(), 1);
  await button('Show them').click();
  await page.getByRole('row', { name: /value 32 newest/ }).waitFor();
});

test('a checkpoint is kept, brought back and forgotten', async () => {
  await device.set('Audio/Input', { gain_db: '7' });
  await goTo(page, 'history', 'History');
  await page.getByLabel('Keep what is set now as').fill('before');
  await button('Keep').click();
  await button('Bring back checkpoint before').waitFor();
  await device.set('Audio/Input', { gain_db: '9' });
  await button('Bring back checkpoint before').click();
  await button('Bring back 1 setting').click();
  await page.getByText('1 setting went back.').waitFor();
  assert.equal(await device.value('Audio/Input', 'gain_db'), '7');
  await button('Forget checkpoint before').click();
  await button('Forget').click();
  await page.getByText('None is kept.').waitFor();
});

test('a log level is set', async () => {
  await goTo(page, 'log-levels', 'Log levels');
  const saved = page.waitForResponse((response) => response.request().method() === 'PATCH');
  await page.getByLabel('Log level of Logging/Recorder').selectOption('8 trace');
  await saved;
  assert.equal(await device.value('Logging/Recorder', 'log.level'), '8');
});

test('bars of resources grow with what is booked', async () => {
  await goTo(page, 'resources', 'Resources');
  await device.ask('POST', 'apply', { set: { 'Resources/Bandwidth/Consumers/Recorder': { CurrentlyUsed: '5000' } } });
  await page.getByRole('meter', { name: 'Recorder: 5000 of 20000' }).waitFor();
});

test('a backup is saved, and brought back behind a look at it', async () => {
  await device.set('Storage/SdCard', { reserve_percent: '9' });
  await goTo(page, 'backup', 'Backup');
  await page.getByLabel('Groups, with “*” for any text', { exact: true }).fill('Storage/*');
  const saving = page.waitForEvent('download');
  await page.getByRole('link', { name: 'Save to a file' }).click();
  const path = await (await saving).path();
  assert.match(await readFile(path, 'utf8'), /reserve_percent=9/);
  await device.set('Storage/SdCard', { reserve_percent: '8' });
  await page.getByLabel('File').setInputFiles({ name: 'backup.ini', mimeType: 'text/plain', buffer: await readFile(path) });
  await button('Show what it changes…').click();
  const row = dialog('Bring back 1 difference?').getByRole('row', { name: /reserve_percent/ });
  assert.match(await row.innerText(), /8\s+9/);
  await button('Bring back').click();
  await page.getByText('1 difference brought back.').waitFor();
  assert.equal(await device.value('Storage/SdCard', 'reserve_percent'), '9');
});

test('a file that is no backup is refused with its line', async () => {
  await goTo(page, 'backup', 'Backup');
  await page.getByLabel('File').setInputFiles({ name: 'x.ini', mimeType: 'text/plain', buffer: Buffer.from('[a]\nk=1\nno setting\n') });
  await button('Show what it changes…').click();
  await page.getByText('(line 3)').waitFor();
});

test('text that looks like a page stays text in every view', async () => {
  const bad = '<script>hit=1</script><img src=x onerror=hit=1>';
  await device.ask('POST', 'apply', {
    set: {
      [bad]: { [bad]: bad, 'log.level': bad },
      [`Resources/${bad.replaceAll('/', '')}`]: { TotalAvailable: '5' },
    },
  });
  const paths = [['browse', 'Settings of this device'], [`group?${new URLSearchParams({ name: bad })}`, bad],
    [`search?${new URLSearchParams({ q: 'script' })}`, 'Search'], ['changes', 'Changes'], ['differences', 'Differences to the defaults'],
    ['history', 'History'], ['resources', 'Resources'], ['log-levels', 'Log levels']];
  for (const [path, heading] of paths) {
    await goTo(page, path, heading);
    await page.getByText('<script>', { exact: false }).first().waitFor();
    assert.equal(await page.evaluate(() => 'hit' in window || document.querySelectorAll('main script, main img').length > 0), false, path);
  }
  await device.ask('POST', 'reset', { groups: ['*'] });
  await settle(page);
});
