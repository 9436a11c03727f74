// Utterance engines called by three threads at once: one pushes, one pulls, one interrupts, asks
// and sometimes pulls as well. When the calls meet is up to the machine, so what is checked holds
// for every order: what each call may return, that frames come in order and none twice, show what
// they say, and never belong to an utterance that an interrupt has ended; that no speech is lost
// without an interrupt; and that an engine ends in time.
#include <zorv_core.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "support/expression_dir.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"
#include "support/threads.h"
#include "utt_program.h"

namespace zorv::fuzz {
namespace {

constexpr int kFrames = 5;  ///< of the bundle
constexpr int kSpeech = 1;
constexpr std::uint64_t kFrameSamples = 640;
constexpr std::size_t kFrameBytes = std::size_t{4} * 48 * 40;
constexpr std::size_t kBytesAboveCrop = std::size_t{4} * 48 * 6;

void pause(int steps) {
    std::this_thread::sleep_for(std::chrono::microseconds(50 * steps));
}

template <class Condition>
void await(Condition&& condition, const char* what) {
    require(test::waitFor(condition), what);
}

/// A bundle, a context on it, and what its frames look like.
class Stage {
  public:
    explicit Stage(bool damaged) : bundle_({.nt = kFrames}) {
        bundle_.useModel("b4", "render_b4");
        zorv_ctx* reference = zorv_create(bundle_.dir().c_str(), "render", 1, nullptr);
        require(reference != nullptr, zorv_last_error());
        for (int frame = 0; frame < kFrames; ++frame) {
            const std::uint8_t* rgb = zorv_target_frame(reference, frame);
            require(rgb != nullptr, zorv_last_error());
            for (std::size_t i = 0; i < kFrameBytes / 4; ++i) {
                stills_[frame].insert(stills_[frame].end(), rgb + 3 * i, rgb + 3 * i + 3);
                stills_[frame].push_back(255);
            }
        }
        zorv_destroy(reference);
        if (damaged) bundle_.empty("target_frames/frame_000003.jpg");
        ctx_ = zorv_create(bundle_.dir().c_str(), "render", 1, nullptr);
        require(ctx_ != nullptr, zorv_last_error());
    }
    ~Stage() { zorv_destroy(ctx_); }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    zorv_ctx* ctx() { return ctx_; }
    const std::vector<std::uint8_t>& still(int frame) const { return stills_[frame]; }

  private:
    test::TestBundle bundle_;
    zorv_ctx* ctx_ = nullptr;
    std::vector<std::uint8_t> stills_[kFrames];
};

/// Everything that engines are created on, made once.
struct Surroundings {
    enum Source { kMotion, kExpression, kLegacyExpression, kFailingExpression };

    const char* directory(int source) const {
        switch (source) {
            case kMotion:
                return motion.dir().c_str();
            case kFailingExpression:
                return failing.path().c_str();
            default:
                return expression.path().c_str();
        }
    }

