// Utterance engines, the tests' own player on them, called by three threads at once: one pushes,
// one pulls, one interrupts, moves the clock, asks and sometimes pulls as well. When the calls meet
// is up to the machine, so what is checked holds for every order: what each call may return, that
// frames come in order and none twice, show what they say, and never belong to an utterance that an
// interrupt has ended; that no speech is lost without an interrupt; and that an engine ends.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "fuzz_input.h"
#include "support/expression_dir.h"
#include "support/random_host.h"
#include "support/scoped_env.h"
#include "support/test_motion.h"
#include "support/threads.h"
#include "support/utt_player.h"

namespace zorv::fuzz {
namespace {

constexpr int kFrames = 5;  ///< of the bundle
constexpr int kIdle = 0, kSpeech = 1;
constexpr std::uint64_t kFrameSamples = 640;
constexpr std::size_t kBytesAboveCrop = std::size_t{4} * 48 * 6;

enum class Call { kPush, kNothing, kEnd, kPause, kPull, kSmall, kAsk, kInterrupt, kClock, kFail };

/// What each of the threads may be told to do: pusher, puller, controller.
constexpr Call kCalls[3][8] = {{Call::kPush, Call::kPush, Call::kPush, Call::kPush, Call::kEnd,
                                Call::kEnd, Call::kPause, Call::kNothing},
                               {Call::kPull, Call::kPull, Call::kPull, Call::kPull, Call::kPause,
                                Call::kAsk, Call::kAsk, Call::kSmall},
                               {Call::kInterrupt, Call::kInterrupt, Call::kPause, Call::kAsk,
                                Call::kClock, Call::kEnd, Call::kPull, Call::kFail}};

struct Step {
    Call call;
    int value;
};

/// The life of one engine: a byte for its source and modes, one for its end by silence, then two
/// per call: thread and call, and a value; a thread of 3 ends the life. Or, told by the second
/// byte, random runs of one host that keeps accounts of its sound, from a seed of two bytes.
struct Life {
    explicit Life(FuzzInput& input) {
        const int flags = input.byte();
        source = flags % 3;
        options.pipelined = flags & 0x20;
        options.steady = flags & 0x40 ? "b4" : "-";
        drained = !(flags & 0x80);
        const int how = input.byte();
        options.silenceS = how % 4 == 3 ? 0.6 : -1;
        accounts = how & 0x80;
        if (accounts) seed = input.word();
        if (accounts) return;
        for (int count = 0; !input.empty() && count < 80; ++count) {
            const int byte = input.byte(), thread = byte >> 6;
            if (thread == 3) break;
            steps[thread].push_back({kCalls[thread][byte % 8], input.byte()});
        }
    }
    bool has(int thread, Call call) const {
        return std::any_of(steps[thread].begin(), steps[thread].end(),
                           [&](const Step& step) { return step.call == call; });
    }

    int source;
    test::UttPlayerOptions options;
    bool drained;  ///< before it is destroyed, else destroyed at once
    bool accounts;
    unsigned seed = 0;
    std::vector<Step> steps[3];
};

class Performance {
  public:
    Performance(const Life& life, const test::UttPlayerOptions& options)
        : life_(life), player_(options), utt_(player_.utt()) {
        for (int frame = 0; frame < kFrames; ++frame) stills_.push_back(player_.still(frame));
    }

    void run() {
        std::thread pusher([&] { play(0, nullptr); });
        std::thread puller([&] { play(1, &viewers_[0]); });
        play(2, &viewers_[1]);
        pusher.join();
        puller.join();
        if (life_.drained) drain();
        checkTotals();
        auto done = std::async(std::launch::async, [this] { player_.destroy(); });
        require(done.wait_for(test::kPatience) == std::future_status::ready, "an engine ends");
    }

  private:
    /// One of the threads that pull.
    struct Viewer {
        std::vector<std::uint8_t> buffer;
        zorv_utt_frame_info last = {};
        std::vector<std::uint64_t> sequences;
        std::uint64_t speech = 0;
        int lastSpeech = -1;
        int interruptsDone = 0;  ///< before the last frame was asked for
    };

    bool mayFail() const { return life_.has(2, Call::kFail); }

