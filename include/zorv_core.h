/* zorv_core: speech to talking-face video of one prepared subject, on a CPU, in real time.
 *
 * Conventions that hold for every function:
 *
 *  1. Handles are opaque. A create function returns NULL on failure; the matching destroy
 *     function accepts NULL.
 *  2. Other results are 1 for success and 0 for failure, or a count with a negative value for
 *     failure; each function says which. The result tells whether a call failed, the last-error
 *     string says why.
 *  3. Each family (the functions under one heading) keeps one last-error string per thread. It
 *     belongs to the calling thread and is valid until that thread's next call of the family.
 *     "" means none.
 *  4. Pointers that a function returns belong to the library; the text says which call ends
 *     their life. Pointers that a host passes in stay the host's and are not kept after the call
 *     returns, unless the text says otherwise.
 *  5. Audio is mono at 16,000 Hz; float samples that are not finite count as 0. Video runs at 25
 *     frames per second: one frame per 640 samples, a started block of 640 counting as a frame.
 *  6. Frames are row-major bytes, R G B per pixel (R G B 255 for RGBA), W x H of the bundle.
 *     Crops are three float planes R, G, B of crop x crop values, nominally in [0, 1].
 *  7. A keypoint set is 63 floats: 21 keypoints x (x, y, z), keypoint after keypoint.
 *  8. Thread-safety is stated per function: "one thread at a time per handle" means that the host
 *     must not overlap calls on one handle; different handles never disturb each other.
 *  9. Allocation failures and failures of the model runtime are reported like any other failure.
 *
 * Environment variables are listed in docs/environment.md.
 */
#ifndef ZORV_CORE_H
#define ZORV_CORE_H

#include <stddef.h>
#include <stdint.h>

#define ZORV_VERSION_MAJOR 0 /**< Also the number of the soname. */
#define ZORV_VERSION_MINOR 1 /**< CMake hosts ask for this one. */
#define ZORV_VERSION_PATCH 0 /**< Same interface, fewer faults. */
/** The header's version as one number: 10000 x major + 100 x minor + patch. */
#define ZORV_VERSION (ZORV_VERSION_MAJOR * 10000 + ZORV_VERSION_MINOR * 100 + ZORV_VERSION_PATCH)

/** Marks what the shared library exports. */
#if defined(_WIN32)
#define ZORV_API
#elif defined(__GNUC__)
#define ZORV_API __attribute__((visibility("default")))
#else
#define ZORV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** The loaded library's version, in the form of ZORV_VERSION. Any thread. */
ZORV_API int zorv_version(void);

/**
 * Which implementation of its inner loops the library uses in this process: the best one for the
 * processor, lowered by ZORV_SIMD.
 * kernel  "compositor", "grid_sampler", "int8_convolution", "speech_spectrum", "half_conversion",
 *         "pixel_packing" or "yuv_conversion".
 * Returns "portable", "avx2", "avx512" or, for the int8 convolution, "avxvnni"; NULL for another
 * name. The text stays for the life of the process. Any thread.
 */
ZORV_API const char* zorv_kernel_path(const char* kernel);

/** Forms of a finished frame. Hosts that hand frames to a video encoder ask for one of the YUV
 * forms: limited range, chroma the mean of its 2 x 2 block with edges repeated. Chroma planes have
 *  (W + 1) / 2 columns and (H + 1) / 2 rows. */
#define ZORV_PIXELS_RGBA 0 /**< One plane, 4 bytes per pixel: R G B 255. */
#define ZORV_PIXELS_RGB 1  /**< One plane, 3 bytes per pixel. */
#define ZORV_PIXELS_I420 2 /**< Three planes: Y, U, V. */
#define ZORV_PIXELS_NV12 3 /**< Two planes: Y, and U and V by turns. */

/** Matrices of the YUV forms; the RGB forms have none. */
#define ZORV_MATRIX_AUTO 0  /**< BT.709 from 720 lines on, BT.601 below. */
#define ZORV_MATRIX_BT601 1 /**< ITU-R BT.601. */
#define ZORV_MATRIX_BT709 2 /**< ITU-R BT.709. */

/**
 * Where the library's own lines go (what it falls back to, what it does to a model). `line` gets
 * `user` and a line without its line end, valid during the call only. It is called on the thread
 * that writes the line, on several at once if need be, and must not call this function. NULL
 * restores standard error, where lines written while the process exits always go. Returns when no
 * call of the previous function runs any more. Any thread.
 */
ZORV_API void zorv_set_log(void (*line)(void* user, const char* text), void* user);

/* ------------------------------------------------------------------------------------------
 * Rendering context: keypoints become a face crop, the crop becomes part of a full frame
 *
 *     zorv_ctx* ctx = zorv_create("subject", "render", 2, NULL);
 *     if (!ctx) { puts(zorv_last_error()); return 1; }
 *     size_t size = (size_t)zorv_width(ctx) * (size_t)zorv_height(ctx) * 4;
 *     uint8_t* rgba = malloc(size);
 *     for (int k = 0; k < zorv_drive_frames(ctx); ++k) {
 *         if (!zorv_render_drive_rgba(ctx, k, rgba, size)) { puts(zorv_last_error()); break; }
 *         show(rgba);
 *     }
 *     free(rgba);
 *     zorv_destroy(ctx);
 *
 * A context stays usable after a failed call. A batch stream owns a context of its own.
 * ------------------------------------------------------------------------------------------ */

/** An open bundle with its renderer and compositor. */
typedef struct zorv_ctx zorv_ctx;

/**
 * Opens a bundle with one face renderer and one compositor.
 *
 * bundle_dir  the subject's directory; file names are appended with "/".
 * model_key   names the renderer model: `bundle_dir/model_<model_key>.onnx`.
 * threads     threads of the model runtime inside one render; below 1 means 1.
 * ep          execution provider: NULL or "" for the CPU, "xnnpack[:N]", "coreml[:unit]", "neon".
 *
 * Returns a context that the caller destroys, or NULL: "zorv_create: " and what was wrong with
 * which file. Target frames are decoded on first use and kept; memory is used for decoded
 * frames only (W x H x 3 bytes each).
 * Thread-safety: any thread.
 */
ZORV_API zorv_ctx* zorv_create(const char* bundle_dir, const char* model_key, int threads,
                               const char* ep);

/** Frees the context and every pointer obtained from it. NULL is allowed. Any thread; no other call
 *  on the context may be running. */
ZORV_API void zorv_destroy(zorv_ctx* ctx);

/** This family's last error on the calling thread, "" if none. Valid until the thread's next
 *  call of this family. Any thread. */
