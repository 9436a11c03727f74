#include "canvas.h"

#include <algorithm>
#include <cmath>

namespace zorv::tools {
namespace {

// Rows from top to bottom, three bits each, hence one octal digit per row.
constexpr uint16_t kLetters[26] = {025755, 065656, 034443, 065556, 074647, 074644, 034553,
                                   055755, 072227, 011152, 055655, 044447, 057755, 065555,
                                   025552, 065644, 025573, 065655, 034216, 072222, 055557,
                                   055552, 055775, 055255, 055222, 071247};
constexpr uint16_t kDigits[10] = {075557, 026227, 071747, 071717, 055711,
                                  074717, 074757, 071222, 075757, 075717};

uint16_t glyph(char c) {
    if (c >= 'a' && c <= 'z') return kLetters[c - 'a'];
    if (c >= 'A' && c <= 'Z') return kLetters[c - 'A'];
    if (c >= '0' && c <= '9') return kDigits[c - '0'];
    switch (c) {
        case ' ':
            return 0;
        case '.':
            return 000002;
        case ',':
            return 000024;
        case ':':
            return 002020;
        case '-':
            return 000700;
        case '_':
            return 000007;
        case '/':
            return 011244;
        case '(':
            return 024442;
        case ')':
            return 021112;
        default:
            return 077777;
    }
}

}  // namespace

Canvas::Canvas(int width, int height, Color background)
    : width_(width), height_(height), right_(width), bottom_(height) {
    pixels_.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    fill(0, 0, width, height, background);
}

void Canvas::clip(int x, int y, int width, int height) {
    left_ = std::max(x, 0), top_ = std::max(y, 0);
    right_ = std::min(x + width, width_), bottom_ = std::min(y + height, height_);
}

void Canvas::blend(int x, int y, Color color, float share) {
    if (x < left_ || x >= right_ || y < top_ || y >= bottom_) return;
    uint8_t* pixel =
        pixels_.data() +
        (static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x)) * 3;
    const uint8_t channels[3] = {color.r, color.g, color.b};
    for (int c = 0; c < 3; ++c) {
        const float old = pixel[c], full = channels[c];
        pixel[c] = static_cast<uint8_t>(std::lround(old + share * (full - old)));
    }
}

void Canvas::fill(int x, int y, int width, int height, Color color) {
    for (int row = std::max(y, top_); row < std::min(y + height, bottom_); ++row) {
        for (int column = x; column < x + width; ++column) blend(column, row, color);
    }
}

void Canvas::line(double x0, double y0, double x1, double y1, Color color, int thickness) {
    // Far ends are cut off: they cannot be seen and would take too long.
    const double reach = 4.0 * (width_ + height_);
    for (const double end : {x0, y0, x1, y1}) {
        if (!(std::abs(end) < reach)) return;
    }
    const bool steep = std::abs(y1 - y0) > std::abs(x1 - x0);
    const int steps =
        std::max(1, static_cast<int>(std::ceil(std::max(std::abs(x1 - x0), std::abs(y1 - y0)))));
    for (int i = 0; i <= steps; ++i) {
        const double t = static_cast<double>(i) / steps;
        const int x = static_cast<int>(std::lround(x0 + t * (x1 - x0)));
        const int y = static_cast<int>(std::lround(y0 + t * (y1 - y0)));
        for (int w = -(thickness / 2); w < thickness - thickness / 2; ++w) {
            blend(steep ? x + w : x, steep ? y : y + w, color);
        }
    }
}

void Canvas::dot(double x, double y, int radius, Color color) {
    if (!(std::abs(x) < 1e6) || !(std::abs(y) < 1e6)) return;
    const int cx = static_cast<int>(std::lround(x)), cy = static_cast<int>(std::lround(y));
    constexpr Color kEdge = {0, 0, 0};
    for (int dy = -radius - 1; dy <= radius + 1; ++dy) {
        for (int dx = -radius - 1; dx <= radius + 1; ++dx) {
            const double distance = std::hypot(dx, dy);
            if (distance <= radius + 0.3) {
                blend(cx + dx, cy + dy, color);
            } else if (distance <= radius + 1.3) {
                blend(cx + dx, cy + dy, kEdge, 0.7f);
            }
        }
    }
}

void Canvas::text(int x, int y, const std::string& text, Color color) {
    for (const char c : text) {
        const uint16_t bits = glyph(c);
        for (int bit = 0; bit < 15; ++bit) {
            if (bits >> (14 - bit) & 1) {
                fill(x + bit % 3 * kBlock, y + bit / 3 * kBlock, kBlock, kBlock, color);
            }
        }
        x += kLetterWidth;
    }
}

}  // namespace zorv::tools
