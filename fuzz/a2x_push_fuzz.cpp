// Audio of any values in any pieces into the expression engine, with polls, whole clips and ends in
// between. The frames depend on the samples that were there at each poll, not on how they were cut;
// without polls they are the frames of one push; and short windows without look-ahead forget even
// when they were polled.
#include <zorv_core.h>

#include <memory>
#include <utility>

#include "stream_program.h"
#include "support/expression_dir.h"
#include "support/scoped_env.h"

namespace zorv::fuzz {
namespace {

struct Variant {
    test::ExpressionOptions options;
    int right;  ///< frames of audio that features wait for
    bool shortWindow;
};

const Variant kVariants[] = {
    {{.window = 1, .left = 3}, 12, false},
    {{.window = 3, .left = 2, .rows = 110, .nt = 5, .silencePrime = 3}, 2, false},
    {{.window = 0, .left = 3, .nt = 1}, 12, true},
    {{.window = 2, .left = 1, .rows = 90, .nt = 2, .silencePrime = 2}, 0, true},
};

/// An engine that is opened once and plays programs.
class Engine {
  public:
    explicit Engine(const Variant& variant) : variant_(variant), files_(variant.options) {
        const test::ScopedEnv encoder("W2V_ONNX", test::modelFile("a2x_w2v"));
        const test::ScopedEnv trunk("ZORV_A2X_W2V_WIN_ONNX", test::modelFile("a2x_trunk"));
        const test::ScopedEnv head("ZORV_A2X_W2V_HEAD_ONNX", test::modelFile("a2x_head"));
        const test::ScopedEnv look("ZORV_A2X_W2V_RIGHT", std::to_string(variant.right));
        const test::ScopedEnv win("ZORV_A2X_W2V_WIN", variant.shortWindow ? "1" : nullptr);
        a2x_ = zorv_a2x_create(files_.path().c_str(), 1);
        require(a2x_ != nullptr, zorv_a2x_last_error());
    }
    ~Engine() { zorv_a2x_destroy(a2x_); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    bool forgetsTheRhythm() const { return variant_.shortWindow && variant_.options.window == 0; }

    /// The frames since the last reset of `steps`, which is ended and drained. `joined`: pushes
    /// with nothing between them become one.
    Frames play(const StreamProgram& program, bool joined) {
        reset(program.start);
        for (const Step& step : program.steps) {
            if (joined && step.kind == Step::kPush) {
                waiting_.insert(waiting_.end(), step.audio.begin(), step.audio.end());
                continue;
            }
            // What changes no stream does not part two pushes either.
            if (joined && (step.kind == Step::kDeltas || step.kind == Step::kEager)) continue;
            push(std::exchange(waiting_, {}));
            run(step);
        }
        push(std::exchange(waiting_, {}));
        return finish();
    }

  private:
    void run(const Step& step) {
        switch (step.kind) {
            case Step::kPush:
                push(step.audio);
                break;
            case Step::kAvail:
                avail();
                break;
            case Step::kPull:
                pull(step.value);
                break;
            case Step::kEager:
                zorv_a2x_set_eager(a2x_, step.value);
                break;
            case Step::kReset:
                reset(step.start);
                break;
            case Step::kFinish:
                zorv_a2x_finish(a2x_);
                break;
            case Step::kDeltas:
                convert(step.audio);
                break;
        }
    }

    void reset(const Start& start) {
        zorv_a2x_reset(a2x_, start.frame, start.direction, start.loop);
        require(zorv_a2x_total(a2x_) == -1, "a new stream is open");
        frames_ = {};
        samples_ = 0;
    }

    void push(const std::vector<float>& audio) {
        // A copy of its own size, so that reading beyond it shows.
        const std::vector<float> piece = audio;
        require(zorv_a2x_push(a2x_, piece.data(), static_cast<int>(piece.size())) == 1,
                "audio is taken");
        samples_ += piece.size();
    }

    int avail() {
        const int ready = zorv_a2x_avail(a2x_);
        require(ready >= 0, "frames can be counted");
        return ready;
    }

    int pull(int max) {
        const Frames::Room room = frames_.room(max);
        const int count = zorv_a2x_pull(a2x_, room.index, room.source, room.driving, max);
        require(count >= 0 && count <= max, "no more frames than were asked for");
        frames_.keep(count);
        return count;
    }

    void convert(const std::vector<float>& audio) {
        const auto frames = static_cast<int>((audio.size() + kFrameSamples - 1) / kFrameSamples);
        std::vector<float> out(static_cast<std::size_t>(frames) * kSetFloats);
        const int n = static_cast<int>(audio.size());
        require(zorv_a2x_deltas(a2x_, audio.data(), n, out.data(), frames) == frames,
                "a clip becomes a frame per 640 samples");
    }

    Frames finish() {
        zorv_a2x_finish(a2x_);
        const auto total = static_cast<int>((samples_ + kFrameSamples - 1) / kFrameSamples);
        require(zorv_a2x_total(a2x_) == total, "a frame per 640 samples");
        while (avail() > 0) pull(100);
        require(!*zorv_a2x_last_error(), zorv_a2x_last_error());
        require(static_cast<int>(frames_.size()) == std::min(total, variant_.options.rows),
                "every frame comes");
        requireSources();
        return std::move(frames_);
    }

    /// Source keypoints are the bundle frame's own.
    void requireSources() const {
        const std::vector<float> rows = files_.xsTarget();
        for (std::size_t f = 0; f < frames_.size(); ++f) {
            const int index = frames_.index[f];
            require(index >= 0 && index < variant_.options.nt, "a frame of the bundle");
            require(std::equal(
                        frames_.source.begin() + static_cast<std::ptrdiff_t>(f * kSetFloats),
                        frames_.source.begin() + static_cast<std::ptrdiff_t>((f + 1) * kSetFloats),
                        rows.begin() + index * static_cast<std::ptrdiff_t>(kSetFloats)),
                    "source keypoints are the bundle frame's own");
        }
    }

    const Variant& variant_;
    test::ExpressionDir files_;
    zorv_a2x* a2x_;
    std::vector<float> waiting_;  ///< pushes that are being joined
    // The stream so far.
    Frames frames_;
    std::size_t samples_ = 0;
};

/// The pushes of the last stream of a program, and nothing else.
StreamProgram onlyPushes(const StreamProgram& program) {
    StreamProgram pushes;
    pushes.start = program.start;
    for (const Step& step : program.steps) {
        if (step.kind == Step::kReset) {
            pushes.start = step.start;
            pushes.steps.clear();
        } else if (step.kind == Step::kPush) {
            pushes.steps.push_back(step);
        }
    }
    return pushes;
}

bool has(const StreamProgram& program, Step::Kind kind) {
    return std::any_of(program.steps.begin(), program.steps.end(),
                       [&](const Step& step) { return step.kind == kind; });
}

/// Values that no sum over a window drowns or overflows in: other chunks add up in another order.
bool isPlain(const StreamProgram& program) {
    return std::all_of(program.steps.begin(), program.steps.end(), [](const Step& step) {
        return std::all_of(step.audio.begin(), step.audio.end(),
                           [](float x) { return std::abs(x) < 1e12f; });
    });
}

bool nearFrames(const Frames& a, const Frames& b) {
    constexpr float kTolerance = 1e-4f;
    return a.index == b.index &&
           std::equal(a.driving.begin(), a.driving.end(), b.driving.begin(), b.driving.end(),
                      [](float x, float y) { return std::abs(x - y) <= kTolerance; });
}

void compare(Engine& engine, const StreamProgram& program, int how) {
    if (how == 0) {
        require(sameFrames(engine.play(program, false), engine.play(program, true)),
                "frames depend on the samples at each poll, not on the cuts");
        return;
    }
    const StreamProgram pushes = onlyPushes(program);
    const Frames whole = engine.play(pushes, true);
    if (how == 2 && engine.forgetsTheRhythm() && isPlain(program) && !has(program, Step::kFinish)) {
        require(nearFrames(engine.play(program, false), whole),
                "short windows without look-ahead forget the rhythm");
    } else {
        require(sameFrames(engine.play(pushes, false), whole),
                "without polls it is as if all came at once");
    }
}

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorv::fuzz;
    constexpr int kCount = std::size(kVariants);
    static std::unique_ptr<Engine> engines[kCount];
    const StreamProgram program =
        readProgram({data, size}, {.samples = 230 * kFrameSamples, .polls = 24});
    auto& engine = engines[program.variant % kCount];
    if (!engine) engine = std::make_unique<Engine>(kVariants[program.variant % kCount]);
    compare(*engine, program, program.variant / kCount % 3);
    return 0;
}
