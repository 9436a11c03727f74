// A day in the life of an utterance engine, as fast as it goes: every pull moves the clock by one
// frame, so that silence limits and stalls come when they would. A bundle of 64 x 64 pixels, models
// that are formulas. Prints JSON; ends with 1 when a sample of sound was lost, played twice or out
// of order, or an utterance was not told exactly one beginning and one end.
//   utt_day [hours] [formula|models]   the motion source: a formula in C++, or the motion engine
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "stopwatch.h"
#include "support/random_host.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"
#include "support/utt_player.h"

namespace {

using namespace zorv;

constexpr double kFrameMs = 40;
constexpr int kRate = 24000, kFrameSamples = kRate / 25;
constexpr int kTicksPerHour = 3600 * 25, kQuietTicks = 60 * 25;

/// What the allocator keeps for later is not the engine's.
double residentKiB() {
    malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    double total = 0, resident = 0;
    file >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

/// What the agent does next: seeded, a frame at a time.
class Agent {
  public:
    Agent(zorv_utt& utt, test::SoundAccounts& accounts) : utt_(utt), accounts_(accounts) {}

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
        }
    }

  private:
    int among(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

    void begin() {
        left_ = among(1, 12 * kRate);
        // One at a time: what waits to be spoken would make the memory of a day, not of the engine.
        burst_ = among(0, 9) == 0 && accounts_.settled();
        interruptIn_ = among(0, 4) == 0 ? among(1, 200) : 0;
    }
    void push(int samples) {
        const auto level = static_cast<std::int16_t>(among(-20000, 20000));
        pcm_.assign(static_cast<std::size_t>(samples), level);
        for (std::size_t i = 0; i < pcm_.size(); i += 7) pcm_[i] = static_cast<std::int16_t>(i);
        FailureText fatal;
        accounts_.pushed(utt_.push(pcm_.data(), pcm_.size(), fatal), pcm_.data(), pcm_.size());
        left_ -= samples;
    }
    void end() {
        // Without the call the silence limit of 0.6 s ends it, once all before it has been said.
        const bool told = among(0, 3) > 0 || accounts_.over + 1 < accounts_.begun();
        if (told) utt_.endUtterance();
        pause_ = told ? among(0, 120) : among(20, 120);
    }
    void interrupt() {
        utt_.interrupt();
        accounts_.interrupted();
        left_ = 0;
        pause_ = among(0, 1) * among(0, 60);
    }

    zorv_utt& utt_;
    test::SoundAccounts& accounts_;
    std::mt19937 random_{20};
    std::vector<std::int16_t> pcm_;
    int left_ = 0;  ///< samples of the utterance that is being pushed
    bool burst_ = false;
    int pause_ = 0, interruptIn_ = 0;  ///< ticks
};

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
        utt_->setInput(kRate);
        utt_->setPixels(ZORV_PIXELS_I420);
        FailureText text;
        while (utt_->ready(text) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    static test::TestBundleOptions size() {
        test::TestBundleOptions size;
        size.width = size.height = 64;
        return size;
    }
    zorv_utt& utt() { return *utt_; }

    /// Moves the clock by a frame, pulls it and listens; false when there was none for a while, as
    /// in a pause of the speech.
    bool tick(test::SoundAccounts& accounts) {
        clock_.advance(kFrameMs);
        bool came = false;
        for (int attempt = 0; attempt < 400 && !came; ++attempt) {
            came = screen_.pull(utt_.get());
            if (!came) std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
        if (came) accounts.pulled(screen_.frame);
        zorv_utt_event event = {};
        while (utt_->nextEvent(event)) accounts.told(event);
        return came;
    }

  private:
    test::TestBundle bundle_;
    const test::TestMotion motion_;
    zorv_ctx context_;
    test::TestClock clock_;
    test::SourceScript script_;
    std::unique_ptr<zorv_utt> utt_;
    test::Screen screen_;
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

int conclude(int hours, double seconds, const test::SoundAccounts& all, long late,
             const Memory& memory, std::uint64_t failures) {
    std::printf(
        "{\"hours\": %d, \"seconds\": %.1f, \"utterances\": %lu, \"finished\": %lu, "
        "\"interrupted\": %lu, \"speech_frames\": %lu, \"late\": %ld, \"fault\": \"%s\", "
        "\"failures\": %lu, \"resident_KiB_after_first_hour\": %.0f, \"growth_KiB\": %.0f, "
        "\"most_growth_KiB\": %.0f}\n",
        hours, seconds, static_cast<unsigned long>(all.begun()),
        static_cast<unsigned long>(all.finished), static_cast<unsigned long>(all.interrupts),
        static_cast<unsigned long>(all.speech), late, all.fault.c_str(),
        static_cast<unsigned long>(failures), memory.first, memory.last - memory.first,
        memory.most - memory.first);
    return all.fault.empty() && all.settled() && failures == 0 ? 0 : 1;
}

int day(int hours, bool models) {
    Stage stage(models);
    test::SoundAccounts accounts(kRate, false, Stage::size().nt);
    Agent agent(stage.utt(), accounts);
    long late = 0;
    const auto tick = [&] { late += !stage.tick(accounts); };
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
    return conclude(hours, bench::secondsNow(CLOCK_MONOTONIC) - start, accounts, late, memory,
                    stage.utt().failure(nullptr, 0));
}

}  // namespace

int main(int argc, char** argv) {
    return day(argc > 1 ? std::atoi(argv[1]) : 24, argc > 2 && std::string(argv[2]) == "models");
}
