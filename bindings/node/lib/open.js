import { addressOf, checked, lib, Record } from './library.js';

const text = (value) => Buffer.from(`${value}\0`);

/** Opens a context and an engine on it; run where waiting does no harm. */
export function openFace(s) {
  const ctx = checked('zorv_create', s.bundle, 'render', s.threads, null);
  let utt = null;
  try {
    const texts = { motion_dir: text(s.motion), steady_model: text(s.steadyModel) };
    const options = new Record('zorv_utt_opts');
    for (const [field, value] of Object.entries(texts)) options.set(field, addressOf(value));
    options.set('threads', s.threads);
    options.set('eager', s.eager);
    options.set('silence_end_s', s.silenceEnd);
    options.set('ramp_frames', s.rampFrames);
    utt = checked('zorv_utt_create', ctx, options.bytes);
    checked('zorv_utt_set_input', utt, s.rate);
    checked('zorv_utt_set_pixels', utt, s.pixels);
    checked('zorv_utt_set_idle_ahead', utt, s.idleAhead);
    checked('zorv_utt_set_late', utt, s.late);
    const frameFd = lib.zorv_utt_fd(utt, 1);
    const eventFd = lib.zorv_utt_fd(utt, 2);
    if (frameFd < 0 || eventFd < 0) checked('zorv_utt_fd', utt, 1);
    return { ctx, utt, frameFd, eventFd, width: lib.zorv_width(ctx), height: lib.zorv_height(ctx) };
  } catch (error) {
    lib.zorv_utt_destroy(utt);
    lib.zorv_destroy(ctx);
    throw error;
  }
}