ZORV_API const char* zorv_last_error(void);

/** Number of target frames of the bundle; 0 for NULL. Any thread. */
ZORV_API int zorv_nt(const zorv_ctx* ctx);
/** Frame width in pixels; 0 for NULL. Any thread. */
ZORV_API int zorv_width(const zorv_ctx* ctx);
/** Frame height in pixels; 0 for NULL. Any thread. */
ZORV_API int zorv_height(const zorv_ctx* ctx);
/** Side of the square face crop in pixels; 0 for NULL. Any thread. */
ZORV_API int zorv_crop(const zorv_ctx* ctx);
/** Number of frames of the stored driving sequence; 0 for NULL. Any thread. */
ZORV_API int zorv_drive_frames(const zorv_ctx* ctx);

/**
 * Renders one face crop.
 *
 * frame  target frame, 0 <= frame < zorv_nt(ctx).
 * kp_a   source keypoint set (63 floats): the target frame's own.
 * kp_b   driving keypoint set (63 floats): where the keypoints shall be.
 *
 * Returns 3 x crop x crop floats (planes R, G, B), not clamped, valid until the next render on
 * this context or its destruction; NULL on failure.
 * Thread-safety: one thread at a time per context.
 */
ZORV_API const float* zorv_render_kp_crop(zorv_ctx* ctx, int frame, const float* kp_a,
                                          const float* kp_b);

/** zorv_render_kp_crop for frame k of the stored driving sequence, 0 <= k < zorv_drive_frames.
 *  Thread-safety: one thread at a time per context. */
ZORV_API const float* zorv_render_drive_crop(zorv_ctx* ctx, int k);

/**
 * Copies target frame `frame` into `out` and pastes the crop into it.
 *
 * crop      3 x crop x crop floats (planes R, G, B) in [0, 1], from any source.
 * out       receives W x H x 3 RGB bytes.
 * out_size  bytes available at `out`, at least W x H x 3.
 *
 * Returns 1, or 0 on failure. A placement that cannot be inverted or that falls wholly outside
 * the frame leaves the plain target frame.
 * Thread-safety: one paste at a time per context; a paste may run beside a render of the same
 * context.
 */
ZORV_API int zorv_paste_crop(zorv_ctx* ctx, int frame, const float* crop, uint8_t* out,
                             size_t out_size);

/**
 * Writes target frame `frame` in any form into planes of the host's, with the crop pasted in.
 *
 * crop    3 x crop x crop floats as for zorv_paste_crop; NULL leaves the plain target frame.
 * pixels  a ZORV_PIXELS_ value; matrix  a ZORV_MATRIX_ value.
 * plane   where each plane of the form begins; stride  bytes from one row of it to the next, at
 *         least a row's own bytes. As many entries as the form has planes.
 *
 * Returns 1, or 0 on failure with planes that may be written in part.
 * Thread-safety: as for zorv_paste_crop.
 */
ZORV_API int zorv_paste_planes(zorv_ctx* ctx, int frame, const float* crop, int pixels, int matrix,
                               uint8_t* const* plane, const int32_t* stride);

/**
 * Pastes the crop of the last successful render into target frame `frame`.
 * Returns W x H x 3 RGB bytes, valid until the next zorv_paste_last or RGBA call on this context
 * or its destruction; NULL on failure, also before any successful render.
 * Thread-safety: one thread at a time per context.
 */
ZORV_API const uint8_t* zorv_paste_last(zorv_ctx* ctx, int frame);

/**
 * Renders as zorv_render_kp_crop does, pastes into target frame `frame` and writes W x H x 4
 * bytes R G B 255 to `out`. Returns 1, or 0 on failure; with a null context 0 and an empty error.
 * Thread-safety: one thread at a time per context.
 */
ZORV_API int zorv_render_kp_rgba(zorv_ctx* ctx, int frame, const float* kp_a, const float* kp_b,
                                 uint8_t* out, size_t out_size);

/** zorv_render_kp_rgba for frame k of the stored driving sequence, on that frame's own target.
 *  Thread-safety: one thread at a time per context. */
ZORV_API int zorv_render_drive_rgba(zorv_ctx* ctx, int k, uint8_t* out, size_t out_size);

/**
 * Target frame `frame` without a face pasted: W x H x 3 RGB bytes, valid until the context is
 * destroyed; NULL on failure (a file that is missing, damaged or of another size). The first call
 * for a frame decodes it; contexts that have the same bundle open share what is decoded.
 * Thread-safety: any thread, at any time.
 */
ZORV_API const uint8_t* zorv_target_frame(zorv_ctx* ctx, int frame);

/* ------------------------------------------------------------------------------------------
 * Sound: a recording at another rate becomes what the models hear
 *
 *     int samples = (int)(((int64_t)n * 16000 + rate - 1) / rate);
 *     float* speech = malloc((size_t)samples * sizeof(float));
 *     if (zorv_resample(audio, n, rate, speech, samples) != samples)
 *         puts(zorv_resample_last_error());
 * ------------------------------------------------------------------------------------------ */

/**
 * Resamples a whole recording to 16,000 Hz, without delay: sample k of `out` lies at k / 16000 s.
 *
 * audio        n float samples, mono, in [-1, 1]; those that are not finite count as 0.
 * rate         their rate: 8000 to 48000 Hz, a multiple of 25. 16,000 Hz is copied.
 * out          receives ceil(n x 16000 / rate) samples.
 * max_samples  samples that fit at `out`.
 *
 * Returns the samples written; 0 when n is 0; -1 on failure, with nothing written.
 * Thread-safety: any thread.
 */
ZORV_API int zorv_resample(const float* audio, int n, int rate, float* out, int max_samples);

/** This family's last error on the calling thread, "" if none. Any thread. */
ZORV_API const char* zorv_resample_last_error(void);

/* ------------------------------------------------------------------------------------------
 * Delta model: a whole clip of speech becomes keypoint offsets
 *
 *     zorv_fca* fca = zorv_fca_create("encoder.onnx", "subject/fca_stream.onnx", 2);
 *     int frames = (samples + 639) / 640;
 *     float* offsets = malloc((size_t)frames * 63 * sizeof(float));
 *     if (zorv_fca_deltas(fca, audio, samples, offsets, frames) != frames)
 *         puts(zorv_fca_last_error());
 *     zorv_fca_destroy(fca);
 * ------------------------------------------------------------------------------------------ */

/** A speech encoder and a delta model. */
typedef struct zorv_fca zorv_fca;

