#include "support/utt_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "support/threads.h"

namespace zorv::test {
namespace {

constexpr int kFrameSamples = 640;

TestBundleOptions bundleOptions(int nt) {
    TestBundleOptions options;
    options.nt = nt;
    return options;
}

class FakeSource final : public MotionSource {
  public:
    FakeSource(const TestBundle& bundle, SourceScript& script) : script_(script) {
        nt_ = script.nt > 0 ? script.nt : bundle.options().nt;
        for (int frame = 0; frame < nt_; ++frame) rows_.push_back(bundle.baseKeypoints(frame));
    }

    int nt() override { return nt_; }
    void reset(int startFrame, int direction, int loop) override {
        EXPECT_EQ(direction, 1);
        EXPECT_EQ(loop, 1);
        samples_.clear();
        finished_ = false;
        emitted_ = 0;
        cursor_ = startFrame;
        ++script_.resets;
    }
    void setEager(int) override {}
    void push(const float* samples, int n) override {
        EXPECT_FALSE(finished_) << "audio after the end";
        samples_.insert(samples_.end(), samples, samples + n);
    }
    void finish() override { finished_ = true; }
    int lookAhead() override { return (script_.heldBack + 1) * kFrameSamples; }
    int avail() override {
        while (script_.hold) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (script_.failAvail.exchange(false)) {
            error_ = "avail: broken model";
            return 0;
        }
        const int tail = finished_ ? kFrameSamples - 1 : 0;
        const int frames = (static_cast<int>(samples_.size()) + tail) / kFrameSamples;
        return std::max(0, frames - emitted_ - (finished_ ? 0 : script_.heldBack.load()));
    }
    int pull(int* index, float* source, float* driving, int max) override {
        const int n = std::min(max, avail());
        for (int k = 0; k < n; ++k, ++emitted_, cursor_ = (cursor_ + 1) % nt_) {
            index[k] = cursor_;
            const float level = samples_[static_cast<std::size_t>(emitted_) * kFrameSamples];
            for (std::size_t i = 0; i < kKeypointFloats; ++i) {
                const float rest = rows_[static_cast<std::size_t>(cursor_)][i];
                source[k * kKeypointFloats + i] = rest;
                driving[k * kKeypointFloats + i] = rest + script_.gain * level;
            }
        }
        return n;
    }
    const char* error() override { return error_.c_str(); }
    void clearError() override { error_.clear(); }

