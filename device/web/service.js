// The property service, as a client of the device's bus sees it.

import mqtt from './mqtt.js';

const CHANGES_TOPIC = 'prop-service-groupnotify/any';
const PRESENCE_TOPIC = 'services/prop-service/online';

const PING_INTERVAL_MS = 2000;
const PING_TIMEOUT_MS = 2000;
const REQUEST_TIMEOUT_MS = 5000;
const NUDGE_INTERVAL_MS = 4;
const REFUSED_CODES = [4, 5]; // MQTT 3.1.1: bad user name or password, not authorized

const LIVENESS_QUESTION = { param: 'Are you alive?' };

// No other reply is without a status, except one to a request that this page does not make.
function isLivenessAnswer(reply) {
  return reply.param === 'Ok' && !('status' in reply);
}

/** An empty object for what is no JSON object: on a broker without an access list anybody may say anything. */
function parseObject(text) {
  try {
    return Object(JSON.parse(text));
  } catch {
    return {};
  }
}

function randomName() {
  const bytes = crypto.getRandomValues(new Uint8Array(6));
  return `web-${Array.from(bytes, (byte) => byte.toString(16).padStart(2, '0')).join('')}`;
}

/** The service did not answer. `mayBeDone`: the request was sent, so that what it asks for may have been done. */
export class NoAnswer extends Error {
  constructor(reason, mayBeDone) {
    super(`${reason}; ${mayBeDone ? 'it may have been done' : 'nothing was sent'}.`);
    this.mayBeDone = mayBeDone;
  }
}

/**
 * Replies carry no identifier, so there is one request at a time, and the next reply is its reply. After a request
 * that was not answered in time that no longer holds; then the question whether the service is alive, whose answer
 * looks like no other, has to be answered before replies count again. When it has been, all earlier requests have been
 * served, too, as far as they will be.
 *
 * The service's presence tells at once that it has gone, and that it has started again. A broker that does not tell the
 * presence is made up for by asking every few seconds.
 *
 * `onState` is told "connecting", "refused" (the broker does not admit the page), "broker-away", "service-away" or
 * "connected"; each "connected" means that changes may have been missed before it. `onChanges` gets an object of keys
 * and values, null for a key that was removed.
 */
export class Service {
  /** When the bus last told anything of the service; null before. */
  lastHeard = null;
  #name = randomName();
  #client;
  #onState;
  #onChanges;
  #state = 'connecting';
  #awaited = null; // { accepts(reply), resolve(reply), reject(error) }
  #isInStep = false;
  #isPresent = true; // until it is heard not to be
  #queueEnd = Promise.resolve();
  #queueLength = 0;

  constructor(brokerAddress, password, { onState, onChanges }) {
    this.#onState = onState;
    this.#onChanges = onChanges;
    this.#client = mqtt.connect(brokerAddress, {
      clientId: this.#name,
      username: 'page',
      password,
      clean: true,
      keepalive: 15,
      reconnectPeriod: 1000,
      connectTimeout: 5000,
      resubscribe: false,
      queueQoSZero: false,
      timerVariant: 'native', // a worker is against the page's security policy
    });
    this.#client.on('connect', () => this.#connected());
    this.#client.on('close', () => this.#closed());
    this.#client.on('error', (error) => {
      if (REFUSED_CODES.includes(error.code)) {
        this.#setState('refused');
      }
    });
    this.#client.on('message', (topic, payload, { retain }) => this.#received(topic, payload, retain));
    setInterval(() => this.#ping(), PING_INTERVAL_MS);
  }

  /** Connects anew, with another password. */
  reconnect(password) {
    this.#setState('connecting');
    this.#client.options.password = password;
    this.#client.reconnect();
  }

  /** The reply; throws NoAnswer. Requests are sent in the order of the calls. */
  request(body) {
    return this.#inTurn(async () => {
      if (!this.#isPresent) {
        throw new NoAnswer('PropertyService is not running', false);
      }
      let isSent = false;
      try {
        if (!this.#isInStep) {
          await this.#synchronise();
        }
        isSent = true;
        return await this.#exchange(body, (reply) => !isLivenessAnswer(reply), REQUEST_TIMEOUT_MS);
      } catch (error) {
        throw new NoAnswer(error.message, isSent);
      }
    });
  }

  /** The rows that match `pattern`, with all columns unless `fields` names some; throws NoAnswer. */
  async list(pattern, fields = undefined) {
    // Mosquitto 2.0 sends 4 KiB of a message over a WebSocket whenever something arrives, or else ten times a second.
    const nudges = setInterval(() => this.#client.connected && this.#client.sendPing(), NUDGE_INTERVAL_MS);
    try {
      const { result = [] } = await this.request({ method: 'getColsL', param: pattern, fields });
      return result;
    } finally {
      clearInterval(nudges);
    }
  }

  #inTurn(work) {
    ++this.#queueLength;
    const result = this.#queueEnd.then(work).finally(() => --this.#queueLength);
    this.#queueEnd = result.catch(() => {});
    return result;
  }

  #ping() {
    if (this.#client.connected && this.#queueLength === 0) {
      this.#askWhetherAlive();
    }
  }

  #askWhetherAlive() {
    this.#inTurn(() => this.#synchronise()).catch(() => {});
  }

  async #synchronise() {
    await this.#exchange(LIVENESS_QUESTION, isLivenessAnswer, PING_TIMEOUT_MS);
    this.#isInStep = true;
    this.#isPresent = true;
    this.#setState('connected');
  }

  #exchange(body, accepts, timeoutMs) {
    return new Promise((resolve, reject) => {
      if (!this.#client.connected) {
        reject(new Error('The broker is away'));
        return;
      }
      const timer = setTimeout(() => {
        this.#setState('service-away');
        this.#giveUp('PropertyService does not answer');
      }, timeoutMs);
      const end = (settle) => (result) => {
        clearTimeout(timer);
        this.#awaited = null;
        settle(result);
      };
      this.#awaited = { accepts, resolve: end(resolve), reject: end(reject) };
      // With QoS 0 the broker does not keep it for a service that is away: a write that was given up is not made later.
      this.#client.publish(`${this.#name}/prop-service`, JSON.stringify(body), { qos: 0 });
    });
  }

  #giveUp(reason) {
    this.#isInStep = false;
    this.#awaited?.reject(new Error(reason));
  }

  #connected() {
    const topics = [`prop-service/${this.#name}`, CHANGES_TOPIC, PRESENCE_TOPIC];
    this.#client.subscribe(topics, { qos: 1 }, () => this.#ping());
  }

  #closed() {
    this.#giveUp('The connection to the broker was lost');
    if (this.#state !== 'refused') {
      this.#setState('broker-away');
    }
  }

  #received(topic, payload, isRetained) {
    const text = new TextDecoder().decode(payload);
    this.lastHeard = new Date();
    if (topic === PRESENCE_TOPIC) {
      this.#presenceChanged(text === '1', isRetained);
      return;
    }
    const message = parseObject(text);
    if (topic === CHANGES_TOPIC) {
      this.#onChanges(message);
    } else if (this.#awaited?.accepts(message)) {
      this.#awaited.resolve(message);
    }
  }

  #presenceChanged(isPresent, isRetained) {
    this.#isPresent = isPresent;
    if (isPresent && isRetained) {
      return; // it has been there for a while
    }
    this.#setState('service-away');
    this.#giveUp(`PropertyService ${isPresent ? 'has started again' : 'is not running'}`);
    if (isPresent) {
      this.#askWhetherAlive();
    }
  }

  #setState(state) {
    if (this.#state !== state) {
      this.#state = state;
      this.#onState(state);
    }
  }
}
