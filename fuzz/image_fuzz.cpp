// Any bytes as a target frame: the decoder refuses it, or gives as many pixels as it says and the
// same ones when asked again.
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "capi/zorv_image.h"
#include "damaged_dir.h"
#include "fuzz_input.h"
#include "support/test_bundle.h"

namespace {

using zorv::fuzz::require;

constexpr std::size_t kMostPixels = std::size_t{1} << 14;

void decode(const std::string& path) {
    int width = 0, height = 0;
    const auto pixels = zorv::loadImageRGB(path, width, height, kMostPixels);
    require(width >= 1 && height >= 1);
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    require(pixels.size() == (count <= kMostPixels ? count * 3 : 0));
    int again[2];
    require(zorv::loadImageRGB(path, again[0], again[1], kMostPixels) == pixels);
    require(again[0] == width && again[1] == height);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zorv::fuzz::keepTempDirsInMemory();
    static const zorv::test::TempDir dir;
    const std::string path = dir.path() + "/frame.jpg";
    zorv::test::writeFile(path, {reinterpret_cast<const char*>(data), size});
    try {
        decode(path);
    } catch (const std::exception& error) {
        require(std::string_view(error.what()) == "decode failed: " + path);
    }
    return 0;
}
