// A recording becomes raw frames: node clip.js SUBJECT MOTION_DIR SPEECH.wav [FRAMES.rgb]
import { createWriteStream } from 'node:fs';
import { readFile } from 'node:fs/promises';
import { once } from 'node:events';
import { Clip } from 'zorv';

const [subject, motion, speech, out] = process.argv.slice(2);
if (!subject || !motion || !speech) {
  console.error('usage: node clip.js SUBJECT MOTION_DIR SPEECH.wav [FRAMES.rgb]');
  process.exit(2);
}
const wav = await readFile(speech); // mono, 16 bit
const rate = wav.readUInt32LE(24);
const bytes = wav.subarray(44);
const samples = new Int16Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + (bytes.length & ~1)));

const file = out ? createWriteStream(out) : undefined;
let frames = 0;
const begin = performance.now();
for await (const frame of new Clip(subject, { engine: 'motion', motion }).render(samples, rate)) {
  if (file && !file.write(frame.data)) await once(file, 'drain');
  ++frames;
}
file?.end();
const seconds = (performance.now() - begin) / 1000;
console.log(`${frames} frames, ${(frames / seconds).toFixed(0)} per second`);
