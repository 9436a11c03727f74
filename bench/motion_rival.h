// The rivals of the motion engine's spectrum kernels (bench only).
#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <vector>

namespace rival {

constexpr int kSamples = 512;
constexpr int kHop = 320;
constexpr int kTransforms = 21;
constexpr int kBins = 257;
constexpr int kBands = 80;

/// The steps as one would first write them: one complex transform after the other (iterative
/// radix 2 in place, bit-reversed order, precomputed twiddles), then a triple loop.
class PlainSpectrum {
  public:
    PlainSpectrum(const float* window, const float* binmat);

    /// padded samples -> magnitudes [21][257].
    void transform(const float* padded);
    /// magnitudes -> bands [80][21].
    void project();

    std::vector<float> magnitudes, bands;

  private:
    void fft();

    std::vector<float> window_, binmat_, re_, im_;
    std::vector<std::complex<float>> twiddles_;
    std::vector<int> reversed_;
};

#ifdef ZORV_BENCH_FFTW
/// 21 real transforms by FFTW3f, planned as a batch, without the window and the magnitudes.
class FftwSpectrum {
  public:
    FftwSpectrum();
    ~FftwSpectrum();
    FftwSpectrum(const FftwSpectrum&) = delete;
    FftwSpectrum& operator=(const FftwSpectrum&) = delete;

    void transform();

  private:
    float* in_;
    void* out_;
    void* plan_;
};
#endif

}  // namespace rival
