// One interface to the engines that turn speech into keypoint frames.
#pragma once

#include <array>
#include <memory>
#include <stdexcept>

#include "bundle/zorv_bundle.h"
#include "utt/utt_options.h"

namespace zorv {

/// A run of keypoint frames on their way from the source to the renderer.
struct MotionFrames {
    static constexpr int kMax = 32;

    int count = 0;
    std::array<int, kMax> index{};  ///< bundle frame of each
    std::array<float, kMax * kKeypointFloats> source{};
    std::array<float, kMax * kKeypointFloats> driving{};
};

/// Speech in pieces becomes keypoint frames. One thread at a time. A call that fails leaves its
/// text in error() and yields nothing.
class MotionSource {
  public:
    virtual ~MotionSource() = default;

    virtual int nt() = 0;  ///< frames of the bundle that the source was made for
    virtual void reset(int startFrame, int direction, int loop) = 0;
    virtual void setEager(int value) = 0;
    virtual void push(const float* samples, int n) = 0;
    virtual void finish() = 0;
    /// Samples from a frame's own first one until it can be pulled.
    virtual int lookAhead() = 0;
    virtual int avail() = 0;
    virtual int pull(int* index, float* source, float* driving, int max) = 0;

    /// Of the calling thread's calls since clearError(); "" when none failed.
    virtual const char* error() = 0;
    virtual void clearError() = 0;
    /// Whether error() tells that this stream has come to its end: its frames are all handed out,
    /// audio that is left is not heard.
    virtual bool atStreamsEnd() { return false; }
};

/// A failure that the source's own family has counted already.
struct SourceFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Opens the engine that options.motionDir is made for. Throws SourceFailure with its text.
std::unique_ptr<MotionSource> openMotionSource(const UttOptions& options);

}  // namespace zorv
