// Where the library's own lines go: standard error, or a function of the host's.
#pragma once

namespace zorv {

/// Writes one line, given as for printf and without a line end. Any thread; never throws.
[[gnu::format(printf, 1, 2)]] void logLine(const char* format, ...) noexcept;

/// From now on lines go to `line`, to standard error when it is null. Returns when no call of the
/// previous function runs any more; a line that is written meanwhile may still go to that one.
void setLog(void (*line)(void* user, const char* text), void* user);

}  // namespace zorv