/**
 * Loads the speech encoder and the streaming delta model.
 * encoder_path    ONNX file: "input_values" [1, 128000] -> "audio_emb" (layers x 200 x 768).
 * streaming_path  ONNX file: "cond" [1, 5376], "prev" [1, 63], "h" [1, 1, 384] -> "m", "hn".
 * threads         threads of the model runtime; below 1 means 1.
 * Returns a handle that the caller destroys, or NULL on failure. Thread-safety: any thread.
 */
ZORV_API zorv_fca* zorv_fca_create(const char* encoder_path, const char* streaming_path,
                                   int threads);

/**
 * Turns a clip into one set of keypoint offsets per frame; time and memory are linear in n.
 *
 * audio       n float samples, mono, 16,000 Hz, in [-1, 1].
 * out         receives frames x 63 floats, frames = ceil(n / 640).
 * max_frames  frames that fit at `out`.
 *
 * Returns the frames written; 0 when n < 1; -1 on failure and, without a text and with nothing
 * written, when max_frames is too small.
 * Thread-safety: one thread at a time per handle.
 */
ZORV_API int zorv_fca_deltas(zorv_fca* fca, const float* audio, int n, float* out, int max_frames);

/** Frees the handle. NULL is allowed. Any thread; no other call on the handle may be running. */
ZORV_API void zorv_fca_destroy(zorv_fca* fca);

/** This family's last error on the calling thread, "" if none. Any thread. */
ZORV_API const char* zorv_fca_last_error(void);

/* ------------------------------------------------------------------------------------------
 * Expression engine: speech in pieces becomes keypoint frames
 *
 *     // W2V_ONNX names the speech encoder, which all engines of the process share.
 *     zorv_a2x* a2x = zorv_a2x_create("expression", 2);
 *     if (!a2x) { puts(zorv_a2x_last_error()); return 1; }
 *     int idx[8];
 *     float source[8 * 63], driving[8 * 63];
 *     zorv_a2x_reset(a2x, 0, 1, 1);               // before every utterance, the first included
 *     int more = 1, pulled = 0, n;
 *     while (more) {
 *         more = read_audio(buffer, &samples);
 *         zorv_a2x_push(a2x, buffer, samples);
 *         if (!more) zorv_a2x_finish(a2x);
 *         while (zorv_a2x_avail(a2x) > 0) {       // decodes a block at a time
 *             n = zorv_a2x_pull(a2x, idx, source, driving, 8);
 *             for (int i = 0; i < n; ++i) show(idx[i], source + 63 * i, driving + 63 * i);
 *             pulled += n;
 *         }
 *     }
 *     if (pulled < zorv_a2x_total(a2x)) puts(zorv_a2x_last_error());
 *     zorv_a2x_destroy(a2x);
 *
 * The directory's files are described in docs/models.md. This family's last error is not cleared
 * by calls that succeed: it is the text of the thread's last failing call.
 * ------------------------------------------------------------------------------------------ */

/** An expression engine with one stream. */
typedef struct zorv_a2x zorv_a2x;

/**
 * Opens an expression directory. Loads the process's speech encoder from `W2V_ONNX` unless it is
 * loaded already; whoever loads first decides on file and threads.
 *
 * dir      the directory; file names are appended with "/".
 * threads  threads of the model runtime; below 1 means 1, above 4 means 4. `ZORV_A2X_THREADS`
 *          replaces it.
 *
 * Returns an engine that the caller destroys and must reset before its first stream, or NULL.
 * Thread-safety: any thread; concurrent calls load the encoder once.
 */
ZORV_API zorv_a2x* zorv_a2x_create(const char* dir, int threads);

/** Frees the engine; the speech encoder stays loaded. NULL is allowed. Any thread; no other call on
 *  the engine may be running. */
ZORV_API void zorv_a2x_destroy(zorv_a2x* a2x);

/**
 * Loads the process's speech encoder ahead of the first engine, with `ZORV_A2X_W2V_THREADS`
 * threads (6 when unset). NULL or "" means the path in `W2V_ONNX`. Returns 1 when an encoder is
 * loaded, this one or an earlier one, else 0. Thread-safety: any thread.
 */
ZORV_API int zorv_a2x_preload_w2v(const char* path);

/** The text of the calling thread's last failing call of this family, "" if none. Valid until the
 *  thread's next failing call. Any thread. */
ZORV_API const char* zorv_a2x_last_error(void);

/** Number of the bundle's keypoint frames (rows of xs_target.bin); 0 for NULL. Any thread. */
ZORV_API int zorv_a2x_nt(zorv_a2x* a2x);

/** Accepted for the sake of hosts that drive several kinds of engine; changes nothing. NULL is
 *  ignored. Thread-safety: one thread at a time per engine. */
ZORV_API void zorv_a2x_set_eager(zorv_a2x* a2x, int eager);

/**
 * Appends n samples (mono, 16,000 Hz, in [-1, 1]) to the stream; n < 1 appends nothing. Audio
 * pushed after zorv_a2x_finish still counts. Returns 1; 0 for a null pointer.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API int zorv_a2x_push(zorv_a2x* a2x, const float* pcm, int n);

/** Declares the audio complete: the frames held back for want of look-ahead can be decoded.
 *  Thread-safety: one thread at a time per engine. */
ZORV_API void zorv_a2x_finish(zorv_a2x* a2x);

/** How much sound a frame waits for: samples (16,000 Hz) from its own first one until it can be
 *  pulled. 0 for NULL. One thread at a time per engine. */
ZORV_API int zorv_a2x_look_ahead(const zorv_a2x* a2x);

/** After zorv_a2x_finish ceil(samples / 640), else -1; 0 for NULL. A stream yields no more frames
 *  than a2x_pos.f32 has rows, which this number leaves out of account. One thread at a time per
 * engine.
 */
ZORV_API int zorv_a2x_total(zorv_a2x* a2x);

/**
 * Decodes up to one block of frames (64, or 8 with short windows) and returns how many are ready
 * to pull. A failure leaves "zorv_a2x extend: ..." as the last error and fewer frames; calling
 * again tries again. An engine that was never reset has none.
 *
 * A stream is as long as a2x_pos.f32 has rows. When its last frame has been pulled and more audio
 * was pushed, this call or zorv_a2x_pull says so once, on standard error and as a last error that
 * begins with "zorv_a2x: end of a2x_pos.f32"; zorv_a2x_reset starts the next stream.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API int zorv_a2x_avail(zorv_a2x* a2x);

/**
 * Hands out up to `max` frames, decoding first when none is ready.
 *
 * idx  receives the bundle frame on which each is shown; NULL when not wanted.
 * src  receives 63 floats per frame: that bundle frame's own keypoints.
 * drv  receives 63 floats per frame: the same, moved by the expression.
 *
 * Returns the number of frames written; 0 also for max < 1 or a null pointer. Failures as for
 * zorv_a2x_avail. Thread-safety: one thread at a time per engine.
 */
