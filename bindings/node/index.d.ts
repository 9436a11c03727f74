/** Something did not work; the text is the library's own. */
export class ZorvError extends Error {}

export type Pixels = 'rgba' | 'rgb' | 'i420' | 'nv12';

/** A finished picture, and the sound that belongs to it. */
export class Frame {
  private constructor();
  /** The planes behind one another, without gaps between rows. */
  readonly data: Buffer;
  readonly width: number;
  readonly height: number;
  readonly pixels: Pixels;
  /** rgb(a): one; nv12: y, uv; i420: y, u, v. Views of `data`. */
  readonly planes: Buffer[];
  /** A live frame's own 40 ms, mono at the face's rate; idle frames have zeros. */
  readonly sound: Int16Array;
  readonly kind: 'idle' | 'speech' | 'ramp';
  /** The utterance that it belongs to; 0 for none. */
  readonly utterance: number;
  /** Of a speech frame: where its sound begins in the utterance, in samples; else -1. */
  readonly firstSample: number;
  /** In 1/25 s, from 0. */
  readonly pts: number;
  /** The first or last shown frame of its utterance (none is `last` when that was not certain yet:
   *  finished() tells); ended by silence; frames are missing before it. */
  readonly first: boolean;
  readonly last: boolean;
  readonly silence: boolean;
  readonly gap: boolean;
  /** Lets later frames use this one's memory; it must not be looked at afterwards. Optional. */
  release(): void;
}

export interface ClipOptions {
  /** What turns speech into motion; default 'fca'. */
  engine?: 'fca' | 'motion' | 'a2x';
  /** Speech encoder file, for fca and a2x. */
  encoder?: string;
  /** Directory of the engine's models, for motion and a2x. */
  motion?: string;
  /** Threads of one model run; default 1. */
  threads?: number;
  /** Default 'rgb'. */
  pixels?: Pixels;
}

/** Whole clips, as fast as the machine renders. */
export class Clip {
  constructor(bundle: string, options?: ClipOptions);
  readonly fps: 25;
  /**
   * Renders mono samples, floats in [-1, 1] or 16-bit integers, on a thread of its own: one frame
   * for every started 40 ms. Leaving the loop stops the render. Throws ZorvError.
   */
  render(samples: Float32Array | Int16Array, rate?: number): AsyncGenerator<Frame, void, void>;
}

export interface FaceOptions {
  /** Directory of the engine's models; required. */
  motion: string;
  /** Speech encoder of the expression engine; all faces of a process share the first one. */
  encoder?: string;
  /** Default 'rgba'. */
  pixels?: Pixels;
  /** Of the sound, Hz: 8000 to 48000, a multiple of 25. Default 16000. */
  rate?: number;
  /** Idle frames made ahead, 1 to 8, default 2: so much later speech is shown. */
  idleAhead?: number;
  /** 'wait' shows every frame however late, 'skip' leaves late ones out. Default 'wait'. */
  late?: 'wait' | 'skip';
  /** Seconds without sound that end an utterance, or 'never', the default. */
  silenceEnd?: 'never' | number;
  /** Frames of sound per provisional pass; 0, the default, is adaptive, -2 hybrid. */
  eager?: number;
  threads?: number;
  /** Frames from speech back to rest; 0 takes the library's 6. */
  rampFrames?: number;
  /** Key of the second renderer; '' takes the library's, '-' none. */
  steadyModel?: string;
}

export interface FaceEvent {
  type: 'started' | 'finished' | 'interrupted' | 'failed';
  /** Why it ended: 'end', 'silence', 'interrupt', 'failure'; '' for 'started'. */
  reason: string;
  utterance: number;
  /** Up to where it was shown, in samples at the face's rate. */
  samples: number;
  pts: number;
  framesLeftOut: number;
  missed: number;
}

/** The live face. Every call belongs to the thread that opened it. */
export class Face {
  private constructor();
  /** Opens a subject on a thread of its own. Models load meanwhile; the face idles until then. */
  static open(bundle: string, options: FaceOptions): Promise<Face>;
  readonly width: number;
  readonly height: number;
  readonly fps: 25;
  readonly rate: number;
  readonly pixels: Pixels;
  readonly closed: boolean;
  /** Appends mono samples to the utterance; its number, 0 when there were none. */
  push(pcm: Int16Array): number;
  /** Ends the utterance that is being pushed. */
  end(): void;
  /** Stops speaking at once and drops what was pushed. */
  interrupt(): void;
  /** The next picture when it is finished, else null; never waits. */
  pull(): Frame | null;
  /** Pictures at 25 per second until the face is closed; up to 8 late ones are caught up. */
  frames(): AsyncGenerator<Frame, void, void>;
  /** How an utterance ended, once it has. The newest 1024 are known; others raise RangeError. */
  finished(utterance: number): Promise<FaceEvent>;
  /** What happens from now on, until the face is closed. */
  events(): AsyncGenerator<FaceEvent, void, void>;
  /** Calls back with every event from now on, as soon as it is known; returns how to stop. */
  onEvent(take: (event: FaceEvent) => void): () => void;
  stats(): {
    framesPulled: number; speechFramesPulled: number; utterancesStarted: number;
    firstFrameLatencyMs: number; renderMs: number;
    state: 'idle' | 'started' | 'speaking' | 'ramping';
  };
  latency(): {
    lookAheadSamples: number; idleAhead: number; renderMs: number; framesLeftOutLate: number;
    framesLeftOutFailed: number; lateSlots: number; soundBytes: number;
  };
  /** How many failures there were, and the latest one's reason. */
  failures(): { count: number; text: string };
  /** Ends the face; whoever waits gets a ZorvError. */
  close(): Promise<void>;
}
