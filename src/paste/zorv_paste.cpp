#include "paste/zorv_paste.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <thread>

#include "common/log.h"
#include "common/parallel.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

/// Largest side of a crop with the border that the sharpening kernel adds. A wider kernel comes
/// from a damaged manifest, and one paste with it would take minutes.
constexpr std::uint64_t kMaxPadded = 1 << 14;
/// Reach of the widest kernel around the pixel that a position falls into.
constexpr int kReach = 4;
/// Columns are sharpened in whole blocks of vectors.
constexpr int kBlock = 32;
/// Crop rows from the one that is blurred to the one that is fetched.
constexpr int kAhead = 4;

/// Read once: `ZORV_PASTE_THREADS`, at most one per processor. Without it a composite stays on
/// the caller's thread: it takes a few milliseconds, starting threads for each pass cost as much
/// as a second one saved wherever it was measured, and the other processors render meanwhile.
int workerCount() {
    static const int count = [] {
        long wanted = 1;
        if (const char* text = std::getenv("ZORV_PASTE_THREADS")) {
            wanted = std::max(std::strtol(text, nullptr, 10), 1L);
        }
        const long processors = std::thread::hardware_concurrency();
        if (processors >= 1) wanted = std::min(wanted, processors);
        return static_cast<int>(std::min(wanted, 1024L));
    }();
    return count;
}

PhaseTable resamplingTable() {
    const char* text = std::getenv("ZORV_PASTE_FAST");
    switch (text ? std::strtol(text, nullptr, 10) : 0) {
        case 1:
            return cubicTable();
        case 2:
            return linearTable();
        default:
            return lanczosTable();
    }
}

void warnAboutMetal() {
    const char* text = std::getenv("ZORV_PASTE_METAL");
    if (text && *text && std::strcmp(text, "0") != 0) {
        logLine("[zorv-paste-metal] ZORV_PASTE_METAL ignored (not Apple)");
    }
}

/// Reflection that does not repeat the edge, folded until it is inside [0, side).
int foldIndex(std::int64_t index, int side) {
    if (side == 1) return 0;
    const std::int64_t period = 2 * std::int64_t{side} - 2;
    index = std::abs(index) % period;
    return static_cast<int>(index < side ? index : period - index);
}

std::ptrdiff_t roundUp(std::ptrdiff_t n, std::ptrdiff_t step) {
    return (n + step - 1) / step * step;
}

}  // namespace

void Paste::Span::include(Span other) {
    if (other.empty()) return;
    if (empty()) {
        *this = other;
        return;
    }
    begin = std::min(begin, other.begin);
    end = std::max(end, other.end);
}

Paste::Paste(const std::vector<std::uint8_t>& mask, int side, Unsharp unsharp)
    : Paste(mask, side, unsharp, *chooseKernel(kPasteKernels).entry, workerCount()) {}

Paste::Paste(const std::vector<std::uint8_t>& mask, int side, Unsharp unsharp,
             const PasteKernels& kernels, int workers)
    : side_(side),
      ksize_(unsharp.ksize),
      amount_(unsharp.amount),
      kernels_(kernels),
      workers_(std::max(workers, 1)) {
    const auto wide = static_cast<std::uint64_t>(std::max(side, 0));
    if (side < 0 || mask.size() != wide * wide) throw std::runtime_error("paste: mask size");
    chooseKernels(unsharp);
    // Larger crops are refused before any of these is used.
    if (side_ >= 1 && side_ <= kMaxSide) {
        layPlanes(mask);
        findNeeds(mask);
    }
}

void Paste::chooseKernels(const Unsharp& unsharp) {
    if (ksize_ < 1 || ksize_ % 2 == 0) throw std::runtime_error("paste: ksize must be odd");
    resampling_ = resamplingTable();
    linear_ = linearTable();
    if (const char* text = std::getenv("ZORV_PASTE_KSIZE")) {
        const long k = std::strtol(text, nullptr, 10);
        if (k % 2 != 0 && k >= 3 && k <= ksize_) ksize_ = static_cast<int>(k);
    }
    warnAboutMetal();
    const std::uint64_t padded =
        std::uint64_t{static_cast<unsigned>(ksize_)} + static_cast<unsigned>(side_) - 1;
    if (padded > kMaxPadded) throw std::bad_alloc();
    padded_ = static_cast<int>(padded);
    kernel_ = gaussianKernel(ksize_, unsharp.sigma);
}