    void play(int thread, Viewer* viewer) {
        for (const auto& [call, value] : life_.steps[thread]) {
            switch (call) {
                case Call::kPush:
                    push(value * 47);
                    break;
                case Call::kNothing:
                    pushNothing(value & 1);
                    break;
                case Call::kEnd:
                    thread == 0 ? end() : zorv_utt_end_utterance(utt_);
                    break;
                case Call::kPause:
                    std::this_thread::sleep_for(std::chrono::microseconds(50 * value));
                    break;
                case Call::kPull:
                    // Unless none comes for a while.
                    for (int left = value % 48, tries = 0; left > 0 && tries < 200;) {
                        pull(*viewer) ? --left : ++tries;
                        if (tries > 0) std::this_thread::yield();
                    }
                    break;
                case Call::kSmall:
                    pullSmall(*viewer, value % 4);
                    break;
                case Call::kAsk:
                    ask(value);
                    break;
                case Call::kInterrupt:
                    interrupt();
                    break;
                case Call::kClock:
                    player_.clock.advance(value * 10);
                    break;
                case Call::kFail:
                    player_.script.failAvail = true;
                    break;
            }
        }
    }

    void ask(int capacity) {
        const int waiting = zorv_utt_frames_available(utt_);
        require(waiting >= 0 && waiting <= 8, "at most 8 frames wait");
        require(zorv_utt_ready(utt_) == 1, "the engine can speak");
        zorv_utt_stats stats;
        zorv_utt_get_stats(utt_, &stats);
        require(stats.state >= 0 && stats.state <= 3, "a state that is documented");
        require(stats.speech_frames_pulled <= stats.frames_pulled, "speech is a part");
        char text[256] = "unchanged";
        const auto failures = zorv_utt_failure(utt_, text, static_cast<std::size_t>(capacity));
        require(capacity == 0 || std::strlen(text) < static_cast<std::size_t>(capacity), "cut");
        require(capacity < 2 || (failures == 0) == !*text, "a failure has a text");
        require(failures == 0 || mayFail(), text);
    }

    void pushNothing(int how) {
        const std::int16_t none = 0;
        require(zorv_utt_push_audio(utt_, &none, how - 1) == how,
                "no samples are fine, fewer than none are not");
        require(!*zorv_utt_last_error() == (how == 1), "what is refused is told");
    }

    void push(int samples) {
        std::vector<std::int16_t> pcm(static_cast<std::size_t>(samples) + 1);
        for (std::size_t i = 0; i < pcm.size(); ++i) {
            pcm[i] = static_cast<std::int16_t>(i * 7919 % 16384);
        }
        begun_ += static_cast<std::uint64_t>(samples);
        require(zorv_utt_push_audio(utt_, pcm.data(), samples) == 1, "audio is taken");
        pushed_ += static_cast<std::uint64_t>(samples);
        utterance_ += static_cast<std::uint64_t>(samples);
    }

    /// By the thread that pushes.
    void end() {
        zorv_utt_end_utterance(utt_);
        expected_ += (utterance_ + kFrameSamples - 1) / kFrameSamples;
        utterance_ = 0;
    }

    void interrupt() {
        const std::uint64_t before = pushed_;
        ++interruptsBegun_;
        zorv_utt_interrupt(utt_);
        ++interruptsDone_;
        if (begun_ == before) dead_ = before;  // no push met it
    }

