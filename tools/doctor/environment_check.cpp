#include "environment_check.h"

#include <fmt/format.h>

#include <cstdlib>

namespace zorv::tools {
namespace {

struct Switch {
    const char* variable;
    char on;  // first character that has the effect
    const char* effect;
};

constexpr Switch kSwitches[] = {
    {"ZORV_GS_FAST", '0', "renderers use the model runtime's grid sampler, which is far slower"},
    {"ZORV_INT8", '0', "int8 models do not load, and float ones take longer"},
    {"ZORV_INT8_PROF", '1', "int8 convolutions measure themselves"},
    {"ZORV_ORT_SPIN", '1', "idle model threads keep their cores busy: fewer sessions fit"},
    {"ZORV_ARENA_SHRINK", '1', "every render gets its memory anew"},
};

int levelOf(const std::string& name) {
    return name == "avx512" ? 2 : name == "avx2" ? 1 : 0;
}

}  // namespace

std::vector<SlowSwitch> slowSwitches(const Environment& environment, const std::string& bestLevel,
                                     double cores) {
    std::vector<SlowSwitch> found;
    const auto valueOf = [&environment](const char* name) {
        const char* value = environment(name);
        return std::string(value ? value : "");
    };
    const std::string simd = valueOf("ZORV_SIMD");
    if ((simd == "portable" || simd == "avx2") && levelOf(simd) < levelOf(bestLevel)) {
        found.push_back(
            {"ZORV_SIMD", simd,
             fmt::format("kernels use {} although the processor has {}", simd, bestLevel)});
    }
    for (const Switch& known : kSwitches) {
        if (const std::string value = valueOf(known.variable);
            !value.empty() && value[0] == known.on) {
            found.push_back({known.variable, value, known.effect});
        }
    }
    if (const std::string value = valueOf("ZORV_INT8_THREADS");
        !value.empty() && std::atoi(value.c_str()) < cores) {
        found.push_back({"ZORV_INT8_THREADS", value,
                         "an int8 convolution uses fewer workers than there are cores"});
    }
    if (const std::string value = valueOf("ZORV_PASTE_THREADS"); std::atoi(value.c_str()) > 1) {
        found.push_back({"ZORV_PASTE_THREADS", value,
                         "starting workers for a composite costs more than it saves"});
    }
    if (const std::string value = valueOf("ZORV_MOTION_DUMP"); !value.empty()) {
        found.push_back({"ZORV_MOTION_DUMP", value, "the motion engine writes what it computes"});
    }
    return found;
}

}  // namespace zorv::tools
