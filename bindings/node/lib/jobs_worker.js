// Makes one lasting call after the other, each with the reading of its error text.
import { parentPort, workerData } from 'node:worker_threads';
import { checked, lib } from './library.js';
import { openFace } from './open.js';
import { leave } from './thread.js';

const { opened, outside } = workerData;

const JOBS = {
  openFace: (settings) => {
    const face = openFace(settings);
    opened.set([BigInt(face.utt), BigInt(face.ctx)]);
    return face;
  },
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
  leave(outside);
});
