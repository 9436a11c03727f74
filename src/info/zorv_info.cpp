// What belongs to no family: the version, the log, what the kernel tables have chosen.
#include <string_view>

#include "common/cpu.h"
#include "common/half.h"
#include "common/log.h"
#include "motion/motion_spectrum.h"
#include "paste/paste_kernels.h"
#include "paste/rgba.h"
#include "paste/yuv.h"
#include "render/gridsample/gridsample_fast.h"
#include "render/int8conv/kernels.h"
#include "zorv_core.h"

namespace zorv {
namespace {

template <const auto& kTable>
const char* chosen() {
    return chooseKernel(kTable).name;
}

struct Choice {
    std::string_view kernel;
    const char* (*path)();
};

constexpr Choice kChoices[] = {
    {"compositor", chosen<kPasteKernels>},
    {"grid_sampler", chosen<kGridSampleKernels>},
    {"int8_convolution", chosen<kInt8ConvKernels>},
    {"speech_spectrum", chosen<motion::kSpectrumKernels>},
    {"half_conversion", chosen<kHalfKernels>},
    {"pixel_packing", chosen<kRgbaKernels>},
    {"yuv_conversion", chosen<kYuvKernels>},
};

}  // namespace
}  // namespace zorv

int zorv_version(void) {
    return ZORV_VERSION;
}

void zorv_set_log(void (*line)(void* user, const char* text), void* user) {
    zorv::setLog(line, user);
}

const char* zorv_kernel_path(const char* kernel) {
    if (!kernel) return nullptr;
    for (const zorv::Choice& choice : zorv::kChoices) {
        if (choice.kernel == kernel) return choice.path();
    }
    return nullptr;
}