void Paste::layPlanes(const std::vector<std::uint8_t>& mask) {
    stride_ = roundUp(kMargin + side_ + kApron + kSlack, kMargin);
    const std::size_t size = static_cast<std::size_t>((side_ + 2 * kApron) * stride_);
    // Planes lie a third of a page apart, modulo pages, so that their rows do not push each other
    // out of the first-level cache.
    planeSize_ = roundUp(static_cast<std::ptrdiff_t>(size), 1024) + 336;
    mask_.assign(size, 0.0f);
    for (int y = 0; y < side_; ++y) {
        for (int x = 0; x < side_; ++x) {
            mask_[static_cast<std::size_t>(origin(y) + x)] = mask[std::size_t{1} * y * side_ + x];
        }
    }
    planes_.assign(3 * static_cast<std::size_t>(planeSize_), 0.0f);
    const int ring = std::min(side_, ksize_);
    const std::ptrdiff_t ringStride = roundUp(side_, kMargin);
    slot_.resize(static_cast<std::size_t>(side_));
    for (int y = 0; y < side_; ++y) slot_[y] = y % ring * ringStride;
    scratch_.resize(static_cast<std::size_t>(workers_));
    for (Scratch& scratch : scratch_) {
        scratch.pad.resize(static_cast<std::size_t>(padded_));
        scratch.blurred.resize(static_cast<std::size_t>(ring * ringStride));
        scratch.taps.resize(static_cast<std::size_t>(ksize_));
    }
    fold_.resize(static_cast<std::size_t>(padded_));
    for (int i = 0; i < padded_; ++i) fold_[i] = foldIndex(i - ksize_ / 2, side_);
}

// A pixel is blended only where one of the four mask values around it is above 0, so what lies
// further from the mask than a kernel reaches is never read.
void Paste::findNeeds(const std::vector<std::uint8_t>& mask) {
    sharpened_.assign(static_cast<std::size_t>(side_), {});
    blurred_.assign(static_cast<std::size_t>(side_), {});
    for (int y = 0; y < side_; ++y) {
        const std::uint8_t* row = mask.data() + std::size_t{1} * y * side_;
        Span span{0, side_};
        while (!span.empty() && row[span.begin] == 0) ++span.begin;
        while (!span.empty() && row[span.end - 1] == 0) --span.end;
        if (span.empty()) continue;
        span = {std::max(span.begin - kReach, 0), span.end + kReach};
        span.begin -= span.begin % kBlock;
        span.end = std::min(static_cast<int>(roundUp(span.end, kBlock)), side_);
        const int last = std::min(y + kReach, side_ - 1);
        for (int near = std::max(y - kReach, 0); near <= last; ++near) {
            sharpened_[near].include(span);
        }
    }
    for (int y = 0; y < side_; ++y) {
        const Span rows = window(y);
        for (int r = rows.begin; r < rows.end; ++r) blurred_[r].include(sharpened_[y]);
    }
}

/// The crop rows that the vertical kernel around `row` reads, reflection included.
Paste::Span Paste::window(int row) const {
    const int half = ksize_ / 2;
    return {std::max(row - half, 0), std::min(row + half, side_ - 1) + 1};
}

template <class Fn>
void Paste::split(std::ptrdiff_t n, const Fn& fn) const {
    parallelRange(n, workers_, fn);
}

Placement Paste::place(const float* M, int W, int H) const {
    Placement where;
    // composite() refuses crops that are too large.
    if (!where.locate(M, side_, W, H) || side_ > kMaxSide || side_ < 1) return where;
    where.cover(kernels_, linear_, mask_.data() + origin(0), stride_, side_,
                [this](std::ptrdiff_t n, const auto& fn) { split(n, fn); });
    return where;
}

void Paste::composite(const float* crop, float scale, const Placement& where, const Backdrop& from,
                      const FrameWriter& out) {
    const telemetry::Stopwatch watch;
    if (!where.located() || side_ < 1) {
        out.frame(from);
        return;
    }
    if (side_ > kMaxSide) throw std::runtime_error("paste: side > 1024");
    const int width = where.area().right - where.area().left;
    for (Scratch& scratch : scratch_) scratch.rows.resize(std::size_t{6} * toCount(width));
    fillPlanes(crop, scale);
    writeRows(where, from, out);
    watch.record({"zorv.composite.duration", "s"});
    telemetry::count({"zorv.frames.composited", "{frame}"});
}