    bool pull(Viewer& viewer) {
        const std::uint64_t dead = dead_;
        const int done = interruptsDone_;
        zorv_utt_frame_info info;
        viewer.buffer.resize(player_.frameBytes());
        const int result =
            zorv_utt_pull_frame(utt_, viewer.buffer.data(), viewer.buffer.size(), &info);
        require(result == 0 || result == 1, "a result that is documented");
        require(!*zorv_utt_last_error(), "nothing to pull is no failure");
        if (result == 0) return false;
        checkPlace(viewer, info);
        const std::vector<std::uint8_t>& still = stills_[static_cast<std::size_t>(info.frame)];
        const std::size_t same = info.kind == kIdle ? still.size() : kBytesAboveCrop;
        require(std::memcmp(viewer.buffer.data(), still.data(), same) == 0,
                "a frame shows the bundle frame that it names");
        if (info.kind == kSpeech) {
            require(
                static_cast<std::uint64_t>(info.speech_sequence) * kFrameSamples < begun_ - dead,
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
        require(info.kind == kSpeech ? info.speech_sequence >= 0 : info.speech_sequence == -1,
                "speech frames and no others have a number");
        const bool first = viewer.sequences.empty();
        require(first || info.sequence > viewer.last.sequence, "frames come in order, once");
        if (life_.has(2, Call::kPull)) return;  // another one pulls as well
        if (interruptsBegun_ == (first ? 0 : viewer.interruptsDone)) {
            require(info.sequence == (first ? 0 : viewer.last.sequence + 1),
                    "only interrupts drop frames");
        }
        require(info.frame == (first ? 0 : (viewer.last.frame + 1) % kFrames),
                "the body moves on by one frame");
        require(info.kind != kSpeech || info.speech_sequence == 0 ||
                    info.speech_sequence == viewer.lastSpeech + 1,
                "speech goes on by one frame");
    }

    void pullSmall(Viewer& viewer, int how) {
        viewer.buffer.resize(player_.frameBytes());
        const std::size_t capacity =
            how == 0 ? 0 : viewer.buffer.size() - static_cast<std::size_t>(how);
        std::uint8_t* buffer = how == 3 ? nullptr : viewer.buffer.data();
        require(zorv_utt_pull_frame(utt_, buffer, capacity, nullptr) == 0, "nothing fits");
        const std::string text = zorv_utt_last_error();
        require(how == 3 ? text == "zorv_utt_pull_frame: bad args"
                         : text.empty() || text == "zorv_utt_pull_frame: buffer too small",
                "a text that is documented");
    }

    std::uint64_t spoken() const { return viewers_[0].speech + viewers_[1].speech; }

    /// Nobody else calls the engine any more: what was said must come to its end.
    void drain() {
        // Who ended how many utterances is known only when nobody interfered.
        const bool counted = !mayFail() && life_.options.silenceS < 0 &&
                             !life_.has(2, Call::kInterrupt) && !life_.has(2, Call::kEnd);
        player_.script.failAvail = false;
        if (!counted) {
            interrupt();
            expected_ = spoken();
            utterance_ = 0;
            push(3 * kFrameSamples);
        }
        end();
        Viewer& viewer = viewers_[0];
        if (viewers_[1].last.sequence > viewer.last.sequence) viewer.last = viewers_[1].last;
        const auto comes = [&] { return pull(viewer); };
        while (spoken() < expected_) require(test::waitFor(comes), "all speech comes");
        for (int rest = 0; rest < 12; ++rest) require(test::waitFor(comes), "frames go on");
        require(spoken() == expected_, "no speech comes twice");
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
        ask(64);
    }

    const Life& life_;
    test::UttPlayer player_;
    zorv_utt* utt_;
    std::vector<std::vector<std::uint8_t>> stills_;
    // Samples of pushes that have begun, that have returned, and that an interrupt has ended.
    std::atomic<std::uint64_t> begun_{0}, pushed_{0}, dead_{0};
    std::atomic<int> interruptsBegun_{0}, interruptsDone_{0};
    Viewer viewers_[2];
    // The pushing thread's own, then drain()'s.
    std::uint64_t utterance_ = 0;  ///< samples since the last end
    std::uint64_t expected_ = 0;   ///< speech frames of ended utterances
};

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorv;
    GTEST_FLAG_SET(break_on_failure, true);  // what the player expects
    static const test::ScopedEnv encoder("W2V_ONNX", test::modelFile("a2x_w2v"));
    static const test::TestMotion motion({.nt = fuzz::kFrames});
    static const test::ExpressionDir expression({.window = 0, .nt = fuzz::kFrames});
    fuzz::FuzzInput input(data, size);
    for (int lives = 0; lives < 3 && !input.empty(); ++lives) {
        const fuzz::Life life(input);
        test::UttPlayerOptions options = life.options;
        options.nt = fuzz::kFrames;
        if (life.source == 1) options.engineDir = motion.dir();
        if (life.source == 2) options.engineDir = expression.path();
        if (life.accounts) {
            test::RandomRuns runs;
            runs.player = options;
            runs.failing = life.seed % 4 == 0;
            if (runs.failing) {
                runs.player.render = "render_fails";
                runs.player.steadyModel = "render_fails_b4";
            }
            test::randomRuns(runs, 1, 25, life.seed);
            continue;
        }
        fuzz::Performance(life, options).run();
    }
    return 0;
}
