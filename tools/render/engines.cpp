#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "clip_renderer.h"
#include "failure.h"
#include "input_check.h"

namespace zorv::tools {
namespace {

void checkEncoder(const RenderOptions& options) {
    if (options.encoder.empty()) {
        fail("--engine {} needs a speech encoder; name it with --encoder", options.engine);
    }
    std::error_code error;
    if (!std::filesystem::is_regular_file(options.encoder, error)) {
        fail("no speech encoder '{}'; check the path given to --encoder", options.encoder);
    }
}

void checkMotionDir(const RenderOptions& options) {
    if (options.motionDir.empty()) {
        fail("--engine {} needs the directory of its models; name it with --motion-dir",
             options.engine);
    }
    std::error_code error;
    if (!std::filesystem::is_directory(options.motionDir, error)) {
        fail("no directory '{}'; check the path given to --motion-dir", options.motionDir);
    }
}

void checkStreamOptions(const RenderOptions& options) {
    if (!options.motionDir.empty()) {
        fail("--motion-dir is not for --engine fca; name the engine it belongs to");
    }
    checkEncoder(options);
}

void checkMotionOptions(const RenderOptions& options) {
    if (!options.encoder.empty()) {
        fail(
            "--encoder is not for --engine motion, whose models lie in --motion-dir; leave it out");
    }
    checkMotionDir(options);
}

// ZORV_A2X_... settings of the environment hold, so that the short-window form of the speech
// encoder can be tried, too.
void checkExpressionOptions(const RenderOptions& options) {
    checkMotionDir(options);
    checkEncoder(options);
}

std::unique_ptr<ClipRenderer> openWithEncoder(const RenderOptions& options) {
    nameEncoder(options.encoder);
    return openExpressionRenderer(options);
}

constexpr Engine kEngines[] = {
    {"fca", checkStreamOptions, openStreamRenderer},
    {"motion", checkMotionOptions, openMotionRenderer},
    {"a2x", checkExpressionOptions, openWithEncoder},
};

}  // namespace

const Engine& findEngine(const std::string& name) {
    for (const Engine& engine : kEngines) {
        if (engine.name == name) return engine;
    }
    fail("no engine '{}'; see zorv render --help", name);
}

std::vector<std::string> engineNames() {
    std::vector<std::string> names;
    for (const Engine& engine : kEngines) names.emplace_back(engine.name);
    return names;
}

int modelThreads(int asked) {
    const int processors = static_cast<int>(std::thread::hardware_concurrency());
    return asked > 0 ? asked : std::max(1, processors);
}

}  // namespace zorv::tools
