#include "clip_renderer.h"

#include <algorithm>
#include <thread>

#include "failure.h"

namespace zorv::tools {
namespace {

constexpr Engine kEngines[] = {
    {"fca", check_stream_options, open_stream_renderer},
    {"motion", check_motion_options, open_motion_renderer},
    {"a2x", check_expression_options, open_expression_renderer},
};

}  // namespace

const Engine& find_engine(const std::string& name) {
    for (const Engine& engine : kEngines)
        if (engine.name == name) return engine;
    fail("no engine '{}'; see zorv render --help", name);
}

std::vector<std::string> engine_names() {
    std::vector<std::string> names;
    for (const Engine& engine : kEngines) names.emplace_back(engine.name);
    return names;
}

int model_threads(int asked) {
    const int processors = static_cast<int>(std::thread::hardware_concurrency());
    return asked > 0 ? asked : std::max(1, processors);
}

}  // namespace zorv::tools
