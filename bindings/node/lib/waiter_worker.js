// Sleeps in poll(2) on the descriptors that somebody waits for.
import { parentPort, workerData } from 'node:worker_threads';
import koffi from 'koffi';
import { leave } from './thread.js';

// slots: descriptors, -1 for none; [0]: 1 when to end. patience: ms, -1 for any time.
const { slots, wake, patience, outside } = workerData;
const table = new Int32Array(slots);
const libc = koffi.load('libc.so.6');
const poll = libc.func('int poll(void *fds, unsigned long count, int timeout)');
const read = libc.func('long read(int fd, void *buffer, size_t count)');

const POLLIN = 1;
const entries = new DataView(new ArrayBuffer(8 * table.length));
const bytes = new Uint8Array(entries.buffer);
const counter = new Uint8Array(8);

while (Atomics.load(table, 0) === 0) {
  const watched = [];
  const put = (fd) => {
    entries.setInt32(8 * watched.length, fd, true);
    entries.setInt16(8 * watched.length + 4, POLLIN, true);
    entries.setInt16(8 * watched.length + 6, 0, true);
  };
  put(wake);
  watched.push(0);
  for (let slot = 1; slot < table.length; ++slot) {
    const fd = Atomics.load(table, slot);
    if (fd < 0) continue;
    put(fd);
    watched.push(slot);
  }
  poll(bytes, watched.length, patience);
  for (let i = 0; i < watched.length; ++i) {
    if (entries.getInt16(8 * i + 6, true) === 0) continue;
    if (i === 0) {
      read(wake, counter, 8);
      continue;
    }
    const fd = entries.getInt32(8 * i, true);
    // One wake-up for each wish: whoever wants another one asks again.
    if (Atomics.compareExchange(table, watched[i], fd, -1) === fd) {
      parentPort.postMessage(watched[i]);
    }
  }
}
leave(outside);