ZORV_API int zorv_a2x_pull(zorv_a2x* a2x, int* idx, float* src, float* drv, int max);

/**
 * Starts a new stream; what was pushed and not pulled is dropped. Frame p is shown on bundle frame
 * start + p, or start - p when dir < 0: wrapped around the bundle when loop is not 0, else back
 * and forth without repeating its ends.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API void zorv_a2x_reset(zorv_a2x* a2x, int start, int dir, int loop);

/**
 * Turns a whole clip into keypoint offsets, without touching the engine's stream; works on an
 * engine that was never reset.
 *
 * pcm         n float samples, mono, 16,000 Hz, in [-1, 1].
 * out         receives frames x 63 floats, frames = ceil(n / 640).
 * max_frames  frames that fit at `out`.
 *
 * Returns the frames written; 0 when n < 1; -2, with nothing written and no text, when max_frames
 * is too small; -1 on failure, also for a clip of more frames than a2x_pos.f32 has rows. What is in
 * `out` after a failure is undefined.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API int zorv_a2x_deltas(zorv_a2x* a2x, const float* pcm, int n, float* out, int max_frames);

/* ------------------------------------------------------------------------------------------
 * Batch stream: a whole clip of speech becomes finished frames
 *
 *     int on_frame(void* user, int index, const uint8_t* rgb, int W, int H) {
 *         job* it = user;
 *         if (!fwrite(rgb, (size_t)W * H * 3, 1, it->file)) zorv_stream_cancel(it->stream);
 *         return 0;                               // not looked at: only a cancel stops the run
 *     }
 *     zorv_stream* stream = zorv_stream_create("subject", "encoder.onnx", 2, 0, 1.0f);
 *     if (!stream) { puts(zorv_stream_last_error()); return 1; }
 *     job it = {stream, file};
 *     int frames = zorv_stream_run(stream, audio, samples, on_frame, &it);
 *     if (frames < 0) puts(zorv_stream_last_error());
 *     zorv_stream_destroy(stream);
 * ------------------------------------------------------------------------------------------ */

/** A bundle opened for whole-clip runs. */
typedef struct zorv_stream zorv_stream;

/**
 * Receives one finished frame: W x H x 3 RGB bytes, valid during the call only. Called on the
 * thread that called zorv_stream_run, in order 0, 1, 2, ...; the result is ignored and stops
 * nothing. It may call any function of the library except those on this stream, zorv_stream_cancel
 * apart. An exception thrown from it ends the run; its worker is stopped first.
 */
typedef int (*zorv_frame_callback)(void* user, int frame_index, const uint8_t* rgb, int W, int H);

/**
 * Opens a bundle for whole-clip runs with renderer model "render", bundle_dir/fca_stream.onnx and
 * bundle_dir/xs_target.bin (zorv_nt x 63 floats: the target frames' own keypoints).
 *
 * encoder_path  the speech encoder (see zorv_fca_create).
 * threads       threads of the model runtime; below 1 means 1.
 * skipFrames    leading frames that are computed but not delivered; negative means 0.
 * deltaGain     multiplies every keypoint offset; 1 is the model's own strength.
 *
 * Returns a stream that the caller destroys, or NULL on failure. Thread-safety: any thread.
 */
ZORV_API zorv_stream* zorv_stream_create(const char* bundle_dir, const char* encoder_path,
                                         int threads, int skipFrames, float deltaGain);

/**
 * Renders a clip. Target frames are walked 0, 1, ..., NT-1, NT-2, ..., 1, 0, 1, ...
 *
 * audio      n_samples float samples, mono, 16,000 Hz, in [-1, 1].
 * callback   receives every frame, see zorv_frame_callback; NULL renders without delivering.
 * user       handed to the callback.
 *
 * Returns the number of frames delivered, ceil(n_samples / 640) - skipFrames; 0 when that is
 * below 1; -1 on failure, with the frames before the failure delivered. When a render failed,
 * zorv_last_error tells why on the calling thread.
 * Thread-safety: one thread at a time per stream.
 */
ZORV_API int zorv_stream_run(zorv_stream* stream, const float* audio, int n_samples,
                             zorv_frame_callback callback, void* user);

/**
 * Ends the run in progress: it returns -1 with "zorv_stream_run: cancelled" after at most one model
 * run, the speech encoder's included. Without a run in progress the next one returns so at once.
 * NULL is ignored. Any thread, also from the callback.
 */
ZORV_API void zorv_stream_cancel(zorv_stream* stream);

/** Frame width in pixels; 0 for NULL. Any thread. */
ZORV_API int zorv_stream_width(zorv_stream* stream);
/** Frame height in pixels; 0 for NULL. Any thread. */
ZORV_API int zorv_stream_height(zorv_stream* stream);

/** Frees the stream. NULL is allowed. Any thread; no run may be in progress. */
ZORV_API void zorv_stream_destroy(zorv_stream* stream);

/** This family's last error on the calling thread, "" if none. Any thread. */
ZORV_API const char* zorv_stream_last_error(void);

/* ------------------------------------------------------------------------------------------
 * Motion engine: speech in pieces becomes keypoint frames
 *
 *     zorv_motion* motion = zorv_motion_create("subject/motion", 2, NULL);
 *     if (!motion) { puts(zorv_motion_last_error()); return 1; }
 *     while ((n = read_audio(samples, 320)) > 0) {
 *         if (!zorv_motion_push(motion, samples, n)) { puts(zorv_motion_last_error()); break; }
 *         while ((k = zorv_motion_pull(motion, idx, xs, xd, 8)) > 0) show(idx, xs, xd, k);
 *         if (*zorv_motion_last_error()) { puts(zorv_motion_last_error()); break; }
 *     }
 *     zorv_motion_finish(motion);
 *     while ((k = zorv_motion_pull(motion, idx, xs, xd, 8)) > 0) show(idx, xs, xd, k);
 *     zorv_motion_reset(motion, 0, 1, 0);     the next stream on the same engine
 *     zorv_motion_destroy(motion);
 *
 * The models work inside zorv_motion_avail and zorv_motion_pull. The frames of a stream do not
 * depend on how its audio was cut or when frames were asked for, except with eager passes, which
 * hand frames out early with the values that they have so far. Every function of the family
 * clears the calling thread's last error on entry.
 * ------------------------------------------------------------------------------------------ */

