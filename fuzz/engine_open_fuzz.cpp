// A motion or an expression directory with damaged files: opening it gives an engine that agrees
// with the files and turns audio into frames, or fails with a text. The first byte of the input
// chooses the engine and whether it hears anything, the rest is the damage.
#include <zorv_core.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "damaged_dir.h"
#include "descriptors.h"
#include "fuzz_input.h"
#include "support/audio.h"
#include "support/expression_dir.h"
#include "support/test_motion.h"

namespace {

using zorv::fuzz::DamagedDir;
using zorv::fuzz::require;

constexpr std::size_t kRowBytes = 63 * sizeof(float);
constexpr int kSamples = 1500;  ///< two frames and a started one
constexpr int kFrames = 3;

/// Both families have the same functions.
struct MotionFamily {
    static constexpr std::string_view kCreate = "zorv_motion_create: ";
    static auto create(const char* dir) { return zorv_motion_create(dir, 1, nullptr); }
    static constexpr auto* destroy = zorv_motion_destroy;
    static constexpr auto* text = zorv_motion_last_error;
    static constexpr auto* nt = zorv_motion_nt;
    static constexpr auto* reset = zorv_motion_reset;
    static constexpr auto* push = zorv_motion_push;
    static constexpr auto* finish = zorv_motion_finish;
    static constexpr auto* total = zorv_motion_total;
    static constexpr auto* avail = zorv_motion_avail;
    static constexpr auto* pull = zorv_motion_pull;
};

struct ExpressionFamily {
    static constexpr std::string_view kCreate = "zorv_a2x_create: ";
    static auto create(const char* dir) { return zorv_a2x_create(dir, 1); }
    static constexpr auto* destroy = zorv_a2x_destroy;
    static constexpr auto* text = zorv_a2x_last_error;
    static constexpr auto* nt = zorv_a2x_nt;
    static constexpr auto* reset = zorv_a2x_reset;
    static constexpr auto* push = zorv_a2x_push;
    static constexpr auto* finish = zorv_a2x_finish;
    static constexpr auto* total = zorv_a2x_total;
    static constexpr auto* avail = zorv_a2x_avail;
    static constexpr auto* pull = zorv_a2x_pull;
};

/// One short stream: frames on target frames that exist, or none and a text.
template <class Family, class Engine>
void speak(Engine* engine, bool mayBeShort) {
    static const std::vector<float> audio = zorv::test::speechLike(kSamples);
    Family::reset(engine, 1, -1, 0);
    require(Family::push(engine, audio.data(), kSamples) == 1);
    Family::finish(engine);
    require(Family::total(engine) == kFrames);
    const int ready = Family::avail(engine);
    require(ready >= 0 && ready <= kFrames);
    int index[kFrames];
    float source[kFrames * 63], driving[kFrames * 63];
    const int pulled = Family::pull(engine, index, source, driving, kFrames);
    require(pulled == kFrames || mayBeShort || *Family::text() != '\0');
    for (int i = 0; i < pulled; ++i) require(index[i] >= 0 && index[i] < Family::nt(engine));
}

/// Opens the directory; `rowsOf` tells how many target frames its files speak of.
template <class Family>
void open(const std::string& path, const DamagedDir& dir, bool heard, bool mayBeShort) {
    auto* engine = Family::create(path.c_str());
    if (!engine) {
        const std::string_view text = Family::text();
        require(text.starts_with(Family::kCreate) && text.size() > Family::kCreate.size());
        return;
    }
    const std::size_t rows = dir.size("xs_target.bin") / kRowBytes;
    require(static_cast<std::size_t>(Family::nt(engine)) == rows && rows >= 1);
    if (heard) speak<Family>(engine, mayBeShort);
    Family::destroy(engine);
}

void openMotion(zorv::fuzz::FuzzInput& input, bool heard) {
    static const zorv::test::TestMotion motion({.nt = 2});
    static const std::vector<std::string> files = [] {
        std::vector<std::string> names{"meta.json"};
        for (const auto& [name, floats] : motion.tables()) names.push_back(name);
        for (const char* name : {"stitch.onnx", "meta.json", "src_xs_info.bin", "xs_target.bin"}) {
            names.push_back(name);
        }
        return names;
    }();
    static DamagedDir dir(motion.dir(), files);
    dir.damage(input);
    open<MotionFamily>(motion.dir(), dir, heard, false);
    dir.mend();
}

void openExpression(zorv::fuzz::FuzzInput& input, bool heard) {
    static const zorv::test::ExpressionDir expression({.nt = 2});
    static DamagedDir dir(expression.path(), {"a2x_meta.json", "a2x_pos.f32", "a2x_norm.f32",
                                              "xs_target.bin", "a2x_meta.json", "a2x_dec.onnx"});
    dir.damage(input);
    // A positional table of fewer rows than frames ends the stream early.
    open<ExpressionFamily>(expression.path(), dir, heard, true);
    dir.mend();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zorv::fuzz::keepTempDirsInMemory();
    // The process's encoder is loaded by the first engine; it is not damaged.
    ::setenv("W2V_ONNX", zorv::test::modelFile("a2x_w2v").c_str(), 1);
    static const bool loaded = zorv_a2x_preload_w2v(nullptr) == 1;
    require(loaded);

    const zorv::fuzz::Descriptors descriptors;
    zorv::fuzz::FuzzInput input(data, size);
    const unsigned choice = input.byte();
    const bool heard = (choice & 2) != 0;
    if (choice & 1) {
        openExpression(input, heard);
    } else {
        openMotion(input, heard);
    }
    require(descriptors.areAsBefore());
    return 0;
}
