#include "render/int8conv/geometry.h"

#include <algorithm>
#include <new>
#include <stdexcept>

namespace zorv {
namespace {

std::int64_t product(std::int64_t a, std::int64_t b) {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(a, b, &result)) throw std::bad_alloc();
    return result;
}

std::int64_t sum(std::int64_t a, std::int64_t b) {
    std::int64_t result = 0;
    if (__builtin_add_overflow(a, b, &result)) throw std::bad_alloc();
    return result;
}

void require(bool condition, const char* text) {
    if (!condition) throw std::runtime_error(text);
}

void checkAttributes(const ConvAttributes& a) {
    for (const std::int64_t stride : a.strides) require(stride > 0, "Int8ConvVNNI: bad strides");
    for (const std::int64_t pad : a.pads) require(pad >= 0, "Int8ConvVNNI: bad pads");
    for (const std::int64_t step : a.dilations) require(step > 0, "Int8ConvVNNI: bad dilations");
    require(a.group > 0, "Int8ConvVNNI: bad group");
}

/// Output positions along one axis of `size` elements.
std::int64_t outputSize(std::int64_t size, std::int64_t before, std::int64_t after,
                        std::int64_t kernel, std::int64_t dilation, std::int64_t stride) {
    const std::int64_t padded = sum(sum(size, before), after);
    const std::int64_t span = sum(product(dilation, kernel - 1), 1);
    require(kernel > 0 && padded >= span, "Int8ConvVNNI: kernel larger than the padded input");
    return (padded - span) / stride + 1;
}

}  // namespace

ConvGeometry::ConvGeometry(const ConvAttributes& a, const std::vector<std::int64_t>& x,
                           const std::vector<std::int64_t>& weights)
    : attributes(a) {
    checkAttributes(a);
    require(x.size() == 4 && weights.size() == 4, "Int8ConvVNNI: X and W must have rank 4");
    n = x[0], c = x[1], h = x[2], w = x[3];
    m = weights[0], kh = weights[2], kw = weights[3];
    require(c % a.group == 0 && m % a.group == 0 && weights[1] == c / a.group && c > 0,
            "Int8ConvVNNI: channels do not fit W and group");
    groupIn = c / a.group, groupOut = m / a.group;
    quads = (groupIn + 3) / 4;
    oh = outputSize(h, a.pads[0], a.pads[2], kh, a.dilations[0], a.strides[0]);
    ow = outputSize(w, a.pads[1], a.pads[3], kw, a.dilations[1], a.strides[1]);
    // With one output position the stride is never used: it may be any number.
    if (oh == 1) attributes.strides[0] = 1;
    if (ow == 1) attributes.strides[1] = 1;
    const std::int64_t strideW = attributes.strides[1];
    if (a.enlarged) {
        const auto areOne = [](const auto& all) {
            return std::all_of(std::begin(all), std::end(all), [](auto one) { return one == 1; });
        };
        require(areOne(a.pads) && areOne(a.strides) && areOne(a.dilations) && a.group == 1 &&
                    kh == 3 && kw == 3,
                "Int8ConvVNNI: only a plain 3 x 3 kernel with pads of 1 takes an enlarged X");
    }

    std::vector<std::int64_t> phaseOfColumn;
    for (std::int64_t tap = 0; tap < kw; ++tap) {
        const std::int64_t residue = tap * a.dilations[1] % strideW;
        const auto known = std::find(phaseResidues.begin(), phaseResidues.end(), residue);
        phaseOfColumn.push_back(known - phaseResidues.begin());
        if (known == phaseResidues.end()) phaseResidues.push_back(residue);
    }
    phaseColumns = sum(ow, a.dilations[1] * (kw - 1) / strideW);
    const std::int64_t phaseBytes = product(phaseColumns, 4);
    quadBytes = product(phaseBytes, static_cast<std::int64_t>(phaseResidues.size()));
    groupBytes = product(quadBytes, quads);
    rowBytes = product(groupBytes, a.group);
    sum(product(rowBytes, rowsOf(oh)), kSlack);
    const std::int64_t enlargement = a.enlarged ? 2 : 1;
    oh = product(oh, enlargement), ow = product(ow, enlargement);
    product(product(product(m, oh), ow), product(n, 4));
    for (std::int64_t row = 0; row < kh; ++row) {
        for (std::int64_t column = 0; column < kw; ++column) {
            tapOffsets.push_back(row * a.dilations[0] * rowBytes +
                                 phaseOfColumn[static_cast<std::size_t>(column)] * phaseBytes +
                                 column * a.dilations[1] / strideW * 4);
        }
    }
}

double ConvGeometry::macs() const {
    const std::int64_t pixels = attributes.enlarged ? h * w : oh * ow;
    return static_cast<double>(n) * static_cast<double>(m) * static_cast<double>(pixels) *
           static_cast<double>(quads * 4 * kh * kw);
}

PackedWeights::PackedWeights(const ConvGeometry& g, const std::int8_t* weights, int block,
                             bool widened) {
    const std::int64_t taps = g.kh * g.kw, kernel = g.groupIn * taps;
    const std::int64_t weightBytes = widened ? 2 : 1;
    blocks = (g.groupOut + block - 1) / block;
    blockBytes = product(product(g.quads * 4, taps), block * weightBytes);
    bytes.assign(static_cast<std::size_t>(product(blockBytes, product(blocks, g.attributes.group))),
                 0);
    for (std::int64_t channel = 0; channel < g.m; ++channel) {
        const std::int64_t inGroup = channel % g.groupOut;
        std::int8_t* out = bytes.data() +
                           (channel / g.groupOut * blocks + inGroup / block) * blockBytes +
                           inGroup % block * 4 * weightBytes;
        std::uint32_t total = 0, edges[2] = {};  // wrap like the accumulators
        for (std::int64_t in = 0; in < g.groupIn; ++in) {
            const std::int64_t place = widened ? in % 4 / 2 + in % 2 * 2 : in % 4;
            for (std::int64_t tap = 0; tap < taps; ++tap) {
                const std::int8_t value = weights[channel * kernel + in * taps + tap];
                total += static_cast<std::uint32_t>(value);
                if (tap % g.kw == 0) edges[0] += static_cast<std::uint32_t>(value);
                if (tap % g.kw == g.kw - 1) edges[1] += static_cast<std::uint32_t>(value);
                std::int8_t* at = out + ((in / 4 * taps + tap) * block * 4 + place) * weightBytes;
                at[0] = value;
                if (widened) at[1] = static_cast<std::int8_t>(value < 0 ? -1 : 0);
            }
        }
        wsum.push_back(static_cast<std::int32_t>(total));
        for (const std::uint32_t edge : edges) edgeSums.push_back(static_cast<std::int32_t>(edge));
    }
}

}  // namespace zorv
