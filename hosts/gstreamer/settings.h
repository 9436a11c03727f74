// What the element's properties say, read once when the element opens.
#pragma once

#include <string>

namespace zorv::gst {

enum class Mode { kContinuous = 0, kLiveIdle = 1 };
enum class EngineKind { kAuto = 0, kMotion = 1, kExpression = 2 };

struct Settings {
    std::string bundle;
    std::string motionDir;
    std::string steadyModel;  ///< of the utterance engine; "" its default, "-" none
    std::string encoder;      ///< "" leaves it to the environment variable W2V_ONNX
    EngineKind engine = EngineKind::kAuto;
    Mode mode = Mode::kContinuous;
    int threads = 1;
    int eager = 1;
    int rate = 48000;  ///< of the sound in live-idle mode, Hz
    bool qos = true;
};

/// kAuto resolved by the files in the motion directory, as the utterance engine does.
EngineKind resolvedEngine(const Settings& settings);

}  // namespace zorv::gst
