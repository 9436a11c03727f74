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
#include "support/engine.h"

namespace {

using zorv::fuzz::DamagedDir;
using zorv::fuzz::require;

constexpr std::size_t kRowBytes = 63 * sizeof(float);
constexpr int kSamples = 1500;  ///< two frames and a started one
constexpr int kFrames = 3;

/// One short stream: frames on target frames that exist, or none and a text.
void speak(zorv::test::Engine& engine, bool mayBeShort) {
    engine.reset(1, -1, 0);
    require(engine.push(zorv::test::speechLike(kSamples)) == 1);
    engine.finish();
    require(engine.total() == kFrames);
    const int ready = engine.avail();
    require(ready >= 0 && ready <= kFrames);
    zorv::test::Frames frames;
    const int pulled = engine.pull(frames, kFrames);
    require(pulled == kFrames || mayBeShort || !engine.error().empty());
    for (const int index : frames.index) require(index >= 0 && index < engine.nt());
}

/// Opens the directory and, when it is `heard`, speaks.
template <class Family>
void open(typename Family::Handle* handle, std::string_view create, const DamagedDir& dir,
          bool heard, bool mayBeShort) {
    if (!handle) {
        const std::string_view text = Family::lastError();
        require(text.starts_with(create) && text.size() > create.size());
        return;
    }
    zorv::test::FamilyEngine<Family> engine(handle);
    const std::size_t rows = dir.size("xs_target.bin") / kRowBytes;
    require(static_cast<std::size_t>(engine.nt()) == rows && rows >= 1);
    if (heard) speak(engine, mayBeShort);
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
    open<zorv::MotionFamily>(zorv_motion_create(motion.dir().c_str(), 1, nullptr),
                             "zorv_motion_create: ", dir, heard, false);
    dir.mend();
}

void openExpression(zorv::fuzz::FuzzInput& input, bool heard) {
    static const zorv::test::ExpressionDir expression({.nt = 2});
    static DamagedDir dir(expression.path(), {"a2x_meta.json", "a2x_pos.f32", "a2x_norm.f32",
                                              "xs_target.bin", "a2x_meta.json", "a2x_dec.onnx"});
    dir.damage(input);
    // A positional table of fewer rows than frames ends the stream early.
    open<zorv::ExpressionFamily>(zorv_a2x_create(expression.path().c_str(), 1),
                                 "zorv_a2x_create: ", dir, heard, true);
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
