// Audio of any values in any pieces into the engines that turn speech into keypoint frames, with
// polls, ends, resets and whole clips in between. The frames depend on the samples that were there
// at each poll, not on how they were cut; without polls they are the frames of one push; and where
// an engine forgets the rhythm they are so with polls as well.
#include <zorv_core.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <utility>

#include "fuzz_input.h"
#include "support/engine.h"

namespace zorv::fuzz {
namespace {

using test::Frames;

constexpr int kFrameSamples = 640;

// What one input may cost.
constexpr int kMostSamples = 230 * kFrameSamples;
constexpr int kMostPolls = 40;  ///< steps that run models

struct Start {
    std::int32_t frame = 0;
    int direction = 1;
    int loop = 0;
};

struct Step {
    enum Kind { kPush, kAvail, kPull, kDeltas, kEager, kReset, kFinish };
    Kind kind = kPush;
    int value = 0;             ///< kPull: most frames, kEager: the value
    Start start;               ///< kReset
    std::vector<float> audio;  ///< kPush, kDeltas
};

using Steps = std::vector<Step>;

bool has(const Steps& steps, Step::Kind kind) {
    return std::any_of(steps.begin(), steps.end(),
                       [&](const Step& step) { return step.kind == kind; });
}

Start readStart(FuzzInput& input) {
    const int flags = input.byte();
    // Small numbers mostly, and any at all.
    const std::int32_t frame = flags & 4 ? input.number() : flags >> 3;
    return {frame, flags & 1 ? -1 : 1, flags & 2};
}

float special(int which) {
    using Limits = std::numeric_limits<float>;
    const float values[] = {NAN,   INFINITY, -INFINITY,           Limits::max(), Limits::lowest(),
                            1e20f, -0.f,     Limits::denorm_min()};
    return values[which % 8];
}

/// n samples of a kind that one byte and, for some kinds, a few more tell.
std::vector<float> readAudio(FuzzInput& input, int n) {
    const int flavour = input.byte(), strength = flavour >> 3;  // 0 .. 31
    std::vector<float> audio(static_cast<std::size_t>(n));
    std::minstd_rand random(static_cast<unsigned>(n + flavour + 1));
    const float amplitude = flavour % 4 == 3 ? std::pow(10.f, static_cast<float>(strength - 12))
                                             : static_cast<float>(strength + 1) / 32;
    for (float& x : audio) {
        if (flavour % 8 < 6) x = amplitude * (static_cast<float>(random() % 20001) / 10000 - 1);
        if (flavour % 8 == 6) x = special(strength);
        if (flavour % 8 == 7) x = std::bit_cast<float>(input.number());
    }
    if (flavour % 8 == 0) audio.assign(audio.size(), 0.f);
    if (flavour % 8 == 5 && n > 0)
        audio[static_cast<std::size_t>(input.word() % n)] = special(strength);
    return audio;
}

Steps readSteps(FuzzInput input) {
    Steps steps;
    int samples = kMostSamples, polls = kMostPolls;
    while (!input.empty()) {
        const int op = input.byte() % 16;
        if (op >= 8 && op < 13 && polls-- <= 0) continue;
        Step& step = steps.emplace_back();
        if (op < 8) {
            const int n = std::min<int>(input.word(), samples);
            samples -= n;
            step.audio = readAudio(input, n);
            continue;
        }
        constexpr Step::Kind kKinds[] = {Step::kAvail,  Step::kPull,  Step::kPull,  Step::kPull,
                                         Step::kDeltas, Step::kEager, Step::kReset, Step::kFinish};
        step.kind = kKinds[op - 8];
        if (step.kind == Step::kPull) step.value = input.byte();
        if (step.kind == Step::kDeltas) step.audio = readAudio(input, input.word() % 20000);
        if (step.kind == Step::kEager) step.value = static_cast<std::int8_t>(input.byte());
        if (step.kind == Step::kReset) step.start = readStart(input);
    }
    return steps;
}

/// The same values; any NaN is the same as any other.
bool same(const std::vector<float>& a, const std::vector<float>& b, float tolerance) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [=](float x, float y) {
        return x == y || (std::isnan(x) && std::isnan(y)) || std::abs(x - y) <= tolerance;
    });
}

