// Everything recorded since the last batch, and the batch that waits for the host.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "telemetry/event_queue.h"
#include "telemetry/instruments.h"

namespace zorv::telemetry {

/// Recording is lock-free but for new names; the functions for the host take turns among
/// themselves and hold up no recording. A batch is read, written out and only then settled, that
/// is taken off the records: when there is no memory for it, nothing is lost.
class Recorder {
  public:
    Recorder();

    // Any thread. What does not fit is counted as dropped.

    void count(const Key& key, std::uint64_t n);
    void gauge(const Key& key, double value);
    void duration(const Key& key, double seconds);  ///< negative and not finite ones are dropped
    void event(std::string_view name, std::string_view text);

    // For the host. A batch is closed when it is first asked for and stays as it is until it is
    // taken or cleared; what is recorded meanwhile belongs to the next one.

    /// Bytes of the pending batch with its end mark; 0 when nothing was recorded.
    std::size_t pending();
    /// Writes the pending batch and lets it go; when `capacity` is too small it only returns the
    /// size.
    std::size_t take(char* buffer, std::size_t capacity);
    void clear();

  private:
    struct Reading;

    void close();
    Reading read();
    std::string textOf(const Reading& reading);
    void settle(const Reading& reading);

    InstrumentTable instruments_;
    EventQueue events_;
    std::atomic<bool> any_{false};
    std::atomic<std::uint64_t> droppedMetrics_{0};
    std::atomic<std::uint64_t> droppedEvents_{0};
    std::atomic<std::uint64_t> droppedValues_{0};

    std::mutex reading_;
    std::string batch_;         // guarded by reading_
    std::int64_t startUnixMs_;  // guarded by reading_
};

/// The process's own.
Recorder& recorder();

}  // namespace zorv::telemetry
