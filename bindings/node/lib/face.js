// The live face: speech in as it arrives, pictures with their sound out, 25 times a second.
import { resolve as absolutePath } from 'node:path';
import { performance } from 'node:perf_hooks';
import { setTimeout as sleep } from 'node:timers/promises';
import {
  addressOf, EVENT_TYPES, FLAGS, FPS, LATE, lastError, lib, PIXELS, REASONS, Record, ZorvError,
} from './library.js';
import { bytesOf, Frame, kindName, planesOf } from './frame.js';
import { run } from './jobs.js';
import { destroyAtThreadEnd } from './thread_end.js';
import { forget, whenReadable } from './waiter.js';

const FRAME_MS = 1000 / FPS;
const MOST_CATCH_UP_MS = 8 * FRAME_MS; // later than that the schedule begins anew
const KEPT_RESULTS = 1024;
const KEPT_BUFFERS = 4;

const open = new Set();
process.on('exit', () => {
  for (const face of open) face.closeNow();
});

let encoderOfTheProcess;

/** All engines of a process share one speech encoder: the first one that is named. */
async function useEncoder(encoder) {
  if (encoder === undefined) return;
  const path = absolutePath(encoder);
  encoderOfTheProcess ??= { path, loaded: run('preload', { encoder: path }) };
  if (encoderOfTheProcess.path !== path) {
    throw new ZorvError(`this process has the speech encoder ${encoderOfTheProcess.path} already`);
  }
  try {
    await encoderOfTheProcess.loaded;
  } catch (error) {
    encoderOfTheProcess = undefined;
    throw error;
  }
}

function oneOf(table, value, name) {
  if (!Object.hasOwn(table, value)) {
    throw new TypeError(`${name} is one of ${Object.keys(table).join(', ')}, not ${value}`);
  }
  return table[value];
}

function secondsOf(silenceEnd) {
  if (silenceEnd === 'never') return -1;
  if (typeof silenceEnd === 'number' && silenceEnd > 0) return silenceEnd;
  throw new TypeError('silenceEnd is "never" or a number of seconds above 0');
}

/** A settled promise when the list of what waits is served or given up. */
class Waiters {
  #waiting = [];

