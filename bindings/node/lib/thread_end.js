// A worker thread can be ended from outside, and then no JavaScript of it runs any more. The C library
// still tells the end of a thread to whoever left a value with it: there the engine is destroyed,
// whose own threads would else go on while the process ends.
import { isMainThread } from 'node:worker_threads';
import koffi from 'koffi';
import { addressOfFunction } from './library.js';

const libc = koffi.load('libc.so.6');
const createKey = libc.func('int pthread_key_create(void *key, void *atEnd)');
const setValue = libc.func('int pthread_setspecific(unsigned int key, void *value)');
const deleteKey = libc.func('int pthread_key_delete(unsigned int key)');

/** Destroys an engine when this worker thread ends, unless the returned function was called. */
export function destroyAtThreadEnd(utt) {
  const key = new Uint32Array(1);
  if (isMainThread || createKey(key, addressOfFunction('zorv_utt_destroy')) !== 0) return () => {};
  setValue(key[0], utt);
  return () => {
    setValue(key[0], null);
    deleteKey(key[0]);
  };
}
