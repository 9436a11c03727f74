// Events on their way from many threads to one reader.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "telemetry/instruments.h"

namespace zorv::telemetry {

struct Event {
    std::int64_t unixMs = 0;
    ShortText<96> name;
    ShortText<256> text;
};

/// A bounded queue after D. Vyukov: every cell carries the turn in which it may be written (its
/// place) or read (its place + 1), so writers claim places with one atomic step and wait for
/// nobody. One reader at a time.
class EventQueue {
  public:
    static constexpr std::size_t kCells = 256;

    EventQueue() {
        for (std::size_t i = 0; i < kCells; ++i) cells_[i].turn = i;
    }

    /// False when it is full.
    template <class Fill>
    bool push(Fill&& fill) {
        std::size_t place = tail_.load(std::memory_order_relaxed);
        for (;;) {
            Cell& cell = cells_[place % kCells];
            const std::size_t turn = cell.turn.load(std::memory_order_acquire);
            if (turn == place) {
                if (tail_.compare_exchange_weak(place, place + 1, std::memory_order_relaxed)) {
                    fill(cell.event);
                    cell.turn.store(place + 1, std::memory_order_release);
                    return true;
                }
            } else if (turn < place) {
                return false;
            } else {
                place = tail_.load(std::memory_order_relaxed);
            }
        }
    }

    // For the reader:

    /// Events that can be read, those behind one that is still being written left out.
    std::size_t readable() const {
        std::size_t n = 0;
        while (n < kCells && at(n).turn.load(std::memory_order_acquire) == head_ + n + 1) ++n;
        return n;
    }
    /// The i-th oldest. REQUIRES: i < readable().
    const Event& peek(std::size_t i) const { return at(i).event; }
    /// Lets the n oldest go. REQUIRES: n <= readable().
    void drop(std::size_t n) {
        for (; n > 0; --n, ++head_) {
            cells_[head_ % kCells].turn.store(head_ + kCells, std::memory_order_release);
        }
    }

  private:
    struct Cell {
        std::atomic<std::size_t> turn;
        Event event;
    };
    const Cell& at(std::size_t i) const { return cells_[(head_ + i) % kCells]; }

    std::array<Cell, kCells> cells_;
    std::atomic<std::size_t> tail_{0};
    std::size_t head_ = 0;  // the reader's
};

}  // namespace zorv::telemetry
