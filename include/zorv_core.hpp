// zorv_core for C++ hosts, from C++17 on: owners of the C interface's handles, one record for the
// two engines that turn pushed speech into keypoint frames, exceptions in place of last errors.
// What each function does, and from which threads it may be called, stands in zorv_core.h.
#ifndef ZORV_CORE_HPP
#define ZORV_CORE_HPP

#include <zorv_core.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zorv {

/// A call of the library failed; the text is its last error.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Destroys a handle. With it std::unique_ptr is a move-only owner.
template <auto destroy>
struct Destroy {
    template <class Handle>
    void operator()(Handle* handle) const noexcept {
        destroy(handle);
    }
};

using ContextPtr = std::unique_ptr<zorv_ctx, Destroy<zorv_destroy>>;
using DeltaPtr = std::unique_ptr<zorv_fca, Destroy<zorv_fca_destroy>>;
using StreamPtr = std::unique_ptr<zorv_stream, Destroy<zorv_stream_destroy>>;
/// Goes before the context that it was created on.
using UtterancePtr = std::unique_ptr<zorv_utt, Destroy<zorv_utt_destroy>>;

/// Owns a handle that was just created. Throws Error with `lastError` when there is none.
template <class Owner>
Owner owned(typename Owner::pointer handle, const char* (*lastError)()) {
    if (!handle) throw Error(lastError());
    return Owner(handle);
}

/// As zorv_create; throws Error.
inline ContextPtr openContext(const std::string& bundle, const std::string& model = "render",
                              int threads = 0, const std::string& provider = "") {
    return owned<ContextPtr>(zorv_create(bundle.c_str(), model.c_str(), threads, provider.c_str()),
                             zorv_last_error);
}

/// As zorv_stream_create; throws Error.
inline StreamPtr openStream(const std::string& bundle, const std::string& encoder, int threads = 0,
                            int skipFrames = 0, float gain = 1) {
    return owned<StreamPtr>(
        zorv_stream_create(bundle.c_str(), encoder.c_str(), threads, skipFrames, gain),
        zorv_stream_last_error);
}

/// As zorv_fca_create; throws Error.
inline DeltaPtr openDelta(const std::string& encoder, const std::string& model, int threads = 0) {
    return owned<DeltaPtr>(zorv_fca_create(encoder.c_str(), model.c_str(), threads),
                           zorv_fca_last_error);
}

/// As zorv_utt_create; throws Error.
inline UtterancePtr openUtterance(const ContextPtr& context, const zorv_utt_opts& options) {
    return owned<UtterancePtr>(zorv_utt_create(context.get(), &options), zorv_utt_last_error);
}

constexpr std::size_t kKeypointSetFloats = 63;  ///< 21 keypoints x (x, y, z)

/// Room for keypoint frames on their way out of an engine.
struct KeypointFrames {
    explicit KeypointFrames(std::size_t capacity = 32)
        : target(capacity),
          source(capacity * kKeypointSetFloats),
          driving(capacity * kKeypointSetFloats) {}

    int capacity() const { return static_cast<int>(target.size()); }

    std::vector<int> target;             ///< index of the target frame, per frame
    std::vector<float> source, driving;  ///< kKeypointSetFloats per frame
};

/// The motion engine's functions.
struct MotionFamily {
    using Handle = zorv_motion;
    static constexpr auto destroy = zorv_motion_destroy;
    static constexpr auto nt = zorv_motion_nt;
    static constexpr auto push = zorv_motion_push;
    static constexpr auto finish = zorv_motion_finish;
    static constexpr auto total = zorv_motion_total;
    static constexpr auto lookAhead = zorv_motion_look_ahead;
    static constexpr auto avail = zorv_motion_avail;
    static constexpr auto pull = zorv_motion_pull;
    static constexpr auto reset = zorv_motion_reset;
    static constexpr auto setEager = zorv_motion_set_eager;
    static constexpr auto lastError = zorv_motion_last_error;
};

/// The expression engine's functions.
struct ExpressionFamily {
    using Handle = zorv_a2x;
    static constexpr auto destroy = zorv_a2x_destroy;
    static constexpr auto nt = zorv_a2x_nt;
    static constexpr auto push = zorv_a2x_push;
    static constexpr auto finish = zorv_a2x_finish;
    static constexpr auto total = zorv_a2x_total;
    static constexpr auto lookAhead = zorv_a2x_look_ahead;
    static constexpr auto avail = zorv_a2x_avail;
    static constexpr auto pull = zorv_a2x_pull;
    static constexpr auto reset = zorv_a2x_reset;
    static constexpr auto setEager = zorv_a2x_set_eager;
    static constexpr auto lastError = zorv_a2x_last_error;
};

/// An engine that speech is pushed into and keypoint frames are pulled out of; Family gives its
/// functions. Move-only. One thread at a time; what fails throws Error.
template <class Family>
class KeypointEngine {
  public:
    using Handle = typename Family::Handle;

    /// Takes over a handle that was just created.
    explicit KeypointEngine(Handle* handle) : handle_(handle) {
        if (!handle) throw Error(Family::lastError());
    }

    Handle* get() const { return handle_.get(); }

    int targetFrames() const { return Family::nt(get()); }
    void reset(int frame = 0, int direction = 1, int loop = 0) {
        Family::reset(get(), frame, direction, loop);
    }
    void setEager(int value) { Family::setEager(get(), value); }
    void push(const float* samples, int count) {
        if (Family::push(get(), samples, count) != 1) throw Error(Family::lastError());
    }
    void finish() {
        Family::finish(get());
        check();
    }
    /// Frames that can be pulled now.
    int avail() {
        const int ready = Family::avail(get());
        if (ready == 0) check();
        return ready;
    }
    /// Fills `frames` from its start and returns how many there are; 0: none is ready.
    int pull(KeypointFrames& frames) {
        if (avail() == 0) return 0;
        const int count = Family::pull(get(), frames.target.data(), frames.source.data(),
                                       frames.driving.data(), frames.capacity());
        if (count == 0) check();
        return count;
    }

  private:
    struct Close {
        void operator()(Handle* handle) const noexcept { Family::destroy(handle); }
    };
    static void check() {
        if (const std::string text = Family::lastError(); !text.empty()) throw Error(text);
    }

    std::unique_ptr<Handle, Close> handle_;
};

using Motion = KeypointEngine<MotionFamily>;
using Expression = KeypointEngine<ExpressionFamily>;

/// As zorv_motion_create; throws Error.
inline Motion openMotion(const std::string& dir, int threads = 0,
                         const std::string& provider = "") {
    return Motion(zorv_motion_create(dir.c_str(), threads, provider.c_str()));
}

/// As zorv_a2x_create; throws Error.
inline Expression openExpression(const std::string& dir, int threads = 0) {
    return Expression(zorv_a2x_create(dir.c_str(), threads));
}

}  // namespace zorv

#endif
