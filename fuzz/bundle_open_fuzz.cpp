// A bundle with damaged files: opening it gives a context that agrees with the files and can be
// used, or fails with a text. The first byte of the input chooses the renderer's model, the rest is
// the damage.
#include <zorv_core.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

#include "damaged_dir.h"
#include "descriptors.h"
#include "fuzz_input.h"
#include "support/test_bundle.h"

namespace {

using zorv::fuzz::require;

/// Model key -> model of the tests.
constexpr std::pair<const char*, const char*> kModels[] = {{"render", "render"},
                                                           {"synth", "feat_synth"},
                                                           {"warped", "render_warped"},
                                                           {"own", "render_own_operators"},
                                                           {"batch", "render_b4"},
                                                           {"fails", "render_fails"},
                                                           {"small", "render_crop_8"},
                                                           {"open", "render_symbolic_batch"},
                                                           {"external", "render_warped_external"}};

constexpr const char* kWeights = "render_warped_external.onnx.weights";

class Fixture {
  public:
    Fixture() : bundle_({.nt = 2, .driveFrames = 2, .withFsRed = true}) {
        for (const auto& [key, model] : kModels) bundle_.useModel(key, model);
        zorv::test::writeFile(
            bundle_.path(kWeights),
            zorv::test::readFile(zorv::test::modelFile("render_warped_external") + ".weights"));
    }
    const std::string& dir() const { return bundle_.dir(); }

  private:
    zorv::test::TestBundle bundle_;
};

/// Cheap failures first and more often: what the renderer's session comes before costs least.
std::vector<std::string> choice() {
    return {"manifest.json",
            "M.f32",
            "drive/si.i32",
            "drive/xs.f32",
            "drive/xd.f32",
            "P.f16",
            "pooled64.f16",
            "fs_red.f16",
            "mask_512.u8",
            "target_frames/frame_000000.jpg",
            "target_frames/frame_000001.jpg",
            "manifest.json",
            "M.f32",
            "drive/si.i32",
            kWeights,
            "model_render.onnx",
            "model_warped.onnx"};
}

bool hasText() {
    return *zorv_last_error() != '\0';
}

template <class T>
void readAll(const T* values, std::size_t count) {
    volatile T sink = std::accumulate(values, values + count, T{0});
    (void)sink;
}

struct Sizes {
    explicit Sizes(const zorv_ctx* ctx)
        : nt(zorv_nt(ctx)),
          frames(zorv_drive_frames(ctx)),
          side(static_cast<std::size_t>(zorv_crop(ctx))),
          pixels(static_cast<std::size_t>(zorv_width(ctx)) *
                 static_cast<std::size_t>(zorv_height(ctx))) {
        require(zorv_width(ctx) >= 1 && zorv_height(ctx) >= 1 && zorv_crop(ctx) >= 1);
    }
    int nt, frames;
    std::size_t side, pixels;
};

void agreesWithFiles(const Sizes& sizes, const zorv::fuzz::DamagedDir& dir) {
    require(sizes.nt >= 1 && sizes.frames >= 0);
    require(dir.size("pooled64.f16") == static_cast<std::size_t>(sizes.nt) * 64 * 32 * 32 * 2);
    require(dir.size("M.f32") == static_cast<std::size_t>(sizes.nt) * 6 * 4);
    require(dir.size("drive/si.i32") == static_cast<std::size_t>(sizes.frames) * 4);
    require(dir.size("drive/xd.f32") == static_cast<std::size_t>(sizes.frames) * 63 * 4);
    require(dir.size("mask_512.u8") >= sizes.side * sizes.side);
}

/// Target frames, a render and pastes. Each gives its bytes or fails with a text.
void use(zorv_ctx* ctx, const Sizes& sizes) {
    require(!zorv_paste_last(ctx, 0) && hasText());
    for (int frame = -1; frame <= sizes.nt; ++frame) {
        const std::uint8_t* pixels = zorv_target_frame(ctx, frame);
        require((pixels == nullptr) == hasText());
        require(!pixels || (frame >= 0 && frame < sizes.nt));
        if (pixels) readAll(pixels, sizes.pixels * 3);
    }
    const float* crop = zorv_render_drive_crop(ctx, 0);
    require((crop == nullptr) == hasText());
    if (crop) readAll(crop, 3 * sizes.side * sizes.side);
    const std::uint8_t* pasted = zorv_paste_last(ctx, sizes.nt - 1);
    require((pasted == nullptr) == hasText() && (crop || !pasted));
    if (pasted) readAll(pasted, sizes.pixels * 3);

    if (sizes.pixels > (std::size_t{1} << 20)) return;
    const std::size_t bytes = sizes.pixels * 4;
    const std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[bytes]());
    require(!zorv_render_drive_rgba(ctx, 0, out.get(), bytes - 1) && hasText());
    const int rendered = zorv_render_drive_rgba(ctx, 0, out.get(), bytes);
    require((rendered == 0) == hasText() && (!rendered || out[bytes - 1] == 255));
    const std::vector<float> grey(3 * sizes.side * sizes.side, 0.5f);
    require((zorv_paste_crop(ctx, 0, grey.data(), out.get(), bytes) == 0) == hasText());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zorv::fuzz::keepTempDirsInMemory();
    static const Fixture fixture;
    static zorv::fuzz::DamagedDir dir(fixture.dir(), choice());

    const zorv::fuzz::Descriptors descriptors;
    zorv::fuzz::FuzzInput input(data, size);
    const char* key = kModels[input.byte() % std::size(kModels)].first;
    dir.damage(input);
    zorv_ctx* ctx = zorv_create(fixture.dir().c_str(), key, 1, nullptr);
    if (ctx) {
        require(!hasText());
        const Sizes sizes(ctx);
        agreesWithFiles(sizes, dir);
        use(ctx, sizes);
    } else {
        require(std::string_view(zorv_last_error()).starts_with("zorv_create: "));
        require(std::string_view(zorv_last_error()).size() > 13);
    }
    zorv_destroy(ctx);
    require(descriptors.areAsBefore());
    dir.mend();
    return 0;
}
