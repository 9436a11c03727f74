import { voice } from '@livekit/agents';
import type { AudioFrame, AudioSource, VideoSource } from '@livekit/rtc-node';
import type { Face } from './index.js';

/**
 * An audio output for an agent session that publishes picture and sound as one: each picture with
 * its own sound. `session.output.audio = output`, and publish tracks of both sources.
 *
 * Reports playback started and finished once for each line, in order, with the position that was
 * heard. An interrupt clears what waits at once.
 */
export class FaceOutput extends voice.AudioOutput {
  /** The face must have been opened with `pixels: 'i420'`; it stays its owner's. */
  constructor(face: Face);
  readonly videoSource: VideoSource;
  readonly audioSource: AudioSource;
  /** Settled when the pictures end: after close(), or with the engine's failure. */
  readonly done: Promise<void>;
  /** Mono at the face's rate; others raise. */
  captureFrame(frame: AudioFrame): Promise<void>;
  flush(): void;
  clearBuffer(): void;
  close(): Promise<void>;
}
