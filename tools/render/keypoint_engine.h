// Audio engines that hand out keypoints, and what renders their frames.
//
// The library's families of this kind have the same functions, so an engine is a record of one
// family's functions and a line in engines.cpp.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "clip_renderer.h"
#include "sources.h"

namespace zorv::tools {

class KeypointEngine {
  public:
    virtual ~KeypointEngine() = default;
    /// Target frames of the subject that the engine's files were prepared for.
    virtual int targetFrames() const = 0;
    /// Takes more speech, mono at 16,000 Hz; false on failure.
    virtual bool push(const float* samples, int count) = 0;
    /// No more speech will come; false on failure.
    virtual bool finish() = 0;
    /// Fills `frames` from its start with what is ready now and returns how many those are.
    virtual int pull(driver::KeypointFrames& frames) = 0;
    /// Why the last call failed, or "".
    virtual std::string error() const = 0;
};

/// Family gives a Handle and static functions destroy, nt, push, finish, avail, pull, reset,
/// last_error of one of the library's families. Frames walk the target frames to and fro.
template <class Family>
class FamilyEngine : public KeypointEngine {
  public:
    using Handle = typename Family::Handle;

    /// Takes over a handle that is not null.
    explicit FamilyEngine(Handle* handle) : handle_(handle) { Family::reset(handle, 0, 1, 0); }

    int targetFrames() const override { return Family::nt(handle_.get()); }
    bool push(const float* samples, int count) override {
        return Family::push(handle_.get(), samples, count) == 1;
    }
    bool finish() override {
        Family::finish(handle_.get());
        return error().empty();
    }
    int pull(driver::KeypointFrames& frames) override {
        if (Family::avail(handle_.get()) < 1) return 0;
        return Family::pull(handle_.get(), frames.target.data(), frames.source.data(),
                            frames.driving.data(), driver::KeypointFrames::kCapacity);
    }
    std::string error() const override { return Family::lastError(); }

  private:
    struct Destroy {
        void operator()(Handle* handle) const { Family::destroy(handle); }
    };
    std::unique_ptr<Handle, Destroy> handle_;
};

/// Renders the frames of an engine with the bundle's renderer "render".
std::unique_ptr<ClipRenderer> openKeypointRenderer(const RenderOptions& options,
                                                   std::unique_ptr<KeypointEngine> engine);

}  // namespace zorv::tools
