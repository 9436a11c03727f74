// Makes one lasting call after the other, each with the reading of its error text.
import { parentPort } from 'node:worker_threads';
import { checked, lib } from './library.js';
import { openFace } from './open.js';

const JOBS = {
  openFace,
  closeFace: ({ utt, ctx }) => {
    lib.zorv_utt_destroy(utt);
    lib.zorv_destroy(ctx);
  },
  preload: ({ encoder }) => checked('zorv_a2x_preload_w2v', encoder),
};

parentPort.on('message', ({ job, input }) => {
  try {
    parentPort.postMessage({ value: JOBS[job](input) });
  } catch (error) {
    parentPort.postMessage({ text: error.message });
  }
});
