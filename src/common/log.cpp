#include "common/log.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "common/mutex.h"

namespace zorv {
namespace {

struct Log {
    Mutex setting;  ///< one change at a time; held while calls of the former function end
    Mutex mutex;
    void (*line)(void* user, const char* text) ZORV_GUARDED_BY(mutex) = nullptr;
    void* user ZORV_GUARDED_BY(mutex) = nullptr;
    unsigned changes ZORV_GUARDED_BY(mutex) = 0;
    /// Running calls of the host's function, by the parity of the changes made before them.
    std::array<std::atomic<int>, 2> running{};
};

/// Never destroyed: other objects' destructors may still have something to say.
Log& log() {
    alignas(Log) static std::array<std::byte, sizeof(Log)> place;
    static Log& log = *::new (place.data()) Log;
    return log;
}

void hand(const char* text) {
    Log& to = log();
    void (*line)(void*, const char*) = nullptr;
    void* user = nullptr;
    std::atomic<int>* running = nullptr;
    {
        const MutexLock lock(to.mutex);
        line = to.line;
        user = to.user;
        running = &to.running[to.changes % 2];
        ++*running;
    }
    if (line) {
        line(user, text);
    } else {
        std::fprintf(stderr, "%s\n", text);
    }
    if (--*running == 0) running->notify_all();
}

}  // namespace

void logLine(const char* format, ...) noexcept {
    std::array<char, 512> brief;
    va_list arguments;
    va_start(arguments, format);
    const int size = std::vsnprintf(brief.data(), brief.size(), format, arguments);
    va_end(arguments);
    const char* text = brief.data();
    std::string whole;
    if (size >= static_cast<int>(brief.size())) {
        try {
            whole.resize(static_cast<std::size_t>(size));
            va_start(arguments, format);
            std::vsnprintf(whole.data(), whole.size() + 1, format, arguments);
            va_end(arguments);
            text = whole.c_str();
        } catch (const std::exception&) {  // without memory the line is cut
        }
    }
    if (size >= 0) hand(text);
}

void setLog(void (*line)(void* user, const char* text), void* user) {
    Log& log = zorv::log();
    const MutexLock turn(log.setting);
    std::atomic<int>* former = nullptr;
    {
        const MutexLock lock(log.mutex);
        former = &log.running[log.changes++ % 2];
        log.line = line;
        log.user = user;
    }
    while (const int running = *former) former->wait(running);
}

}  // namespace zorv