/// An engine that is opened once and plays programs, a part in front of them chooses how.
class Player {
  public:
    Player() : motion_(true), engine_(test::openMotion(motionFiles_)) {}
    Player(const test::ExpressionOptions& options, int right, bool shortWindow)
        : forgetsTheRhythm_(shortWindow && options.window == 0),
          nt_(options.nt),
          rows_(options.rows),
          expressionFiles_(options) {
        auto engine = test::openExpression(expressionFiles_, right, shortWindow);
        a2x_ = engine->get();
        engine_ = std::move(engine);
    }

    void compare(const Start& start, const Steps& steps, int how) {
        const Start last = lastStart(start, steps);
        const bool eager = has(steps, Step::kEager);
        if (how == 0) {
            const Frames cut = play(start, steps, false), joined = play(start, steps, true);
            require(cut.index == joined.index, "frames lie on the same target frames");
            require(same(cut.source, joined.source, 0), "source keypoints are the same");
            require((motion_ && eager) || same(cut.driving, joined.driving, 0),
                    "frames depend on the samples at each poll, not on the cuts");
            return;
        }
        const Steps pushes = onlyPushes(steps);
        const Frames whole = play(last, pushes, true);
        // The motion engine takes nothing after an end, the other one does.
        const bool free = motion_ ? !eager : forgetsTheRhythm_ && isPlain(steps);
        if (how == 2 && free && !has(steps, Step::kFinish)) {
            const Frames polled = play(start, steps, false);
            require(polled.index == whole.index &&
                        same(polled.driving, whole.driving, motion_ ? 0 : 1e-4f),
                    "the rhythm of the polls changes nothing");
        } else {
            require(same(play(last, pushes, false).driving, whole.driving, 0),
                    "without polls it is as if all came at once");
        }
    }

  private:
    static Start lastStart(Start start, const Steps& steps) {
        for (const Step& step : steps) {
            if (step.kind == Step::kReset) start = step.start;
        }
        return start;
    }
    /// The pushes of the last stream.
    static Steps onlyPushes(const Steps& steps) {
        Steps pushes;
        for (const Step& step : steps) {
            if (step.kind == Step::kReset) pushes.clear();
            if (step.kind == Step::kPush) pushes.push_back(step);
        }
        return pushes;
    }
    /// Values that no sum over a window drowns or overflows in: other chunks add up in another
    /// order.
    static bool isPlain(const Steps& steps) {
        return std::all_of(steps.begin(), steps.end(), [](const Step& step) {
            return std::all_of(step.audio.begin(), step.audio.end(),
                               [](float x) { return std::abs(x) < 1e12f; });
        });
    }

    /// The frames since the last reset of `steps`, which is ended and drained. `joined`: pushes
    /// with nothing between them become one.
    Frames play(const Start& start, const Steps& steps, bool joined) {
        engine_->setEager(0);
        reset(start);
        std::vector<float> waiting;
        for (const Step& step : steps) {
            if (joined && step.kind == Step::kPush) {
                waiting.insert(waiting.end(), step.audio.begin(), step.audio.end());
                continue;
            }
            // A clip changes no stream, so it does not part two pushes either.
            if (joined && step.kind == Step::kDeltas) continue;
            push(std::exchange(waiting, {}));
            run(step);
        }
        push(waiting);
        engine_->finish();
        const auto total = static_cast<int>((samples_ + kFrameSamples - 1) / kFrameSamples);
        require(engine_->total() == total, "a frame per 640 samples");
        while (avail() > 0) pull(100);
        require(static_cast<int>(frames_.size()) == std::min(total, rows_), "every frame comes");
        requireSources();
        return std::move(frames_);
    }