    test::ScopedEnv encoder{"W2V_ONNX", test::modelFile("a2x_w2v")};
    test::ScopedEnv trunk{"ZORV_A2X_W2V_WIN_ONNX", test::modelFile("a2x_trunk")};
    test::ScopedEnv head{"ZORV_A2X_W2V_HEAD_ONNX", test::modelFile("a2x_head")};
    test::TestMotion motion{{.nt = kFrames}};
    test::ExpressionDir expression{{.window = 0, .nt = kFrames}};
    /// Its decoder fails at the 31st frame of a stream.
    test::ExpressionDir failing{{.window = 0, .nt = kFrames, .decoder = "a2x_dec_fails"}};
    Stage good{false};
    Stage damaged{true};
};

/// What the pushing and the interrupting thread have done, for the pulling ones to judge by.
struct Ledger {
    // Samples of pushes that have begun, that have returned, and that an interrupt has ended.
    std::atomic<std::uint64_t> begun{0}, pushed{0}, dead{0};
    std::atomic<int> interruptsBegun{0}, interruptsDone{0};
};

/// One engine and those who call it.
class Performance {
  public:
    Performance(Stage& stage, const Surroundings& surroundings, const UttLife& life)
        : stage_(stage), life_(life) {
        zorv_utt_opts opts = {};
        opts.motion_dir = surroundings.directory(life.source);
        opts.threads = 1;
        opts.steady_model = life.batched ? "b4" : "-";
        opts.eager = life.eager;
        opts.silence_end_s = life.silenceEnds ? 0.01 : -1;
        opts.ramp_frames = life.rampFrames;
        opts.ramp_frames_interrupt = life.rampFramesInterrupt;
        // Left as it is until the next engine: this one's threads read it while they warm up.
        ::setenv("ZORV_A2X_W2V_WIN", life.source == Surroundings::kLegacyExpression ? "0" : "1", 1);
        ::setenv("ZORV_UTT_PIPELINE_PASTE", life.pipelined ? "1" : "0", 1);
        utt_ = zorv_utt_create(stage.ctx(), &opts);
        require(utt_ != nullptr, zorv_utt_last_error());
    }

    void run() {
        std::thread pusher([&] { play(life_.pusher, nullptr); });
        std::thread puller([&] { play(life_.puller, &viewers_[0]); });
        play(life_.controller, &viewers_[1]);
        pusher.join();
        puller.join();
        if (life_.drained) drain();
        checkTotals();
        destroy();
    }

  private:
    /// One of the threads that pull.
    struct Viewer {
        std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kFrameBytes);
        zorv_utt_frame_info last = {};
        std::vector<std::uint64_t> sequences;
        std::uint64_t speech = 0;
        int lastSpeech = -1;
        int interruptsDone = 0;  ///< before the last frame was asked for
    };

    bool alone() const { return !UttLife::has(life_.controller, Call::kPull); }
    bool mayFail() const {
        return life_.damagedContext || life_.source == Surroundings::kFailingExpression;
    }

    void play(const std::vector<UttStep>& steps, Viewer* viewer) {
        for (const UttStep& step : steps) run(step, viewer);
    }

    void run(const UttStep& step, Viewer* viewer) {
        switch (step.call) {
            case Call::kPush:
                return push(step.value);
            case Call::kPushNothing:
                return pushNothing(step.value);
            case Call::kEnd:
                return viewer ? zorv_utt_end_utterance(utt_) : end();
            case Call::kInterrupt:
                return interrupt();
            case Call::kPull:
                return pullSeveral(*viewer, step.value);
            case Call::kPullSmall:
                return pullSmall(*viewer, step.value);
            case Call::kPause:
                return pause(step.value);
            default:
                ask(step);
        }
    }

    void ask(const UttStep& step) {
        if (step.call == Call::kAvailable) {
            const int waiting = zorv_utt_frames_available(utt_);
            require(waiting >= 0 && waiting <= 8, "at most 8 frames wait");
        } else if (step.call == Call::kReady) {
            const int ready = zorv_utt_ready(utt_);
            require(ready == 0 || ready == 1, "the engine can speak");
        } else if (step.call == Call::kStats) {
            zorv_utt_stats stats;
            zorv_utt_get_stats(utt_, &stats);
            require(stats.state >= 0 && stats.state <= 3, "a state that is documented");
            require(stats.speech_frames_pulled <= stats.frames_pulled, "speech is a part");
        } else {
            checkFailure(step.value);
        }
    }

    void pushNothing(int how) {
        const std::int16_t none = 0;
        require(zorv_utt_push_audio(utt_, &none, how - 1) == how,
                "no samples are fine, fewer than none are not");
        require(!*zorv_utt_last_error() == (how == 1), "what is refused is told");
    }

