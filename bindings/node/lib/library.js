// The C interface, declared as include/zorv_core.h declares it.
//
// The text of a failed call belongs to the thread that made it: whoever makes a call that can fail
// asks for its text on the same thread, before any other call of that family.
import './platform.js';
import { existsSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import koffi from 'koffi';

export const FPS = 25;
export const RATE = 16000; // what the models hear, in Hz
export const SAMPLES_PER_FRAME = RATE / FPS;

export const PIXELS = { rgba: 0, rgb: 1, i420: 2, nv12: 3 };
export const LATE = { wait: 0, skip: 1 };
export const KINDS = ['idle', 'speech', 'ramp'];
export const EVENT_TYPES = ['', 'started', 'finished', 'interrupted', 'failed'];
export const REASONS = ['', 'end', 'silence', 'interrupt', 'failure'];
export const FLAGS = { first: 1, last: 2, silence: 4, gap: 8 };

/** Something did not work; the text is the library's own. */
export class ZorvError extends Error {
  name = 'ZorvError';
}

// Name: result, then arguments. Handles and memory are addresses or typed arrays.
export const FUNCTIONS = {
  zorv_version: ['int'],
  zorv_set_log: ['void', 'void *', 'void *'],
  zorv_create: ['void *', 'str', 'str', 'int', 'str'],
  zorv_destroy: ['void', 'void *'],
  zorv_last_error: ['str'],
  zorv_nt: ['int', 'void *'],
  zorv_width: ['int', 'void *'],
  zorv_height: ['int', 'void *'],
  zorv_render_kp_crop: ['void *', 'void *', 'int', 'void *', 'void *'],
  zorv_paste_planes: ['int', 'void *', 'int', 'void *', 'int', 'int', 'void *', 'void *'],
  zorv_resample: ['int', 'void *', 'int', 'int', 'void *', 'int'],
  zorv_resample_last_error: ['str'],
  zorv_fca_create: ['void *', 'str', 'str', 'int'],
  zorv_fca_deltas: ['int', 'void *', 'void *', 'int', 'void *', 'int'],
  zorv_fca_destroy: ['void', 'void *'],
  zorv_fca_last_error: ['str'],
  zorv_motion_create: ['void *', 'str', 'int', 'str'],
  zorv_motion_destroy: ['void', 'void *'],
  zorv_motion_last_error: ['str'],
  zorv_motion_nt: ['int', 'void *'],
  zorv_motion_push: ['int', 'void *', 'void *', 'int'],
  zorv_motion_finish: ['void', 'void *'],
  zorv_motion_avail: ['int', 'void *'],
  zorv_motion_pull: ['int', 'void *', 'void *', 'void *', 'void *', 'int'],
  zorv_motion_reset: ['void', 'void *', 'int', 'int', 'int'],
  zorv_a2x_create: ['void *', 'str', 'int'],
  zorv_a2x_destroy: ['void', 'void *'],
  zorv_a2x_preload_w2v: ['int', 'str'],
  zorv_a2x_last_error: ['str'],
  zorv_a2x_nt: ['int', 'void *'],
  zorv_a2x_push: ['int', 'void *', 'void *', 'int'],
  zorv_a2x_finish: ['void', 'void *'],
  zorv_a2x_avail: ['int', 'void *'],
  zorv_a2x_pull: ['int', 'void *', 'void *', 'void *', 'void *', 'int'],
  zorv_a2x_reset: ['void', 'void *', 'int', 'int', 'int'],
  zorv_utt_create: ['void *', 'void *', 'void *'],
  zorv_utt_destroy: ['void', 'void *'],
  zorv_utt_ready: ['int', 'void *'],
  zorv_utt_set_input: ['int', 'void *', 'int'],
  zorv_utt_set_pixels: ['int', 'void *', 'int'],
  zorv_utt_set_idle_ahead: ['int', 'void *', 'int'],
  zorv_utt_set_late: ['int', 'void *', 'int'],
  zorv_utt_push: ['uint64_t', 'void *', 'void *', 'int'],
  zorv_utt_end_utterance: ['void', 'void *'],
  zorv_utt_interrupt: ['void', 'void *'],
  zorv_utt_pull: ['int', 'void *', 'void *'],
  zorv_utt_next_event: ['int', 'void *', 'void *'],
  zorv_utt_wait: ['int', 'void *', 'int', 'int'],
  zorv_utt_fd: ['int', 'void *', 'int'],
  zorv_utt_latency: ['int', 'void *', 'void *'],
  zorv_utt_get_stats: ['void', 'void *', 'void *'],
  zorv_utt_failure: ['uint64_t', 'void *', 'void *', 'size_t'],
  zorv_utt_last_error: ['str'],
};

// Records, field by field in the header's order: name, type, and how many.
export const RECORDS = {
  zorv_utt_opts: [['motion_dir', 'pointer'], ['threads', 'int32'], ['ep', 'pointer'],
    ['steady_model', 'pointer'], ['eager', 'int32'], ['silence_end_s', 'double'],
    ['ramp_frames', 'int32'], ['ramp_frames_interrupt', 'int32']],
  zorv_utt_frame: [['struct_size', 'uint64'], ['plane', 'pointer', 3], ['stride', 'int32', 3],
    ['sound', 'pointer'], ['sound_capacity', 'int32'], ['sound_samples', 'int32'],
    ['sequence', 'uint64'], ['kind', 'int32'], ['frame', 'int32'], ['speech_sequence', 'int32'],
    ['utterance', 'uint64'], ['first_sample', 'int64'], ['pts', 'int64'], ['flags', 'uint32']],
  zorv_utt_event: [['struct_size', 'uint64'], ['type', 'int32'], ['reason', 'int32'],
    ['utterance', 'uint64'], ['samples', 'int64'], ['pts', 'int64'],
    ['frames_left_out', 'uint64'], ['missed', 'uint64']],
  zorv_utt_latency_info: [['struct_size', 'uint64'], ['look_ahead_samples', 'int32'],
    ['idle_ahead', 'int32'], ['render_ms', 'double'], ['frames_left_out_late', 'uint64'],
    ['frames_left_out_failed', 'uint64'], ['late_slots', 'uint64'], ['sound_bytes', 'uint64']],
  zorv_utt_stats: [['frames_pulled', 'uint64'], ['speech_frames_pulled', 'uint64'],
    ['utterances_started', 'uint64'], ['first_frame_latency_ms', 'double'],
    ['render_ms', 'double'], ['reserved', 'uint64'], ['state', 'int32']],
};

const ACCESS = {
  int32: [4, (v, at) => v.getInt32(at, true), (v, at, x) => v.setInt32(at, x, true)],
  uint32: [4, (v, at) => v.getUint32(at, true), (v, at, x) => v.setUint32(at, x, true)],
  int64: [8, (v, at) => Number(v.getBigInt64(at, true)),
    (v, at, x) => v.setBigInt64(at, BigInt(x), true)],
  uint64: [8, (v, at) => Number(v.getBigUint64(at, true)),
    (v, at, x) => v.setBigUint64(at, BigInt(x), true)],
  pointer: [8, (v, at) => v.getBigUint64(at, true),
    (v, at, x) => v.setBigUint64(at, BigInt(x), true)],
  double: [8, (v, at) => v.getFloat64(at, true), (v, at, x) => v.setFloat64(at, x, true)],
};

/** Where each field of a record lies, as a C compiler lays it out, and the record's size. */
export function layoutOf(name) {
  const fields = {};
  let at = 0;
  for (const [field, type, count = 1] of RECORDS[name]) {
    const size = ACCESS[type][0];
    at = Math.ceil(at / size) * size;
    fields[field] = { at, type, size };
    at += size * count;
  }
  return { fields, size: Math.ceil(at / 8) * 8 };
}

/** One record in memory that the library may write to. */
export class Record {
  #fields;
  #view;

  constructor(name) {
    const { fields, size } = layoutOf(name);
    this.#fields = fields;
    this.bytes = new Uint8Array(size);
    this.#view = new DataView(this.bytes.buffer);
    if (fields.struct_size) this.set('struct_size', size);
  }
  get(field, index = 0) {
    const { at, type, size } = this.#fields[field];
    return ACCESS[type][1](this.#view, at + index * size);
  }
  set(field, value, index = 0) {
    const { at, type, size } = this.#fields[field];
    ACCESS[type][2](this.#view, at + index * size, value);
  }
  /** Every field under a JavaScript name. */
  toObject(names) {
    return Object.fromEntries(names.map(([name, field]) => [name, this.get(field)]));
  }
}

// The library stays when a worker thread that loaded it ends: threads of its own may be running.
const RTLD_LAZY = 0x1;
const RTLD_NODELETE = 0x1000;
const libc = koffi.load('libc.so.6');
let library;

function load() {
  const inside = fileURLToPath(new URL('../native/libzorv_core.so.0', import.meta.url));
  const name = process.env.ZORV_LIBRARY ||
    (existsSync(inside) ? inside : 'libzorv_core.so.0');
  try {
    library = koffi.load(name);
    libc.func('void *dlopen(str, int)')(name, RTLD_LAZY | RTLD_NODELETE);
    return Object.fromEntries(Object.entries(FUNCTIONS).map(
      ([entry, [result, ...args]]) => [entry, library.func(entry, result, args)]));
  } catch (error) {
    throw new ZorvError(`zorv cannot use its library ${name}: ${error.message}`);
  }
}

export const lib = load();
export const addressOfFunction = (name) => library.symbol(name);

// The library's own lines are dropped; failures are thrown. The log function is C's strcmp: it takes
// two pointers too, changes nothing, and runs without JavaScript on the threads that write. It gets its
// own address as `user`, which outlives every worker thread.
const nothing = libc.symbol('strcmp');
lib.zorv_set_log(nothing, nothing);
export const addressOf = (array) => koffi.address(array);

/** The text of this thread's failed call. */
export function lastError(name) {
  const family = /^zorv_(?:(utt|motion|a2x|fca|resample)_)?/.exec(name)[1];
  const text = lib[family ? `zorv_${family}_last_error` : 'zorv_last_error']();
  return text || `${name} failed`;
}

/** A call whose result 0, null or below 0 is a failure. */
export function checked(name, ...args) {
  const result = lib[name](...args);
  if (result === null || result === 0 || result === 0n || result < 0) {
    throw new ZorvError(lastError(name));
  }
  return result;
}
