import { setTimeout as sleep } from 'node:timers/promises';

/** Long enough for the slowest machine; only a test that fails waits so long. */
export const PATIENCE_MS = 20_000;

/** Asks until `holds` gives something true, which is returned; fails with `what` when the time is over. */
export async function eventually(what, holds) {
  const deadline = Date.now() + PATIENCE_MS;
  for (;;) {
    const result = await holds();
    if (result) {
      return result;
    }
    if (Date.now() > deadline) {
      throw new Error(`not within ${PATIENCE_MS} ms: ${what}`);
    }
    await sleep(10);
  }
}
