// The package against the demo subject: clips, live faces, and what callers get wrong.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { test } from 'node:test';
import { Clip, Face, ZorvError } from 'zorv';

const demo = process.env.ZORV_DEMO_DIR;
const bundle = `${demo}/bundle`;
const motion = `${demo}/motion`;
const options = { motion, pixels: 'i420', rate: 24000, steadyModel: '-' };
const tone = (n) => Int16Array.from({ length: n }, (_, i) => 1 + (i * 7919) % 9000);

test('a face speaks with its own sound, is interrupted, and tells both', async () => {
  const face = await Face.open(bundle, options);
  const events = [];
  const reading = (async () => { for await (const event of face.events()) events.push(event); })();
  const line = tone(24000 + 1);
  const first = face.push(line.subarray(0, 11111));
  assert.equal(face.push(line.subarray(11111)), first);
  face.end();
  const heard = [];
  let second;
  let cut = -1;
  for await (const frame of face.frames()) {
    assert.deepEqual(frame.planes.map(({ length }) => length), [921600, 230400, 230400]);
    if (frame.utterance === first && frame.kind === 'speech') {
      assert.equal(frame.firstSample, heard.length);
      heard.push(...frame.sound);
      if (heard.length === 26 * 960) second = face.push(tone(48000));
    }
    if (cut >= 0) {
      assert(frame.sound.every((sample) => sample === 0), 'sound after the interrupt');
      if (frame.pts > cut + 3) break;
    } else if (second && frame.utterance === second && frame.kind === 'speech') {
      face.interrupt();
      cut = frame.pts;
    }
    frame.release();
  }
  assert.deepEqual(heard.slice(0, line.length), [...line]);
  assert.equal((await face.finished(first)).samples, line.length);
  const end = await face.finished(second);
  assert.deepEqual([end.type, end.reason, end.samples], ['interrupted', 'interrupt', 960]);
  await assert.rejects(face.finished(second + 1), RangeError);
  assert.equal(face.failures().count, 0);
  assert.equal(face.latency().idleAhead, 2);
  assert.equal(face.stats().speechFramesPulled, 27);
  const given = assert.rejects(face.finished(face.push(tone(24000))), ZorvError);
  await face.close();
  await given;
  await reading;
  assert.deepEqual(events.map(({ type }) => type), ['started', 'finished', 'started', 'interrupted']);
  assert.throws(() => face.pull(), ZorvError);
  await face.close(); // a second time does nothing
});

test('what callers get wrong is an error that says so', async () => {
  await assert.rejects(Face.open('/nowhere', options), /zorv_create: cannot open/);
  await assert.rejects(Face.open(bundle, { ...options, pixels: 'yuv' }), TypeError);
  await assert.rejects(Face.open(bundle, { ...options, rate: 44101 }), ZorvError);
  await assert.rejects(Face.open(bundle, { ...options, idleAhead: 9 }), ZorvError);
  const face = await Face.open(bundle, options);
  for (const bad of [undefined, 'sound', [1, 2], new Float32Array(9), new Uint8Array(9)]) {
    assert.throws(() => face.push(bad), TypeError);
  }
  const detached = new Int16Array(100);
  structuredClone(detached.buffer, { transfer: [detached.buffer] });
  assert.equal(face.push(detached), 0);
  const frames = face.frames();
  await frames.next();
  await assert.rejects(face.frames().next(), ZorvError);
  await assert.rejects(async () => { // an exception of the consumer ends the loop, not the face
    for await (const frame of frames) throw new Error(frame.kind);
  }, /idle/);
  assert.equal((await face.frames().next()).value.kind, 'idle');
  await face.close();
});

test('a clip gives a frame per started 40 ms, at any rate; leaving the loop stops it', async () => {
  const clip = new Clip(bundle, { engine: 'motion', motion });
  let frames = 0;
  for await (const frame of clip.render(tone(44100), 44100)) {
    assert.equal(frame.data.length, 1280 * 720 * 3);
    assert.equal(frame.pts, frames++);
  }
  assert.equal(frames, 25);
  for await (const frame of clip.render(new Float32Array(16000 * 60))) {
    assert.equal(frame.pts, 0);
    break;
  }
  frames = 0;
  const encoder = `${demo}/speech_encoder.onnx`;
  for await (const frame of new Clip(bundle, { encoder }).render(tone(6401))) {
    assert.equal(frame.pts, frames++);
  }
  assert.equal(frames, 11);
  await assert.rejects(clip.render([1, 2]).next(), TypeError);
  await assert.rejects(new Clip('/nowhere', { encoder }).render(tone(9)).next(), ZorvError);
});

test('a process ends with engines open, also inside workers, and writes nothing by itself', () => {
  const open = `const { Face } = await import(${JSON.stringify(import.meta.resolve('zorv'))});
    const face = await Face.open(${JSON.stringify(bundle)}, ${JSON.stringify(options)});
    face.push(new Int16Array(48000));`;
  const inWorker = `import { Worker } from 'node:worker_threads';
    new Worker(new URL('data:text/javascript,' + encodeURIComponent(${JSON.stringify(open)})), { execArgv: [] });`;
  for (const script of [open, inWorker]) {
    const done = spawnSync(process.execPath, ['--input-type=module', '-e', script],
      { timeout: 60000, encoding: 'utf8' });
    assert.equal(done.stderr, '');
    assert.equal(done.status, 0);
  }
});

test('declarations are those of the header', async () => {
  const library = new URL('./lib/library.js', import.meta.resolve('zorv'));
  const { FUNCTIONS, RECORDS, layoutOf } = await import(library);
  const path = process.env.ZORV_HEADER;
  const header = readFileSync(path, 'utf8').replace(/\/\*.*?\*\//gs, '').replace(/\s+/g, ' ');
  for (const [name, [, ...declared]] of Object.entries(FUNCTIONS)) {
    const found = new RegExp(`ZORV_API [^;]*?\\b${name}\\((.*?)\\);`).exec(header);
    assert(found, `${name} is not in the header`);
    const list = found[1].replace(/\(\*\w+\)\([^)]*\)/g, 'callback');
    assert.equal(declared.length, list.trim() === 'void' ? 0 : list.split(',').length, name);
  }
  const fields = Object.entries(RECORDS).flatMap(([record, list]) => list.map(([f]) => [record, f]));
  const source = `#include <stdio.h>\n#include "${path}"\nint main(void) {
    ${fields.map(([r, f]) => `printf("%zu %zu\\n", offsetof(${r}, ${f}), sizeof(${r}));`).join('\n')}
    return 0; }`;
  const program = `${process.env.TMPDIR ?? '/tmp'}/zorv-layout-${process.pid}`;
  const built = spawnSync('cc', ['-x', 'c', '-', '-o', program], { input: source, encoding: 'utf8' });
  assert.equal(built.status, 0, built.stderr);
  const told = spawnSync(program, { encoding: 'utf8' }).stdout.trim().split('\n');
  spawnSync('rm', [program]);
  fields.forEach(([record, field], i) => {
    const { fields: places, size } = layoutOf(record);
    assert.equal(told[i], `${places[field].at} ${size}`, `${record}.${field}`);
  });
});
