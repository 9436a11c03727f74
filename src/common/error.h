// Last-error strings of the C interface and the guard around every C function.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace zorv {

/// Told of every text that becomes a last error for the first time; null for none.
inline std::atomic<void (*)(const char* text)> failureObserver{nullptr};

/// The end that a caller asked for: it has a text like any other, but counts as no failure.
class Cancelled : public std::runtime_error {
  public:
    Cancelled() : std::runtime_error("cancelled") {}
};

/// A text of the model runtime, which may have several lines, as one.
inline std::string oneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

/// A text of one line that can always be set: without memory for all of it, it is cut.
class ErrorText {
  public:
    const char* get() const { return cut_[0] ? cut_.data() : whole_.c_str(); }
    void clear() noexcept {
        cut_[0] = 0;
        whole_.clear();
    }
    /// Clears it and keeps no memory.
    void release() noexcept {
        clear();
        std::string().swap(whole_);
    }
    /// The parts, one after the other; they may lie in this text.
    void set(std::initializer_list<std::string_view> parts) noexcept {
        try {
            std::string text;
            for (const std::string_view part : parts) text += part;
            whole_ = oneLine(std::move(text));
            cut_[0] = 0;
        } catch (const std::exception&) {
            std::array<char, 256> text;
            std::size_t size = 0;
            for (const std::string_view part : parts) {
                size += part.copy(text.data() + size, text.size() - 1 - size);
            }
            text[size] = 0;
            std::replace(text.begin(), text.end(), '\n', ' ');
            cut_ = text;
        }
    }

  private:
    std::string whole_;
    std::array<char, 256> cut_{};  ///< empty unless memory ran out
};

/// A text in memory of its own: setting it cannot fail, what does not fit is cut.
class FailureText {
  public:
    void set(const char* text) noexcept { std::snprintf(text_.data(), text_.size(), "%s", text); }
    void clear() noexcept { text_[0] = 0; }
    bool empty() const { return text_[0] == 0; }
    const char* get() const { return text_.data(); }

  private:
    std::array<char, 1024> text_{};
};

/// One last-error string per thread for one family of C functions (`Family` is only a tag).
template <class Family>
class LastError {
  public:
    static const char* get() { return text().get(); }
    static void clear() { text().clear(); }
    static void set(std::string_view message) noexcept { set({message}); }
    /// The text of a failure that was observed when it happened: it counts once.
    static void repeat(std::string_view message) noexcept { text().set({message}); }
    static void set(const char* function, const std::exception& error) noexcept {
        set({function, ": ", error.what()}, dynamic_cast<const Cancelled*>(&error) == nullptr);
    }

  private:
    static void set(std::initializer_list<std::string_view> parts, bool counts = true) noexcept {
        text().set(parts);
        if (!counts) return;
        if (const auto observe = failureObserver.load(std::memory_order_relaxed)) {
            observe(text().get());
        }
    }

    /// When a thread ends, its text frees its memory but can still be set and read: destructors
    /// that run later, those of static objects at exit among them, may make calls.
    struct Text {
        Text() : value() {}
        ~Text() { value.release(); }
        union {
            ErrorText value;
        };
    };

    static ErrorText& text() {
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

/// The same for functions that return nothing.
template <class Errors, class Body>
void guarded(const char* function, Body&& body) {
    guarded<Errors>(function, 0, [&] {
        body();
        return 0;
    });
}

}  // namespace zorv
