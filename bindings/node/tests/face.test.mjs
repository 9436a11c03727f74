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
  for (const wrong of [{ silenceEnd: 0 }, { late: 'never' }, { rate: '24k' }, { threads: 1.5 }]) {
    await assert.rejects(Face.open(bundle, { ...options, ...wrong }), TypeError);
  }
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
  for (const unknown of ['1', 0, 1, NaN]) await assert.rejects(face.finished(unknown), RangeError);
  await face.close();
  for (const call of ['push', 'end', 'interrupt', 'pull', 'stats', 'latency', 'failures']) {
    assert.throws(() => face[call](tone(9)), /the face is closed/, call);
  }
  await assert.rejects(face.finished(1), /the face is closed/);
  assert.deepEqual([await face.frames().next(), await face.events().next()],
    [{ value: undefined, done: true }, { value: undefined, done: true }]);
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

test('a process ends cleanly whatever it leaves open, and writes nothing by itself', () => {
  const zorv = JSON.stringify(import.meta.resolve('zorv'));
  const open = `const { Clip, Face } = await import(${zorv});
    const face = await Face.open(${JSON.stringify(bundle)}, ${JSON.stringify(options)});
    const line = face.push(new Int16Array(48000));`;
  const inWorker = (script, then) => `import { Worker } from 'node:worker_threads';
    const worker = new Worker(new URL('data:text/javascript,' + encodeURIComponent(
      ${JSON.stringify(script)})), { execArgv: [] });
    ${then}`;
  const scripts = {
    'an open face': open,
    'an open face in a worker': inWorker(open, ''),
    'a worker that is ended with its face open': inWorker(
      `${open} for await (const frame of face.frames()) if (frame.kind === 'speech') break;
       (await import('node:worker_threads')).parentPort.postMessage(0); setInterval(() => {}, 99);`,
      "worker.once('message', () => worker.terminate());"),
    'a face that is being opened': `const { Face } = await import(${zorv});
      Face.open(${JSON.stringify(bundle)}, ${JSON.stringify(options)});
      setTimeout(() => process.exit(0), 150);`,
    'a clip that runs': `${open}
      for await (const frame of new Clip(${JSON.stringify(bundle)}, { engine: 'motion',
        motion: ${JSON.stringify(motion)} }).render(new Int16Array(1e6))) process.exit(frame.pts);`,
    'a listener that throws': `${open}
      const seen = [];
      process.on('uncaughtException', ({ message }) => seen.push(message));
      face.onEvent(() => { throw new Error('mine'); });
      face.onEvent(({ type }) => seen.push(type));
      face.interrupt();
      await face.finished(line);
      await new Promise(setImmediate);
      process.exit(seen.join() === 'interrupted,mine' ? 0 : 1);`,
    'another platform': `Object.defineProperty(process, 'arch', { value: 'arm64' });
      await import(${zorv}).then(() => process.exit(1), ({ message }) => process.exit(
        message === 'zorv runs on linux-x64, not on linux-arm64' ? 0 : 1));`,
  };
  for (const [what, script] of Object.entries(scripts)) {
    const done = spawnSync(process.execPath, ['--input-type=module', '-e', script],
      { timeout: 60000, encoding: 'utf8' });
    assert.equal(done.stderr, '', what);
    assert.equal(done.status, 0, what);
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
