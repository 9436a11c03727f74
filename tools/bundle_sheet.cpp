#include "bundle_sheet.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "av.h"
#include "bundle_files.h"
#include "failure.h"
#include "file_view.h"
#include "frame_check.h"

namespace zorv::tools {
namespace {

constexpr int kColumns = 3, kRows = 2, kGap = 8;
constexpr int kCell = 620;  // the longest side of a small frame
constexpr int kTitle = Canvas::kLetterHeight + 6;
constexpr int kPlotHeight = 120;

constexpr Color kBackground = {24, 24, 28}, kPlotGround = {44, 44, 50}, kText = {225, 225, 225};
constexpr Color kOutline = {255, 214, 0}, kTop = {255, 64, 64}, kMask = {40, 230, 110};
constexpr Color kPoints = {0, 225, 255}, kMark = {120, 120, 130};
constexpr std::array<Color, 3> kAxes = {{{255, 120, 100}, {120, 225, 120}, {110, 165, 255}}};

/** From frame pixels to sheet pixels. */
struct View {
    double left, top, scale;
    double x(double frame_x) const { return left + (frame_x + 0.5) * scale - 0.5; }
    double y(double frame_y) const { return top + (frame_y + 0.5) * scale - 0.5; }
    double frame_x(double sheet_x) const { return (sheet_x - left + 0.5) / scale - 0.5; }
    double frame_y(double sheet_y) const { return (sheet_y - top + 0.5) / scale - 0.5; }
};

struct Point {
    double x, y;
};

/** Crop pixel (x, y) lands on frame pixel (a x + b y + tx, c x + d y + ty). */
struct Placement {
    double a, b, tx, c, d, ty;

    Point to_frame(Point p) const { return {a * p.x + b * p.y + tx, c * p.x + d * p.y + ty}; }
    Point to_crop(Point p) const {
        const double det = a * d - b * c, x = p.x - tx, y = p.y - ty;
        return {(d * x - b * y) / det, (a * y - c * x) / det};
    }
};

/** What the sheet shows; what cannot be read is empty. */
class BundleSheet {
  public:
    explicit BundleSheet(const BundleReport& report);
    Canvas draw();

  private:
    struct Series {
        std::string name;
        size_t width;  // values per row
        std::vector<float> values;
    };

    std::vector<float> rows(const char* name, const std::optional<int>& count) const;
    std::optional<Placement> placement(int frame) const;
    const float* keypoints_of(int frame) const;
    double mask_at(Point crop) const;

    void draw_cell(Canvas& canvas, int frame, int left, int top);
    bool draw_frame(Canvas& canvas, int frame, int left, int top);
    void draw_mask(Canvas& canvas, const View& view, const Placement& placed, int left, int top);
    void draw_outline(Canvas& canvas, const View& view, const Placement& placed);
    void draw_keypoints(Canvas& canvas, const View& view, const Placement& placed, int frame);
    void draw_legend(Canvas& canvas, int y);
    void draw_plot(Canvas& canvas, const Series& series, int y);

