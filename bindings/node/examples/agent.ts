// A voice agent's face: it says a line, begins a second one and is interrupted by its user.
//
//     node agent.js SUBJECT MOTION_DIR
import { spawn } from 'node:child_process';
import { setTimeout as sleep } from 'node:timers/promises';
import { Face, type FaceEvent } from 'zorv';

const [subject, motion] = process.argv.slice(2);
if (!subject || !motion) {
  console.error('usage: node agent.js SUBJECT MOTION_DIR');
  process.exit(2);
}
const RATE = 22050; // what espeak-ng speaks

/** Pushes a line while it is being spoken to; the face goes on with it. */
async function say(face: Face, text: string): Promise<number> {
  const voice = spawn('espeak-ng', ['--stdout', '--', text], { stdio: ['ignore', 'pipe', 'inherit'] });
  let utterance = 0;
  let rest = Buffer.alloc(0);
  let header = 44; // of the WAV file
  for await (const piece of voice.stdout as AsyncIterable<Buffer>) {
    rest = Buffer.concat([rest, piece]);
    const skip = Math.min(header, rest.length);
    header -= skip;
    const bytes = rest.subarray(skip, rest.length - ((rest.length - skip) & 1));
    rest = rest.subarray(skip + bytes.length);
    const samples = new Int16Array(bytes.length / 2);
    samples.forEach((_, i) => { samples[i] = bytes.readInt16LE(2 * i); });
    utterance = face.push(samples) || utterance;
  }
  face.end();
  return utterance;
}

const face = await Face.open(subject, { motion, pixels: 'i420', rate: RATE });
const started = new Map<number, () => void>();
face.onEvent((event: FaceEvent) => {
  console.log(event.type, event.utterance, event.reason);
  if (event.type === 'started') started.get(event.utterance)?.();
});
let shown = 0;
const show = (async () => {
  for await (const frame of face.frames()) { // 25 per second, each with its 40 ms of sound
    ++shown;
    frame.release();
  }
})();

const first = await face.finished(await say(face, 'Hello! I am a face that talks.'));
console.log(`heard ${(first.samples / RATE).toFixed(2)} s of the first line`);
const second = await say(face, 'Let me tell you everything that I know, from the very beginning.');
await new Promise<void>((begun) => {
  started.set(second, begun);
  if (face.stats().state === 'speaking') begun();
});
await sleep(500);
face.interrupt(); // the user speaks
const cut = await face.finished(second);
console.log(`heard ${(cut.samples / RATE).toFixed(2)} s of the second line: ${cut.reason}`);
await face.close();
await show;
console.log(`${shown} pictures shown`);