    void run(const Step& step) {
        switch (step.kind) {
            case Step::kPush:
                return push(step.audio);
            case Step::kAvail:
                return static_cast<void>(avail());
            case Step::kPull:
                return pull(step.value);
            case Step::kDeltas:
                return convert(step.audio);
            case Step::kEager:
                return engine_->setEager(step.value);
            case Step::kReset:
                return reset(step.start);
            case Step::kFinish:
                finished_ = true;
                return engine_->finish();
        }
    }

    void reset(const Start& start) {
        engine_->reset(start.frame, start.direction, start.loop);
        require(engine_->total() == -1, "a new stream is open");
        frames_ = {};
        samples_ = 0;
        finished_ = false;
    }

    void push(const std::vector<float>& audio) {
        const bool taken = !(motion_ && finished_);
        require(engine_->push(audio) == taken, "an open stream takes audio");
        if (taken) samples_ += audio.size();
    }

    int avail() {
        const int ready = engine_->avail();
        // The end of the positional table is told.
        const std::string text = engine_->error();
        require(ready >= 0 && (text.empty() || text.starts_with("zorv_a2x: end of a2x_pos.f32")),
                "frames can be counted");
        return ready;
    }

    void pull(int max) {
        const int ready = avail(), count = engine_->pull(frames_, max);
        require(count >= 0 && count <= max, "no more frames than were asked for");
        require(!motion_ || count == std::min(ready, max), "as many frames as were counted");
    }

    void convert(const std::vector<float>& audio) {
        if (!a2x_) return;
        const auto n = static_cast<int>(audio.size()),
                   frames = (n + kFrameSamples - 1) / kFrameSamples;
        std::vector<float> out(static_cast<std::size_t>(frames) * test::kSetFloats);
        require(zorv_a2x_deltas(a2x_, audio.data(), n, out.data(), frames) == frames,
                "a clip becomes a frame per 640 samples");
    }

    void requireSources() const {
        static const std::vector<float> motionRows = motionFiles_.floats("xs_target.bin");
        const std::vector<float> rows = motion_ ? motionRows : expressionFiles_.xsTarget();
        constexpr std::ptrdiff_t kSet = test::kSetFloats;
        for (std::size_t f = 0; f < frames_.size(); ++f) {
            const int index = frames_.index[f];
            require(index >= 0 && index < nt_, "a frame of the bundle");
            const auto source = frames_.source.begin() + static_cast<std::ptrdiff_t>(f) * kSet;
            require(std::equal(source, source + kSet, rows.begin() + index * kSet),
                    "source keypoints are the bundle frame's own");
        }
    }

    const bool motion_ = false, forgetsTheRhythm_ = false;
    const int nt_ = 3, rows_ = std::numeric_limits<int>::max();
    test::TestMotion motionFiles_;
    test::ExpressionDir expressionFiles_;
    test::EnginePtr engine_;
    zorv_a2x* a2x_ = nullptr;
    // The stream so far.
    Frames frames_;
    std::size_t samples_ = 0;
    bool finished_ = false;
};

Player& player(int which) {
    static Player players[] = {
        Player(),
        {{.window = 1, .left = 3}, 12, false},
        {{.window = 3, .left = 2, .rows = 110, .nt = 5, .silencePrime = 3}, 2, false},
        {{.window = 0, .left = 3, .nt = 1}, 12, true},
        {{.window = 2, .left = 1, .rows = 90, .nt = 2, .silencePrime = 2}, 0, true},
    };
    return players[which % std::size(players)];
}

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorv::fuzz;
    FuzzInput input(data, size);
    const int which = input.byte(), how = input.byte() % 3;
    const Start start = readStart(input);
    player(which).compare(start, readSteps(input), how);
    return 0;
}