  private:
    SourceScript& script_;
    int nt_ = 0;
    std::vector<std::vector<float>> rows_;
    std::vector<float> samples_;
    bool finished_ = false;
    int emitted_ = 0;
    int cursor_ = 0;
    std::string error_;
};

}  // namespace

void TestClock::wait(CondVar& wake, Mutex& mutex, double) {
    ++waits_;
    wake.waitUntil(mutex, std::chrono::steady_clock::now() + std::chrono::milliseconds(1));
}

// A wait may have been decided on before the call; the next one was not.
void TestClock::settle() {
    const std::uint64_t before = waits_;
    EXPECT_TRUE(waitFor([&] { return waits_ >= before + 2; }));
}

std::unique_ptr<MotionSource> makeFakeSource(const TestBundle& bundle, SourceScript& script) {
    return std::make_unique<FakeSource>(bundle, script);
}

UttPlayer::UttPlayer(const UttPlayerOptions& options)
    : bundle(bundleOptions(options.nt)),
      context_((bundle.useModel("main", options.render), bundle.dir()), "main", 1, ""),
      reference_(bundle.dir(), "render", 1, ""),
      bytes_(std::size_t{4} * 48 * 40) {
    bundle.useModel("b4", options.steadyModel);
    if (options.withRows) {
        writeFile(motionDir.path() + "/xs_target.bin", readFile(bundle.path("xs_target.bin")));
    }
    for (int frame = 0; !options.withFrames && frame < options.nt; ++frame) {
        bundle.empty("target_frames/frame_00000" + std::to_string(frame) + ".jpg");
    }
    script.nt = options.sourceNt;
    script.hold = options.holdOpening;
    zorv_utt_opts opts = {};
    const std::string& engine = options.engineDir;
    opts.motion_dir = engine.empty() ? motionDir.path().c_str() : engine.c_str();
    opts.steady_model = options.steady;
    opts.silence_end_s = options.silenceS;
    ::setenv("ZORV_UTT_PIPELINE_PASTE", options.pipelined ? "1" : "0", 1);
    UttSurroundings surroundings;
    surroundings.clock = &clock;
    if (engine.empty()) {
        surroundings.openSource = [this](const UttOptions&) {
            waitFor([this] { return !script.hold; });
            return makeFakeSource(bundle, script);
        };
    }
    surroundings.onRender = [this](int frames) {
        if (script.renderMs == 0) return;
        renderedMs_ = clock.nowMs() + frames * script.renderMs;
        waitFor([&] { return clock.nowMs() >= renderedMs_ || script.renderMs == 0; });
        renderedMs_ = 0;
    };
    utt_ = std::make_unique<zorv_utt>(context_, opts, surroundings);
    ::unsetenv("ZORV_UTT_PIPELINE_PASTE");
    if (options.waitUntilReady) {
        EXPECT_TRUE(waitFor([&] { return zorv_utt_ready(utt()) == 1; })) << zorv_utt_last_error();
    }
}

UttPlayer::~UttPlayer() {
    script.hold = false;
    script.renderMs = 0;
}

void UttPlayer::push(int frames, float level) {
    const auto value = static_cast<std::int16_t>(std::lround(level * 32768));
    const std::vector<std::int16_t> pcm(static_cast<std::size_t>(frames) * kFrameSamples, value);
    EXPECT_EQ(zorv_utt_push_audio(utt(), pcm.data(), static_cast<int>(pcm.size())), 1);
}

void UttPlayer::say(int frames, float level) {
    push(frames, level);
    zorv_utt_end_utterance(utt());
}

void UttPlayer::advance(double ms) {
    clock.advance(ms);
    EXPECT_TRUE(waitFor([&] { return utt_->atRest() || clock.nowMs() < renderedMs_; }));
}

void UttPlayer::waitForFrames(int n) {
    EXPECT_TRUE(waitFor([&] { return zorv_utt_frames_available(utt()) == n; }))
        << zorv_utt_frames_available(utt()) << " frames wait instead of " << n;
}

std::vector<PulledFrame> UttPlayer::pull(int n) {
    std::vector<PulledFrame> frames;
    PulledFrame frame;
    frame.rgba.resize(bytes_);
    for (int k = 0; k < n; ++k) {
        const bool came = waitFor([&] {
            return zorv_utt_pull_frame(utt(), frame.rgba.data(), bytes_, &frame.info) == 1;
        });
        if (!came) {
            ADD_FAILURE() << "frame " << k << " of " << n << " did not come";
            break;
        }
        frames.push_back(frame);
    }
    return frames;
}

std::vector<PulledFrame> UttPlayer::pullUntil(int kind, int limit) {
    std::vector<PulledFrame> frames;
    for (int k = 0; k < limit; ++k) {
        auto next = pull(1);
        if (next.empty()) break;
        frames.push_back(std::move(next.front()));
        if (frames.back().info.kind == kind) return frames;
    }
    ADD_FAILURE() << "no frame of kind " << kind;
    return frames;
}

std::vector<std::uint8_t> UttPlayer::picture(int frame, float offset) {
    const std::vector<float> rest = bundle.baseKeypoints(frame);
    std::vector<float> driving = rest;
    for (float& value : driving) value += offset;
    std::vector<std::uint8_t> rgba(bytes_);
    EXPECT_EQ(
        zorv_render_kp_rgba(&reference_, frame, rest.data(), driving.data(), rgba.data(), bytes_),
        1);
    return rgba;
}

std::vector<std::uint8_t> UttPlayer::still(int frame) {
    const std::uint8_t* rgb = zorv_target_frame(&reference_, frame);
    std::vector<std::uint8_t> rgba;
    for (std::size_t i = 0; i < bytes_ / 4; ++i) {
        rgba.insert(rgba.end(), rgb + 3 * i, rgb + 3 * i + 3);
        rgba.push_back(255);
    }
    return rgba;
}

int difference(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
    int most = a.size() == b.size() ? 0 : 256;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        most = std::max(most, std::abs(a[i] - b[i]));
    }
    return most;
}

}  // namespace zorv::test
