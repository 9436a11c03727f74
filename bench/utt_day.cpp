// A day in the life of an utterance engine, as fast as it goes: every pull moves the clock by one
// frame, so that silence limits and stalls come when they would. A bundle of 64 x 64 pixels, models
// that are formulas. Prints JSON; ends with 1 when a frame was lost, shown twice or out of order.
//   utt_day [hours] [formula|models]   the motion source: a formula in C++, or the motion engine
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "stopwatch.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"
#include "support/utt_player.h"

namespace {

using namespace zorv;

constexpr double kFrameMs = 40;
constexpr int kFrameSamples = 640;
constexpr int kTicksPerHour = 3600 * 25, kQuietTicks = 60 * 25;

/// What the allocator keeps for later is not the engine's.
double residentKiB() {
    malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    double total = 0, resident = 0;
    file >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

/// What was pushed and has not been shown to its end.
struct Utterance {
    int samples = 0;
    int due() const { return (samples + kFrameSamples - 1) / kFrameSamples; }
    int shown = 0;
};

struct Accounts {
    long utterances = 0, whole = 0, interrupted = 0, speech = 0, late = 0;
    long wrong = 0;  ///< utterances with other frames than they should have, frames out of order
};

/// Follows the frames that are pulled.
class Bookkeeper {
  public:
    void push(int samples) {
        if (!open_) {
            queue_.emplace_back();
            ++accounts.utterances;
        }
        open_ = true;
        queue_.back().samples += samples;
    }
    void end() { open_ = false; }
    void interrupt() {
        accounts.interrupted += static_cast<long>(queue_.size());
        queue_.clear();
        open_ = false;
        cut_ = true;
    }
    void pulled(const zorv_utt_frame_info& info) {
        const bool first = sequence_ < 0;
        const auto sequence = static_cast<long>(info.sequence);
        if (!first && (cut_ ? sequence <= sequence_ : sequence != sequence_ + 1)) ++accounts.wrong;
        if (!first && info.frame != (frame_ + 1) % nt) ++accounts.wrong;
        sequence_ = sequence;
        frame_ = info.frame;
        cut_ = false;
        if (info.kind != 1) return;
        ++accounts.speech;
        if (info.speech_sequence == 0) closeFront();
        if (queue_.empty() || info.speech_sequence != queue_.front().shown) {
            ++accounts.wrong;
        } else {
            ++queue_.front().shown;
        }
    }
    /// No utterance waits behind another.
    bool alone() const { return queue_.size() == 1; }
    /// At most the end of one utterance is still to be seen.
    bool caughtUp() const {
        return queue_.empty() || (alone() && queue_.front().due() - queue_.front().shown < 25);
    }
    /// All has been said and shown.
    void close() {
        closeFront();
        accounts.wrong += static_cast<long>(queue_.size());
    }

    Accounts accounts;
    int nt = 1;

  private:
    /// The utterance that was shown last is over.
    void closeFront() {
        if (queue_.empty() || queue_.front().shown == 0) return;
        if (queue_.front().shown != queue_.front().due()) ++accounts.wrong;
        ++accounts.whole;
        queue_.pop_front();
    }

    std::deque<Utterance> queue_;
    bool open_ = false, cut_ = false;
    long sequence_ = -1;
    int frame_ = 0;
};

/// What the agent does next: seeded, a frame at a time.
class Agent {
  public:
    Agent(zorv_utt& utt, Bookkeeper& books) : utt_(utt), books_(books) {}

    void tick() {
        if (pause_ > 0) {
            --pause_;
        } else if (left_ == 0) {
            begin();
        } else {
            push(std::min(left_, burst_ ? left_ : kFrameSamples));
            if (left_ == 0) end();
        }
        if (interruptIn_ > 0 && --interruptIn_ == 0) interrupt();
    }
    void stop() {
        if (left_ > 0) {
            left_ = 0;
            utt_.endUtterance();
            books_.end();
        }
    }

  private:
    int among(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

    void begin() {
        left_ = among(1, 12 * 16000);
        // One at a time: what waits to be spoken would make the memory of a day, not of the engine.
        burst_ = among(0, 9) == 0 && books_.caughtUp();
        interruptIn_ = among(0, 4) == 0 ? among(1, 200) : 0;
    }
    void push(int samples) {
        const auto level = static_cast<std::int16_t>(among(-20000, 20000));
        pcm_.assign(static_cast<std::size_t>(samples), level);
        FailureText unspoken;
        utt_.push(pcm_.data(), pcm_.size(), unspoken);
        books_.push(samples);
        left_ -= samples;
    }
    void end() {
        // Without the call the silence limit of 0.6 s ends it, once all before it has been said.
        const bool told = among(0, 3) > 0 || !books_.alone();
        if (told) utt_.endUtterance();
        books_.end();
        pause_ = told ? among(0, 120) : among(20, 120);
    }
    void interrupt() {
        utt_.interrupt();
        books_.interrupt();
        left_ = 0;
        pause_ = among(0, 1) * among(0, 60);
    }

    zorv_utt& utt_;
    Bookkeeper& books_;
    std::mt19937 random_{20};
    std::vector<std::int16_t> pcm_;
    int left_ = 0;  ///< samples of the utterance that is being pushed
    bool burst_ = false;
    int pause_ = 0, interruptIn_ = 0;  ///< ticks
};

/// Pulls one frame; false when none came for a while, as in a pause of the speech.
bool pull(zorv_utt& utt, std::vector<std::uint8_t>& frame, zorv_utt_frame_info& info) {
    for (int attempt = 0; attempt < 400; ++attempt) {
        if (utt.pull(frame.data(), frame.size(), &info) == zorv_utt::Pull::kDone) return true;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return false;
}

/// An engine on a tiny bundle, with a clock that the day moves.
class Stage {
  public:
    explicit Stage(bool models)
        : bundle_(size()), motion_({.nt = size().nt}), context_(bundle_.dir(), "render", 1, "") {
        bundle_.useModel("b24_fp32", "render_b4");
        test::writeFile(motion_.path("xs_target.bin"),
                        test::readFile(bundle_.path("xs_target.bin")));
        script_.heldBack = 3;
        UttSurroundings surroundings;
        surroundings.clock = &clock_;
        if (!models) {
            surroundings.openSource = [this](const UttOptions&) {
                return test::makeFakeSource(bundle_, script_);
            };
        }
        zorv_utt_opts opts = {};
        opts.motion_dir = motion_.dir().c_str();
        utt_ = std::make_unique<zorv_utt>(context_, opts, surroundings);
        FailureText text;
        while (utt_->ready(text) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    static test::TestBundleOptions size() {
        test::TestBundleOptions size;
        size.width = size.height = 64;
        return size;
    }
    zorv_utt& utt() { return *utt_; }

    /// Moves the clock by a frame and pulls it; false when there was none.
    bool tick(zorv_utt_frame_info& info) {
        clock_.advance(kFrameMs);
        return pull(*utt_, frame_, info);
    }

  private:
    test::TestBundle bundle_;
    const test::TestMotion motion_;
    zorv_ctx context_;
    test::TestClock clock_;
    test::SourceScript script_;
    std::unique_ptr<zorv_utt> utt_;
    std::vector<std::uint8_t> frame_ = std::vector<std::uint8_t>(std::size_t{4} * 64 * 64);
};

/// Resident memory at the end of each hour, in KiB.
struct Memory {
    double first = 0, most = 0, last = 0;

    void hour(int number) {
        last = residentKiB();
        if (number == 1) first = last;
        most = std::max(most, last);
        const struct mallinfo2 heap = mallinfo2();
        std::fprintf(stderr, "hour %d: %.0f KiB, %.0f KiB allocated\n", number, last,
                     static_cast<double>(heap.uordblks + heap.hblkhd) / 1024);
    }
};

int conclude(int hours, double seconds, const Accounts& all, const Memory& memory,
             std::uint64_t failures) {
    std::printf(
        "{\"hours\": %d, \"seconds\": %.1f, \"utterances\": %ld, \"whole\": %ld, "
        "\"interrupted\": %ld, \"speech_frames\": %ld, \"late\": %ld, \"wrong\": %ld, "
        "\"failures\": %lu, \"resident_KiB_after_first_hour\": %.0f, \"growth_KiB\": %.0f, "
        "\"most_growth_KiB\": %.0f}\n",
        hours, seconds, all.utterances, all.whole, all.interrupted, all.speech, all.late, all.wrong,
        static_cast<unsigned long>(failures), memory.first, memory.last - memory.first,
        memory.most - memory.first);
    return all.wrong == 0 && failures == 0 && all.whole + all.interrupted == all.utterances ? 0 : 1;
}

int day(int hours, bool models) {
    Stage stage(models);
    Bookkeeper books;
    books.nt = Stage::size().nt;
    Agent agent(stage.utt(), books);
    zorv_utt_frame_info info;
    const auto tick = [&] {
        if (stage.tick(info)) {
            books.pulled(info);
        } else {
            ++books.accounts.late;
        }
    };
    Memory memory;
    const double start = bench::secondsNow(CLOCK_MONOTONIC);
    for (int hour = 1; hour <= hours; ++hour) {
        for (int i = 0; i < kTicksPerHour - kQuietTicks; ++i) {
            agent.tick();
            tick();
        }
        // Until all has been said: sound that waits is in memory, too.
        agent.stop();
        for (int i = 0; i < kQuietTicks; ++i) tick();
        memory.hour(hour);
    }
    books.close();
    return conclude(hours, bench::secondsNow(CLOCK_MONOTONIC) - start, books.accounts, memory,
                    stage.utt().failure(nullptr, 0));
}

}  // namespace

int main(int argc, char** argv) {
    return day(argc > 1 ? std::atoi(argv[1]) : 24, argc > 2 && std::string(argv[2]) == "models");
}
