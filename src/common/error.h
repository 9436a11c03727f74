// Last-error strings of the C interface and the guard around every C function.
#pragma once

#include <atomic>
#include <exception>
#include <string>

namespace zorv {

/// Told of every text that becomes a last error; null for none.
inline std::atomic<void (*)(const char* text)> failureObserver{nullptr};

/// One last-error string per thread for one family of C functions (`Family` is only a tag).
template <class Family>
class LastError {
  public:
    static const char* get() { return text().c_str(); }
    static void clear() { text().clear(); }
    static void set(std::string message) {
        text() = std::move(message);
        if (const auto observe = failureObserver.load(std::memory_order_relaxed)) {
            observe(text().c_str());
        }
    }
    static void set(const char* function, const std::exception& error) {
        set(std::string(function) + ": " + error.what());
    }

  private:
    /// When a thread ends, its text lets its memory go but stays a string: destructors that run
    /// later, those of static objects at exit among them, may still make calls.
    struct Text {
        Text() : value() {}
        ~Text() { std::string().swap(value); }
        union {
            std::string value;
        };
    };

    static std::string& text() {
        thread_local Text text;
        return text.value;
    }
};

/// Runs `body`; a standard exception becomes "function: text" in `Errors` and `failure` is
/// returned. Exceptions of other kinds pass through to the host.
template <class Errors, class Result, class Body>
Result guarded(const char* function, Result failure, Body&& body) {
    try {
        return body();
    } catch (const std::exception& error) {
        Errors::set(function, error);
        return failure;
    }
}

}  // namespace zorv