    const std::string& directory_;
    int width_, height_, target_frames_, side_;
    double scale_;
    int cell_width_, cell_height_;
    std::vector<int> chosen_;
    std::vector<float> placements_, targets_, sources_, drives_;
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
      target_frames_(*report.facts.target_frames),
      side_(report.facts.crop.value_or(0)),
      scale_(static_cast<double>(kCell) / std::max(width_, height_)),
      cell_width_(std::max(1, static_cast<int>(std::lround(width_ * scale_)))),
      cell_height_(std::max(1, static_cast<int>(std::lround(height_ * scale_)))) {
    const BundleFacts& facts = report.facts;
    const int count = std::min(kColumns * kRows, target_frames_);
    for (int64_t i = 0; i < count; ++i)  // the first and the last one and some between
        chosen_.push_back(static_cast<int>(i * (target_frames_ - 1) / std::max(count - 1, 1)));
    placements_ = read_placements(directory_, facts);
    targets_ = rows("xs_target.bin", facts.target_frames);
    sources_ = rows("drive/xs.f32", facts.drive_frames);
    drives_ = rows("drive/xd.f32", facts.drive_frames);
    indices_ = as<int32_t>(read_floats(directory_ + "/drive/si.i32",
                                       static_cast<size_t>(facts.drive_frames.value_or(0))));
    try {
        const FileView mask(directory_ + "/mask_512.u8");
        const auto pixels = static_cast<size_t>(side_) * static_cast<size_t>(side_);
        if (mask.size() >= pixels) mask_.assign(mask.data(), mask.data() + pixels);
    } catch (const Failure&) {  // the report says so
    }
}

std::vector<float> BundleSheet::rows(const char* name, const std::optional<int>& count) const {
    return read_floats(directory_ + "/" + name,
                       static_cast<size_t>(count.value_or(0)) * kKeypointFloats);
}

std::optional<Placement> BundleSheet::placement(int frame) const {
    const size_t at = static_cast<size_t>(frame) * 6;
    if (at + 6 > placements_.size() || side_ < 1) return std::nullopt;
    const float* M = placements_.data() + at;
    if (!std::all_of(M, M + 6, [](float value) { return std::isfinite(value); }))
        return std::nullopt;
    return Placement{M[0], M[1], M[2], M[3], M[4], M[5]};
}

const float* BundleSheet::keypoints_of(int frame) const {
    const auto row = [](const std::vector<float>& rows_of, size_t index) {
        return rows_of.data() + index * kKeypointFloats;
    };
    if (!targets_.empty()) return row(targets_, static_cast<size_t>(frame));
    const auto at = std::find(indices_.begin(), indices_.end(), frame);
    if (at == indices_.end() || sources_.empty()) return nullptr;
    return row(sources_, static_cast<size_t>(at - indices_.begin()));
}

double BundleSheet::mask_at(Point crop) const {
    const double x = std::round(crop.x), y = std::round(crop.y);
    if (!(x >= 0 && y >= 0 && x < side_ && y < side_)) return 0;
    return mask_[static_cast<size_t>(y) * static_cast<size_t>(side_) + static_cast<size_t>(x)] /
           255.0;
}

Canvas BundleSheet::draw() {
    const int columns = std::min(kColumns, static_cast<int>(chosen_.size()));
    const int rows_of_cells = (static_cast<int>(chosen_.size()) + columns - 1) / columns;
    const int width = std::max(columns * (cell_width_ + kGap) + kGap, 900);
    const int cells = rows_of_cells * (kTitle + cell_height_ + kGap);
    Canvas canvas(width, kGap + kTitle + cells + 4 * (kTitle + kPlotHeight + kGap), kBackground);
    draw_legend(canvas, kGap);
    int y = kGap + kTitle;
    for (size_t i = 0; i < chosen_.size(); ++i) {
        const int column = static_cast<int>(i) % columns, row = static_cast<int>(i) / columns;
        draw_cell(canvas, chosen_[i], kGap + column * (cell_width_ + kGap),
                  y + row * (kTitle + cell_height_ + kGap));
    }
    y += cells;
    const std::vector<float> indices(indices_.begin(), indices_.end());
    for (const Series& series :
         {Series{"xs_target.bin", kKeypointFloats, targets_},
          Series{"drive/xs.f32", kKeypointFloats, sources_},
          Series{"drive/xd.f32", kKeypointFloats, drives_}, Series{"drive/si.i32", 1, indices}}) {
        draw_plot(canvas, series, y);
        y += kTitle + kPlotHeight + kGap;
    }
    return canvas;
}

void BundleSheet::draw_legend(Canvas& canvas, int y) {
    int x = kGap;
    const auto entry = [&](const std::string& text, Color color) {
        canvas.text(x, y, text, color);
        x += (static_cast<int>(text.size()) + 3) * Canvas::kLetterWidth;
    };
    entry("crop outline", kOutline);
    entry("its top edge", kTop);
    entry("mask, line at one half", kMask);
    entry("source keypoints", kPoints);
    if (placements_.empty()) entry("no placements", kText);
    if (mask_.empty()) entry("no mask", kText);
}

void BundleSheet::draw_cell(Canvas& canvas, int frame, int left, int top) {
    canvas.text(left, top + 2, frame_name(frame), kText);
    top += kTitle;
    canvas.clip(left, top, cell_width_, cell_height_);
    if (!draw_frame(canvas, frame, left, top)) {
        canvas.fill(left, top, cell_width_, cell_height_, kPlotGround);
        canvas.text(left + kGap, top + kGap, "cannot be shown", kTop);
    }
    if (const auto placed = placement(frame)) {
        const View view{static_cast<double>(left), static_cast<double>(top), scale_};
        draw_mask(canvas, view, *placed, left, top);
        draw_outline(canvas, view, *placed);
        draw_keypoints(canvas, view, *placed, frame);
    }
    canvas.unclip();
}

bool BundleSheet::draw_frame(Canvas& canvas, int frame, int left, int top) try {
    const std::vector<uint8_t> rgb = decode_frame(directory_, frame, width_, height_);
    const int flags = scale_ < 1 ? SWS_AREA : SWS_POINT;
    const av::Owner<SwsContext> scaler(sws_getContext(width_, height_, AV_PIX_FMT_RGB24,
                                                      cell_width_, cell_height_, AV_PIX_FMT_RGB24,
                                                      flags, nullptr, nullptr, nullptr));
    if (!scaler) return false;
    const int stride = 3 * cell_width_ + 64;  // it writes past row ends
    std::vector<uint8_t> small(static_cast<size_t>(stride) * static_cast<size_t>(cell_height_ + 1));
    uint8_t* out = small.data();
    std::vector<uint8_t> copy;
    av::scale(scaler.get(), rgb.data(), 3 * width_, height_, &out, &stride, copy);
    for (int y = 0; y < cell_height_; ++y)
        for (int x = 0; x < cell_width_; ++x) {
            const uint8_t* pixel = out + y * stride + 3 * x;
            canvas.blend(left + x, top + y, {pixel[0], pixel[1], pixel[2]});
        }
    return true;
} catch (const Failure&) {  // the report says why
    return false;
}

void BundleSheet::draw_mask(Canvas& canvas, const View& view, const Placement& placed, int left,
                            int top) {
    if (mask_.empty()) return;
    const auto mask_of = [&](int x, int y) {
        return mask_at(placed.to_crop({view.frame_x(x), view.frame_y(y)}));
    };
    for (int y = top; y < top + cell_height_; ++y)
        for (int x = left; x < left + cell_width_; ++x) {
            const double here = mask_of(x, y);
            const auto crosses = [&](double there) { return (here < 0.5) != (there < 0.5); };
            if (crosses(mask_of(x + 1, y)) || crosses(mask_of(x, y + 1)))
                canvas.blend(x, y, kMask);
            else if (here > 0)
                canvas.blend(x, y, kMask, static_cast<float>(0.13 * here));
        }
}

void BundleSheet::draw_outline(Canvas& canvas, const View& view, const Placement& placed) {
    const double near = -0.5, far = side_ - 0.5;
    const Point corners[] = {{near, near}, {far, near}, {far, far}, {near, far}};
    for (int i : {1, 2, 3, 0}) {  // the top edge last, over its neighbours' ends
        const Point from = placed.to_frame(corners[i]), to = placed.to_frame(corners[(i + 1) % 4]);
        canvas.line(view.x(from.x), view.y(from.y), view.x(to.x), view.y(to.y),
                    i == 0 ? kTop : kOutline, 2);
    }
}

void BundleSheet::draw_keypoints(Canvas& canvas, const View& view, const Placement& placed,
                                 int frame) {
    const float* points = keypoints_of(frame);
    if (!points) return;
    for (int i = 0; i < kKeypointFloats; i += 3) {
        // Coordinates run from -1 to 1 across the crop.
        const auto pixel = [&](float value) { return (value + 1.0) * side_ / 2 - 0.5; };
        const Point at = placed.to_frame({pixel(points[i]), pixel(points[i + 1])});
        canvas.dot(view.x(at.x), view.y(at.y), 2, kPoints);
    }
}

/** The columns' values around their own mean, so that small movements of 63 values in one plot can
 *  be seen; a single column as it is. */
std::vector<double> centred(const std::vector<float>& values, size_t width) {
    std::vector<double> result(values.begin(), values.end());
    if (width == 1) return result;
    for (size_t column = 0; column < width; ++column) {
        double sum = 0;
        size_t count = 0;
        for (size_t i = column; i < result.size(); i += width)
            if (std::isfinite(result[i])) sum += result[i], ++count;
        for (size_t i = column; i < result.size(); i += width)
            result[i] -= sum / static_cast<double>(std::max<size_t>(count, 1));
    }
    return result;
}

void BundleSheet::draw_plot(Canvas& canvas, const Series& series, int y) {
    const size_t count = series.values.size() / series.width;
    const int width = canvas.width() - 2 * kGap;
    const std::vector<double> values = centred(series.values, series.width);
    double low = HUGE_VAL, high = -HUGE_VAL;
    for (const double value : values)
        if (std::isfinite(value)) low = std::min(low, value), high = std::max(high, value);
    std::string title = series.name + ": nothing to plot";
    if (low <= high)
        title = fmt::format("{}: {} rows, {}{:.4g} to {:.4g}", series.name, count,
                            series.width > 1 ? "x y z around their means, " : "", low, high);
    canvas.text(kGap, y + 2, title, kText);
    if (series.width > 1)
        for (int axis = 0; axis < 3; ++axis)
            canvas.text(
                kGap + (static_cast<int>(title.size()) + 2 + 2 * axis) * Canvas::kLetterWidth,
                y + 2, std::string(1, static_cast<char>('x' + axis)), kAxes[axis]);
    y += kTitle;
    canvas.fill(kGap, y, width, kPlotHeight, kPlotGround);
    canvas.clip(kGap, y, width, kPlotHeight);
    const double across = (width - 9.0) / static_cast<double>(std::max<size_t>(count, 2) - 1);
    const auto column = [&](size_t row) { return kGap + 4 + across * static_cast<double>(row); };
    const auto level = [&](double value) {
        return y + kPlotHeight - 5 -
               (kPlotHeight - 9) * (high > low ? (value - low) / (high - low) : 0.5);
    };
    if (series.name == "xs_target.bin")
        for (const int frame : chosen_)
            canvas.line(column(static_cast<size_t>(frame)), y, column(static_cast<size_t>(frame)),
                        y + kPlotHeight, kMark);
    for (size_t value = 0; value < series.width && low <= high; ++value)
        for (size_t row = 0; row < count; ++row) {
            const size_t next = std::min(row + 1, count - 1);
            canvas.line(column(row), level(values[row * series.width + value]), column(next),
                        level(values[next * series.width + value]),
                        series.width > 1 ? kAxes[value % 3] : kText, 1, 0.75f);
        }
    canvas.unclip();
}

}  // namespace

std::optional<Canvas> draw_bundle(const BundleReport& report) {
    const BundleFacts& facts = report.facts;
    if (!facts.target_frames || !facts.width || !facts.height) return std::nullopt;
    return BundleSheet(report).draw();
}

}  // namespace zorv::tools
