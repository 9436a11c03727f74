#include "utt/utt_options.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace zorv {
namespace {

constexpr int kHybrid = -2;      // an eager value that asks for hybrid mode
constexpr int kHybridEager = 3;  // frames per eager step in hybrid mode
constexpr int kAdaptiveEager = -1;

/// The variable's value; null when it is unset or empty.
const char* setting(const char* variable) {
    const char* value = std::getenv(variable);
    return value && *value ? value : nullptr;
}

int eagerValue(int wanted) {
    if (wanted >= 1) return wanted;
    if (wanted == kHybrid) return kHybridEager;
    const char* hybrid = setting("ZORV_UTT_HYBRID");
    return hybrid && std::strcmp(hybrid, "0") != 0 ? kHybridEager : kAdaptiveEager;
}

std::string steadyModel(const char* wanted) {
    const char* name = setting("ZORV_STEADY_MODEL");
    if (!name) name = wanted && *wanted ? wanted : "b24_fp32";
    return std::strcmp(name, "-") == 0 ? "" : name;
}

/// 0 is taken as 600 milliseconds, not seconds: only positive values are in seconds.
double silenceMs(double seconds) {
    if (seconds > 0) return seconds * 1000;
    return seconds < 0 ? -1 : 600;
}

}  // namespace

UttOptions resolveOptions(const zorv_utt_opts& opts, int contextThreads) {
    if (!opts.motion_dir || !*opts.motion_dir) {
        throw std::runtime_error("opts.motion_dir required");
    }
    UttOptions options;
    options.motionDir = opts.motion_dir;
    options.threads = opts.threads < 1 ? contextThreads : opts.threads;
    options.ep = opts.ep ? opts.ep : "";
    options.steadyModel = steadyModel(opts.steady_model);
    options.eager = eagerValue(opts.eager);
    options.silenceMs = silenceMs(opts.silence_end_s);
    if (opts.ramp_frames >= 1) options.rampFrames = opts.ramp_frames;
    if (opts.ramp_frames_interrupt >= 1) options.rampFramesInterrupt = opts.ramp_frames_interrupt;
    options.expression = access((options.motionDir + "/a2x_enc_stream.onnx").c_str(), F_OK) == 0;
    options.pipelined = options.expression;
    if (const char* pipelined = setting("ZORV_UTT_PIPELINE_PASTE")) {
        options.pipelined = std::atoi(pipelined) != 0;
    }
    return options;
}

}  // namespace zorv