/** A motion engine with one stream. */
typedef struct zorv_motion zorv_motion;

/**
 * Loads a motion directory (docs/models.md lists its files) and its three models.
 *
 * motion_dir  the directory; file names are appended with "/".
 * threads     threads of the model runtime inside one model run; below 1 means 1.
 * ep          execution provider: NULL or "" for the CPU, "coreml[:cpu|gpu|ane]".
 *
 * Returns an engine with an open stream (frame 0, forward, there and back again, eager off) that
 * the caller destroys, or NULL: "zorv_motion_create: " and what was wrong with which file.
 * Thread-safety: any thread.
 */
ZORV_API zorv_motion* zorv_motion_create(const char* motion_dir, int threads, const char* ep);

/** Frees the engine, whatever its stream has reached. NULL is allowed. Any thread; no other call on
 *  the engine may be running. */
ZORV_API void zorv_motion_destroy(zorv_motion* motion);

/** This family's last error on the calling thread, "" when its last call succeeded. Valid until
 *  the thread's next call of this family. Any thread. */
ZORV_API const char* zorv_motion_last_error(void);

/** Number of target frames that the directory was made for; 0 for NULL. Thread-safety: one thread
 *  at a time per engine. */
ZORV_API int zorv_motion_nt(const zorv_motion* motion);

/**
 * Appends n float samples (mono, 16,000 Hz, in [-1, 1]) to the stream; copies them and does
 * nothing else. n = 0 is allowed.
 * Returns 1; 0 with a null pointer, n < 0 or on a finished stream.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API int zorv_motion_push(zorv_motion* motion, const float* samples, int n);

/** Ends the stream's audio, so that all its frames become available: one per started block of 640
 *  samples. A second call does nothing; NULL is ignored. Thread-safety: one thread at a time per
 *  engine. */
ZORV_API void zorv_motion_finish(zorv_motion* motion);

/** Frames of the whole stream; -1 before zorv_motion_finish and for NULL. Thread-safety: one thread
 *  at a time per engine. */
ZORV_API int zorv_motion_total(const zorv_motion* motion);

/**
 * Eager passes run the models on the audio there is, before a whole chunk of it has come, so that
 * frames can be had a frame or two behind the audio; later audio may change frames that were not
 * handed out yet.
 * value  0 off (the default), N > 0 a pass for every N frames of new audio, negative as often as
 *        the measured cost of a pass allows (every 1 to 8 frames).
 * Survives zorv_motion_reset. NULL is ignored.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API void zorv_motion_set_eager(zorv_motion* motion, int value);

/** How much sound a frame waits for: samples (16,000 Hz) from its own first one until it can be
 *  pulled, at most; with adaptive passes it follows their cost so far. 0 for NULL. Thread-safety:
 *  one thread at a time per engine. */
ZORV_API int zorv_motion_look_ahead(const zorv_motion* motion);

/** Number of frames that zorv_motion_pull would hand out now; 0 for NULL and on failure.
 *  Thread-safety: one thread at a time per engine. */
ZORV_API int zorv_motion_avail(zorv_motion* motion);

/**
 * Hands out the next frames.
 *
 * idx  receives each frame's target frame, 0 <= idx < zorv_motion_nt; NULL if not wanted.
 * xs   receives 63 floats per frame: the target frame's own keypoints.
 * xd   receives 63 floats per frame: the driving keypoints.
 * max  frames that fit, at least 1.
 *
 * Returns the number of frames written, at most max; 0 when none is ready and on failure (the
 * last-error string tells which). A call that fails takes no frame and leaves the arrays undefined;
 * the next call starts with the same frame. If that fails again, reset the engine.
 * Thread-safety: one thread at a time per engine.
 */
ZORV_API int zorv_motion_pull(zorv_motion* motion, int* idx, float* xs, float* xd, int max);

/**
 * Starts a new stream from any state, a failed one included. Audio, frames and the conditioning of
 * the models go; the eager value and its cost average stay.
 *
 * start_frame  target frame of the first frame, brought into 0 .. nt - 1.
 * direction    negative walks the target frames downwards, else upwards.
 * loop         0 turns round at both ends, else the walk goes on at the other end.
 *
 * NULL is ignored. Thread-safety: one thread at a time per engine.
 */
ZORV_API void zorv_motion_reset(zorv_motion* motion, int start_frame, int direction, int loop);

/* ------------------------------------------------------------------------------------------
 * Utterance engine: speech as it arrives becomes video that never stops
 *
 *     zorv_utt* utt = zorv_utt_open(ctx, "motion_dir");
 *     if (!utt) { puts(zorv_utt_last_error()); return 1; }
 *     zorv_utt_set_idle_ahead(utt, 1);             // settings come first
 *     // whenever speech arrives, on any thread:
 *     uint64_t utterance = zorv_utt_push(utt, pcm, samples);
 *     zorv_utt_end_utterance(utt);                 // after the last piece of an utterance
 *     // 25 times a second, on any thread:
 *     zorv_utt_frame frame = {sizeof frame};
 *     frame.plane[0] = rgba; frame.stride[0] = 4 * zorv_width(ctx);
 *     frame.sound = sound; frame.sound_capacity = 640;
 *     if (zorv_utt_pull(utt, &frame) == 1) { show(rgba); play(sound, frame.sound_samples); }
 *     // when the user starts to speak:
 *     zorv_utt_interrupt(utt);
 *     zorv_utt_event event = {sizeof event};
 *     while (zorv_utt_next_event(utt, &event) == 1) note(&event);
 *     zorv_utt_destroy(utt);                       // before zorv_destroy(ctx)
 *
 * docs/utterance.md holds a whole host.
 *
 * The engine warms up on a thread of its own and shows the bundle's own frames meanwhile; audio
 * pushed before it is ready is spoken once it is. Up to 8 finished frames wait for the host, and
 * nothing more is produced until it pulls: the host's pulls are the clock. The bundle frame index
 * runs on by one from frame to frame, round and round, through idling, speech and ramps, except
 * that an interrupt takes back the frames that it drops.
 *
 * An utterance is what is pushed up to its end: zorv_utt_end_utterance, the silence limit, an
 * interrupt or a failure. Utterances are numbered 1, 2, 3 ... by their first sample; more may be
 * pushed while an earlier one is spoken. With S = rate / 25, ceil(samples / S) speech frames belong
 * to an utterance, and a ramp that closes the mouth follows them. Frame k of an utterance shows its
 * samples k S to k S + S - 1, and a pull hands them out with it: a host that plays every frame
 * together with its sound is in sync whatever happens, and keeps no sound of its own.
 *
 * Every utterance tells its fate in events: ZORV_UTT_STARTED when its first frame is pulled, and
 * then, or without it, exactly one of ZORV_UTT_FINISHED, _INTERRUPTED and _FAILED.
 *
 * When something fails while the engine runs (a model, a target frame, the motion source), the
 * utterance ends with a ramp, what was pushed of it is dropped up to its end, idle frames go on
 * and the next utterance is spoken. zorv_utt_failure tells the reason.
 *
 * Records whose first member is `struct_size` grow at their end in later versions. The host sets it
 * to sizeof its record; no byte beyond it is read or written, and a record that is larger than this
 * version's keeps its rest. A size that is 0 or ends inside a member is refused.
 *
 * While an engine lives, its context is the engine's: the host may ask for sizes, but must not
 * render, paste or ask for target frames on it, and no second engine may use it.
 * ------------------------------------------------------------------------------------------ */

