// The LiveKit output against the real objects, without a server: lines and interrupts at every stage.
import assert from 'node:assert/strict';
import { setTimeout as sleep } from 'node:timers/promises';
import { after, before, test } from 'node:test';
import { initializeLogger, voice } from '@livekit/agents';
import {
  AudioFrame, dispose, LocalAudioTrack, LocalVideoTrack, VideoBufferType, VideoStream,
} from '@livekit/rtc-node';
import { Face, ZorvError } from 'zorv';
import { FaceOutput } from 'zorv/livekit';

const demo = process.env.ZORV_DEMO_DIR;
const RATE = 24000;
const options = { motion: `${demo}/motion`, pixels: 'i420', rate: RATE, steadyModel: '-' };
initializeLogger({ pretty: false, level: 'fatal' });

let face;
let output;
let told = [];
let spoken = 0; // pieces of sound that listeners got

before(async () => {
  face = await Face.open(`${demo}/bundle`, options);
  output = new FaceOutput(face);
  const { audioSource } = output;
  const capture = audioSource.captureFrame.bind(audioSource);
  audioSource.captureFrame = (frame) => {
    spoken += frame.data.some((sample) => sample !== 0);
    return capture(frame);
  };
  output.on(voice.AudioOutput.EVENT_PLAYBACK_STARTED, () => told.push('started'));
  output.on(voice.AudioOutput.EVENT_PLAYBACK_FINISHED, (event) => told.push(event));
});
after(async () => {
  await output.close();
  await face.close();
  await dispose();
});

const silence = (count, rate = RATE) => new AudioFrame(new Int16Array(count), rate, 1, count);

/** Captures a line in pieces of 20 ms. */
async function speak(seconds, flush = true) {
  const count = RATE / 50;
  for (let k = 0; k < Math.round(seconds * 50); ++k) {
    const data = Int16Array.from({ length: count }, (_, i) => 6000 * Math.sin((k * count + i) / 15));
    await output.captureFrame(new AudioFrame(data, RATE, 1, count));
  }
  if (flush) output.flush();
}

/** Waits for the state itself; the limit only ends a test that hangs. */
async function until(state) {
  const end = Date.now() + 60000;
  while (!state()) {
    assert(Date.now() < end, `waited in vain; told: ${JSON.stringify(told)}`);
    await sleep(5);
  }
}

async function playout() {
  let result;
  output.waitForPlayout().then((event) => { result = event; });
  await until(() => result);
  return result;
}

test('pictures arrive at a local track', async () => {
  const video = LocalVideoTrack.createVideoTrack('face', output.videoSource);
  LocalAudioTrack.createAudioTrack('voice', output.audioSource);
  const { value } = await new VideoStream(video)[Symbol.asyncIterator]().next();
  assert.deepEqual([value.frame.width, value.frame.height, value.frame.type],
    [face.width, face.height, VideoBufferType.I420]);
});

test('lines are told once each, in order, with their length', async () => {
  told = [];
  await speak(1.5);
  await speak(0.5); // two lines without a pause
  await playout();
  assert.deepEqual(told, ['started', { playbackPosition: 1.5, interrupted: false },
    'started', { playbackPosition: 0.5, interrupted: false }]);
});

test('lines of no length and flushes without sound', async () => {
  told = [];
  output.flush();
  await output.captureFrame(silence(0));
  output.flush();
  await playout();
  assert.deepEqual(told, [{ playbackPosition: 0, interrupted: false }]);
});

test('an interrupt at every stage ends each line once, where it was heard', async () => {
  const started = () => told.includes('started');
  const stages = {
    'nothing was captured': async () => {},
    'captured, not flushed': () => speak(0.4, false),
    'flushed, not started': () => speak(2),
    'speaking': () => speak(3).then(() => until(started)),
    'the second of two lines waits': () => speak(2).then(() => speak(1)).then(() => until(started)),
  };
  for (const [stage, reach] of Object.entries(stages)) {
    told = [];
    const lines = output.capturedPlayoutSegments;
    await reach();
    output.clearBuffer();
    spoken = 0;
    const shown = face.stats().framesPulled;
    const ends = told.filter((event) => event !== 'started');
    assert.equal(ends.length, output.capturedPlayoutSegments - lines, stage);
    for (const { interrupted, playbackPosition } of ends) {
      assert.equal(interrupted, true, stage);
      assert(playbackPosition >= 0 && playbackPosition < 3, stage);
    }
    assert.equal(output.audioSource.queuedDuration, 0, stage);
    await playout(); // has nothing to wait for
    await until(() => face.stats().framesPulled > shown + 3);
    assert.equal(spoken, 0, stage);
    told = [];
    await speak(0.2);
    await playout();
    assert.deepEqual(told, ['started', { playbackPosition: 0.2, interrupted: false }], stage);
  }
});

test('sound of another rate, and a session closed in the middle of a line', async () => {
  await assert.rejects(output.captureFrame(silence(480, 48000)), RangeError);
  const other = await Face.open(`${demo}/bundle`, options);
  const session = new FaceOutput(other);
  const ends = [];
  session.on(voice.AudioOutput.EVENT_PLAYBACK_FINISHED, (event) => ends.push(event));
  await session.captureFrame(silence(RATE));
  await session.close();
  assert.deepEqual(ends.map(({ interrupted }) => interrupted), [true]);
  await other.close();
  await assert.rejects(session.captureFrame(silence(480)), /closed/);
});

test('an engine that cannot speak raises its text and leaves nobody waiting', async () => {
  const mute = await Face.open(`${demo}/bundle`, { ...options, steadyModel: 'missing' });
  const session = new FaceOutput(mute);
  await assert.rejects(async () => {
    for (;;) {
      await session.captureFrame(silence(480));
      await sleep(20);
    }
  }, ZorvError);
  await session.close();
  assert.equal(session.pendingPlayoutSegments, 0);
  await mute.close();
});
