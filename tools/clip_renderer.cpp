#include "clip_renderer.h"

#include <algorithm>
#include <thread>

#include "failure.h"

namespace zorv::tools {
namespace {

constexpr Engine kEngines[] = {
    {"fca", checkStreamOptions, openStreamRenderer},
    {"motion", checkMotionOptions, openMotionRenderer},
    {"a2x", checkExpressionOptions, openExpressionRenderer},
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