/** An utterance engine and its threads. */
typedef struct zorv_utt zorv_utt;

/** How an engine shall behave; a field that is zero takes its default. */
typedef struct zorv_utt_opts {
    /** Models of the motion source; required. A directory that holds a2x_enc_stream.onnx is the
     *  expression engine's, any other one the motion engine's. */
    const char* motion_dir;
    /** Model threads of the motion source; below 1: the context's. */
    int threads;
    /** Execution provider of the motion engine, as for zorv_create; NULL: the CPU. */
    const char* ep;
    /** Model key of a second renderer, used for batches of speech frames; NULL or "": "b24_fp32";
     *  "-": none. The environment variable ZORV_STEADY_MODEL overrides it. */
    const char* steady_model;
    /** Frames per provisional step of the motion source: 1 or more; below 1: adaptive; -2:
     *  hybrid, steps of 3. */
    int eager;
    /** Seconds without new audio that end an utterance; 0: 0.6 s; negative: never. */
    double silence_end_s;
    /** Frames from speech back to rest; below 1: 6. */
    int ramp_frames;
    /** The same after an interrupt; below 1: 4. */
    int ramp_frames_interrupt;
} zorv_utt_opts;

/** What is known of a pulled frame. */
typedef struct zorv_utt_frame_info {
    /** Counts every finished frame from 0; a gap shows frames that an interrupt dropped. */
    uint64_t sequence;
    /** 0 idle, 1 speech, 2 ramp. */
    int32_t kind;
    /** Bundle frame that it is drawn on. */
    int32_t frame;
    /** Number of a speech frame within its utterance, from 0; else -1. */
    int32_t speech_sequence;
} zorv_utt_frame_info;

/** Counted since the engine was created. */
typedef struct zorv_utt_stats {
    /** Frames handed to the host, of every kind. */
    uint64_t frames_pulled;
    /** Those of them that were speech. */
    uint64_t speech_frames_pulled;
    /** Utterances whose first speech frame was finished. */
    uint64_t utterances_started;
    /** Of the latest one: from its first pushed audio to its first finished speech frame. */
    double first_frame_latency_ms;
    /** Per speech frame, a running average. */
    double render_ms;
    /** Always 0. */
    uint64_t reserved;
    /** 0 idle, 1 waiting for the first speech frame, 2 speaking, 3 ramping back to rest. */
    int state;
} zorv_utt_stats;

/** What a speech frame does that comes late (zorv_utt_set_late). */
#define ZORV_LATE_WAIT 0 /**< It is shown all the same: no sound is lost. */
#define ZORV_LATE_SKIP 1 /**< Frames are left out until speech is where the clock is. */

/** Flags of a pulled frame. */
#define ZORV_FRAME_FIRST 1u   /**< The first speech frame of its utterance that is shown. */
#define ZORV_FRAME_LAST 2u    /**< The last one, where that is certain when it is pulled. */
#define ZORV_FRAME_SILENCE 4u /**< Beside LAST: the utterance ended by silence. */
#define ZORV_FRAME_GAP 8u     /**< Speech frames were left out before it, and their sound. */

/** A frame to be pulled: the host fills in where it goes, the pull says what it is. */
typedef struct zorv_utt_frame {
    size_t struct_size; /**< Host: sizeof(zorv_utt_frame). */
    /** Host: where the planes go. RGBA and RGB: plane 0; NV12: 0 and 1; I420: 0 to 2. */
    uint8_t* plane[3];
    int32_t stride[3]; /**< Host: bytes from one row of a plane to the next. */
    /** Host: where the frame's sound goes, or NULL; a pull without it lets the sound go. */
    int16_t* sound;
    int32_t sound_capacity; /**< Host: samples that fit there, at least rate / 25. */
    /** rate / 25. Of a speech frame what was pushed for it (behind the utterance's end: zeros), of
     *  idle and ramp frames zeros. */
    int32_t sound_samples;
    uint64_t sequence;       /**< As in zorv_utt_frame_info. */
    int32_t kind;            /**< 0 idle, 1 speech, 2 ramp. */
    int32_t frame;           /**< Bundle frame that it is drawn on. */
    int32_t speech_sequence; /**< Number of a shown speech frame within its utterance; else -1. */
    uint64_t utterance;      /**< Its utterance; of a ramp the one that it closes; 0: none. */
    /** Of a speech frame: where its sound begins in the utterance, in pushed samples; else -1. */
    int64_t first_sample;
    /** In 1/25 s, from 0: counts the frames that were pulled and those that ZORV_LATE_SKIP left
     *  out. */
    int64_t pts;
    uint32_t flags; /**< ZORV_FRAME_ values. */
} zorv_utt_frame;

/** Types of events. */
#define ZORV_UTT_STARTED 1     /**< Its first speech frame was pulled. */
#define ZORV_UTT_FINISHED 2    /**< All of it was shown, but for what was left out. */
#define ZORV_UTT_INTERRUPTED 3 /**< An interrupt ended it. */
#define ZORV_UTT_FAILED 4      /**< It was given up, or no frame of it could be shown. */

/** Why an utterance ended. */
#define ZORV_REASON_END 1       /**< zorv_utt_end_utterance. */
#define ZORV_REASON_SILENCE 2   /**< The silence limit. */
#define ZORV_REASON_INTERRUPT 3 /**< zorv_utt_interrupt. */
#define ZORV_REASON_FAILURE 4   /**< zorv_utt_failure and zorv_utt_ready tell more. */

