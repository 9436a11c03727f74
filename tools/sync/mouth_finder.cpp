#include "mouth_finder.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "connected.h"
#include "failure.h"
#include "video_reader.h"

namespace zorv::tools {
namespace {

constexpr int kCell = 8;  // pixels
constexpr int kMaxFrames = 60 * VideoReader::kFrameRate;
constexpr double kQuantile = 0.80;  // of the frames; blinks lie above it
constexpr float kEdge = 0.35f;      // of the strongest cell's movement

/// Mean luma per cell, frame after frame.
struct CellSeries {
    int columns = 0, rows = 0, frames = 0;
    std::vector<float> values;
    size_t cells() const { return static_cast<size_t>(columns) * static_cast<size_t>(rows); }
    float at(int frame, size_t cell) const {
        return values[static_cast<size_t>(frame) * cells() + cell];
    }
};

CellSeries readCells(const std::string& video) {
    VideoReader reader(video);
    CellSeries series;
    series.columns = reader.width() / kCell;
    series.rows = reader.height() / kCell;
    Picture picture;
    while (series.frames < kMaxFrames && reader.read(picture)) {
        for (int row = 0; row < series.rows; ++row) {
            for (int column = 0; column < series.columns; ++column) {
                int sum = 0;
                for (int y = 0; y < kCell; ++y) {
                    for (int x = 0; x < kCell; ++x) {
                        sum +=
                            picture
                                .luma[(row * kCell + y) * picture.lumaStride + column * kCell + x];
                    }
                }
                series.values.push_back(static_cast<float>(sum) / (kCell * kCell));
            }
        }
        ++series.frames;
    }
    return series;
}

// The second difference over time is zero for uniform movement.
std::vector<float> abruptness(const CellSeries& series) {
    std::vector<float> result(series.cells());
    std::vector<float> changes(static_cast<size_t>(series.frames - 2));
    for (size_t cell = 0; cell < result.size(); ++cell) {
        for (int t = 1; t + 1 < series.frames; ++t) {
            changes[static_cast<size_t>(t - 1)] =
                std::abs(series.at(t + 1, cell) - 2 * series.at(t, cell) + series.at(t - 1, cell));
        }
        const auto rank = static_cast<long>(kQuantile * static_cast<double>(changes.size() - 1));
        std::nth_element(changes.begin(), changes.begin() + rank, changes.end());
        result[cell] = changes[static_cast<size_t>(rank)];
    }
    return result;
}

/// Bounding box, in cells, of the strong cells that are connected with the strongest.
Region strongestPatch(const std::vector<float>& strength, int columns, int rows) {
    const auto peak = std::max_element(strength.begin(), strength.end());
    const float bound = kEdge * *peak;
    std::vector<bool> taken(strength.size());
    int x0 = columns, x1 = -1, y0 = rows, y1 = -1;
    for (const int cell :
         connectedWith(static_cast<int>(peak - strength.begin()), columns, rows, taken,
                       [&](int at) { return strength[static_cast<size_t>(at)] >= bound; })) {
        const int x = cell % columns, y = cell / columns;
        x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
    }
    return {x0, y0, x1 - x0 + 1, y1 - y0 + 1};
}

}  // namespace

Region findMouth(const std::string& video) {
    const CellSeries series = readCells(video);
    if (series.frames < 10 || series.cells() == 0) {
        fail("'{}' is too short or too small to find the mouth; give --region x,y,w,h", video);
    }
    const std::vector<float> strength = abruptness(series);
    if (*std::max_element(strength.begin(), strength.end()) < 0.5f) {
        fail("nothing moves in '{}' often enough to be a mouth; give --region x,y,w,h", video);
    }
    const Region patch = strongestPatch(strength, series.columns, series.rows);
    // The corners and the closed lips move less than the opening: take a margin around it.
    const int marginX = std::max(4, patch.w / 2), marginY = std::max(4, patch.h * 3 / 4);
    const int x0 = std::max(0, patch.x - marginX), y0 = std::max(0, patch.y - marginY);
    const int x1 = std::min(series.columns, patch.x + patch.w + marginX);
    const int y1 = std::min(series.rows, patch.y + patch.h + marginY);
    return {x0 * kCell, y0 * kCell, (x1 - x0) * kCell, (y1 - y0) * kCell};
}

}  // namespace zorv::tools
