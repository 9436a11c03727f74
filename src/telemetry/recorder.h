// Everything recorded since the last batch, and the batch that waits for the host.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/mutex.h"
#include "telemetry/store.h"

namespace zorv::telemetry {

/// Records into one of two stores under a lock that is held for that alone. Closing a batch swaps
/// the stores; its text is written from the other one, holding up no recording. When there is no
/// memory for the text, that store is kept for the next attempt: nothing is lost.
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
    void close() ZORV_REQUIRES(reading_);

    std::array<Store, 2> stores_;  // reached through the pointers below

    Mutex reading_ ZORV_ACQUIRED_BEFORE(recording_);
    std::string batch_ ZORV_GUARDED_BY(reading_);
    Store* closed_ ZORV_GUARDED_BY(reading_) ZORV_TARGET_GUARDED_BY(reading_) = &stores_[1];

    Mutex recording_;
    Store* open_ ZORV_GUARDED_BY(recording_) ZORV_TARGET_GUARDED_BY(recording_) = stores_.data();
};

/// The process's own.
Recorder& recorder();

}  // namespace zorv::telemetry
