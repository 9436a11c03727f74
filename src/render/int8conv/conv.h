// One int8 convolution node on plain arrays: dynamic quantisation of the whole input, exact integer
// sums, and back to float.
//
// Padding counts as byte 0, the smallest value of the input's range, and not as 0.0: its taps are
// skipped while the whole kernel's weight sum is taken off. Whoever exports a model makes sure that
// the two agree (inputs that are never negative, as after a ReLU), accepts the difference, or asks
// for zeros.
#pragma once

#include <cstdint>
#include <mutex>

#include "render/int8conv/geometry.h"
#include "render/int8conv/kernels.h"

namespace zorv {

/// What `convThreads` makes of `ZORV_INT8_THREADS` (null = unset) with `hardware` threads (0 =
/// unknown).
int chooseConvThreads(const char* setting, unsigned hardware);

/// Workers of one convolution: `ZORV_INT8_THREADS`, at least 1 and at most the hardware's threads,
/// which are also the default. Read once per process.
int convThreads();

/// The parameters for values in [min, max], which includes 0.
Quantisation chooseQuantisation(float min, float max);

/// How the work of one run is split: into bands of rows, over so many threads that each is worth
/// its start, which costs up to 300 microseconds.
struct ConvSplit {
    int workers = convThreads();
    double macsPerThread = 0;  ///< 0: the kernels' own figure
    double floatsPerThread = 2e6;
    std::int64_t bandBytes = 256 << 10;  ///< of quantised input that is then convolved
};

/// Any thread may run it, several at once: after the first run nothing in it changes.
class Int8Conv {
  public:
    explicit Int8Conv(const ConvAttributes& attributes,
                      const Int8ConvKernels& kernels = *chooseKernel(kInt8ConvKernels).entry,
                      const ConvSplit& split = {})
        : attributes_(attributes), kernels_(kernels), split_(split) {}

    const ConvAttributes& attributes() const { return attributes_; }
    bool useVnni() const { return kernels_.useVnni; }

    struct Operands {
        const float* x;
        const std::int8_t* weights;
        const float* weightScale;  ///< [m]
        const float* bias;         ///< [m]
        float* y;
    };

    /// The first run packs the weights for all later ones; theirs must be the same. Throws
    /// std::runtime_error when the weights' shape is another one, std::bad_alloc.
    void run(const ConvGeometry& geometry, const Operands& operands);

  private:
    struct Workspace;  // of one thread

    void findRange(const ConvGeometry& geometry, const float* x, float* min, float* max) const;
    std::int64_t bandRows(const ConvGeometry& geometry) const;
    void convolve(const ConvGeometry& geometry, const Operands& operands, const ConvRun& shared,
                  Workspace& workspace, std::ptrdiff_t begin, std::ptrdiff_t end) const;
    void prepare(const ConvGeometry& geometry, const std::int8_t* weights);

    const ConvAttributes attributes_;
    const Int8ConvKernels& kernels_;
    const ConvSplit split_;

    std::once_flag once_;  // guards what follows
    PackedWeights packed_;
    std::int64_t packedShape_[4] = {};  ///< [m, c / group, kh, kw]
};

}  // namespace zorv
