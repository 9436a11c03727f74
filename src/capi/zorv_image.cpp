#include "capi/zorv_image.h"

#include <memory>
#include <stdexcept>

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_NO_HDR
#define STBI_NO_LINEAR
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb_image.h>
#pragma GCC diagnostic pop

namespace zorv {

std::vector<std::uint8_t> loadImageRGB(const std::string& path, int& width, int& height) {
    int channelsInFile = 0;
    const std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
        stbi_load(path.c_str(), &width, &height, &channelsInFile, 3), stbi_image_free);
    if (!pixels) throw std::runtime_error("decode failed: " + path);
    const std::size_t bytes =
        static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3;
    return {pixels.get(), pixels.get() + bytes};
}

}  // namespace zorv
