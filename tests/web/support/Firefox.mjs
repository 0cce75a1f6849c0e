// Headless Firefox, driven through Marionette, its own protocol; as far as FirefoxTest needs it.

import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { connect } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

import { endChild, startChild } from './child.mjs';
import { eventually } from './eventually.mjs';

const PORT = 2828; // on a network of its own
const KEYS = { Enter: '\uE007', Escape: '\uE00C', ArrowDown: '\uE015' };

function tryToConnect() {
  return new Promise((resolve) => {
    const socket = connect(PORT, '127.0.0.1');
    socket.once('connect', () => resolve(socket)).once('error', () => resolve(null));
  });
}

/** A browser and its only page in one. Its console is not heard. Ends with end(). */
export class Firefox {
  #profile = mkdtempSync(join(tmpdir(), 'firefox-'));
  #process;
  #socket;
  #unread = Buffer.alloc(0);
  #lastId = 0;
  #calls = new Map();

  constructor() {
    writeFileSync(join(this.#profile, 'user.js'), `user_pref('marionette.port', ${PORT});\n`);
    const options = ['--headless', '--marionette', '--no-remote', '--profile', this.#profile, 'about:blank'];
    this.#process = startChild('firefox-esr', options, {
      stdio: 'ignore',
      env: { ...process.env, HOME: this.#profile, MOZ_DISABLE_CONTENT_SANDBOX: '1' }, // root's has none
    });
  }

  async end() {
    this.#socket?.destroy();
    await endChild(this.#process, 'SIGKILL');
    rmSync(this.#profile, { recursive: true });
  }

  async open(url) {
    if (!this.#socket) {
      await this.#start();
    }
    await this.#send('WebDriver:Navigate', { url });
  }

  async ask(question, ...args) {
    const script = `return (${question})(...arguments)`;
    return (await this.#send('WebDriver:ExecuteScript', { script, args })).value;
  }

  until(question, ...args) {
    return eventually(`${question} of ${JSON.stringify(args)}`, () => this.ask(question, ...args));
  }

  press(...keys) {
    const actions = keys.flatMap((key) => {
      const value = KEYS[key] ?? key;
      return [{ type: 'keyDown', value }, { type: 'keyUp', value }];
    });
    return this.#send('WebDriver:PerformActions', { actions: [{ type: 'key', id: 'keys', actions }] });
  }

  type(text) {
    return this.press(...text);
  }

  async #start() {
    this.#socket = await eventually('Firefox listens', tryToConnect);
    this.#socket.on('data', (data) => this.#received(data));
    await this.#send('WebDriver:NewSession', { capabilities: { alwaysMatch: { pageLoadStrategy: 'normal' } } });
  }

  #send(method, params) {
    const message = JSON.stringify([0, ++this.#lastId, method, params]);
    this.#socket.write(`${Buffer.byteLength(message)}:${message}`);
    return new Promise((resolve, reject) => this.#calls.set(this.#lastId, { resolve, reject }));
  }

  #received(data) {
    this.#unread = Buffer.concat([this.#unread, data]);
    for (;;) {
      const start = this.#unread.indexOf(':') + 1;
      const end = start + Number(this.#unread.subarray(0, start - 1));
      if (start === 0 || this.#unread.length < end) {
        return;
      }
      const message = JSON.parse(this.#unread.subarray(start, end));
      this.#unread = this.#unread.subarray(end);
      if (Array.isArray(message)) { // the first one is a greeting
        const [, id, error, result] = message;
        const { resolve, reject } = this.#calls.get(id);
        this.#calls.delete(id);
        if (error) {
          reject(new Error(`${error.error}: ${error.message}`));
        } else {
          resolve(result);
        }
      }
    }
  }
}
