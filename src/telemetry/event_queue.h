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

    /// False when it is empty, or the oldest event is still being written.
    bool pop(Event& event) {
        Cell& cell = cells_[head_ % kCells];
        if (cell.turn.load(std::memory_order_acquire) != head_ + 1) return false;
        event = cell.event;
        cell.turn.store(head_ + kCells, std::memory_order_release);
        ++head_;
        return true;
    }

  private:
    struct Cell {
        std::atomic<std::size_t> turn;
        Event event;
    };

    std::array<Cell, kCells> cells_;
    std::atomic<std::size_t> tail_{0};
    std::size_t head_ = 0;  // the reader's
};

}  // namespace zorv::telemetry
