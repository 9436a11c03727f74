#include "bundle_sheet.h"

#include <algorithm>
#include <cmath>

#include "av.h"
#include "bundle/zorv_bundle.h"
#include "bundle_files.h"
#include "common/file.h"
#include "failure.h"
#include "frame_check.h"

namespace zorv::tools {
namespace {

constexpr int kColumns = 3, kRows = 2, kGap = 8;
constexpr int kCell = 620;  // the longest side of a small frame
constexpr int kTitle = Canvas::kTextHeight + 6;

constexpr Color kBackground = {24, 24, 28}, kNoFrame = {44, 44, 50}, kText = {225, 225, 225};
constexpr Color kOutline = {255, 214, 0}, kTop = {255, 64, 64}, kMask = {40, 230, 110};
constexpr Color kPoints = {0, 225, 255};

/// From frame pixels to sheet pixels.
struct View {
    double left, top, scale;
    double x(double frameX) const { return left + (frameX + 0.5) * scale - 0.5; }
    double y(double frameY) const { return top + (frameY + 0.5) * scale - 0.5; }
    double frameX(double sheetX) const { return (sheetX - left + 0.5) / scale - 0.5; }
    double frameY(double sheetY) const { return (sheetY - top + 0.5) / scale - 0.5; }
};

struct Point {
    double x, y;
};

/// Crop pixel (x, y) lands on frame pixel (a x + b y + tx, c x + d y + ty).
struct Placement {
    double a, b, tx, c, d, ty;

    Point toFrame(Point p) const { return {a * p.x + b * p.y + tx, c * p.x + d * p.y + ty}; }
    Point toCrop(Point p) const {
        const double det = a * d - b * c, x = p.x - tx, y = p.y - ty;
        return {(d * x - b * y) / det, (a * y - c * x) / det};
    }
};

/// What the sheet shows; what cannot be read is empty.
class BundleSheet {
  public:
    explicit BundleSheet(const BundleReport& report);
    Canvas draw();

  private:
    std::vector<float> rows(const char* name, const std::optional<int>& count) const;
    std::optional<Placement> placement(int frame) const;
    const float* keypointsOf(int frame) const;
    double maskAt(Point crop) const;

    void drawCell(Canvas& canvas, int frame, int left, int top);
    bool drawFrame(Canvas& canvas, int frame, int left, int top);
    void drawMask(Canvas& canvas, const View& view, const Placement& placed, int left, int top);
    void drawOutline(Canvas& canvas, const View& view, const Placement& placed);
    void drawKeypoints(Canvas& canvas, const View& view, const Placement& placed, int frame);
    void drawLegend(Canvas& canvas, int y);