    void push(int samples) {
        std::vector<std::int16_t> pcm(static_cast<std::size_t>(samples));
        for (std::size_t i = 0; i < pcm.size(); ++i) {
            pcm[i] = static_cast<std::int16_t>(i * 7919 % 65536 - 32768);
        }
        const std::int16_t none = 0;
        ledger_.begun += pcm.size();
        require(zorv_utt_push_audio(utt_, samples ? pcm.data() : &none, samples) == 1,
                "audio is taken");
        ledger_.pushed += pcm.size();
        utterance_ += pcm.size();
    }

    /// By the thread that pushes.
    void end() {
        zorv_utt_end_utterance(utt_);
        expected_ += (utterance_ + kFrameSamples - 1) / kFrameSamples;
        utterance_ = 0;
    }

    void interrupt() {
        const std::uint64_t before = ledger_.pushed;
        ++ledger_.interruptsBegun;
        zorv_utt_interrupt(utt_);
        ++ledger_.interruptsDone;
        if (ledger_.begun == before) ledger_.dead = before;  // no push met it
    }

    /// Up to `count` frames, unless none comes for a while.
    void pullSeveral(Viewer& viewer, int count) {
        for (int tries = 0; count > 0 && tries < 10;) {
            if (pull(viewer)) {
                --count;
            } else {
                ++tries;
                pause(4);
            }
        }
    }

    bool pull(Viewer& viewer) {
        const std::uint64_t dead = ledger_.dead;
        const int done = ledger_.interruptsDone;
        zorv_utt_frame_info info;
        const int result =
            zorv_utt_pull_frame(utt_, viewer.buffer.data(), viewer.buffer.size(), &info);
        require(result == 0 || result == 1, "a result that is documented");
        require(!*zorv_utt_last_error(), "nothing to pull is no failure");
        if (result == 0) return false;
        checkPlace(viewer, info);
        checkPicture(viewer, info);
        if (info.kind == kSpeech) {
            const std::uint64_t alive = ledger_.begun - dead;
            require(static_cast<std::uint64_t>(info.speech_sequence) * kFrameSamples < alive,
                    "no speech from before an interrupt that has returned");
            ++viewer.speech;
            viewer.lastSpeech = info.speech_sequence;
        }
        viewer.sequences.push_back(info.sequence);
        viewer.last = info;
        viewer.interruptsDone = done;
        return true;
    }

    /// What a frame says of itself against the one before.
    void checkPlace(const Viewer& viewer, const zorv_utt_frame_info& info) const {
        require(info.kind >= 0 && info.kind <= 2, "a kind that is documented");
        require(info.frame >= 0 && info.frame < kFrames, "a frame of the bundle");
        require((info.kind == kSpeech) == (info.speech_sequence >= 0) && info.speech_sequence >= -1,
                "speech frames and no others have a number");
        const bool first = viewer.sequences.empty();
        require(first || info.sequence > viewer.last.sequence, "frames come in order, once");
        if (!alone()) return;
        if (ledger_.interruptsBegun == (first ? 0 : viewer.interruptsDone)) {
            require(info.sequence == (first ? 0 : viewer.last.sequence + 1),
                    "only interrupts drop frames");
        }
        if (life_.damagedContext) return;
        require(info.frame == (first ? 0 : (viewer.last.frame + 1) % kFrames),
                "the body moves on by one frame");
        require(info.kind != kSpeech || info.speech_sequence == 0 ||
                    info.speech_sequence == viewer.lastSpeech + 1,
                "speech goes on by one frame");
    }

    /// What a frame shows, against what it says.
    void checkPicture(const Viewer& viewer, const zorv_utt_frame_info& info) const {
        const std::vector<std::uint8_t>& still = stage_.still(info.frame);
        const std::size_t same = info.kind == 0 ? kFrameBytes : kBytesAboveCrop;
        require(std::memcmp(viewer.buffer.data(), still.data(), same) == 0,
                "a frame shows the bundle frame that it names");
        for (std::size_t i = 3; i < kFrameBytes; i += 4) {
            require(viewer.buffer[i] == 255, "frames are opaque");
        }
    }

