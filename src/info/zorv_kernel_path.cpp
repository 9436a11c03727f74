// What the dispatch tables of all families have chosen.
#include <new>
#include <string_view>

#include "capi/rgba.h"
#include "common/cpu.h"
#include "common/half.h"
#include "motion/motion_spectrum.h"
#include "paste/paste_kernels.h"
#include "render/gridsample/gridsample_fast.h"
#include "render/int8conv/kernels.h"
#include "zorv_core.h"

namespace zorv {
namespace {

struct Choice {
    std::string_view kernel;
    const char* (*path)();
};

constexpr Choice kChoices[] = {
    {"compositor", [] { return simdLevelName(pasteKernels(simdLevel()).level); }},
    {"grid_sampler", [] { return gridSampleKernel(simdLevel()).name; }},
    {"int8_convolution", [] { return int8ConvKernels().front()->name; }},
    {"speech_spectrum", [] { return simdLevelName(motion::spectrumKernels(simdLevel()).level); }},
    {"half_conversion", [] { return simdLevelName(halfKernelLevel()); }},
    {"pixel_packing", [] { return simdLevelName(rgbaKernelLevel()); }},
};

}  // namespace
}  // namespace zorv

const char* zorv_kernel_path(const char* kernel) {
    if (!kernel) return nullptr;
    try {
        for (const zorv::Choice& choice : zorv::kChoices) {
            if (choice.kernel == kernel) return choice.path();
        }
    } catch (const std::bad_alloc&) {  // the list of the int8 convolution
    }
    return nullptr;
}
