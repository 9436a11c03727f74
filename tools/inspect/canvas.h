// A small RGB picture to draw on: lines, dots, capital letters.
#pragma once

#include <cstdint>
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

    int width() const { return width_; }
    int height() const { return height_; }
    const uint8_t* rgb() const { return pixels_.data(); }

    /// Limits drawing to a rectangle.
    void clip(int x, int y, int width, int height);
    void unclip() { clip(0, 0, width_, height_); }

    /// Mixes `share` (0 .. 1) of a colour into a pixel.
    void blend(int x, int y, Color color, float share = 1);
    void fill(int x, int y, int width, int height, Color color);
    /// A line between pixel centres, `thickness` pixels wide.
    void line(double x0, double y0, double x1, double y1, Color color, int thickness);
    void dot(double x, double y, int radius, Color color);
    /// Letters are drawn as capitals, 3 x 5 blocks of kBlock pixels each; (x, y) is the top left.
    void text(int x, int y, const std::string& text, Color color);

    static constexpr int kBlock = 2, kLetterWidth = 4 * kBlock, kLetterHeight = 5 * kBlock;

  private:
    int width_, height_;
    int left_ = 0, top_ = 0, right_, bottom_;
    std::vector<uint8_t> pixels_;
};

}  // namespace zorv::tools
