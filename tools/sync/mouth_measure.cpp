#include "mouth_measure.h"

#include <algorithm>
#include <array>

#include "failure.h"
#include "video_reader.h"

namespace zorv::tools {
namespace {

constexpr int kHistogramFrames = 250;
constexpr int kLevels = 768;
constexpr double kThresholdPlace = 0.55;  // between the mean of the skin and that of the mouth

/// How little a pixel looks like skin: dark and red count.
struct Likeness {
    int w, h;
    std::vector<int> values;  // 0 .. kLevels - 1

    explicit Likeness(const Region& region)
        : w(region.w), h(region.h), values(static_cast<size_t>(w) * static_cast<size_t>(h)) {}
    int at(int x, int y) const { return values[static_cast<size_t>(y * w + x)]; }

    void take(const Picture& picture, const Region& region) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const int luma = picture.luma[(region.y + y) * picture.lumaStride + region.x + x];
                const int red = picture.red[(region.y + y) * picture.redStride + region.x + x];
                values[static_cast<size_t>(y * w + x)] =
                    std::clamp(255 - luma + 2 * (red - 128) + 128, 0, kLevels - 1);
            }
        }
    }
};

// Otsu's split of the histogram, then a threshold between the means of both sides.
double thresholdOf(const std::array<double, kLevels>& histogram) {
    double total = 0, sum = 0;
    for (int i = 0; i < kLevels; ++i) {
        total += histogram[static_cast<size_t>(i)], sum += i * histogram[static_cast<size_t>(i)];
    }
    double below = 0, belowSum = 0, best = -1, low = 0, high = 0;
    for (int i = 0; i < kLevels; ++i) {
        below += histogram[static_cast<size_t>(i)];
        belowSum += i * histogram[static_cast<size_t>(i)];
        if (below == 0 || below == total) continue;
        const double mean0 = belowSum / below, mean1 = (sum - belowSum) / (total - below);
        const double between = below * (total - below) * (mean1 - mean0) * (mean1 - mean0);
        if (between > best) best = between, low = mean0, high = mean1;
    }
    return low + kThresholdPlace * (high - low);
}

double findThreshold(const std::string& video, const Region& region) {
    VideoReader reader(video);
    if (region.x < 0 || region.y < 0 || region.w < 8 || region.h < 8 ||
        region.x + region.w > reader.width() || region.y + region.h > reader.height()) {
        fail("the region {},{},{},{} does not fit into pictures of {} x {}; change --region",
             region.x, region.y, region.w, region.h, reader.width(), reader.height());
    }
    std::array<double, kLevels> histogram{};
    Likeness likeness(region);
    Picture picture;
    for (int frame = 0; frame < kHistogramFrames && reader.read(picture); ++frame) {
        likeness.take(picture, region);
        // Only the middle half: the rest may hold hair, jaw or background.
        for (int y = likeness.h / 4; y < likeness.h * 3 / 4; ++y) {
            for (int x = likeness.w / 4; x < likeness.w * 3 / 4; ++x) {
                histogram[static_cast<size_t>(likeness.at(x, y))] += 1;
            }
        }
    }
    return thresholdOf(histogram);
}

/// Marks the largest connected patch of pixels beyond the threshold that ends inside the region:
///  what runs out of it is hair, jaw or neck.
std::vector<char> largestPatch(const Likeness& likeness, double threshold) {
    const int w = likeness.w, h = likeness.h;
    std::vector<int> label(likeness.values.size()), open;
    int labels = 0, largest = 0;
    size_t largestSize = 0;
    for (int seed = 0; seed < w * h; ++seed) {
        const auto fresh = [&](int at) {
            return label[static_cast<size_t>(at)] == 0 &&
                   likeness.values[static_cast<size_t>(at)] >= threshold;
        };
        if (!fresh(seed)) continue;
        label[static_cast<size_t>(seed)] = ++labels;
        open.assign(1, seed);
        size_t size = 0;
        bool runsOut = false;
        while (!open.empty()) {
            const int at = open.back(), x = at % w, y = at / w;
            open.pop_back();
            ++size;
            runsOut = runsOut || x == 0 || y == 0 || x == w - 1 || y == h - 1;
            for (int ny = std::max(0, y - 1); ny <= std::min(h - 1, y + 1); ++ny) {
                for (int nx = std::max(0, x - 1); nx <= std::min(w - 1, x + 1); ++nx) {
                    const int next = ny * w + nx;
                    if (!fresh(next)) continue;
                    label[static_cast<size_t>(next)] = labels;
                    open.push_back(next);
                }
            }
        }
        if (!runsOut && size > largestSize) largestSize = size, largest = labels;
    }
    std::vector<char> marked(label.size());
    for (size_t i = 0; i < label.size(); ++i) {
        marked[i] = largest > 0 && label[i] == largest ? 1 : 0;
    }
    return marked;
}

/// Height of the patch in one column, its edges placed where the values cross the threshold.
double columnHeight(const Likeness& likeness, const std::vector<char>& patch, double threshold,
                    int x) {
    const auto inside = [&](int y) { return patch[static_cast<size_t>(y * likeness.w + x)] != 0; };
    int top = 0, bottom = likeness.h - 1;
    while (top <= bottom && !inside(top)) ++top;
    while (bottom >= top && !inside(bottom)) --bottom;
    if (top > bottom) return 0;
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
    const std::vector<char> patch = largestPatch(likeness, threshold);
    int left = likeness.w, right = -1;
    for (int y = 0; y < likeness.h; ++y) {
        for (int x = 0; x < likeness.w; ++x) {
            if (patch[static_cast<size_t>(y * likeness.w + x)]) {
                left = std::min(left, x), right = std::max(right, x);
            }
        }
    }
    const int span = right - left + 1, inset = span * 3 / 10;
    if (span < 4) {
        series.height.push_back(series.height.empty() ? 0.0f : series.height.back());
        series.width.push_back(series.width.empty() ? 0.0f : series.width.back());
        return false;
    }
    double sum = 0;
    for (int x = left + inset; x <= right - inset; ++x) {
        sum += columnHeight(likeness, patch, threshold, x);
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