  wait() {
    return new Promise((resolve, reject) => this.#waiting.push({ resolve, reject }));
  }
  resolve(value) {
    for (const { resolve } of this.#waiting.splice(0)) resolve(value);
  }
  reject(error) {
    for (const { reject } of this.#waiting.splice(0)) reject(error);
  }
}

export class Face {
  #handles;
  #options;
  #frame = new Record('zorv_utt_frame');
  #event = new Record('zorv_utt_event');
  #planes;
  #bytes;
  #spare = [];
  #watch; // of events
  #wanted; // of frames
  #frameWaiters = new Waiters();
  #listeners = new Set();
  #results = new Map();
  #finishWaiters = new Map();
  #newest = 0;
  #streaming = false;
  #closing;
  #keepAtThreadEnd;

  /** Opens a subject; see index.d.ts. */
  static async open(bundle, options = {}) {
    const settings = {
      bundle: String(bundle),
      motion: String(options.motion ?? ''),
      threads: options.threads ?? 1,
      eager: options.eager ?? 0,
      rampFrames: options.rampFrames ?? 0,
      steadyModel: options.steadyModel ?? '',
      silenceEnd: secondsOf(options.silenceEnd ?? 'never'),
      rate: options.rate ?? 16000,
      pixels: oneOf(PIXELS, options.pixels ?? 'rgba', 'pixels'),
      idleAhead: options.idleAhead ?? 2,
      late: oneOf(LATE, options.late ?? 'wait', 'late'),
    };
    for (const name of ['threads', 'eager', 'rampFrames', 'rate', 'idleAhead']) {
      if (!Number.isInteger(settings[name])) throw new TypeError(`${name} is a whole number`);
    }
    await useEncoder(options.encoder);
    const handles = await run('openFace', settings);
    return new Face(handles, { ...settings, pixels: options.pixels ?? 'rgba' });
  }

  /** Internal: use Face.open. */
  constructor(handles, options) {
    this.#handles = handles;
    this.#options = options;
    this.#planes = planesOf(options.pixels, handles.width, handles.height);
    this.#bytes = bytesOf(this.#planes);
    open.add(this);
    this.#keepAtThreadEnd = destroyAtThreadEnd(handles.utt);
    this.#watchEvents();
  }

  get width() { return this.#handles.width; }
  get height() { return this.#handles.height; }
  get fps() { return FPS; }
  get rate() { return this.#options.rate; }
  get pixels() { return this.#options.pixels; }
  get closed() { return this.#closing !== undefined; }

  #utt() {
    if (this.closed) throw new ZorvError('the face is closed');
    return this.#handles.utt;
  }

  /** Appends mono samples at `rate` to the utterance; its number, 0 when there were none. */
  push(pcm) {
    const utt = this.#utt();
    if (!(pcm instanceof Int16Array)) throw new TypeError('push takes an Int16Array');
    if (pcm.length === 0) return 0;
    const utterance = Number(lib.zorv_utt_push(utt, pcm, pcm.length));
    if (utterance === 0) throw new ZorvError(lastError('zorv_utt_push'));
    this.#newest = Math.max(this.#newest, utterance);
    return utterance;
  }

  end() {
    lib.zorv_utt_end_utterance(this.#utt());
  }

  interrupt() {
    lib.zorv_utt_interrupt(this.#utt());
    this.#readEvents();
  }

  /** The next picture when it is finished, else null. */
  pull() {
    const utt = this.#utt();
    const data = this.#spare.pop() ?? Buffer.allocUnsafeSlow(this.#bytes);
    const sound = new Int16Array(this.#options.rate / FPS);
    const record = this.#frame;
    let at = addressOf(data);
    this.#planes.forEach(({ stride, rows }, i) => {
      record.set('plane', at, i);
      record.set('stride', stride, i);
      at += BigInt(stride * rows);
    });
    record.set('sound', addressOf(sound));
    record.set('sound_capacity', sound.length);
    const got = lib.zorv_utt_pull(utt, record.bytes);
    if (got !== 1) {
      this.#keep(data);
      if (got < 0) throw new ZorvError(lastError('zorv_utt_pull'));
      return null;
    }
    const flags = record.get('flags');
    const frame = new Frame({
      data,
      width: this.width,
      height: this.height,
      pixels: this.pixels,
      sound,
      kind: kindName(record.get('kind')),
      utterance: record.get('utterance'),
      firstSample: record.get('first_sample'),
      pts: record.get('pts'),
      first: (flags & FLAGS.first) !== 0,
      last: (flags & FLAGS.last) !== 0,
      silence: (flags & FLAGS.silence) !== 0,
      gap: (flags & FLAGS.gap) !== 0,
    }, (buffer) => this.#keep(buffer));
    this.#readEvents();
    return frame;
  }

  #keep(buffer) {
    if (this.#spare.length < KEPT_BUFFERS) this.#spare.push(buffer);
  }

  /** Resolves when a picture can be pulled. */
  #frameReady() {
    if (this.#wanted === undefined) {
      this.#wanted = whenReadable(this.#handles.frameFd, () => {
        this.#wanted = undefined;
        this.#frameWaiters.resolve();
      }, true);
    }
    return this.#frameWaiters.wait();
  }

  /** Pictures at 25 per second of the machine's clock until the face is closed. */
  async * frames() {
    if (this.#streaming && !this.closed) throw new ZorvError('frames() runs already');
    this.#streaming = true;
    try {
      let due = performance.now();
      while (!this.closed) {
        const frame = this.pull();
        if (!frame) {
          if (lib.zorv_utt_wait(this.#handles.utt, 1, 0) < 0) {
            throw new ZorvError(lastError('zorv_utt_wait'));
          }
          await this.#frameReady();
          continue;
        }
        yield frame;
        due += FRAME_MS;
        const now = performance.now();
        if (now - due > MOST_CATCH_UP_MS) due = now;
        if (due > now) await sleep(due - now);
      }
    } catch (error) {
      if (!this.closed) throw error;
    } finally {
      this.#streaming = false;
    }
  }

  #watchEvents() {
    this.#watch = whenReadable(this.#handles.eventFd, () => {
      this.#watch = undefined;
      if (this.closed) return;
      this.#readEvents();
      this.#watchEvents();
    }, false);
  }

  /** The only reader of the engine's events. */
  #readEvents() {
    while (lib.zorv_utt_next_event(this.#handles.utt, this.#event.bytes) === 1) {
      const event = this.#event.toObject([['utterance', 'utterance'], ['samples', 'samples'],
        ['pts', 'pts'], ['framesLeftOut', 'frames_left_out'], ['missed', 'missed']]);
      event.type = EVENT_TYPES[this.#event.get('type')];
      event.reason = REASONS[this.#event.get('reason')];
      if (event.type !== 'started') this.#settle(event);
      for (const listener of this.#listeners) {
        try {
          listener.take(event);
        } catch (error) { // the listener's own affair: neither the face nor the others stop
          queueMicrotask(() => { throw error; });
        }
      }
    }
  }

  #settle(event) {
    this.#newest = Math.max(this.#newest, event.utterance);
    this.#results.set(event.utterance, event);
    this.#results.delete(event.utterance - KEPT_RESULTS);
    this.#finishWaiters.get(event.utterance)?.resolve(event);
    this.#finishWaiters.delete(event.utterance);
  }

  /** How an utterance ended, once it has. */
  async finished(utterance) {
    const known = this.#results.get(utterance);
    if (known) return known;
    this.#utt();
    const kept = utterance > this.#newest - KEPT_RESULTS;
    if (!Number.isInteger(utterance) || utterance < 1 || utterance > this.#newest || !kept) {
      throw new RangeError(`no utterance ${utterance} is known`);
    }
    if (!this.#finishWaiters.has(utterance)) this.#finishWaiters.set(utterance, new Waiters());
    return this.#finishWaiters.get(utterance).wait();
  }

  /** Calls `take` with every event from now on, as soon as it is known; returns how to stop. */
  onEvent(take) {
    const listener = { take };
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }

  /** What happens from now on, until the face is closed. */
  async * events() {
    const waiting = [];
    const more = new Waiters();
    const listener = {
      take: (event) => {
        waiting.push(event);
        if (waiting.length > KEPT_RESULTS) waiting.shift();
        more.resolve();
      },
      end: () => more.resolve(),
    };
    this.#listeners.add(listener);
    try {
      for (;;) {
        while (waiting.length > 0) yield waiting.shift();
        if (this.closed) return;
        await more.wait();
      }
    } finally {
      this.#listeners.delete(listener);
    }
  }

  stats() {
    const record = new Record('zorv_utt_stats');
    lib.zorv_utt_get_stats(this.#utt(), record.bytes);
    return {
      ...record.toObject([['framesPulled', 'frames_pulled'],
        ['speechFramesPulled', 'speech_frames_pulled'], ['utterancesStarted', 'utterances_started'],
        ['firstFrameLatencyMs', 'first_frame_latency_ms'], ['renderMs', 'render_ms']]),
      state: ['idle', 'started', 'speaking', 'ramping'][record.get('state')],
    };
  }

  latency() {
    const record = new Record('zorv_utt_latency_info');
    if (lib.zorv_utt_latency(this.#utt(), record.bytes) !== 1) {
      throw new ZorvError(lastError('zorv_utt_latency'));
    }
    return record.toObject([['lookAheadSamples', 'look_ahead_samples'],
      ['idleAhead', 'idle_ahead'], ['renderMs', 'render_ms'],
      ['framesLeftOutLate', 'frames_left_out_late'],
      ['framesLeftOutFailed', 'frames_left_out_failed'], ['lateSlots', 'late_slots'],
      ['soundBytes', 'sound_bytes']]);
  }

  /** How many failures there were, and the latest one's reason. */
  failures() {
    const text = Buffer.alloc(512);
    const count = Number(lib.zorv_utt_failure(this.#utt(), text, text.length));
    return { count, text: text.toString('utf8', 0, text.indexOf(0)) };
  }

  #end() {
    open.delete(this);
    this.#keepAtThreadEnd();
    if (this.#watch !== undefined) forget(this.#watch);
    if (this.#wanted !== undefined) forget(this.#wanted);
    const error = new ZorvError('the face is closed');
    this.#frameWaiters.reject(error);
    for (const waiters of this.#finishWaiters.values()) waiters.reject(error);
    this.#finishWaiters.clear();
    for (const listener of this.#listeners) listener.end?.();
  }

  /** Ends the face and gives its memory back. */
  close() {
    if (!this.closed) {
      this.#closing = run('closeFace', { utt: this.#handles.utt, ctx: this.#handles.ctx });
      this.#end();
    }
    return this.#closing;
  }

  /** Internal: close() for a process that ends now. */
  closeNow() {
    this.#closing = Promise.resolve();
    this.#end();
    lib.zorv_utt_destroy(this.#handles.utt);
    lib.zorv_destroy(this.#handles.ctx);
  }

  async [Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]() {
    await this.close();
  }
}
