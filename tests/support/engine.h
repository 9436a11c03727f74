// The two families that turn pushed speech into keypoint frames, as one.
#pragma once

#include <zorv_core.hpp>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/expression_dir.h"
#include "support/scoped_env.h"
#include "support/test_motion.h"

namespace zorv::test {

constexpr std::size_t kSetFloats = 63;

/// Frames as pulled, one after the other.
struct Frames {
    std::vector<int> index;
    std::vector<float> source, driving;

    std::size_t size() const { return index.size(); }
    void resize(std::size_t count) {
        index.resize(count);
        source.resize(count * kSetFloats);
        driving.resize(count * kSetFloats);
    }
    bool operator==(const Frames&) const = default;
};

class Engine {
  public:
    virtual ~Engine() = default;
    virtual int nt() = 0;
    virtual void reset(int frame, int direction, int loop) = 0;
    virtual void setEager(int value) = 0;
    virtual int push(const float* samples, int n) = 0;
    virtual void finish() = 0;
    virtual int total() = 0;
    virtual int avail() = 0;
    virtual int pull(int* index, float* source, float* driving, int max) = 0;
    virtual std::string error() = 0;

    /// From a copy of its own size, so that reading beyond it shows.
    int push(std::vector<float> audio) {
        const float none = 0;
        return push(audio.empty() ? &none : audio.data(), static_cast<int>(audio.size()));
    }
    /// Appends what one call gives.
    int pull(Frames& frames, int max) {
        const std::size_t before = frames.size();
        frames.resize(before + static_cast<std::size_t>(std::max(max, 0)));
        const int count =
            pull(frames.index.data() + before, frames.source.data() + before * kSetFloats,
                 frames.driving.data() + before * kSetFloats, max);
        frames.resize(before + static_cast<std::size_t>(std::clamp(count, 0, std::max(max, 0))));
        return count;
    }
    void drain(Frames& frames, int max = 64) {
        while (avail() > 0 && pull(frames, max) > 0) {
        }
    }
    /// A stream of its own.
    Frames wholeClip(const std::vector<float>& audio, int frame = 0, int direction = 1,
                     int loop = 0) {
        reset(frame, direction, loop);
        push(audio);
        finish();
        Frames frames;
        drain(frames);
        return frames;
    }
};

using EnginePtr = std::unique_ptr<Engine>;

template <class Family>
class FamilyEngine final : public Engine {
  public:
    using Handle = typename Family::Handle;

    /// Takes the handle over; a null one throws the family's text.
    explicit FamilyEngine(Handle* handle) : handle_(handle, Family::destroy) {
        if (!handle) throw std::runtime_error(Family::lastError());
    }
    Handle* get() const { return handle_.get(); }

    int nt() override { return Family::nt(get()); }
    void reset(int frame, int direction, int loop) override {
        Family::reset(get(), frame, direction, loop);
    }
    void setEager(int value) override { Family::setEager(get(), value); }
    using Engine::push, Engine::pull;
    int push(const float* samples, int n) override { return Family::push(get(), samples, n); }
    void finish() override { Family::finish(get()); }
    int total() override { return Family::total(get()); }
    int avail() override { return Family::avail(get()); }
    int pull(int* index, float* source, float* driving, int max) override {
        return Family::pull(get(), index, source, driving, max);
    }
    std::string error() override { return Family::lastError(); }

  private:
    std::unique_ptr<Handle, void (*)(Handle*)> handle_;
};

using MotionEngine = FamilyEngine<MotionFamily>;
using ExpressionEngine = FamilyEngine<ExpressionFamily>;

inline std::unique_ptr<MotionEngine> openMotion(const TestMotion& files) {
    return std::make_unique<MotionEngine>(zorv_motion_create(files.dir().c_str(), 1, nullptr));
}

/// `right`: frames of audio that features wait for. All engines of a process use the same encoder,
/// trunk and head.
inline std::unique_ptr<ExpressionEngine> openExpression(const ExpressionDir& files, int right = 12,
                                                        bool shortWindow = false) {
    const ScopedEnv encoder("W2V_ONNX", modelFile("a2x_w2v"));
    const ScopedEnv trunk("ZORV_A2X_W2V_WIN_ONNX", modelFile("a2x_trunk"));
    const ScopedEnv head("ZORV_A2X_W2V_HEAD_ONNX", modelFile("a2x_head"));
    const ScopedEnv look("ZORV_A2X_W2V_RIGHT", std::to_string(right));
    const ScopedEnv win("ZORV_A2X_W2V_WIN", shortWindow ? "1" : nullptr);
    return std::make_unique<ExpressionEngine>(zorv_a2x_create(files.path().c_str(), 1));
}

}  // namespace zorv::test
