#include "sources.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "session.h"

namespace zorv::driver {
namespace {

/// What the engine makes of its option.
int sourceEager(int option) {
    constexpr int kAdaptive = -1, kHybrid = -2, kHybridSteps = 3;
    if (option >= 1) return option;
    const char* hybrid = std::getenv("ZORV_UTT_HYBRID");
    const bool asked = hybrid && *hybrid && std::strcmp(hybrid, "0") != 0;
    return option == kHybrid || asked ? kHybridSteps : kAdaptive;
}

template <class Family>
size_t feed(typename Family::Handle* handle, const std::vector<int16_t>& sound, int eager) {
    if (!handle) {
        throw std::runtime_error(std::string("cannot open the motion source again: ") +
                                 Family::lastError() + "; run it again");
    }
    const std::unique_ptr<typename Family::Handle, decltype(Family::destroy)> owner(
        handle, Family::destroy);
    Family::setEager(handle, eager);
    Family::reset(handle, 0, 1, 1);
    size_t pieces = 0;
    for (size_t at = 0; at < sound.size(); at += kPieceSamples) {
        float piece[kPieceSamples];
        const size_t count = std::min<size_t>(kPieceSamples, sound.size() - at);
        for (size_t i = 0; i < count; ++i) {
            piece[i] = static_cast<float>(sound[at + i]) * (1.0f / 32768);
        }
        ++pieces;
        if (!Family::push(handle, piece, static_cast<int>(count))) break;
        if (Family::avail(handle) > 0) break;
    }
    return pieces;
}

}  // namespace

bool isExpressionDir(const std::string& motionDir) {
    std::error_code error;
    return std::filesystem::exists(motionDir + "/a2x_enc_stream.onnx", error);
}

size_t piecesBeforeFirstFrame(const LiveSetup& setup, const std::vector<int16_t>& sound) {
    const char* dir = setup.motionDir.c_str();
    const int eager = sourceEager(setup.eager);
    return isExpressionDir(setup.motionDir)
               ? feed<Expression>(zorv_a2x_create(dir, setup.threads), sound, eager)
               : feed<Motion>(zorv_motion_create(dir, setup.threads, nullptr), sound, eager);
}

}  // namespace zorv::driver
