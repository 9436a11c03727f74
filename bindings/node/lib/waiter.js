// Wakes this thread's event loop when a descriptor is readable. One thread sleeps for all of them.
import { isMainThread } from 'node:worker_threads';
import koffi from 'koffi';
import { ZorvError } from './library.js';
import { startThread } from './thread.js';

const SLOTS = 4096;
const EFD_NONBLOCK = 0o4000;
const EFD_CLOEXEC = 0o2000000;
// When a worker thread is ended from outside, its end waits for the thread that sleeps for it, and
// nothing wakes that one: so it looks up by itself.
const PATIENCE_MS = isMainThread ? -1 : 500;
const libc = koffi.load('libc.so.6');
const eventfd = libc.func('int eventfd(unsigned int value, int flags)');
const write = libc.func('long write(int fd, void *bytes, size_t count)');
const one = new Uint8Array([1, 0, 0, 0, 0, 0, 0, 0]);

let table = null;
let wake = -1;
let worker = null;
const wishes = new Map(); // slot: { callback, keepsAlive }
let kept = 0;

function start() {
  wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wake < 0) throw new ZorvError('no descriptor left to wait with');
  table = new Int32Array(new SharedArrayBuffer(4 * SLOTS)).fill(-1);
  table[0] = 0;
  ({ worker } = startThread('./waiter_worker.js',
    { slots: table.buffer, wake, patience: PATIENCE_MS }, stopWaiting));
  worker.on('message', (slot) => {
    const wish = take(slot);
    wish?.callback();
  });
  worker.unref();
}

function take(slot) {
  const wish = wishes.get(slot);
  wishes.delete(slot);
  if (wish?.keepsAlive && --kept === 0) worker.unref();
  return wish;
}

/** Calls back once when `fd` is readable. Returns what `forget` takes back. */
export function whenReadable(fd, callback, keepsAlive) {
  if (!worker) start();
  let slot = 1;
  while (slot < SLOTS && wishes.has(slot)) ++slot;
  if (slot === SLOTS) throw new ZorvError('too many faces wait at once');
  wishes.set(slot, { callback, keepsAlive });
  if (keepsAlive && ++kept === 1) worker.ref();
  Atomics.store(table, slot, fd);
  write(wake, one, 8);
  return slot;
}

/** The wish must be taken back before its descriptor is closed. */
export function forget(slot) {
  if (!take(slot)) return;
  Atomics.store(table, slot, -1);
  write(wake, one, 8);
}

/** Ends the sleeping thread, so that the process can end. */
function stopWaiting() {
  Atomics.store(table, 0, 1);
  write(wake, one, 8);
}
