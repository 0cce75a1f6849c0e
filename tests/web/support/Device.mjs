// A device on its real paths, with a broker that has a WebSocket listener, the daemon's own binary and the page. Must
// run inside script/sandbox, with a network of its own.

import { execFile } from 'node:child_process';
import { cpSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { connect } from 'node:net';
import { tmpdir } from 'node:os';
import { extname, join } from 'node:path';
import { promisify } from 'node:util';

import { endChild, startChild } from './child.mjs';
import { PATIENCE_MS, eventually } from './eventually.mjs';

const ROOT = new URL('../../../', import.meta.url).pathname;
const DATABASE_SCRIPT = '/etc/propsrv.d/nvminit.sql';
const PASSWORD = 'of-this-test';
const TYPES = { '.html': 'text/html', '.css': 'text/css', '.js': 'text/javascript', '.svg': 'image/svg+xml' };

const run = promisify(execFile);

function listens(port) {
  return new Promise((resolve) => {
    const socket = connect(port, '127.0.0.1');
    socket.on('connect', () => resolve(true)).on('error', () => resolve(false));
    socket.on('connect', () => socket.destroy());
  });
}

/** start() first, stop() at last. `changeScript` may change the sample device's database script. */
export class Device {
  url = `http://127.0.0.1:8080/#password=${PASSWORD}`;
  #directory = mkdtempSync(join(tmpdir(), 'device-'));
  #server;
  #broker;
  #daemon;

  async start(changeScript = (script) => script) {
    if (!process.env.PROPERTYSERVICE_SANDBOX) {
      throw new Error('a device needs its own mount namespace: run this inside script/sandbox');
    }
    for (const place of ['/usr/sbin/nvm', '/var/volatile/stateCache']) {
      rmSync(place, { recursive: true, force: true });
    }
    cpSync(join(ROOT, 'device/etc'), '/etc', { recursive: true });
    writeFileSync(DATABASE_SCRIPT, changeScript(readFileSync(DATABASE_SCRIPT, 'utf8')));
    await this.#writeBrokerFiles();
    await this.startBroker();
    await this.startDaemon();
    await this.#servePage();
  }

  async stop() {
    this.#server?.closeAllConnections();
    this.#server?.close();
    await this.stopDaemon();
    await this.stopBroker();
    rmSync(this.#directory, { recursive: true });
  }

  async startBroker() {
    this.#broker = startChild('/usr/sbin/mosquitto', ['-c', this.#path('mosquitto.conf')], { stdio: 'ignore' });
    await eventually('the broker listens', async () => (await listens(1883)) && (await listens(9001)));
  }

  stopBroker(signal = 'SIGTERM') {
    return endChild(this.#broker, signal);
  }

  /** From here on it answers nobody, though connections to it stay. */
  pauseBroker() {
    this.#broker.kill('SIGSTOP');
  }

  resumeBroker() {
    this.#broker.kill('SIGCONT');
  }

  async startDaemon() {
    this.#daemon = startChild(process.env.PROPERTYSERVICE_BINARY, [], { stdio: 'ignore' });
    const ask = () => this.request({ param: 'Are you alive?' }, 200).catch(() => false);
    await eventually('the daemon answers', ask);
  }

  stopDaemon() {
    return endChild(this.#daemon, 'SIGTERM');
  }

  /** From here on it does nothing, though the broker takes what is sent to it. */
  pauseDaemon() {
    this.#daemon.kill('SIGSTOP');
  }

  resumeDaemon() {
    this.#daemon.kill('SIGCONT');
  }

  /** Runs SQL on the database file. REQUIRES: the daemon is stopped. */
  query(sql) {
    return run('sqlite3', ['/usr/sbin/nvm', sql]);
  }

  /** Asks as another client; the reply. */
  async request(body, timeout = PATIENCE_MS) {
    const options = ['-t', 'other/prop-service', '-e', 'prop-service/other', '-m', JSON.stringify(body)];
    const { stdout } = await run('mosquitto_rr', options, { timeout });
    return JSON.parse(stdout);
  }

  async valueOf(key) {
    return (await this.request({ method: 'getV', param: key })).result;
  }

  set(key, value) {
    return this.request({ method: 'setV', param: key, value });
  }

  #path(name) {
    return join(this.#directory, name);
  }

  #writeBrokerFiles() {
    writeFileSync(this.#path('passwords'), `page:${PASSWORD}\n`);
    cpSync(join(ROOT, 'device/web/broker.acl'), this.#path('acl'));
    writeFileSync(
      this.#path('mosquitto.conf'),
      `user root
per_listener_settings true
set_tcp_nodelay true
listener 1883 127.0.0.1
allow_anonymous true
listener 9001 127.0.0.1
protocol websockets
password_file ${this.#path('passwords')}
acl_file ${this.#path('acl')}
`,
    );
    return run('mosquitto_passwd', ['-U', this.#path('passwords')]);
  }

  #servePage() {
    this.#server = createServer((request, response) => {
      const name = request.url === '/' ? '/index.html' : request.url;
      try {
        const body = readFileSync(join(ROOT, 'build/web', name));
        response.writeHead(200, { 'Content-Type': TYPES[extname(name)] }).end(body);
      } catch {
        response.writeHead(404).end();
      }
    });
    return new Promise((resolve) => this.#server.listen(8080, '127.0.0.1', resolve));
  }
}
