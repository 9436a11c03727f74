#include "motion/motion_tables.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "common/file.h"
#include "common/key_finder.h"
#include "common/memory.h"
#include "motion/motion_spectrum.h"

namespace zorv::motion {
namespace {

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

struct Meta {
    std::size_t nt, nSrc, nEmo;
};

std::string readText(const std::string& path) {
    std::string text;
    const ReadStatus status = readWholeFile(path, text);
    if (status == ReadStatus::kCannotOpen) fail("cannot open " + path);
    if (status != ReadStatus::kOk) fail("short read " + path);
    return text;
}

/// A count that later steps divide by or index with.
std::size_t positive(std::int32_t value, const char* key) {
    if (value < 1) fail(std::string("meta.json: bad ") + key);
    return static_cast<std::size_t>(value);
}

/// Reads the settings into `tables` and the counts that the files must agree with.
Meta readMeta(const std::string& dir, MotionTables& tables) {
    const std::string text = readText(dir + "/meta.json");
    const auto count = [&](const char* key) { return toInt32(jsonNum(text, key, 0, true)); };
    const std::int32_t nt = count("nt");
    const std::int32_t nSrc = count("n_src");
    const std::int32_t nEmo = count("n_emo");
    tables.bridgeGain = static_cast<float>(jsonNum(text, "s_bridge", 1, false));
    tables.deltaPitch = static_cast<float>(jsonNum(text, "delta_pitch", 0, false));
    if (nSrc != nt) fail("zorv_motion: n_src != nt unsupported");
    tables.nt = nt;
    return {positive(nt, "nt"), positive(nSrc, "n_src"), positive(nEmo, "n_emo")};
}

std::vector<KeypointInfo> readInfos(const std::string& path, std::size_t count) {
    const std::vector<float> floats = readFloats(path, checkedProduct(count, kInfoFloats));
    std::vector<KeypointInfo> infos(count);
    std::memcpy(infos.data(), floats.data(), floats.size() * sizeof(float));
    return infos;
}

std::array<float, kMotionFloats> motionOf(const KeypointInfo& info) {
    std::array<float, kMotionFloats> motion{};
    float* to = motion.data();
    *to++ = info.scale - 1.0f;
    for (const float* angle : {info.pitch, info.yaw, info.roll}) {
        to = std::copy_n(angle, kAngleBins, to);
    }
    to = std::copy_n(info.t, 3, to);
    std::copy_n(info.exp, kKeypointFloats, to);
    return motion;
}

}  // namespace

std::vector<float> readFloats(const std::string& path, std::size_t count) {
    std::string bytes;
    const ReadStatus status = readWholeFile(path, bytes);
    if (status == ReadStatus::kCannotOpen) fail("cannot open " + path);
    const std::size_t found = bytes.size() / sizeof(float);
    if (status != ReadStatus::kOk || found != count) {
        fail("short read " + path + ": " + std::to_string(found) + " floats, expected " +
             std::to_string(count));
    }
    std::vector<float> floats(count);
    std::memcpy(floats.data(), bytes.data(), count * sizeof(float));
    return floats;
}

double jsonNum(const std::string& text, std::string_view key, double fallback, bool required) {
    const KeyPosition position = findKeyPosition(text, key);
    switch (position.status) {
        case KeyStatus::kMissing:
            if (required) fail("meta.json: missing " + std::string(key));
            return fallback;
        case KeyStatus::kNoColon:
            fail("meta.json: bad " + std::string(key));
        default:
            return numberFrom(text, position.afterColon);
    }
}

MotionTables loadMotionTables(const std::string& dir) {
    MotionTables tables;
    const Meta meta = readMeta(dir, tables);
    tables.window = readFloats(dir + "/hubert_stft_window.bin", kTransformSamples);
    tables.binmat = readFloats(dir + "/hubert_stft_binmat.bin", kBins * kBands);
    tables.mean = readFloats(dir + "/hubert_fmean.bin", kSpeechFloats);
    tables.scale = readFloats(dir + "/hubert_fstd.bin", kSpeechFloats);
    tables.emotions = readFloats(dir + "/emo.bin", checkedProduct(meta.nEmo, kEmotionFloats));
    const KeypointInfo reference = readInfos(dir + "/ch_xs_info.bin", 1)[0];
    const std::vector<float> constants = readFloats(dir + "/ch_sc.bin", kConstantFloats);
    const std::vector<float> eyeOpen = readFloats(dir + "/ch_eye_open.bin", kEyeOpenFloats);
    const std::vector<float> eyeBall = readFloats(dir + "/ch_eye_ball.bin", kEyeBallFloats);
    const std::vector<float> bounds = readFloats(dir + "/v_min_max.bin", 2 * kMotionFloats);
    tables.source = readInfos(dir + "/src_xs_info.bin", meta.nSrc);
    tables.target = readFloats(dir + "/xs_target.bin", checkedProduct(meta.nt, kKeypointFloats));

    float* tail = tables.rowTail.data();
    for (const auto* part : {&eyeOpen, &eyeBall, &constants}) {
        tail = std::copy(part->begin(), part->end(), tail);
    }
    tables.low.assign(bounds.begin(), bounds.begin() + kMotionFloats);
    tables.high.assign(bounds.begin() + kMotionFloats, bounds.end());
    tables.initial = motionOf(reference);
    tables.expressionGain = reference.scale / tables.source[0].scale;
    return tables;
}

}  // namespace zorv::motion