/** What became of an utterance. */
typedef struct zorv_utt_event {
    size_t struct_size; /**< Host: sizeof(zorv_utt_event). */
    int32_t type;       /**< A ZORV_UTT_ value. */
    int32_t reason;     /**< A ZORV_REASON_ value; 0 for ZORV_UTT_STARTED. */
    uint64_t utterance; /**< Its number, from 1. */
    /** Up to where it was shown: the end of its last pulled frame's sound, at most its length; 0
     *  when none was pulled. */
    int64_t samples;
    int64_t pts;              /**< Of its last pulled speech frame; -1 when there is none. */
    uint64_t frames_left_out; /**< Its speech frames up to there that were not shown. */
    uint64_t missed;          /**< Events that were dropped before this one: 1024 are kept. */
} zorv_utt_event;

/** How far picture lies behind sound, and what it costs. Counted since the engine was created. */
typedef struct zorv_utt_latency_info {
    size_t struct_size; /**< Host: sizeof(zorv_utt_latency_info). */
    /** Samples, at the input's rate, from a speech frame's first one until it can be made; 0 until
     *  the engine is ready. */
    int32_t look_ahead_samples;
    int32_t idle_ahead;              /**< As set. */
    double render_ms;                /**< Per speech frame, a running average. */
    uint64_t frames_left_out_late;   /**< Speech frames that ZORV_LATE_SKIP left out. */
    uint64_t frames_left_out_failed; /**< Speech frames whose render or composite failed. */
    /** Times that the next speech frame was not finished 40 ms after it was due, though its sound
     *  was there. */
    uint64_t late_slots;
    uint64_t sound_bytes; /**< Memory of sound that was pushed and not handed out. */
} zorv_utt_latency_info;

/**
 * Creates an engine on a context and starts its threads; models load in the background
 * (zorv_utt_ready). The texts of `opts` are copied; the context must outlive the engine.
 * motion_dir/xs_target.bin (zorv_nt x 63 floats) holds the bundle frames' own keypoints; without
 * it there are no ramps.
 * Returns an engine that the caller destroys, or NULL: "zorv_utt_create: NULL ctx/opts" or
 * "zorv_utt_create: " and the reason. Thread-safety: any thread.
 */
ZORV_API zorv_utt* zorv_utt_create(zorv_ctx* ctx, const zorv_utt_opts* opts);

/** zorv_utt_create with all defaults. Any thread. */
ZORV_API zorv_utt* zorv_utt_open(zorv_ctx* ctx, const char* motion_dir);

/** Stops the threads, dropping what is in progress, and frees the engine. It waits for a model that
 *  is loading and for a step of the motion source that is under way. NULL is allowed. Any thread;
 *  no other call on the engine may be running but zorv_utt_wait, which is woken and waited for. */
ZORV_API void zorv_utt_destroy(zorv_utt* utt);

/** 1 when speech can be shown, 0 while models load, -1 for NULL and when the engine cannot speak
 *  (zorv_utt_last_error says why; idle frames go on and pushed audio is discarded). Any thread. */
ZORV_API int zorv_utt_ready(zorv_utt* utt);

/**
 * The rate of pushed sound in Hz: 8000 to 48000, a multiple of 25; 16000 unless set. The models
 * hear 16,000 Hz through a streaming resampler that starts anew with each utterance; how sound is
 * cut into pushes changes nothing.
 *
 * This and the next four settings come before the first push and the first pull. Each returns 1, or
 * 0 with a text (NULL, a value that is out of range, too late) and changes nothing. Any thread.
 */
ZORV_API int zorv_utt_set_input(zorv_utt* utt, int rate);

/** The form of the frames that are made ahead, a ZORV_PIXELS_ value; RGBA unless set. Otherwise as
 *  zorv_utt_set_input. Any thread. */
ZORV_API int zorv_utt_set_pixels(zorv_utt* utt, int pixels);

/** The matrix of the YUV forms, a ZORV_MATRIX_ value; AUTO unless set. Otherwise as
 *  zorv_utt_set_input. Any thread. */
ZORV_API int zorv_utt_set_matrix(zorv_utt* utt, int matrix);

/** Idle and ramp frames that are made ahead of the host, 1 to 8; 8 unless set. With fewer, speech
 *  shows sooner. Waiting idle frames beyond it are taken back; the sequence shows a gap. Otherwise
 *  as zorv_utt_set_input. Any thread. */
ZORV_API int zorv_utt_set_idle_ahead(zorv_utt* utt, int frames);

/** A ZORV_LATE_ value: WAIT (unless set) for a host that plays frames with their sound, SKIP for
 * one whose sound plays from elsewhere. Otherwise as zorv_utt_set_input. Any thread. */
ZORV_API int zorv_utt_set_late(zorv_utt* utt, int policy);

/**
 * Appends n samples (mono, at the input's rate) to the utterance that is being pushed, or starts
 * one; never waits for the engine. Sound of an utterance that has failed, or that is longer than
 * the models can take, is discarded up to its end and keeps its number. Returns the utterance's
 * number; 0 without a text for n = 0; 0 with a text, and nothing appended, for NULL, n < 0, an
 * allocation failure, and on an engine that cannot speak (zorv_utt_ready is -1). Any thread; the
 * samples of one push stay together.
 */
ZORV_API uint64_t zorv_utt_push(zorv_utt* utt, const int16_t* pcm, int n);

/**
 * zorv_utt_push without the number. Returns 1, or 0 with "zorv_utt_push_audio: bad args" (NULL,
 * n < 0) or an allocation failure, with nothing appended; an engine that cannot speak discards.
 * Any thread.
 */
ZORV_API int zorv_utt_push_audio(zorv_utt* utt, const int16_t* pcm, int n);

/** Ends the utterance that is being pushed; without audio since the last end it does nothing.
 *  NULL is ignored. Any thread. */
ZORV_API void zorv_utt_end_utterance(zorv_utt* utt);

/**
 * Stops speaking at once: drops all audio and every frame that was not pulled. Once it has
 * returned, no frame of an utterance pushed before is handed out. The mouth closes from the last
 * frame that was pulled; the next utterance may be pushed at once. The frames that follow are made
 * after the call, so a host that pulls at once may find none for one tick. NULL is ignored. Any
 * thread.
 */
ZORV_API void zorv_utt_interrupt(zorv_utt* utt);

/** Frames that can be pulled now, 0 to 8; 0 for NULL. Any thread. */
ZORV_API int zorv_utt_frames_available(zorv_utt* utt);

