// A whole clip: speech in, pictures out, as fast as the machine renders.
import { FPS, PIXELS, SAMPLES_PER_FRAME, ZorvError } from './library.js';
import { Frame } from './frame.js';
import { startThread } from './thread.js';

const WAITING = 4; // finished frames ahead of who takes them

export class Clip {
  #settings;

  constructor(bundle, options = {}) {
    const engine = options.engine ?? 'fca';
    const settings = {
      bundle: String(bundle),
      engine,
      encoder: options.encoder ?? '',
      motion: options.motion ?? '',
      threads: options.threads ?? 1,
      pixels: options.pixels ?? 'rgb',
    };
    if (!['fca', 'motion', 'a2x'].includes(engine)) {
      throw new TypeError('engine is fca, motion or a2x');
    }
    if (!Object.hasOwn(PIXELS, settings.pixels)) {
      throw new TypeError(`pixels is one of ${Object.keys(PIXELS).join(', ')}`);
    }
    if (engine !== 'motion' && !settings.encoder) throw new TypeError('encoder is required');
    if (engine !== 'fca' && !settings.motion) throw new TypeError('motion is required');
    this.#settings = settings;
  }

  get fps() { return FPS; }

  /** Renders mono samples, Float32Array in [-1, 1] or Int16Array; leaving the loop stops it. */
  async * render(samples, rate = 16000) {
    if (!(samples instanceof Float32Array || samples instanceof Int16Array)) {
      throw new TypeError('render takes a Float32Array or an Int16Array');
    }
    if (!Number.isInteger(rate) || rate < 8000 || rate > 48000 || rate % 25 !== 0) {
      throw new RangeError('rate is a multiple of 25 from 8000 to 48000');
    }
    const control = new SharedArrayBuffer(8);
    const counters = new Int32Array(control);
    const stop = () => {
      Atomics.store(counters, 1, 1);
      Atomics.add(counters, 0, WAITING); // whoever waits for room looks again
      Atomics.notify(counters, 0);
    };
    const { worker } = startThread('./clip_worker.js',
      { settings: this.#settings, samples, rate, control, waiting: WAITING }, stop);
    const arrived = [];
    let wake = () => {};
    worker.on('message', (message) => {
      arrived.push(message);
      wake();
    });
    worker.on('error', (error) => {
      arrived.push({ done: true, text: error.message });
      wake();
    });
    const ended = new Promise((resolve) => worker.once('exit', resolve));
    try {
      for (;;) {
        while (arrived.length === 0) await new Promise((resolve) => { wake = resolve; });
        const message = arrived.shift();
        if (message.done) {
          if (message.text !== undefined) throw new ZorvError(message.text);
          return;
        }
        Atomics.add(counters, 0, 1);
        Atomics.notify(counters, 0);
        yield new Frame({
          data: Buffer.from(message.data.buffer),
          width: message.width,
          height: message.height,
          pixels: this.#settings.pixels,
          sound: undefined,
          kind: 'speech',
          utterance: 0,
          firstSample: message.number * SAMPLES_PER_FRAME,
          pts: message.number,
          first: message.number === 0,
          last: false,
          silence: false,
          gap: false,
        });
      }
    } finally {
      stop();
      await ended;
    }
  }
}
