// The expression engine: speech in pieces becomes keypoint frames.
#pragma once

#include <zorv_core.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "a2x/a2x_features.h"
#include "a2x/a2x_model.h"
#include "a2x/a2x_provider.h"
#include "a2x/paged_rows.h"
#include "common/error.h"

namespace zorv {
/// The family's last error. No call clears it, so that a host finds it after the calls that follow
/// the failing one; a caller that must tell old texts from new ones clears it first.
using A2xError = LastError<zorv_a2x>;

namespace a2x {
/// Beginning of the text that says, once per stream, that the positional table has ended.
constexpr std::string_view kTableEnd = "zorv_a2x: end of a2x_pos.f32";
}  // namespace a2x
}  // namespace zorv

/// One engine; one thread at a time. Samples flow one way: `audio` -> track.feat (features) ->
/// `enc_out` (encoder rows) -> `frames` (offsets) -> pull. Everything is indexed by its absolute
/// frame or sample and let go when no later step reads it. Invariant:
/// pulled <= dec_done <= enc_done <= limit.
struct zorv_a2x {
  public:
    zorv_a2x(const std::string& dir, int threads);

    void push(const float* pcm, int n);
    void finish() { finished_ = true; }
    void set_eager(int value) { eager_ = value; }
    void reset(std::int32_t start, std::int32_t dir, bool loop);
    std::int64_t total() const { return zorv::a2x::frameCount(samples_); }
    bool finished() const { return finished_; }
    /// Samples, from a frame's first one on, that must have come before the frame can be pulled.
    std::int64_t lookAheadSamples() const;

    /// Decodes up to one block; returns the frames ready to pull.
    std::int64_t avail();
    /// Hands out up to `max` frames, 63 floats each in src and drv.
    int pull(int* idx, float* src, float* drv, int max);

    /// A whole clip, beside the stream: `frames` = frameCount(n) rows of 63 offsets.
    void deltas(const float* pcm, int n, float* out);

    std::int32_t nt() const { return tables_.nt; }
    /// Runs of the speech encoder (the trunk, on the short path) for the current stream.
    std::int64_t encoderRuns() const { return track_.encoder_runs; }

  private:
    void openSharedEncoder();
    void primeWithSilence();
    zorv::a2x::DecoderState computePrime(std::int64_t n);
    zorv::a2x::DecoderState startState() const;
    zorv::a2x::LegacyWindow& legacyWindow();

    std::int64_t ready() const;
    /// Sets the last error, once, when the rest of the audio lies beyond the positional table.
    void noticeTableEnd();
    zorv::a2x::AudioView audioView() const;
    /// Brings decoding up to frame `want` as far as the audio allows. A failure leaves its text in
    /// the last error and fewer frames decoded.
    void extend(std::int64_t want);
    void produceFeatures(std::int64_t upto);
    void encode(std::int64_t upto);
    void decode(std::int64_t upto);
    void releaseBehindEncoder();
    /// Encoder rows [s, e) within a sequence of `end` frames. Valid until the next encoder run.
    const float* encodeChunk(zorv::a2x::PagedRows& feat, std::int64_t s, std::int64_t e,
                             std::int64_t end);
    /// One frame: offsets from encoder row `ctx`.
    void decodeFrame(const float* ctx, zorv::a2x::DecoderState& state, float* offsets);

    // Constant after creation, but for what the models keep of their last run.
    const int threads_;  ///< of the model runtime, for the sessions that this engine loads
    zorv::a2x::ProviderChoice provider_;
    const zorv::a2x::Meta meta_;
    zorv::a2x::Tables tables_;
    const std::int64_t enc_left_, enc_right_;  ///< receptive field of the encoder, frames
    std::int64_t w2v_right_;                   ///< frames of look-ahead that features need
    std::int64_t win_right_ = 0;               ///< of these, heard by a short window
    bool use_win_ = false;
    const std::int64_t limit_;  ///< rows of the positional table: no stream is longer
    std::shared_ptr<const zorv::Model> w2v_;
    std::optional<zorv::a2x::StreamEncoder> enc_;
    std::optional<zorv::a2x::StreamDecoder> dec_;
    std::unique_ptr<zorv::a2x::LegacyWindow> legacy_;  ///< made when first needed
    std::unique_ptr<zorv::a2x::ShortWindow> short_;    ///< with use_win_
    zorv::a2x::DecoderState prime_;                    ///< empty without a silence prime

    // The stream.
    std::int64_t samples_ = 0;
    bool finished_ = false;
    bool end_told_ = false;
    zorv::a2x::PagedRows audio_;
    zorv::a2x::FeatureTrack track_;
    zorv::a2x::PagedRows enc_out_, frames_;
    std::int64_t enc_done_ = 0, dec_done_ = 0, pulled_ = 0;
    zorv::a2x::DecoderState state_;      ///< empty until the first reset
    std::int32_t start_ = 0, step_ = 1;  ///< replay of the bundle's keypoint frames
    bool loop_ = true;
    std::int32_t eager_ = -1;  ///< kept for callers; changes nothing here
};