/**
 * Takes the oldest finished frame in the form that was set, and its sound; never waits for one.
 * Returns 1; 0 without a text when there is none, also when an interrupt came while it was copied;
 * -1 with a text for NULL, a wrong struct_size, a missing plane, a stride below the bytes of a row,
 * and sound_capacity below rate / 25: then nothing is taken and nothing written. Any thread; pulls
 * of both kinds take turns and share frames, events and sound.
 */
ZORV_API int zorv_utt_pull(zorv_utt* utt, zorv_utt_frame* frame);

/**
 * zorv_utt_pull of an RGBA frame without its sound.
 * buf   receives W x H x 4 bytes R G B 255.
 * cap   bytes available at buf.
 * info  receives what is known of the frame; NULL is allowed.
 * Returns 1; 0 without a text when there is none, also when an interrupt came while it was
 * copied; 0 with "zorv_utt_pull_frame: buffer too small" (the frame stays),
 * "zorv_utt_pull_frame: bad args", or a text when another form than RGBA was set. Thread-safety:
 * any thread; pulls take turns.
 */
ZORV_API int zorv_utt_pull_frame(zorv_utt* utt, uint8_t* buf, size_t cap,
                                 zorv_utt_frame_info* info);

/**
 * Takes the oldest event. Events come in the order of the utterances; a pull, an interrupt or an
 * end makes them, and the newest 1024 are kept.
 * Returns 1; 0 without a text when there is none; -1 with a text for NULL or a wrong struct_size.
 * Any thread.
 */
ZORV_API int zorv_utt_next_event(zorv_utt* utt, zorv_utt_event* event);

/**
 * Waits until something of `mask` can be had: 1 a frame, 2 an event, 3 either. A host that pulls by
 * its own clock waits for frames only after a pull that found none, and for events always.
 * timeout_ms  0 asks without waiting; negative waits without a limit.
 * Returns what of the mask can be had (1, 2 or 3), 0 when the time is over, -1 with a text for NULL
 * and another mask, when nothing of the mask can come any more (the engine's fatal text, as from
 * zorv_utt_ready), and when the engine is destroyed meanwhile. Any thread.
 */
ZORV_API int zorv_utt_wait(zorv_utt* utt, int mask, int timeout_ms);

/**
 * A descriptor for poll and its kin, readable exactly while something of `mask` (as above) can be
 * had. An interrupt between poll and pull may take the frame away.
 * Returns one descriptor per mask, the same each time, close-on-exec. It is the engine's: it must
 * not be read, written or closed, and ends with the engine. -1 with a text for NULL, another mask,
 * and when there is no descriptor left. Any thread.
 */
ZORV_API int zorv_utt_fd(zorv_utt* utt, int mask);

/** Fills in `info`. Returns 1, or 0 with a text for NULL or a wrong struct_size. Any thread. */
ZORV_API int zorv_utt_latency(zorv_utt* utt, zorv_utt_latency_info* info);

/** Copies the statistics. NULL arguments are ignored. Any thread. */
ZORV_API void zorv_utt_get_stats(zorv_utt* utt, zorv_utt_stats* stats);

/**
 * What went wrong while the engine ran: copies the reason of the latest failure to `text` (cut to
 * `capacity` bytes with its end mark; "" when none; NULL is allowed) and returns the number of
 * failures so far. A failure is an utterance that was given up, or a single frame that was left
 * out. 0 for a NULL engine. Any thread.
 */
ZORV_API uint64_t zorv_utt_failure(zorv_utt* utt, char* text, size_t capacity);

/** This family's last error on the calling thread, "" if none. Any thread. */
ZORV_API const char* zorv_utt_last_error(void);

/* ------------------------------------------------------------------------------------------
 * Telemetry: what the library counts about itself, for a host that asks
 *
 *     zorv_telemetry_enable(1);
 *     // every minute or so:
 *     size_t size = zorv_telemetry_pending();
 *     char* json = malloc(size + 1);
 *     if (size > 0 && zorv_telemetry_take(json, size) == size) send(json);
 *     free(json);
 *
 * Off until it is switched on here or by ZORV_TELEMETRY=1. What is recorded is kept in memory, in
 * a fixed number of places, until the host takes it as one JSON object (docs/telemetry.md lists
 * its members and every name that the library records); what does not fit is counted as dropped.
 * No file or socket is opened. Hosts may record under names of their own: dotted lower case,
 * outside "zorv.". Names longer than 96 bytes, units longer than 32 and event texts longer than 256
 * are cut, with a mark.
 * ------------------------------------------------------------------------------------------ */

/** Switches recording on (not 0) or off (0). What was recorded stays. Any thread. */
ZORV_API void zorv_telemetry_enable(int on);

/** 1 while recording is on, else 0. Any thread. */
ZORV_API int zorv_telemetry_enabled(void);

/** Adds n to a counter. unit: "{frame}", "By" and the like; NULL means "1". Returns 1, also while
 *  off; 0 with "zorv_telemetry_count: bad args" for a name that is NULL or "". Any thread. */
ZORV_API int zorv_telemetry_count(const char* name, const char* unit, uint64_t n);

/** Sets a gauge; the batch holds its latest value, null when that is not finite. Arguments and
 *  result as for zorv_telemetry_count. Any thread. */
ZORV_API int zorv_telemetry_gauge(const char* name, const char* unit, double value);

/** Adds a duration in seconds to a histogram; one that is negative or not finite counts as
 *  dropped. Result as for zorv_telemetry_count. Any thread. */
ZORV_API int zorv_telemetry_duration(const char* name, double seconds);

/** Adds an event with the time of this call. Result as for zorv_telemetry_count. Any thread. */
ZORV_API int zorv_telemetry_event(const char* name, const char* text);

/**
 * Closes the batch of what was recorded so far and returns the bytes that zorv_telemetry_take
 * needs for it, its end mark included; 0 when nothing was recorded. A closed batch stays as it is
 * until it is taken or cleared; what is recorded later belongs to the next one. Any thread.
 */
ZORV_API size_t zorv_telemetry_pending(void);

/**
 * Writes the closed batch (closing one when there is none), a JSON text with its end mark, to
 * `buf` and lets it go. Returns its bytes, 0 when nothing was recorded. A result above `cap` means
 * that nothing was written and the batch is kept ("zorv_telemetry_take: buffer too small").
 * Any thread.
 */
ZORV_API size_t zorv_telemetry_take(char* buf, size_t cap);

/** Throws away what was recorded, the closed batch included. Any thread. */
ZORV_API void zorv_telemetry_clear(void);

/** This family's last error on the calling thread, "" if none. Any thread. */
ZORV_API const char* zorv_telemetry_last_error(void);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_CORE_H */
