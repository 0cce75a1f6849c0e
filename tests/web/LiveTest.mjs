import assert from 'node:assert/strict';

import { pageTest } from './support/fixture.mjs';
import { answerShown, countShown, edit, focusIsOn, stateShown, valueShown } from './support/questions.mjs';

pageTest('shows a change made elsewhere, and has it light up', async ({ page, device }) => {
  await device.set('Audio.Volume', '9');

  await page.until(valueShown, 'Audio.Volume', '9');
  assert.ok(await page.ask(() => document.querySelector('.row[data-key="Audio.Volume"]').matches('.changed')));
});

pageTest('does not move when motion is not wanted', async ({ page, device }) => {
  await page.emulate({ 'prefers-reduced-motion': 'reduce' });

  await device.set('Audio.Volume', '9');

  await page.until(valueShown, 'Audio.Volume', '9');
  const timing = await page.ask(
    () => getComputedStyle(document.querySelector('.row[data-key="Audio.Volume"] .value')).animationTimingFunction,
  );
  assert.match(timing, /^steps?\(|^step-end/);
});

pageTest('shows several changes of one request', async ({ page, device }) => {
  await device.request({ method: 'setVList', list: { 'Audio.Volume': '9', 'Audio.KeyClick': '0' } });

  await page.until(valueShown, 'Audio.Volume', '9');
  await page.until(valueShown, 'Audio.KeyClick', '0');
});

pageTest('keeps a property that is cleared elsewhere', async ({ page, device }) => {
  await device.set('System.General.Location', 'here');
  await edit(page, 'System.General.Location');
  await page.until(valueShown, 'System.General.Location', 'here');

  await device.request({ method: 'setV', param: 'System.General.Location' });

  await page.until(valueShown, 'System.General.Location', 'empty');
  assert.ok(await page.ask(countShown, '1 of 221'));
});

pageTest('shows a State key from its first change until it is removed', async ({ page, device }) => {
  await device.set('State.Call.Count', '2');
  await page.until(countShown, '222 of 222');
  await page.press('/');
  await page.type('State.');
  await page.until(valueShown, 'State.Call.Count', '2');

  await device.request({ method: 'resetVal', param: 'State.Call.Count' });

  await page.until(countShown, '0 of 221');
});

pageTest('reads a State key that did not change yet', async ({ page, device }) => {
  await device.set('State.Call.Count', '2');
  await page.open('about:blank');
  await page.open(device.url);
  await page.until(countShown, '221 of 221');
  await page.press('/');
  await page.type('State.Call.Count');

  await page.click('#empty button');

  await page.until(valueShown, 'State.Call.Count', '2');
});

pageTest('says that the daemon is away, and reads what it holds when it is back', async ({ page, device }) => {
  await device.stopDaemon();
  await page.until(stateShown, 'service-away');
  await device.query(`UPDATE settings SET value = '9' WHERE key = 'Audio.Volume'`);
  await device.startDaemon();

  await page.until(stateShown, 'connected');
  await page.until(valueShown, 'Audio.Volume', '9');
});

pageTest('says "Connected" after a short restart only beside what the daemon holds now', async ({ page, device }) => {
  await page.ask(() => {
    const connection = document.querySelector('#connection');
    const volume = () => document.querySelector('.row[data-key="Audio.Volume"] .value').textContent;
    window.seen = [];
    const look = new MutationObserver(() => window.seen.push([connection.dataset.state, volume()]));
    look.observe(connection, { attributes: true });
  });
  await device.stopDaemon();
  await device.query(`UPDATE settings SET value = '9' WHERE key = 'Audio.Volume'`);
  await device.startDaemon();

  await page.until(valueShown, 'Audio.Volume', '9');
  await page.until(stateShown, 'connected');
  assert.deepEqual(
    (await page.ask(() => window.seen)).filter(([state]) => state === 'connected'),
    [['connected', '9']],
  );
});

const connectionRefused = /^WebSocket connection to 'ws:\/\/127\.0\.0\.1:9001\/' failed/;

pageTest(
  'says that the broker is away, and reads what changed when it is back',
  async ({ page, device }) => {
    await device.stopBroker();
    await page.until(stateShown, 'broker-away');
    await device.stopDaemon();
    await device.query(`UPDATE settings SET value = '9' WHERE key = 'Audio.Volume'`);
    await device.startBroker();
    await device.startDaemon();

    await page.until(stateShown, 'connected');
    await page.until(valueShown, 'Audio.Volume', '9');
  },
  { tolerated: connectionRefused }, // the browser's own, for each attempt
);

pageTest(
  'says of a write without an answer whether it was done, as soon as it sees',
  async ({ page, device }) => {
    const losesWhatWasSent = () => device.stopBroker('SIGKILL').then(() => device.startBroker());
    // A write that waits for the answer to a question of the page's own is not sent, so it follows an answered one.
    await page.ask(() => {
      const { send } = WebSocket.prototype;
      WebSocket.prototype.send = function (data) {
        window.askedAt = new TextDecoder().decode(data).includes('alive') ? performance.now() : window.askedAt;
        return send.call(this, data);
      };
    });
    const hasJustAsked = () => performance.now() - window.askedAt > 50 && performance.now() - window.askedAt < 500;
    for (const [value, goOn, outcome] of [
      ['8', () => device.resumeBroker(), 'Ok Saved after all.'],
      ['7', losesWhatWasSent, 'Not saved The value is 8.'],
    ]) {
      await page.until(stateShown, 'connected');
      await edit(page, 'Audio.Volume');
      await page.type(value);
      await page.until(hasJustAsked);
      device.pauseBroker();
      await page.press('Enter');
      assert.match(await page.until(answerShown, 'refused'), /^No answer .* it may have been done\.$/);
      await goOn();

      await page.until((text) => document.querySelector('.answer').textContent === text, outcome);
      await page.press('Escape');
    }
  },
  { tolerated: connectionRefused },
);

pageTest(
  'answers an edit at once while the broker is away',
  async ({ page, device }) => {
    await edit(page, 'Audio.Volume');
    await device.stopBroker();
    await page.until(stateShown, 'broker-away');

    await page.type('8');
    await page.press('Enter');

    assert.match(await page.until(answerShown, 'refused'), /^No answer The broker is away; nothing was sent\.$/);
  },
  { tolerated: connectionRefused },
);

pageTest('takes no late reply for the answer to a later request', async ({ page, device }) => {
  await edit(page, 'Audio.Volume');
  device.pauseDaemon();
  await page.type('99');
  await page.press('Enter');
  await page.until(answerShown, 'refused');
  await page.press('Escape');
  await edit(page, 'Audio.KeyClick');
  await page.type('0');
  await page.press('Enter');
  device.resumeDaemon();

  assert.equal(await page.until(answerShown, 'ok'), 'Ok Saved.');
});

pageTest('says that it is not admitted, until the right address comes into the same tab', async ({ page, device }) => {
  await page.open('about:blank');
  await page.open(device.url.replace(/#.*/, '#password=wrong'));
  await page.until(stateShown, 'refused');
  const banner = await page.ask(() => document.querySelector('#banner').textContent);
  assert.match(banner, /^The broker does not admit this page\./);
  assert.equal(await page.ask(() => location.hash), '');
  await page.until(() => document.querySelector('#empty p').textContent === 'Nothing has been read.');

  await page.ask((url) => {
    location.href = url;
  }, device.url);

  await page.until(stateShown, 'connected');
  await page.until(countShown, '221 of 221');
});

pageTest('names the device in the title, and says there and in a banner that it is away', async ({ page, device }) => {
  await page.until(stateShown, 'connected');
  const keys = ['NET.General.DeviceNameInNetwork', 'System.General.Variant.Name'];
  const title = `${[await device.valueOf(keys[0]), await device.valueOf(keys[1])].join(' · ')} – Properties`;
  const shown = () => [document.title, document.querySelector('#banner').textContent];
  assert.deepEqual(await page.ask(shown), [title, '']);

  await device.stopDaemon();
  await page.until(stateShown, 'service-away');
  const [titleThen, banner] = await page.ask(shown);
  assert.equal(titleThen, `Service away – ${title}`);
  assert.match(banner, /^PropertyService does not answer\. .* What is shown is as of .*\d:\d\d:\d\d/);

  await device.startDaemon();
  await page.until(stateShown, 'connected');
  assert.deepEqual(await page.ask(shown), [title, '']);
});

pageTest('shows what the address names, without the password', async ({ page, device }) => {
  for (const [shown, key, count] of [
    ['Audio.Volume', 'Audio.Volume', '221 of 221'],
    ['filter=ntp+interval&group=Time', undefined, '1 of 221'],
  ]) {
    await page.open('about:blank');
    await page.open(`${device.url}&${shown.includes('=') ? shown : `key=${shown}`}`);
    await page.until(countShown, count);
    await page.until((fragment) => location.hash === `#${fragment}`, shown);
    assert.equal(await page.ask(() => document.querySelector('.row.open')?.dataset.key), key);
  }

  await page.ask(() => {
    location.hash = '#Display.Theme';
  });
  await page.until(focusIsOn, '.row[data-key="Display.Theme"] textarea');
});
