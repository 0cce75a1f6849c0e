// Headless Chromium, driven through its DevTools protocol.

import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

import { endChild, startChild } from './child.mjs';
import { eventually } from './eventually.mjs';

const KEYS = {
  Enter: { code: 'Enter', windowsVirtualKeyCode: 13, text: '\r' },
  Escape: { code: 'Escape', windowsVirtualKeyCode: 27 },
  Backspace: { code: 'Backspace', windowsVirtualKeyCode: 8 },
  Tab: { code: 'Tab', windowsVirtualKeyCode: 9 },
  Space: { key: ' ', code: 'Space', windowsVirtualKeyCode: 32, text: ' ' },
  PageDown: { code: 'PageDown', windowsVirtualKeyCode: 34 },
  End: { code: 'End', windowsVirtualKeyCode: 35 },
  Home: { code: 'Home', windowsVirtualKeyCode: 36 },
  ArrowUp: { code: 'ArrowUp', windowsVirtualKeyCode: 38 },
  ArrowDown: { code: 'ArrowDown', windowsVirtualKeyCode: 40 },
};

/** Ends with close(). */
export class Browser {
  #profile = mkdtempSync(join(tmpdir(), 'chromium-'));
  #process;
  #unread = '';
  #lastId = 0;
  #calls = new Map();
  #listeners = new Map();

  constructor() {
    this.#process = startChild(
      'chromium',
      [
        '--headless=new',
        '--remote-debugging-pipe',
        `--user-data-dir=${this.#profile}`,
        '--no-sandbox', // root's Chromium has none
        '--disable-dev-shm-usage',
        '--disable-gpu',
        '--disable-background-networking',
        '--disable-component-update',
        '--disable-extensions',
        '--no-first-run',
        'about:blank',
      ],
      { stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'] },
    );
    this.#process.on('exit', () => this.#ended());
    this.#process.stdio[4].setEncoding('utf8').on('data', (text) => this.#received(text));
  }

  send(method, params = {}, sessionId = undefined) {
    const id = ++this.#lastId;
    return new Promise((resolve, reject) => {
      this.#calls.set(id, { method, resolve, reject });
      this.#process.stdio[3].write(`${JSON.stringify({ id, method, params, sessionId })}\0`);
    });
  }

  listen(sessionId, listener) {
    this.#listeners.set(sessionId, listener);
  }

  async newPage() {
    const { targetId } = await this.send('Target.createTarget', { url: 'about:blank' });
    const { sessionId } = await this.send('Target.attachToTarget', { targetId, flatten: true });
    const page = new Page(this, sessionId, targetId);
    for (const domain of ['Page', 'Runtime', 'Log']) {
      await page.send(`${domain}.enable`);
    }
    await page.resize(1440, 900);
    return page;
  }

  async close() {
    await endChild(this.#process, 'SIGKILL');
    await eventually('the profile can be removed', () => {
      try {
        rmSync(this.#profile, { recursive: true, force: true });
        return true;
      } catch {
        return false; // its helpers still write
      }
    });
  }

  #received(text) {
    const messages = (this.#unread + text).split('\0');
    this.#unread = messages.pop();
    for (const message of messages.map((one) => JSON.parse(one))) {
      const call = this.#calls.get(message.id);
      this.#calls.delete(message.id);
      if (message.error) {
        call.reject(new Error(`${call.method}: ${message.error.message}`));
      } else if (call) {
        call.resolve(message.result);
      } else {
        this.#listeners.get(message.sessionId)?.(message);
      }
    }
  }

  #ended() {
    for (const { method, reject } of this.#calls.values()) {
      reject(new Error(`Chromium ended before it answered ${method}`));
    }
    this.#calls.clear();
  }
}

/** One tab. `complaints` has every line on its console, uncaught exception, failed load and policy violation. */
export class Page {
  #browser;
  #sessionId;
  #targetId;
  #onLoad = () => {};
  #dialog = null;
  complaints = [];

  constructor(browser, sessionId, targetId) {
    this.#browser = browser;
    this.#sessionId = sessionId;
    this.#targetId = targetId;
    browser.listen(sessionId, (event) => this.#heard(event));
  }

  send(method, params) {
    return this.#browser.send(method, params, this.#sessionId);
  }

  /** Loads it, and returns when its scripts have run for the first time. */
  async open(url) {
    const loaded = new Promise((resolve) => {
      this.#onLoad = resolve;
    });
    await this.send('Page.navigate', { url });
    await loaded;
  }

  /** Waits until the browser asks the user something; its kind. */
  dialog() {
    return eventually('the browser asks', () => this.#dialog);
  }

  close() {
    return this.#browser.send('Target.closeTarget', { targetId: this.#targetId });
  }

  /** Returns what `question`, a function that is run in the page, gives for `args`: any JSON value. */
  async ask(question, ...args) {
    const expression = `(${question})(...${JSON.stringify(args)})`;
    const answer = await this.send('Runtime.evaluate', { expression, awaitPromise: true, returnByValue: true });
    if (answer.exceptionDetails) {
      throw new Error(answer.exceptionDetails.exception.description);
    }
    return answer.result.value;
  }

  /** Waits until it gives something true, which is returned. */
  until(question, ...args) {
    return eventually(`${question} of ${JSON.stringify(args)}`, () => this.ask(question, ...args));
  }

  async press(...keys) {
    for (const key of keys) {
      const event = KEYS[key] ? { key, ...KEYS[key] } : { key, text: key };
      await this.send('Input.dispatchKeyEvent', { type: event.text ? 'keyDown' : 'rawKeyDown', ...event });
      await this.send('Input.dispatchKeyEvent', { type: 'keyUp', ...event, text: undefined });
    }
  }

  type(text) {
    return this.press(...text);
  }

  /** Clicks, `times` in a row, the middle of what `selector` finds first. */
  async click(selector, times = 1) {
    const place = await this.until((sought) => {
      const box = document.querySelector(sought)?.getBoundingClientRect();
      return box && box.width > 0 && { x: box.x + box.width / 2, y: box.y + box.height / 2 };
    }, selector);
    for (let clickCount = 1; clickCount <= times; ++clickCount) {
      for (const type of ['mousePressed', 'mouseReleased']) {
        await this.send('Input.dispatchMouseEvent', { type, ...place, button: 'left', clickCount });
      }
    }
  }

  resize(width, height) {
    return this.send('Emulation.setDeviceMetricsOverride', { width, height, deviceScaleFactor: 1, mobile: false });
  }

  /** Media features and their values. */
  emulate(features) {
    const list = Object.entries(features).map(([name, value]) => ({ name, value }));
    return this.send('Emulation.setEmulatedMedia', { features: list });
  }

  async screenshot(path) {
    const { data } = await this.send('Page.captureScreenshot', { format: 'png' });
    writeFileSync(path, data, 'base64');
  }

  #heard({ method, params }) {
    switch (method) {
      case 'Page.loadEventFired':
        this.#onLoad();
        break;
      case 'Page.javascriptDialogOpening':
        this.#dialog = params.type;
        break;
      case 'Runtime.consoleAPICalled':
        this.complaints.push(params.args.map((arg) => arg.value ?? arg.description).join(' '));
        break;
      case 'Runtime.exceptionThrown':
        this.complaints.push(params.exceptionDetails.exception?.description ?? params.exceptionDetails.text);
        break;
      case 'Log.entryAdded':
        this.complaints.push(params.entry.text);
        break;
    }
  }
}
