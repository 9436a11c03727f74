#include "mouth_measure.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "connected.h"
#include "failure.h"
#include "video_reader.h"

namespace zorv::tools {
namespace {

constexpr int kSampledFrames = 250;
constexpr double kSkin = 0.1, kMouth = 0.9;  // shares of the values below which these lie
constexpr double kThresholdPlace = 0.55;     // between the two

/// How little a pixel looks like skin: dark and red count.
struct Likeness {
    int w, h;
    std::vector<int> values;

    explicit Likeness(const Region& region)
        : w(region.w), h(region.h), values(static_cast<size_t>(w) * static_cast<size_t>(h)) {}
    int at(int x, int y) const { return values[static_cast<size_t>(y * w + x)]; }

    void take(const Picture& picture, const Region& region) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const int luma = picture.luma[(region.y + y) * picture.lumaStride + region.x + x];
                const int red = picture.red[(region.y + y) * picture.redStride + region.x + x];
                values[static_cast<size_t>(y * w + x)] = 2 * red - luma;
            }
        }
    }
};

/// Between the values of most of the skin and those of most of the mouth.
double thresholdOf(std::vector<int>& values) {
    const auto quantile = [&](double share) {
        const auto at = values.begin() +
                        static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
        std::nth_element(values.begin(), at, values.end());
        return *at;
    };
    const int skin = quantile(kSkin), mouth = quantile(kMouth);
    return skin + kThresholdPlace * (mouth - skin);
}

double findThreshold(const std::string& video, const Region& region) {
    VideoReader reader(video);
    if (region.x < 0 || region.y < 0 || region.w < 8 || region.h < 8 ||
        region.x + region.w > reader.width() || region.y + region.h > reader.height()) {
        fail("the region {},{},{},{} does not fit into pictures of {} x {}; change --region",
             region.x, region.y, region.w, region.h, reader.width(), reader.height());
    }
    std::vector<int> values;
    Likeness likeness(region);
    Picture picture;
    for (int frame = 0; frame < kSampledFrames && reader.read(picture); ++frame) {
        likeness.take(picture, region);
        // Only the middle half: the rest may hold hair, jaw or background.
        for (int y = likeness.h / 4; y < likeness.h * 3 / 4; ++y) {
            for (int x = likeness.w / 4; x < likeness.w * 3 / 4; ++x) {
                values.push_back(likeness.at(x, y));
            }
        }
    }
    return thresholdOf(values);
}

/// The largest connected patch of pixels beyond the threshold that ends inside the region: what
/// runs out of it is hair, jaw or neck.
std::vector<int> largestPatch(const Likeness& likeness, double threshold) {
    const int w = likeness.w, h = likeness.h;
    const auto beyond = [&](int at) {
        return likeness.values[static_cast<size_t>(at)] >= threshold;
    };
    const auto atEdge = [&](int at) {
        return at % w == 0 || at % w == w - 1 || at < w || at >= w * (h - 1);
    };
    std::vector<bool> taken(likeness.values.size());
    std::vector<int> largest;
    for (int seed = 0; seed < w * h; ++seed) {
        if (taken[static_cast<size_t>(seed)] || !beyond(seed)) continue;
        std::vector<int> patch = connectedWith(seed, w, h, taken, beyond);
        if (patch.size() > largest.size() && std::none_of(patch.begin(), patch.end(), atEdge)) {
            largest = std::move(patch);
        }
    }
    return largest;
}

/// The patch's rows in one column, none when bottom < top.
struct Column {
    int top = INT_MAX, bottom = -1;
};

/// Height of a column, its edges placed where the values cross the threshold.
double heightOf(const Likeness& likeness, const Column& column, double threshold, int x) {
    const auto [top, bottom] = column;
    if (bottom < top) return 0;
    const auto beyond = [&](int in, int out) {
        const double a = likeness.at(x, in), b = likeness.at(x, out);
        return a > b ? std::clamp((a - threshold) / (a - b), 0.0, 1.0) : 0.0;
    };
    const double above = top > 0 ? beyond(top, top - 1) : 0.0;
    const double below = bottom + 1 < likeness.h ? beyond(bottom, bottom + 1) : 0.0;
    return bottom - top + above + below;
}

/// Appends one frame; false, with the frame before repeated, when there is no mouth to be seen.
bool measure(const Likeness& likeness, double threshold, MouthSeries& series) {
    std::vector<Column> columns(static_cast<size_t>(likeness.w));
    int left = likeness.w, right = -1;
    for (const int at : largestPatch(likeness, threshold)) {
        const int x = at % likeness.w, y = at / likeness.w;
        Column& column = columns[static_cast<size_t>(x)];
        column = {std::min(column.top, y), std::max(column.bottom, y)};
        left = std::min(left, x), right = std::max(right, x);
    }
    const int span = right - left + 1, inset = span * 3 / 10;
    if (span < 4) {
        series.height.push_back(series.height.empty() ? 0.0f : series.height.back());
        series.width.push_back(series.width.empty() ? 0.0f : series.width.back());
        return false;
    }
    double sum = 0;
    for (int x = left + inset; x <= right - inset; ++x) {
        sum += heightOf(likeness, columns[static_cast<size_t>(x)], threshold, x);
    }
    series.height.push_back(static_cast<float>(sum / (span - 2 * inset)));
    series.width.push_back(static_cast<float>(span));
    return true;
}

}  // namespace

MouthSeries measureMouth(const std::string& video, const Region& region) {
    const double threshold = findThreshold(video, region);
    VideoReader reader(video);
    MouthSeries series;
    Likeness likeness(region);
    Picture picture;
    size_t missed = 0;
    while (reader.read(picture)) {
        likeness.take(picture, region);
        if (!measure(likeness, threshold, series)) ++missed;
    }
    if (missed * 20 > series.height.size()) {
        fail("no mouth to be seen in {} of {} frames of region {},{},{},{}; give another --region",
             missed, series.height.size(), region.x, region.y, region.w, region.h);
    }
    series.startSeconds = reader.startSeconds();
    return series;
}

}  // namespace zorv::tools
