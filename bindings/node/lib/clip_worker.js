// Renders one clip and hands its frames over, at most WAITING ahead of who takes them.
import { parentPort, workerData } from 'node:worker_threads';
import {
  addressOf, checked, lastError, lib, PIXELS, RATE, SAMPLES_PER_FRAME, ZorvError,
} from './library.js';
import { bytesOf, planesOf } from './frame.js';
import { leave } from './thread.js';

const KEYPOINTS = 63;
const PIECE = RATE / 2;
const { settings, samples, rate, control, waiting } = workerData;
const counters = new Int32Array(control); // [taken, stop]
let made = 0;

class Stopped extends Error {}

function room() {
  for (;;) {
    if (Atomics.load(counters, 1) !== 0) throw new Stopped();
    const taken = Atomics.load(counters, 0);
    if (made - taken < waiting) return;
    Atomics.wait(counters, 0, taken);
  }
}

/** What the models hear of it: 32-bit floats at 16 kHz. */
function heard() {
  const floats = samples instanceof Float32Array ? samples
    : Float32Array.from(samples, (x) => x / 32768);
  const out = new Float32Array(Math.ceil((floats.length * RATE) / rate));
  if (out.length > 0) checked('zorv_resample', floats, floats.length, rate, out, out.length);
  return out;
}

/** Renders target frame `index` between two keypoint sets and hands it over. */
function show(ctx, index, source, driving) {
  room();
  const crop = checked('zorv_render_kp_crop', ctx, index, source, driving);
  const width = lib.zorv_width(ctx);
  const height = lib.zorv_height(ctx);
  const planes = planesOf(settings.pixels, width, height);
  const data = new Uint8Array(bytesOf(planes));
  const starts = new BigUint64Array(planes.length);
  let at = addressOf(data);
  planes.forEach(({ stride, rows }, i) => {
    starts[i] = at;
    at += BigInt(stride * rows);
  });
  checked('zorv_paste_planes', ctx, index, crop, PIXELS[settings.pixels], 0, starts,
    Int32Array.from(planes, ({ stride }) => stride));
  parentPort.postMessage({ data, width, height, number: made++ }, [data.buffer]);
}

/** 0, 1, ..., n-1, n-2, ..., 1, 0, 1, ... */
function toAndFro(k, n) {
  const period = Math.max(1, 2 * n - 2);
  const p = k % period;
  return p < n ? p : period - p;
}

function keypointsOf(bytes, frame) {
  return new Float32Array(bytes.buffer, bytes.byteOffset + frame * KEYPOINTS * 4, KEYPOINTS);
}

async function renderDeltas(ctx, sound) {
  const { readFile } = await import('node:fs/promises');
  const rows = Buffer.from(await readFile(`${settings.bundle}/xs_target.bin`));
  const n = lib.zorv_nt(ctx);
  if (rows.length !== n * KEYPOINTS * 4) {
    throw new ZorvError(`${settings.bundle}/xs_target.bin does not fit the bundle`);
  }
  const fca = checked('zorv_fca_create', settings.encoder, `${settings.bundle}/fca_stream.onnx`,
    settings.threads);
  const frames = Math.ceil(sound.length / SAMPLES_PER_FRAME);
  const offsets = new Float32Array(frames * KEYPOINTS);
  try {
    checked('zorv_fca_deltas', fca, sound, sound.length, offsets, frames);
  } finally {
    lib.zorv_fca_destroy(fca);
  }
  const driving = new Float32Array(KEYPOINTS);
  for (let k = 0; k < frames; ++k) {
    const index = toAndFro(k, n);
    const source = keypointsOf(rows, index);
    for (let i = 0; i < KEYPOINTS; ++i) driving[i] = source[i] + offsets[k * KEYPOINTS + i];
    show(ctx, index, source, driving);
  }
}

function renderPushed(ctx, sound, family, create) {
  const call = (name, ...args) => lib[`zorv_${family}_${name}`](...args);
  const engine = checked(`zorv_${family}_create`, ...create);
  try {
    if (call('nt', engine) !== lib.zorv_nt(ctx)) {
      throw new ZorvError(`${settings.motion} was made for another bundle`);
    }
    call('reset', engine, 0, 1, 0);
    const index = new Int32Array(1);
    const source = new Float32Array(KEYPOINTS);
    const driving = new Float32Array(KEYPOINTS);
    const drain = () => {
      while (call('avail', engine) > 0 && call('pull', engine, index, source, driving, 1) === 1) {
        show(ctx, index[0], source, driving);
      }
    };
    for (let at = 0; at < sound.length; at += PIECE) {
      const piece = sound.subarray(at, at + PIECE);
      checked(`zorv_${family}_push`, engine, piece, piece.length);
      drain();
    }
    call('finish', engine);
    drain();
    if (made < Math.ceil(sound.length / SAMPLES_PER_FRAME)) {
      throw new ZorvError(lastError(`zorv_${family}_pull`));
    }
  } finally {
    call('destroy', engine);
  }
}

async function render() {
  const ctx = checked('zorv_create', settings.bundle, 'render', settings.threads, null);
  try {
    const sound = heard();
    const { engine, motion, encoder, threads } = settings;
    if (sound.length === 0) return;
    if (engine === 'motion') {
      renderPushed(ctx, sound, 'motion', [motion, threads, null]);
    } else if (engine === 'a2x') {
      checked('zorv_a2x_preload_w2v', encoder);
      renderPushed(ctx, sound, 'a2x', [motion, threads]);
    } else {
      await renderDeltas(ctx, sound);
    }
  } finally {
    lib.zorv_destroy(ctx);
  }
}

try {
  await render();
  parentPort.postMessage({ done: true });
} catch (error) {
  if (error instanceof Stopped) parentPort.postMessage({ done: true });
  else parentPort.postMessage({ done: true, text: error.message, ours: error instanceof ZorvError });
}
leave(workerData.outside);
