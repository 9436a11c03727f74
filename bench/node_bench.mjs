// What idle faces cost in one Node process: processor time of eight I420 sessions, time inside one
// call of the binding on the event loop's thread (by the clock, and the thread's processor time, which
// a machine that does other things leaves alone), and the loop's delay beside that of an empty loop in
// another process at the same time.
//
//     node bench/node_bench.mjs [SECONDS]      from the repository, with the package installed or
//                                              linked as node_modules/zorv, and the demo subject
import { spawn } from 'node:child_process';
import { monitorEventLoopDelay, performance } from 'node:perf_hooks';
import { setTimeout as sleep } from 'node:timers/promises';
import koffi from 'koffi';
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

if (process.argv[3] === 'empty') {
  console.log(JSON.stringify(await delayOf(() => sleep(seconds * 1000))));
  process.exit();
}
const CLOCK_THREAD_CPUTIME_ID = 3;
const clockGettime = koffi.load('libc.so.6').func('int clock_gettime(int clock, void *time)');
const time = new BigInt64Array(2);
function threadMs() {
  clockGettime(CLOCK_THREAD_CPUTIME_ID, time);
  return Number(time[0]) * 1e3 + Number(time[1]) / 1e6;
}
const atShare = (values, share) => values.sort((a, b) => a - b)[Math.floor(values.length * share)];

const faces = await Promise.all(Array.from({ length: SESSIONS }, () => Face.open(`${demo}/bundle`,
  { motion: `${demo}/motion`, pixels: 'i420' })));

const calls = [];
const processor = [];
let shown = 0;
let measuring = false;
for (const face of faces) {
  const pull = face.pull.bind(face);
  face.pull = () => {
    const begin = performance.now();
    const spent = threadMs();
    const frame = pull();
    if (measuring) {
      processor.push(threadMs() - spent);
      calls.push(performance.now() - begin);
    }
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
const beside = spawn(process.execPath, [process.argv[1], String(seconds), 'empty']);
let empty = '';
beside.stdout.on('data', (piece) => { empty += piece; });
const over = new Promise((resolve) => beside.on('exit', resolve));
measuring = true;
const before = process.cpuUsage();
const begin = performance.now();
const loop = await delayOf(() => sleep(seconds * 1000));
const wall = (performance.now() - begin) / 1000;
const used = process.cpuUsage(before);
measuring = false;
await Promise.all(faces.map((face) => face.close()));
await Promise.all(shows);
await over;

console.log(JSON.stringify({
  sessions: SESSIONS,
  cores: (used.user + used.system) / 1e6 / wall,
  frames_per_second_and_session: shown / wall / SESSIONS,
  calls: calls.length,
  call_median_ms: atShare(calls, 0.5),
  call_p999_ms: atShare(calls, 0.999),
  call_processor_p999_ms: atShare(processor, 0.999),
  loop_delay: loop,
  empty_loop_delay: JSON.parse(empty),
}, null, 2));