    void pullSmall(Viewer& viewer, int how) {
        const std::size_t capacity = how == 0 ? 0 : kFrameBytes - static_cast<std::size_t>(how);
        std::uint8_t* buffer = how == 3 ? nullptr : viewer.buffer.data();
        require(zorv_utt_pull_frame(utt_, buffer, capacity, nullptr) == 0, "nothing fits");
        const std::string text = zorv_utt_last_error();
        require(how == 3 ? text == "zorv_utt_pull_frame: bad args"
                         : text.empty() || text == "zorv_utt_pull_frame: buffer too small",
                "a text that is documented");
    }

    void checkFailure(int capacity) {
        char text[64] = "unchanged";
        const std::uint64_t failures =
            zorv_utt_failure(utt_, text, static_cast<std::size_t>(capacity));
        if (capacity > 0) {
            require(std::strlen(text) < static_cast<std::size_t>(capacity), "the text is cut");
            require((failures == 0) == !*text || capacity == 1, "a failure has a text");
        }
        require(failures == 0 || mayFail(), text);
    }

    std::uint64_t spoken() const { return viewers_[0].speech + viewers_[1].speech; }

    /// Nobody else calls the engine any more: what was said must come to its end.
    void drain() {
        // Who ended how many utterances is known only when nobody interfered.
        const bool counted = !mayFail() && !life_.silenceEnds && !life_.calls(Call::kInterrupt) &&
                             !UttLife::has(life_.controller, Call::kEnd);
        if (!counted) {
            interrupt();
            expected_ = spoken();
            utterance_ = 0;
            push(3 * kFrameSamples);
        }
        end();
        Viewer& viewer = viewers_[0];
        if (viewers_[1].last.sequence > viewer.last.sequence) viewer.last = viewers_[1].last;
        // With a frame that cannot be decoded an utterance may end early.
        const bool whole = !life_.damagedContext;
        if (whole) await([&] { return pull(viewer), spoken() >= expected_; }, "all speech comes");
        for (int rest = 0; rest < 12;) {
            await([&] { return pull(viewer); }, "frames go on");
            rest += whole || viewer.last.kind != kSpeech;
        }
        require(!whole || spoken() == expected_, "no speech comes twice");
    }

    void checkTotals() {
        std::vector<std::uint64_t> all = viewers_[0].sequences;
        all.insert(all.end(), viewers_[1].sequences.begin(), viewers_[1].sequences.end());
        std::sort(all.begin(), all.end());
        require(std::adjacent_find(all.begin(), all.end()) == all.end(), "no frame comes twice");
        zorv_utt_stats stats;
        zorv_utt_get_stats(utt_, &stats);
        require(stats.frames_pulled == all.size(), "every frame was counted");
        require(stats.speech_frames_pulled == spoken(), "every speech frame was counted");
        checkFailure(64);
    }

    void destroy() {
        auto done = std::async(std::launch::async, [this] { zorv_utt_destroy(utt_); });
        require(done.wait_for(test::kPatience) == std::future_status::ready,
                "an engine ends in time");
    }

    Stage& stage_;
    const UttLife& life_;
    zorv_utt* utt_ = nullptr;
    Ledger ledger_;
    Viewer viewers_[2];
    // The pushing thread's own, then drain()'s.
    std::uint64_t utterance_ = 0;  ///< samples since the last end
    std::uint64_t expected_ = 0;   ///< speech frames of ended utterances
};

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorv::fuzz;
    static Surroundings surroundings;
    for (const UttLife& life : readLives({data, size}, 3)) {
        Stage& stage = life.damagedContext ? surroundings.damaged : surroundings.good;
        Performance(stage, surroundings, life).run();
    }
    return 0;
}
