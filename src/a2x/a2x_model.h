// An expression directory: metadata, tables, and the two models of one engine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "a2x/a2x_math.h"
#include "common/model_run.h"

namespace zorv::a2x {

/// a2x_meta.json. Throws with a fixed text that names the bad key.
struct Meta {
    explicit Meta(const std::string& dir);

    std::int32_t h;              ///< model width
    std::int32_t window;         ///< attention look-ahead per layer, frames
    std::int32_t left;           ///< attention look-back per layer, frames
    std::int32_t layers;         ///< depth of the streaming encoder
    std::int32_t maxlen;         ///< rows that the positional table must have
    std::int32_t silence_prime;  ///< frames of silence behind every start
    std::int32_t fieldOf(std::int32_t perLayer) const;  ///< perLayer x layers, saturated
};

/// The integer after `"key":` as strtol reads it, saturated; `fallback` when there is no such key
/// or no colon after it.
std::int32_t json_int(const std::string& text, const char* key, std::int32_t fallback);

/// The raw float tables of the directory; their sizes are checked.
struct Tables {
    Tables(const std::string& dir, const Meta& meta);

    std::vector<float> pos;        ///< positional table, rows of h
    std::vector<float> norm_mean;  ///< 63
    std::vector<float> norm_std;   ///< 63
    std::vector<float> xs_target;  ///< nt x 63: the bundle's keypoint frames
    std::int32_t nt;
};

/// a2x_enc_stream.onnx: a window of feature frames becomes one row of h floats per frame.
class StreamEncoder {
  public:
    /// Throws when the model does not fit, as agreementOf does.
    StreamEncoder(std::shared_ptr<const Model> opened, const Meta& meta);

    /// feat: n x kFeatureFloats, pos: n x h. Returns n x h, valid until the next run. Mask and
    /// output tensor are kept from run to run while n stays the same.
    const float* run(const float* feat, const float* pos, std::int64_t n);

  private:
    const std::int32_t h_, left_, window_;
    std::vector<float> mask_;  ///< n_ x n_, bound to the model
    std::int64_t n_ = 0;
    ModelRun model_;
};

/// What the decoder carries from frame to frame. Empty: it must not run yet.
struct DecoderState {
    std::vector<float> prev;  ///< 63: its last output, before de-normalisation
    std::vector<float> hid;   ///< h: its hidden state

    static DecoderState zero(std::int32_t h) {
        return {std::vector<float>(kKeypointFloats), std::vector<float>(h)};
    }
    bool empty() const { return prev.empty(); }
};

/// a2x_dec.onnx: one frame at a time.
class StreamDecoder {
  public:
    /// Throws when the model does not fit, as agreementOf does.
    StreamDecoder(std::shared_ptr<const Model> opened, std::int32_t h);

    /// ctx: h floats of the encoder. Moves the state on by a frame; state.prev is the frame's
    /// normalised output. A run that throws leaves the state as it was.
    void step(const float* ctx, DecoderState& state);

  private:
    std::vector<float> ctx_, prev_, hid_;  ///< bound to the model
    ModelRun model_;
};

}  // namespace zorv::a2x
