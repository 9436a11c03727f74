#include "render/resize/resize_fast.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace zorv {
namespace {

std::vector<std::int64_t> intsOf(Ort::ConstKernelInfo info, const char* name) {
    try {
        return info.GetAttributes<std::int64_t>(name);
    } catch (const Ort::Exception&) {  // the runtime's way to say "absent"
        return {};
    }
}

}  // namespace

ResizeAxis::ResizeAxis(std::int64_t in, std::int64_t out) {
    const float scale = static_cast<float>(out) / static_cast<float>(in);
    const auto last = static_cast<float>(in - 1);
    for (std::int64_t i = 0; i < out; ++i) {
        const auto at = static_cast<float>(i);
        const float place = scale == 1 ? at : (at + 0.5f) / scale - 0.5f;
        const float inside = std::max(0.0f, std::min(place, last));
        const auto below = std::min(static_cast<std::int64_t>(inside), in - 1);
        const auto above = std::min(below + 1, in - 1);
        first.push_back(below), second.push_back(above);
        firstShare.push_back(above == below ? 0.5f : std::abs(inside - static_cast<float>(above)));
        secondShare.push_back(above == below ? 0.5f : std::abs(inside - static_cast<float>(below)));
    }
}

void resizePlanes(const float* x, float* y, std::int64_t planes, std::int64_t h, std::int64_t w,
                  std::int64_t H, std::int64_t W) {
    const ResizeAxis down(h, H), along(w, W);
    // Two rows of the input, each as the left and as the right neighbours of the output's columns.
    struct Row {
        std::int64_t number = -1;
        std::vector<float> left, right;
    } rows[2];
    for (Row& row : rows) row.left = row.right = std::vector<float>(along.first.size());
    const float* const leftShare = along.firstShare.data();
    const float* const rightShare = along.secondShare.data();
    for (std::int64_t plane = 0; plane < planes; ++plane, x += h * w) {
        for (Row& row : rows) row.number = -1;
        for (std::size_t i = 0; i < down.first.size(); ++i, y += W) {
            if (rows[1].number == down.first[i]) std::swap(rows[0], rows[1]);
            const std::int64_t wanted[2] = {down.first[i], down.second[i]};
            for (int r = 0; r < 2; ++r) {
                if (rows[r].number == wanted[r]) continue;
                rows[r].number = wanted[r];
                const float* const line = x + wanted[r] * w;
                for (std::size_t k = 0; k < along.first.size(); ++k) {
                    rows[r].left[k] = line[along.first[k]];
                    rows[r].right[k] = line[along.second[k]];
                }
            }
            const float upper = down.firstShare[i], lower = down.secondShare[i];
            const float* const a = rows[0].left.data();
            const float* const b = rows[0].right.data();
            const float* const c = rows[1].left.data();
            const float* const d = rows[1].right.data();
            for (std::int64_t k = 0; k < W; ++k) {  // becomes vectors
                y[k] = leftShare[k] * upper * a[k] + rightShare[k] * upper * b[k] +
                       leftShare[k] * lower * c[k] + rightShare[k] * lower * d[k];
            }
        }
    }
}

void resizeChannelsLast(const float* x, float* y, std::int64_t images, std::int64_t channels,
                        std::int64_t h, std::int64_t w, std::int64_t H, std::int64_t W) {
    const ResizeAxis down(h, H), along(w, W);
    for (std::int64_t image = 0; image < images; ++image, x += h * w * channels) {
        for (std::size_t i = 0; i < down.first.size(); ++i) {
            const float* const upperRow = x + down.first[i] * w * channels;
            const float* const lowerRow = x + down.second[i] * w * channels;
            const float upper = down.firstShare[i], lower = down.secondShare[i];
            for (std::size_t k = 0; k < along.first.size(); ++k, y += channels) {
                const float left = along.firstShare[k], right = along.secondShare[k];
                const std::int64_t at = along.first[k] * channels,
                                   next = along.second[k] * channels;
                for (std::int64_t c = 0; c < channels; ++c) {
                    y[c] = left * upper * upperRow[at + c] + right * upper * upperRow[next + c] +
                           left * lower * lowerRow[at + c] + right * lower * lowerRow[next + c];
                }
            }
        }
    }
}

ResizeFastKernel::ResizeFastKernel(const OrtKernelInfo* kernelInfo) {
    const Ort::ConstKernelInfo info(kernelInfo);
    sizes = intsOf(info, "sizes"), scales = intsOf(info, "scales");
    const auto x = info.GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    const bool known = std::all_of(x.begin(), x.end(), [](auto size) { return size >= 0; });
    if (known && !x.empty()) shapeFor(x);
}

std::vector<std::int64_t> ResizeFastKernel::shapeFor(const std::vector<std::int64_t>& x) const {
    std::vector<std::int64_t> y = sizes;
    if (x.size() == 4 && scales.size() == 2) y = {x[0], x[1], x[2] * scales[0], x[3] * scales[1]};
    const bool same = x.size() == 4 && y.size() == 4 && x[0] == y[0];
    const bool planes = same && x[1] == y[1] && x[2] > 0 && x[3] > 0 && y[2] > 0 && y[3] > 0;
    const bool last = same && x[3] == y[3] && x[1] > 0 && x[2] > 0 && y[1] > 0 && y[2] > 0;
    if (!planes && !last) {
        throw std::runtime_error("ResizeFast: only H and W of images are resized");
    }
    return y;
}

void ResizeFastKernel::compute(Ort::KernelContext context) {
    const Ort::ConstValue x = context.GetInput(0);
    const auto from = x.GetTensorTypeAndShapeInfo().GetShape(), to = shapeFor(from);
    const float* const in = x.GetTensorData<float>();
    float* const out = context.GetOutput(0, to).GetTensorMutableData<float>();
    if (from[1] == to[1]) {
        resizePlanes(in, out, from[0] * from[1], from[2], from[3], to[2], to[3]);
    } else {
        resizeChannelsLast(in, out, from[0], from[3], from[1], from[2], to[1], to[2]);
    }
}

}  // namespace zorv
