// What idle faces cost in one Node process: processor time of eight I420 sessions, time inside one
// call of the binding on the event loop's thread, and the loop's delay beside that of an empty loop.
//
//     node bench/node_bench.mjs [SECONDS]      from the repository, with the package installed or
//                                              linked as node_modules/zorv, and the demo subject
import { monitorEventLoopDelay, performance } from 'node:perf_hooks';
import { setTimeout as sleep } from 'node:timers/promises';
import { Face } from 'zorv';

const SESSIONS = 8;
const seconds = Number(process.argv[2] ?? 20);
const demo = process.env.ZORV_DEMO_DIR ?? 'build/demo';

async function delayOf(run) {
  const delay = monitorEventLoopDelay({ resolution: 1 });
  delay.enable();
  await run();
  delay.disable();
  return { median_ms: delay.percentile(50) / 1e6, p999_ms: delay.percentile(99.9) / 1e6 };
}

const empty = await delayOf(() => sleep(seconds * 500));
const faces = await Promise.all(Array.from({ length: SESSIONS }, () => Face.open(`${demo}/bundle`,
  { motion: `${demo}/motion`, pixels: 'i420' })));

const calls = [];
let shown = 0;
let measuring = false;
for (const face of faces) {
  const pull = face.pull.bind(face);
  face.pull = () => {
    const begin = performance.now();
    const frame = pull();
    if (measuring) calls.push(performance.now() - begin);
    return frame;
  };
}
const shows = faces.map(async (face) => {
  for await (const frame of face.frames()) {
    shown += measuring ? 1 : 0;
    frame.release();
  }
});
while (faces.some((face) => face.stats().framesPulled < 50)) await sleep(100); // models are loaded
await sleep(2000);
measuring = true;
const before = process.cpuUsage();
const begin = performance.now();
const loop = await delayOf(() => sleep(seconds * 1000));
const wall = (performance.now() - begin) / 1000;
const used = process.cpuUsage(before);
measuring = false;
await Promise.all(faces.map((face) => face.close()));
await Promise.all(shows);

calls.sort((a, b) => a - b);
console.log(JSON.stringify({
  sessions: SESSIONS,
  cores: (used.user + used.system) / 1e6 / wall,
  frames_per_second_and_session: shown / wall / SESSIONS,
  call_median_ms: calls[Math.floor(calls.length / 2)],
  call_p999_ms: calls[Math.floor(calls.length * 0.999)],
  loop_delay: loop,
  empty_loop_delay: empty,
}, null, 2));
