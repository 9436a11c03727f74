// A day in the life of an utterance engine, as fast as it goes: every pull moves the clock by one
// frame, so that silence limits and stalls come when they would. A bundle of 64 x 64 pixels, models
// that are formulas. Prints JSON; ends with 1 when a frame was lost, shown twice or out of order.
//   utt_day [hours] [formula|models]   the motion source: a formula in C++, or the motion engine
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

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
        utt_.push(pcm_.data(), pcm_.size());
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

int day(int hours, bool models) {
    test::TestBundleOptions size;
    size.width = size.height = 64;
    test::TestBundle bundle(size);
    bundle.useModel("b24_fp32", "render_b4");
    const test::TestMotion motion({.nt = size.nt});
    test::writeFile(motion.path("xs_target.bin"), test::readFile(bundle.path("xs_target.bin")));
    zorv_ctx context(bundle.dir(), "render", 1, "");
    test::TestClock clock;
    test::SourceScript script;
    script.heldBack = 3;
    UttSurroundings surroundings;
    surroundings.clock = &clock;
    if (!models)
        surroundings.openSource = [&](const UttOptions&) {
            return test::makeFakeSource(bundle, script);
        };
    zorv_utt_opts opts = {};
    opts.motion_dir = motion.dir().c_str();
    zorv_utt utt(context, opts, surroundings);
    std::string text;
    while (utt.ready(text) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));

    Bookkeeper books;
    books.nt = size.nt;
    Agent agent(utt, books);
    std::vector<std::uint8_t> frame(std::size_t{4} * 64 * 64);
    zorv_utt_frame_info info;
    double first = 0, most = 0, last = 0;
    const auto start = std::chrono::steady_clock::now();
    const auto tick = [&] {
        clock.advance(kFrameMs);
        if (pull(utt, frame, info)) {
            books.pulled(info);
        } else {
            ++books.accounts.late;
        }
    };
    // Until all has been said: sound that waits is in memory, too.
    const auto settle = [&] {
        agent.stop();
        for (int i = 0; i < kQuietTicks; ++i) tick();
    };
    for (int hour = 0; hour < hours; ++hour) {
        for (int i = 0; i < kTicksPerHour - kQuietTicks; ++i) {
            agent.tick();
            tick();
        }
        settle();
        last = residentKiB();
        if (hour == 0) first = last;
        most = std::max(most, last);
        const struct mallinfo2 heap = mallinfo2();
        std::fprintf(stderr, "hour %d: %.0f KiB, %.0f KiB allocated\n", hour + 1, last,
                     static_cast<double>(heap.uordblks + heap.hblkhd) / 1024);
    }
    books.close();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const Accounts& all = books.accounts;
    const auto failures = utt.failure(nullptr, 0);
    std::printf(
        "{\"hours\": %d, \"seconds\": %.1f, \"utterances\": %ld, \"whole\": %ld, "
        "\"interrupted\": %ld, \"speech_frames\": %ld, \"late\": %ld, \"wrong\": %ld, "
        "\"failures\": %lu, \"resident_KiB_after_first_hour\": %.0f, \"growth_KiB\": %.0f, "
        "\"most_growth_KiB\": %.0f}\n",
        hours, seconds, all.utterances, all.whole, all.interrupted, all.speech, all.late, all.wrong,
        static_cast<unsigned long>(failures), first, last - first, most - first);
    return all.wrong == 0 && failures == 0 && all.whole + all.interrupted == all.utterances ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    return day(argc > 1 ? std::atoi(argv[1]) : 24, argc > 2 && std::string(argv[2]) == "models");
}
