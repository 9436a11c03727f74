// Calls that can last run on threads of their own, which sleep when there is nothing to do.
import { lib, ZorvError } from './library.js';
import { startThread } from './thread.js';

const MOST_THREADS = 4;
const idle = [];
const queue = [];
const threads = new Set();

// Frees a face whose opening ended while the process exits: no message brings it to its owner then.
// The handlers of thread.js have run before.
process.on('exit', () => {
  for (const { opened } of threads) {
    if (opened[0] === 0n) continue;
    lib.zorv_utt_destroy(opened[0]);
    lib.zorv_destroy(opened[1]);
  }
});

class JobThread {
  #worker;
  #outside;
  #job;
  opened = new BigUint64Array(new SharedArrayBuffer(16)); // engine and context that nobody has yet

  constructor() {
    ({ worker: this.#worker, outside: this.#outside } =
      startThread('./jobs_worker.js', { opened: this.opened }));
    threads.add(this);
    this.#worker.on('message', ({ value, text }) => {
      const { resolve, reject } = this.#job;
      this.opened.fill(0n);
      this.#worker.unref();
      idle.push(this);
      if (text === undefined) resolve(value);
      else reject(new ZorvError(text));
      startJobs();
    });
    this.#worker.on('error', (error) => {
      threads.delete(this);
      this.#job?.reject(error);
      startJobs();
    });
  }

  start(job) {
    this.#job = job;
    Atomics.store(this.#outside, 0, 0);
    this.#worker.ref();
    this.#worker.postMessage(job.message);
  }
}

function startJobs() {
  while (queue.length > 0 && (idle.length > 0 || threads.size < MOST_THREADS)) {
    (idle.pop() ?? new JobThread()).start(queue.shift());
  }
}

/** Runs a job of jobs_worker.js. */
export function run(job, input) {
  return new Promise((resolve, reject) => {
    queue.push({ message: { job, input }, resolve, reject });
    startJobs();
  });
}
