// Calls that can last run on threads of their own, which sleep when there is nothing to do.
import { Worker } from 'node:worker_threads';
import { ZorvError } from './library.js';

const MOST_WORKERS = 4;
const idle = [];
const queue = [];
let workers = 0;

class JobThread {
  #worker = new Worker(new URL('./jobs_worker.js', import.meta.url), { execArgv: [] });
  #job;

  constructor() {
    ++workers;
    this.#worker.on('message', ({ value, text }) => {
      const { resolve, reject } = this.#job;
      this.#worker.unref();
      idle.push(this);
      if (text === undefined) resolve(value);
      else reject(new ZorvError(text));
      startJobs();
    });
    this.#worker.on('error', (error) => {
      --workers;
      this.#job?.reject(error);
      startJobs();
    });
  }

  start(job) {
    this.#job = job;
    this.#worker.ref();
    this.#worker.postMessage(job.message);
  }
}

function startJobs() {
  while (queue.length > 0 && (idle.length > 0 || workers < MOST_WORKERS)) {
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
