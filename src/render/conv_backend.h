// The optional native half-precision backend for one fused 512-pixel graph. It exists on ARM
// builds only; here the gate that decides about it is complete and always ends in a refusal.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace zorv {

class ConvBackend {
  public:
    virtual ~ConvBackend() = default;

    /// Whether processor and build support the backend: never on x86-64.
    static bool available();

    /// Whether the file holds the fused graph: an initializer named "onnx::Conv_313". A file
    /// that cannot be read or parsed does not.
    static bool graphSupported(const std::string& path);

    /// Builds the backend. On builds without it: "zorv_conv: built without NEON fp16 support".
    static std::unique_ptr<ConvBackend> create(const std::string& path, int threads);

    /// Renders n items. `pooled` and `image` hold n pointers to half-precision tensors,
    /// `kpDriving` and `kpSource` n x 63 floats; `output` receives n x 3 x 512 x 512 floats.
    virtual void render(const std::uint16_t* const* pooled, const std::uint16_t* const* image,
                        const float* kpDriving, const float* kpSource, int n, float* output) = 0;
};

}  // namespace zorv
