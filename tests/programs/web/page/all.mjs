// All tests of the page, one after the other, in one browser.
import { after } from 'node:test';
import { closeBrowser } from './browser.mjs';
import { endAll } from './device.mjs';
import './views.test.mjs';
import './edit.test.mjs';
import './live.test.mjs';
import './work.test.mjs';
import './access.test.mjs';
import './pictures.test.mjs';

// What a test that failed has left open would keep this program from its end.
after(async () => {
  await closeBrowser();
  endAll();
});
