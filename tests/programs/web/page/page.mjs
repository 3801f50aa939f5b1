// One device with one page of it, for all tests of a file.
import { after, before } from 'node:test';
import { Visit } from './browser.mjs';
import { Device } from './device.mjs';

// prepare: what is written before the page is opened. time: at which its clock stands. take: gets the device and the page once they are there.
export function onOnePage({ allows = [], prepare = () => {}, time = null }, take) {
  let device = null;
  let visit = null;
  before(async () => {
    device = await Device.start();
    await prepare(device);
    visit = await Visit.begin({ origin: device.url, allows });
    if (time) await visit.context.clock.setFixedTime(time);
    const page = await visit.open();
    await page.getByText('live', { exact: true }).waitFor();
    await page.getByRole('treeitem', { name: 'Network' }).waitFor();
    take({ device, page });
  });
  after(async () => {
    try {
      await visit?.end();
    } finally {
      await device?.stop();
    }
  });
}
