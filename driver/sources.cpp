#include "sources.h"

#include <zorv_core.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

template <class Engine>
size_t feed(Engine engine, const std::vector<int16_t>& sound, int eager) {
    engine.setEager(eager);
    engine.reset(0, 1, 1);
    size_t pieces = 0;
    for (size_t at = 0; at < sound.size(); at += kPieceSamples) {
        float piece[kPieceSamples];
        const size_t count = std::min<size_t>(kPieceSamples, sound.size() - at);
        for (size_t i = 0; i < count; ++i) {
            piece[i] = static_cast<float>(sound[at + i]) * (1.0f / 32768);
        }
        ++pieces;
        engine.push(piece, static_cast<int>(count));
        if (engine.avail() > 0) break;
    }
    return pieces;
}

}  // namespace

bool isExpressionDir(const std::string& motionDir) {
    std::error_code error;
    return std::filesystem::exists(motionDir + "/a2x_enc_stream.onnx", error);
}

size_t piecesBeforeFirstFrame(const LiveSetup& setup, const std::vector<int16_t>& sound) try {
    const int eager = sourceEager(setup.eager);
    return isExpressionDir(setup.motionDir)
               ? feed(openExpression(setup.motionDir, setup.threads), sound, eager)
               : feed(openMotion(setup.motionDir, setup.threads), sound, eager);
} catch (const Error& error) {
    throw std::runtime_error(std::string("cannot open the motion source again: ") + error.what() +
                             "; run it again");
}

}  // namespace zorv::driver
