import { spawn } from 'node:child_process';

/** A child process that is killed with this one, at the latest. */
export function startChild(command, options, settings) {
  return spawn('setpriv', ['--pdeathsig', 'KILL', command, ...options], settings);
}

/** Ends it, and returns when it has ended. Nothing where there is none. */
export async function endChild(child, signal) {
  if (child && child.exitCode === null && child.signalCode === null) {
    const ended = new Promise((resolve) => child.once('exit', resolve));
    child.kill(signal);
    child.kill('SIGCONT'); // a stopped one would never see it
    await ended;
  }
}
