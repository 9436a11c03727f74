#include "motion_rival.h"

#include <cmath>
#include <utility>

#ifdef ZORV_BENCH_FFTW
#include <fftw3.h>
#endif

namespace rival {

PlainSpectrum::PlainSpectrum(const float* window, const float* binmat)
    : magnitudes(kTransforms * kBins),
      bands(kBands * kTransforms),
      window_(window, window + kSamples),
      binmat_(binmat, binmat + kBins * kBands),
      re_(kSamples),
      im_(kSamples) {
    for (int i = 0; i < kSamples; ++i) {
        int bits = 0;
        for (int b = 0; b < 9; ++b) bits |= (i >> b & 1) << (8 - b);
        reversed_.push_back(bits);
        const double angle = -2 * M_PI * i / kSamples;
        twiddles_.emplace_back(static_cast<float>(std::cos(angle)),
                               static_cast<float>(std::sin(angle)));
    }
}

void PlainSpectrum::fft() {
    for (int i = 0; i < kSamples; ++i) {
        if (reversed_[i] > i) {
            std::swap(re_[i], re_[reversed_[i]]);
            std::swap(im_[i], im_[reversed_[i]]);
        }
    }
    for (int length = 2; length <= kSamples; length *= 2) {
        const int half = length / 2;
        const int step = kSamples / length;
        for (int base = 0; base < kSamples; base += length) {
            for (int j = 0; j < half; ++j) {
                const float wr = twiddles_[j * step].real();
                const float wi = twiddles_[j * step].imag();
                const int a = base + j;
                const int b = a + half;
                const float re = re_[b] * wr - im_[b] * wi;
                const float im = re_[b] * wi + im_[b] * wr;
                re_[b] = re_[a] - re;
                im_[b] = im_[a] - im;
                re_[a] += re;
                im_[a] += im;
            }
        }
    }
}

void PlainSpectrum::transform(const float* padded) {
    for (int t = 0; t < kTransforms; ++t) {
        for (int i = 0; i < kSamples; ++i) {
            re_[i] = padded[kHop * t + i] * window_[i];
            im_[i] = 0;
        }
        fft();
        for (int k = 0; k < kBins; ++k) {
            magnitudes[t * kBins + k] = std::sqrt(re_[k] * re_[k] + im_[k] * im_[k]);
        }
    }
}

void PlainSpectrum::project() {
    for (int m = 0; m < kBands; ++m) {
        for (int t = 0; t < kTransforms; ++t) {
            float sum = 0;
            for (int k = 0; k < kBins; ++k) {
                sum += magnitudes[t * kBins + k] * binmat_[k * kBands + m];
            }
            bands[m * kTransforms + t] = sum;
        }
    }
}

#ifdef ZORV_BENCH_FFTW
FftwSpectrum::FftwSpectrum()
    : in_(fftwf_alloc_real(kTransforms * kSamples)),
      out_(fftwf_alloc_complex(kTransforms * kBins)) {
    const int n = kSamples;
    plan_ =
        fftwf_plan_many_dft_r2c(1, &n, kTransforms, in_, nullptr, 1, kSamples,
                                static_cast<fftwf_complex*>(out_), nullptr, 1, kBins, FFTW_MEASURE);
    for (int i = 0; i < kTransforms * kSamples; ++i) {
        in_[i] = std::sin(0.1f * static_cast<float>(i));
    }
}

FftwSpectrum::~FftwSpectrum() {
    fftwf_destroy_plan(static_cast<fftwf_plan>(plan_));
    fftwf_free(in_);
    fftwf_free(out_);
}

void FftwSpectrum::transform() {
    fftwf_execute(static_cast<fftwf_plan>(plan_));
}
#endif

}  // namespace rival