// One split for all three planes: starting threads costs as much as sharpening a third of them.
void Paste::fillPlanes(const float* crop, float scale) {
    const std::ptrdiff_t area = std::ptrdiff_t{1} * side_ * side_;
    std::atomic<std::size_t> next{0};
    split(side_, [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
        Scratch& scratch = scratch_[next++];
        for (int c = 0; c < 3; ++c) {
            unsharpPlane(crop + c * area, scale, plane(c), scratch, static_cast<int>(begin),
                         static_cast<int>(end));
        }
    });
}

/// Rows [begin, end) of one plane.
void Paste::unsharpPlane(const float* source, float scale, float* plane, Scratch& scratch,
                         int begin, int end) {
    int ready = 0;  // rows below this one are blurred, as far as they are still needed
    for (int y = begin; y < end; ++y) {
        const Span span = sharpened_[y];
        if (span.empty()) continue;
        const Span rows = window(y);
        for (ready = std::max(ready, rows.begin); ready < rows.end; ++ready) {
            blurRow(source, scale, ready, scratch);
        }
        const float* blurred = scratch.blurred.data() + span.begin;
        for (int t = 0; t < ksize_; ++t) scratch.taps[t] = blurred + slot_[fold_[y + t]];
        kernels_.sharpenRow(scratch.taps.data(), kernel_.data(), ksize_,
                            source + std::ptrdiff_t{1} * y * side_ + span.begin, scale, amount_,
                            plane + origin(y) + span.begin, span.end - span.begin);
    }
}

void Paste::blurRow(const float* source, float scale, int row, Scratch& scratch) {
    const Span span = blurred_[row];
    if (span.empty()) return;
    const float* values = source + std::ptrdiff_t{1} * row * side_;
    // The crop comes from another engine, so its rows are rarely in a near cache.
    if (row + kAhead < side_) {
        for (int i = span.begin; i < span.end; i += kMargin) {
            __builtin_prefetch(values + kAhead * side_ + i);
        }
    }
    const int last = span.end + ksize_ - 1;
    const int inner = std::min(last, ksize_ / 2 + side_);
    float* pad = scratch.pad.data();
    int i = span.begin;
    for (; i < std::min(last, ksize_ / 2); ++i) pad[i] = scale * values[fold_[i]];
    if (i < inner) kernels_.scaleRow(values + i - ksize_ / 2, scale, pad + i, inner - i);
    for (i = std::max(i, inner); i < last; ++i) pad[i] = scale * values[fold_[i]];
    float* out = scratch.blurred.data() + slot_[row];
    kernels_.blurRow(pad + span.begin, kernel_.data(), ksize_, out + span.begin,
                     span.end - span.begin);
}

void Paste::writeRows(const Placement& where, const Backdrop& from, const FrameWriter& out) {
    const FrameArea& area = where.area();
    const int width = area.right - area.left;
    std::atomic<std::size_t> next{0};
    split((out.height() + 1) / 2, [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
        Scratch& scratch = scratch_[next++];
        std::uint8_t* top = scratch.rows.data();
        std::uint8_t* bottom = top + std::ptrdiff_t{3} * width;
        for (int y = static_cast<int>(2 * begin); y < 2 * end; y += 2) {
            out.rows(y, from);
            if (!where.row(y) && !where.row(y + 1)) continue;
            blendedRow(where, from, y, top);
            if (y + 1 < out.height()) blendedRow(where, from, y + 1, bottom);
            out.rows(area.left, y, width, top, bottom);
        }
    });
}

/// The blended area's part of frame row y.
void Paste::blendedRow(const Placement& where, const Backdrop& from, int y,
                       std::uint8_t* pixels) const {
    const FrameArea& area = where.area();
    std::memcpy(pixels, from.pixel(area.left, y),
                std::size_t{3} * static_cast<unsigned>(area.right - area.left));
    const PlacedRow* row = where.row(y);
    if (!row) return;
    const float* planes[3];
    for (int c = 0; c < 3; ++c) planes[c] = plane(c) + origin(0);
    const std::ptrdiff_t first = where.x0() + row->first - area.left;
    kernels_.blendRow(where.positions(*row), resampling_, planes, stride_, where.levels(*row),
                      pixels + 3 * first);
}

}  // namespace zorv
