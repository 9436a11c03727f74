#include "canvas.h"

#include <cmath>
#include <numbers>

#include "failure.h"

namespace zorv::tools {
namespace {

// A pixel is a 32-bit number, red in its third byte; see CAIRO_FORMAT_RGB24.
constexpr int kShifts[3] = {16, 8, 0};

/// Numbers that cairo can place.
bool drawable(double x, double y) {
    return std::abs(x) < 1e6 && std::abs(y) < 1e6;
}

}  // namespace

Canvas::Canvas(int width, int height, Color background)
    : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height)),
      cairo_(cairo_create(surface_.get())) {
    const cairo_status_t status = cairo_status(cairo_.get());
    if (status != CAIRO_STATUS_SUCCESS) {
        fail("cannot draw a picture of {} x {} pixels: {}", width, height,
             cairo_status_to_string(status));
    }
    cairo_set_antialias(cairo_.get(), CAIRO_ANTIALIAS_NONE);
    cairo_select_font_face(cairo_.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cairo_.get(), kTextHeight);
    fill(0, 0, width, height, background);
}

std::vector<uint8_t> Canvas::rgb() const {
    cairo_surface_flush(surface_.get());
    const unsigned char* data = cairo_image_surface_get_data(surface_.get());
    const int stride = cairo_image_surface_get_stride(surface_.get());
    std::vector<uint8_t> bytes;
    bytes.reserve(static_cast<size_t>(width()) * static_cast<size_t>(height()) * 3);
    for (int y = 0; y < height(); ++y) {
        const auto* row = reinterpret_cast<const uint32_t*>(data + std::ptrdiff_t{y} * stride);
        for (int x = 0; x < width(); ++x) {
            for (const int shift : kShifts) bytes.push_back(row[x] >> shift & 0xff);
        }
    }
    return bytes;
}

void Canvas::clip(int x, int y, int width, int height) {
    unclip();
    cairo_rectangle(cairo_.get(), x, y, width, height);
    cairo_clip(cairo_.get());
}

void Canvas::use(Color color) {
    cairo_set_source_rgb(cairo_.get(), color.r / 255.0, color.g / 255.0, color.b / 255.0);
}

void Canvas::blend(int x, int y, Color color, float share) {
    if (x < 0 || y < 0 || x >= width() || y >= height()) return;
    cairo_surface_flush(surface_.get());
    const int stride = cairo_image_surface_get_stride(surface_.get());
    unsigned char* data = cairo_image_surface_get_data(surface_.get());
    auto& pixel = reinterpret_cast<uint32_t*>(data + std::ptrdiff_t{y} * stride)[x];
    const uint8_t channels[3] = {color.r, color.g, color.b};
    uint32_t mixed = 0;
    for (int c = 0; c < 3; ++c) {
        const auto old = static_cast<float>(pixel >> kShifts[c] & 0xff);
        const float value = old + share * (static_cast<float>(channels[c]) - old);
        mixed |= static_cast<uint32_t>(std::lround(value)) << kShifts[c];
    }
    pixel = mixed;
    cairo_surface_mark_dirty(surface_.get());
}

void Canvas::fill(int x, int y, int width, int height, Color color) {
    use(color);
    cairo_rectangle(cairo_.get(), x, y, width, height);
    cairo_fill(cairo_.get());
}

void Canvas::line(double x0, double y0, double x1, double y1, Color color, int thickness) {
    if (!drawable(x0, y0) || !drawable(x1, y1)) return;
    use(color);
    cairo_set_line_width(cairo_.get(), thickness);
    cairo_move_to(cairo_.get(), x0 + 0.5, y0 + 0.5);
    cairo_line_to(cairo_.get(), x1 + 0.5, y1 + 0.5);
    cairo_stroke(cairo_.get());
}

void Canvas::dot(double x, double y, int radius, Color color) {
    if (!drawable(x, y)) return;
    const auto disc = [&](int reach, Color paint) {
        use(paint);
        cairo_arc(cairo_.get(), x + 0.5, y + 0.5, reach + 0.5, 0, 2 * std::numbers::pi);
        cairo_fill(cairo_.get());
    };
    disc(radius + 1, {0, 0, 0});
    disc(radius, color);
}

int Canvas::text(int x, int y, const std::string& text, Color color) {
    use(color);
    cairo_text_extents_t extents;
    cairo_text_extents(cairo_.get(), text.c_str(), &extents);
    cairo_move_to(cairo_.get(), x, y + kTextHeight - 2);
    cairo_show_text(cairo_.get(), text.c_str());
    return static_cast<int>(std::ceil(extents.x_advance));
}

}  // namespace zorv::tools
