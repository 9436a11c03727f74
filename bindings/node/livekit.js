// An agent session's voice with a face: picture and sound are published as one.
import './lib/platform.js';
import { voice } from '@livekit/agents';
import {
  AudioFrame, AudioSource, VideoBufferType, VideoFrame, VideoSource,
} from '@livekit/rtc-node';
import { FPS } from './lib/library.js';

const QUEUE_MS = 120; // of sound between a frame's pull and the listener

export class FaceOutput extends voice.AudioOutput {
  #face;
  #lines = []; // begun and not reported: { utterance, ended }
  #open; // the line that is being captured
  #due; // a line that was shown whole, whose last sound is still in the queue
  #running;
  #closed = false;
  #dropped = 0; // seconds of sound that the interrupt under way took from the queue

  /** `face` must have pixels 'i420'; the output's rate is the face's. */
  constructor(face) {
    super(face.rate, undefined, { pause: false });
    if (face.pixels !== 'i420') throw new TypeError("the face must be opened with pixels: 'i420'");
    this.#face = face;
    this.videoSource = new VideoSource(face.width, face.height);
    this.audioSource = new AudioSource(face.rate, 1, QUEUE_MS);
    face.onEvent((event) => this.#heard(event));
    this.#running = this.#publish();
  }

  /** Settled when the pictures end: after close(), or with the engine's failure. */
  get done() { return this.#running; }

  async captureFrame(frame) {
    if (this.#closed) throw new Error('the face output is closed');
    if (frame.sampleRate !== this.#face.rate || frame.channels !== 1) {
      throw new RangeError(`sound must be mono at ${this.#face.rate} Hz`);
    }
    await super.captureFrame(frame);
    if (this.#closed) return;
    if (!this.#open) this.#lines.push(this.#open = { utterance: 0 });
    const utterance = this.#face.push(frame.data);
    if (utterance > 0) this.#open.utterance = utterance;
  }

  flush() {
    super.flush();
    const line = this.#open;
    this.#open = undefined;
    if (!line) return;
    if (line.utterance > 0) this.#face.end();
    else this.#report(line, 0, false);
  }

  clearBuffer() {
    super.flush(); // what is captured next is another line
    this.#open = undefined;
    const unheard = this.#unheard();
    this.audioSource.clearQueue();
    const due = this.#due;
    if (due) {
      clearTimeout(due.timer);
      this.#due = undefined;
      this.#report(due.line, Math.max(0, due.position - unheard), true);
    }
    this.#dropped = unheard;
    if (!this.#face.closed) this.#face.interrupt(); // tells what was spoken, in order
    this.#dropped = 0;
    for (const line of [...this.#lines]) this.#report(line, 0, true);
  }

  /** Seconds of sound that were handed over and not played. */
  #unheard() {
    return Math.max(0, this.audioSource.queuedDuration) / 1000;
  }

  #heard({ type, utterance, samples }) {
    const line = this.#lines.find((known) => known.utterance === utterance);
    if (!line) return;
    if (type === 'started') {
      this.#reportDue(); // the line before is told first
      this.onPlaybackStarted(Date.now());
      return;
    }
    const position = samples / this.#face.rate;
    if (type !== 'finished') {
      this.#report(line, Math.max(0, position - this.#dropped), true);
      return;
    }
    this.#reportDue();
    this.#due = { line, position };
    this.#due.timer = setTimeout(() => this.#reportDue(), this.#unheard() * 1000);
  }

  #reportDue() {
    const due = this.#due;
    if (!due) return;
    clearTimeout(due.timer);
    this.#due = undefined;
    this.#report(due.line, due.position, false);
  }

  /** Once for each line. */
  #report(line, playbackPosition, interrupted) {
    const at = this.#lines.indexOf(line);
    if (at < 0) return;
    this.#lines.splice(at, 1);
    if (this.#open === line) this.#open = undefined;
    this.onPlaybackFinished({ playbackPosition, interrupted });
  }

  async #publish() {
    try {
      for await (const frame of this.#face.frames()) {
        if (this.#closed) break;
        this.videoSource.captureFrame(
          new VideoFrame(frame.data, frame.width, frame.height, VideoBufferType.I420),
          BigInt(Math.round((frame.pts * 1e6) / FPS)));
        const { sound } = frame;
        frame.release();
        await this.audioSource.captureFrame(
          new AudioFrame(sound, this.#face.rate, 1, sound.length));
      }
    } finally {
      this.#giveUp();
    }
  }

  /** What was not played to its end never will be. */
  #giveUp() {
    this.#closed = true;
    this.#reportDue();
    for (const line of [...this.#lines]) this.#report(line, 0, true);
  }

  /** Ends picture and sound; the face stays its owner's. */
  async close() {
    if (!this.#closed) {
      this.clearBuffer();
      this.#giveUp();
    }
    await this.#running.catch(() => {});
    await this.videoSource.close();
    await this.audioSource.close();
  }
}
