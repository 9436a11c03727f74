#include "capi/zorv_image.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "capi/jpeg_tables.h"
#include "common/file.h"

namespace {

/// Larger requests are refused: no frame needs as much, but a damaged file may claim it.
constexpr std::size_t kMostBytes = std::size_t{1} << 30;

/// Zeroed: a damaged JPEG file may use tables and coefficients that it never defines.
void* allocate(std::size_t size) {
    return size <= kMostBytes ? std::calloc(1, size) : nullptr;
}

void* reallocate(void* block, std::size_t size) {
    return size <= kMostBytes ? std::realloc(block, size) : nullptr;
}

}  // namespace

#define STBI_MALLOC(size) allocate(size)
#define STBI_REALLOC(block, size) reallocate(block, size)
#define STBI_FREE(block) std::free(block)
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_NO_STDIO
// Only formats that target frames come in: each further decoder is one more way in for damage.
#define STBI_ONLY_JPEG
#define STBI_ONLY_PNG
#define STBI_NO_LINEAR
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb_image.h>
#pragma GCC diagnostic pop

namespace zorv {

std::vector<std::uint8_t> loadImageRGB(const std::string& path, int& width, int& height,
                                       std::size_t mostPixels) {
    const auto require = [&](bool condition) {
        if (!condition) throw std::runtime_error("decode failed: " + path);
    };
    std::string file;
    require(readWholeFile(path, file) == ReadStatus::kOk && file.size() <= INT_MAX);
    require(jpegTablesFit(file));
    const auto* bytes = reinterpret_cast<const stbi_uc*>(file.data());
    const int size = static_cast<int>(file.size());
    int channelsInFile = 0;
    require(stbi_info_from_memory(bytes, size, &width, &height, &channelsInFile) != 0);
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (count > mostPixels) return {};
    const std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
        stbi_load_from_memory(bytes, size, &width, &height, &channelsInFile, 3), stbi_image_free);
    require(pixels != nullptr);
    return {pixels.get(), pixels.get() + count * 3};
}

}  // namespace zorv
