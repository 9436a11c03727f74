// A small RGB picture to draw on, by cairo.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zorv::tools {

struct Color {
    uint8_t r, g, b;
};

/// Whatever lies outside the picture, or outside the clip rectangle, is not drawn.
class Canvas {
  public:
    Canvas(int width, int height, Color background);

    int width() const { return cairo_image_surface_get_width(surface_.get()); }
    int height() const { return cairo_image_surface_get_height(surface_.get()); }
    /// height x width x 3 bytes.
    std::vector<uint8_t> rgb() const;

    /// Limits lines, dots and text to a rectangle.
    void clip(int x, int y, int width, int height);
    void unclip() { cairo_reset_clip(cairo_.get()); }

    /// Mixes `share` (0 .. 1) of a colour into a pixel of the picture.
    void blend(int x, int y, Color color, float share = 1);
    void fill(int x, int y, int width, int height, Color color);
    /// A line between pixel centres, `thickness` pixels wide.
    void line(double x0, double y0, double x1, double y1, Color color, int thickness);
    void dot(double x, double y, int radius, Color color);
    /// (x, y) is the top left; returns how wide the text is.
    int text(int x, int y, const std::string& text, Color color);

    static constexpr int kTextHeight = 12;

  private:
    struct Release {
        void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
        void operator()(cairo_t* cairo) const { cairo_destroy(cairo); }
    };

    void use(Color color);

    std::unique_ptr<cairo_surface_t, Release> surface_;
    std::unique_ptr<cairo_t, Release> cairo_;
};

}  // namespace zorv::tools
