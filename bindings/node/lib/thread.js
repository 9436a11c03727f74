// The package's threads. One that is ended while it is inside the FFI would take the process along, so
// a process that exits waits until each of them is outside.
import { Worker } from 'node:worker_threads';

const MOST_WAIT_MS = 10000;
const threads = new Map(); // outside: stop

process.on('exit', () => {
  for (const stop of threads.values()) stop();
  for (const outside of threads.keys()) Atomics.wait(outside, 0, 0, MOST_WAIT_MS);
});

/**
 * Starts a module of this folder with `workerData` and `outside`, whose element 0 is 0 until the thread
 * calls leave(). When the process exits, `stop` asks it to.
 */
export function startThread(file, workerData = {}, stop = () => {}) {
  const outside = new Int32Array(new SharedArrayBuffer(4));
  const worker = new Worker(new URL(file, import.meta.url),
    { workerData: { ...workerData, outside }, execArgv: [] });
  threads.set(outside, stop);
  worker.once('exit', () => threads.delete(outside));
  return { worker, outside };
}

/** In the thread: no call of the FFI follows. */
export function leave(outside) {
  Atomics.store(outside, 0, 1);
  Atomics.notify(outside, 0);
}
