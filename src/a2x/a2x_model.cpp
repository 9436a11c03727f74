#include "a2x/a2x_model.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "a2x/a2x_settings.h"
#include "common/file.h"
#include "common/key_finder.h"
#include "common/memory.h"

namespace zorv::a2x {
namespace {

std::string metaText(const std::string& dir) {
    std::string text;
    const ReadStatus status = readWholeFile(dir + "/a2x_meta.json", text);
    if (status == ReadStatus::kCannotOpen) {
        throw std::runtime_error("a2x_meta.json missing in " + dir);
    }
    if (status != ReadStatus::kOk) throw std::runtime_error("short read " + dir + "/a2x_meta.json");
    return text;
}

void requireAtLeast(std::int32_t value, std::int32_t least, const char* key) {
    if (value >= least) return;
    throw std::runtime_error(std::string("a2x_meta.json: ") + key + " must be at least " +
                             std::to_string(least));
}

/// All floats of a file; none when it cannot be read in full. An incomplete last one is ignored.
std::vector<float> readFloats(const std::string& path) {
    std::string bytes;
    if (readWholeFile(path, bytes) != ReadStatus::kOk) return {};
    std::vector<float> floats(bytes.size() / sizeof(float));
    if (!floats.empty()) std::memcpy(floats.data(), bytes.data(), floats.size() * sizeof(float));
    return floats;
}

constexpr auto kSet = static_cast<std::int64_t>(kKeypointFloats);

ModelContract encoderContract(std::int64_t h) {
    return {{{"feat", {1, -1, kLayers, kLayerFloats}},
             {"pos_window", {1, -1, h}},
             {"attn", {1, 1, -1, -1}}},
            {{"", {1, -1, h}, Fit::kAtLeast}}};
}

ModelContract decoderContract(std::int64_t h) {
    return {{{"ctx_t", {1, h}}, {"prev", {1, kSet}}, {"h", {1, 1, h}}},
            {{"m", {1, kSet}, Fit::kAtLeast}, {"h_out", {1, 1, h}, Fit::kAtLeast}}};
}

}  // namespace

std::int32_t json_int(const std::string& text, const char* key, std::int32_t fallback) {
    const KeyPosition at = findKeyPosition(text, key);
    if (at.status != KeyStatus::kFound) return fallback;
    return integerOf(text.c_str() + at.afterColon);
}

Meta::Meta(const std::string& dir) {
    const std::string text = metaText(dir);
    h = json_int(text, "h", 256);
    window = json_int(text, "window", -1);
    left = json_int(text, "left", -1);
    maxlen = json_int(text, "maxlen", 1200);
    if (window < 0 || left < 0) {
        throw std::runtime_error("meta lacks causal window/left (not a streaming a2x)");
    }
    layers = json_int(text, "layers", 6);
    silence_prime = json_int(text, "silence_prime", 0);
    requireAtLeast(h, 1, "h");
    requireAtLeast(maxlen, 0, "maxlen");
    requireAtLeast(layers, 0, "layers");
}

std::int32_t Meta::fieldOf(std::int32_t perLayer) const {
    const std::int64_t frames = std::int64_t{perLayer} * layers;
    return static_cast<std::int32_t>(
        std::min<std::int64_t>(frames, std::numeric_limits<std::int32_t>::max()));
}

Tables::Tables(const std::string& dir, const Meta& meta) : pos(readFloats(dir + "/a2x_pos.f32")) {
    const std::vector<float> norm = readFloats(dir + "/a2x_norm.f32");
    xs_target = readFloats(dir + "/xs_target.bin");
    const std::size_t wanted =
        static_cast<std::size_t>(meta.maxlen) * static_cast<std::size_t>(meta.h);
    const std::size_t rows = xs_target.size() / kKeypointFloats;
    if (pos.size() < wanted || norm.size() < 2 * kKeypointFloats || rows == 0) {
        throw std::runtime_error("pos/norm/xs_target read failed");
    }
    norm_mean.assign(norm.begin(), norm.begin() + kKeypointFloats);
    norm_std.assign(norm.begin() + kKeypointFloats, norm.begin() + 2 * kKeypointFloats);
    nt = static_cast<std::int32_t>(
        std::min<std::size_t>(rows, std::numeric_limits<std::int32_t>::max()));
}

StreamEncoder::StreamEncoder(std::shared_ptr<const Model> opened, const Meta& meta)
    : h_(meta.h),
      left_(meta.left),
      window_(meta.window),
      model_(std::move(opened), encoderContract(meta.h)) {}

const float* StreamEncoder::run(const float* feat, const float* pos, std::int64_t n) {
    const auto frames = static_cast<std::size_t>(n);
    if (n != n_) {
        n_ = 0;  // until the tensor is in place
        mask_.resize(checkedProduct(frames, frames));
        bandedMask(n, left_, window_, mask_.data());
        model_.bindInput(2, mask_.data(), {1, 1, n, n});
        model_.forgetOutputs();
        n_ = n;
    }
    // These two point into the caller's rows, elsewhere on every run.
    model_.bindInput(0, feat, {1, n, kLayers, kLayerFloats});
    model_.bindInput(1, pos, {1, n, h_});
    model_.run();
    return model_.floats(0, frames * static_cast<std::size_t>(h_));
}

StreamDecoder::StreamDecoder(std::shared_ptr<const Model> opened, std::int32_t h)
    : ctx_(static_cast<std::size_t>(h)),
      prev_(kKeypointFloats),
      hid_(ctx_.size()),
      model_(std::move(opened), decoderContract(h)) {
    model_.bindInput(0, ctx_.data());
    model_.bindInput(1, prev_.data());
    model_.bindInput(2, hid_.data());
}

void StreamDecoder::step(const float* ctx, DecoderState& state) {
    std::copy_n(ctx, ctx_.size(), ctx_.begin());
    std::copy(state.prev.begin(), state.prev.end(), prev_.begin());
    std::copy(state.hid.begin(), state.hid.end(), hid_.begin());
    model_.run();
    const float* m = model_.floats(0, prev_.size());
    const float* hidden = model_.floats(1, hid_.size());
    std::copy_n(m, state.prev.size(), state.prev.begin());
    std::copy_n(hidden, state.hid.size(), state.hid.begin());
}

}  // namespace zorv::a2x