    const std::string& directory_;
    int width_, height_, targetFrames_, side_;
    double scale_;
    int cellWidth_, cellHeight_;
    std::vector<int> chosen_;
    std::vector<float> placements_, targets_, sources_;
    std::vector<int32_t> indices_;
    std::vector<uint8_t> mask_;
};

template <typename T>
std::vector<T> as(const std::vector<float>& floats) {
    const auto* values = reinterpret_cast<const T*>(floats.data());
    return {values, values + floats.size() * sizeof(float) / sizeof(T)};
}

BundleSheet::BundleSheet(const BundleReport& report)
    : directory_(report.directory),
      width_(*report.facts.width),
      height_(*report.facts.height),
      targetFrames_(*report.facts.targetFrames),
      side_(report.facts.crop.value_or(0)),
      scale_(static_cast<double>(kCell) / std::max(width_, height_)),
      cellWidth_(std::max(1, static_cast<int>(std::lround(width_ * scale_)))),
      cellHeight_(std::max(1, static_cast<int>(std::lround(height_ * scale_)))) {
    const BundleFacts& facts = report.facts;
    const int count = std::min(kColumns * kRows, targetFrames_);
    for (int64_t i = 0; i < count; ++i) {  // the first and the last one and some between
        chosen_.push_back(static_cast<int>(i * (targetFrames_ - 1) / std::max(count - 1, 1)));
    }
    placements_ = readPlacements(directory_, facts);
    targets_ = rows(files::kTargetKeypoints.name, facts.targetFrames);
    sources_ = rows(files::kDriveSource.name, facts.driveFrames);
    indices_ = as<int32_t>(readFloats(directory_ + "/" + files::kDriveTargets.name,
                                      static_cast<size_t>(facts.driveFrames.value_or(0))));
    std::string mask;  // empty when it cannot be read: the report says so
    readWholeFile(directory_ + "/" + files::kMask.name, mask);
    const auto pixels = static_cast<size_t>(side_) * static_cast<size_t>(side_);
    if (mask.size() >= pixels) {
        mask_.assign(mask.begin(), mask.begin() + static_cast<std::ptrdiff_t>(pixels));
    }
}

std::vector<float> BundleSheet::rows(const char* name, const std::optional<int>& count) const {
    return readFloats(directory_ + "/" + name,
                      static_cast<size_t>(count.value_or(0)) * kKeypointFloats);
}

std::optional<Placement> BundleSheet::placement(int frame) const {
    const size_t at = static_cast<size_t>(frame) * 6;
    if (at + 6 > placements_.size() || side_ < 1) return std::nullopt;
    const float* m = placements_.data() + at;
    if (!std::all_of(m, m + 6, [](float value) { return std::isfinite(value); })) {
        return std::nullopt;
    }
    return Placement{m[0], m[1], m[2], m[3], m[4], m[5]};
}

const float* BundleSheet::keypointsOf(int frame) const {
    const auto row = [](const std::vector<float>& rowsOf, size_t index) {
        return rowsOf.data() + index * kKeypointFloats;
    };
    if (!targets_.empty()) return row(targets_, static_cast<size_t>(frame));
    const auto at = std::find(indices_.begin(), indices_.end(), frame);
    if (at == indices_.end() || sources_.empty()) return nullptr;
    return row(sources_, static_cast<size_t>(at - indices_.begin()));
}

double BundleSheet::maskAt(Point crop) const {
    const double x = std::round(crop.x), y = std::round(crop.y);
    if (!(x >= 0 && y >= 0 && x < side_ && y < side_)) return 0;
    return mask_[static_cast<size_t>(y) * static_cast<size_t>(side_) + static_cast<size_t>(x)] /
           255.0;
}

Canvas BundleSheet::draw() {
    const int columns = std::min(kColumns, static_cast<int>(chosen_.size()));
    const int rowsOfCells = (static_cast<int>(chosen_.size()) + columns - 1) / columns;
    const int width = std::max(columns * (cellWidth_ + kGap) + kGap, 900);
    const int cells = rowsOfCells * (kTitle + cellHeight_ + kGap);
    Canvas canvas(width, kGap + kTitle + cells, kBackground);
    drawLegend(canvas, kGap);
    const int y = kGap + kTitle;
    for (size_t i = 0; i < chosen_.size(); ++i) {
        const int column = static_cast<int>(i) % columns, row = static_cast<int>(i) / columns;
        drawCell(canvas, chosen_[i], kGap + column * (cellWidth_ + kGap),
                 y + row * (kTitle + cellHeight_ + kGap));
    }
    return canvas;
}

void BundleSheet::drawLegend(Canvas& canvas, int y) {
    int x = kGap;
    const auto entry = [&](const std::string& text, Color color) {
        x += canvas.text(x, y, text, color) + 3 * kGap;
    };
    entry("crop outline", kOutline);
    entry("its top edge", kTop);
    entry("mask, line at one half", kMask);
    entry("source keypoints", kPoints);
    if (placements_.empty()) entry("no placements", kText);
    if (mask_.empty()) entry("no mask", kText);
}

void BundleSheet::drawCell(Canvas& canvas, int frame, int left, int top) {
    canvas.text(left, top + 2, frameName(frame), kText);
    top += kTitle;
    canvas.clip(left, top, cellWidth_, cellHeight_);
    if (!drawFrame(canvas, frame, left, top)) {
        canvas.fill(left, top, cellWidth_, cellHeight_, kNoFrame);
        canvas.text(left + kGap, top + kGap, "cannot be shown", kTop);
    }
    if (const auto placed = placement(frame)) {
        const View view{static_cast<double>(left), static_cast<double>(top), scale_};
        drawMask(canvas, view, *placed, left, top);
        drawOutline(canvas, view, *placed);
        drawKeypoints(canvas, view, *placed, frame);
    }
    canvas.unclip();
}

bool BundleSheet::drawFrame(Canvas& canvas, int frame, int left, int top) try {
    const std::vector<uint8_t> rgb = decodeFrame(directory_, frame, width_, height_);
    const int flags = scale_ < 1 ? SWS_AREA : SWS_POINT;
    const av::Owner<SwsContext> scaler(sws_getContext(width_, height_, AV_PIX_FMT_RGB24, cellWidth_,
                                                      cellHeight_, AV_PIX_FMT_RGB24, flags, nullptr,
                                                      nullptr, nullptr));
    if (!scaler) return false;
    const int stride = 3 * cellWidth_ + 64;  // the scaler writes past row ends
    std::vector<uint8_t> small(static_cast<size_t>(stride) * static_cast<size_t>(cellHeight_ + 1));
    uint8_t* out = small.data();
    std::vector<uint8_t> copy;
    av::scale(scaler.get(), rgb.data(), 3 * width_, height_, &out, &stride, copy);
    for (int y = 0; y < cellHeight_; ++y) {
        for (int x = 0; x < cellWidth_; ++x) {
            const uint8_t* pixel = out + y * stride + 3 * x;
            canvas.blend(left + x, top + y, {pixel[0], pixel[1], pixel[2]});
        }
    }
    return true;
} catch (const Failure&) {  // the report says why
    return false;
}

void BundleSheet::drawMask(Canvas& canvas, const View& view, const Placement& placed, int left,
                           int top) {
    if (mask_.empty()) return;
    const auto maskOf = [&](int x, int y) {
        return maskAt(placed.toCrop({view.frameX(x), view.frameY(y)}));
    };
    for (int y = top; y < top + cellHeight_; ++y) {
        for (int x = left; x < left + cellWidth_; ++x) {
            const double here = maskOf(x, y);
            const auto crosses = [&](double there) { return (here < 0.5) != (there < 0.5); };
            if (crosses(maskOf(x + 1, y)) || crosses(maskOf(x, y + 1))) {
                canvas.blend(x, y, kMask);
            } else if (here > 0) {
                canvas.blend(x, y, kMask, static_cast<float>(0.13 * here));
            }
        }
    }
}

void BundleSheet::drawOutline(Canvas& canvas, const View& view, const Placement& placed) {
    const double near = -0.5, far = side_ - 0.5;
    const Point corners[] = {{near, near}, {far, near}, {far, far}, {near, far}};
    for (int i : {1, 2, 3, 0}) {  // the top edge last, over its neighbours' ends
        const Point from = placed.toFrame(corners[i]), to = placed.toFrame(corners[(i + 1) % 4]);
        canvas.line(view.x(from.x), view.y(from.y), view.x(to.x), view.y(to.y),
                    i == 0 ? kTop : kOutline, 2);
    }
}

void BundleSheet::drawKeypoints(Canvas& canvas, const View& view, const Placement& placed,
                                int frame) {
    const float* points = keypointsOf(frame);
    if (!points) return;
    for (size_t i = 0; i < kKeypointFloats; i += 3) {
        // Coordinates run from -1 to 1 across the crop.
        const auto pixel = [&](float value) { return (value + 1.0) * side_ / 2 - 0.5; };
        const Point at = placed.toFrame({pixel(points[i]), pixel(points[i + 1])});
        canvas.dot(view.x(at.x), view.y(at.y), 2, kPoints);
    }
}

}  // namespace

std::optional<Canvas> drawBundle(const BundleReport& report) {
    const BundleFacts& facts = report.facts;
    if (!facts.targetFrames || !facts.width || !facts.height) return std::nullopt;
    return BundleSheet(report).draw();
}

}  // namespace zorv::tools
