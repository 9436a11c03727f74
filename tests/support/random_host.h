// Hosts that push, stall, end, interrupt and pull at random, and check what comes back.
#pragma once

#include <gtest/gtest.h>
#include <zorv_core.h>

#include <cstdint>
#include <random>
#include <vector>

#include "support/sound_accounts.h"
#include "support/threads.h"
#include "support/utt_player.h"

namespace zorv::test {

inline constexpr int kRates[] = {8000, 11025, 16000, 22050, 24000, 44100, 48000};

/// Where frames are pulled to, in any form.
struct Screen {
    Screen() {
        frame.struct_size = sizeof frame;
        for (int p = 0; p < 3; ++p) {
            frame.plane[p] = planes.data() + p * 2048;
            frame.stride[p] = 192;
        }
        frame.sound_capacity = static_cast<std::int32_t>(sound.size());
    }
    bool pull(zorv_utt* utt) {
        frame.sound = sound.data();
        const int result = zorv_utt_pull(utt, &frame);
        EXPECT_GE(result, 0) << zorv_utt_last_error();
        return result == 1;
    }

    std::vector<std::uint8_t> planes = std::vector<std::uint8_t>(16384);
    std::vector<std::int16_t> sound = std::vector<std::int16_t>(1920);
    zorv_utt_frame frame = {};
};

/// A host that pushes, stalls, ends, interrupts and pulls at random, and checks what comes back.
class RandomHost {
  public:
    RandomHost(UttPlayer& player, unsigned seed, int rate, bool skips)
        : accounts(rate, skips, 5), player_(player), random_(seed), rate_(rate) {}

    /// One run: some utterances, then until all of them are over.
    void run(bool failing) {
        const int steps = 10 + among(40);
        for (int step = 0; step < steps && accounts.fault.empty(); ++step) act(failing);
        zorv_utt_end_utterance(player_.utt());
        EXPECT_TRUE(waitFor([&] {
            pull(9);
            player_.clock.advance(20);  // a silence limit may be the only end of a failed one
            listen();
            return accounts.settled() || !accounts.fault.empty();
        })) << accounts.over
            << " of " << accounts.begun();
    }

    SoundAccounts accounts;

  private:
    int among(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }

    void act(bool failing) {
        switch (among(12)) {
            case 0:
                zorv_utt_end_utterance(player_.utt());
                break;
            case 1:
                if (among(3) == 0) {
                    zorv_utt_interrupt(player_.utt());
                    accounts.interrupted();
                }
                break;
            case 2:
                player_.advance(among(2) ? 700 : among(300));
                break;
            case 3:
                if (failing && among(4) == 0) player_.script.failAvail = true;
                break;
            case 4:
            case 5:
            case 6:
                player_.advance(40);
                pull(among(12));
                break;
            default:
                push(among(3) == 0 ? 1 + among(3) : 1 + among(rate_ / 4));
        }
        listen();
    }

    void push(int n) {
        std::vector<std::int16_t> pcm(static_cast<std::size_t>(n));
        const int loudness = among(8) == 0 ? 60000 : 3000;  // loud frames fail where renders may
        for (auto& sample : pcm) {
            sample = static_cast<std::int16_t>(among(loudness) - loudness / 2);
        }
        const std::uint64_t number = zorv_utt_push(player_.utt(), pcm.data(), n);
        accounts.pushed(number, pcm.data(), pcm.size());
    }

    void pull(int n) {
        while (n-- > 0 && screen_.pull(player_.utt())) accounts.pulled(screen_.frame);
    }

    void listen() {
        zorv_utt_event event = {};
        event.struct_size = sizeof event;
        while (zorv_utt_next_event(player_.utt(), &event) == 1) accounts.told(event);
    }

    UttPlayer& player_;
    std::mt19937 random_;
    const int rate_;
    Screen screen_;
};

struct RandomRuns {
    UttPlayerOptions player;
    bool failing = false;
};

/// `runs` runs on one engine after the other, each of the settings that its number says.
inline void randomRuns(const RandomRuns& options, int engines, int runs, unsigned seed) {
    for (int engine = 0; engine < engines; ++engine) {
        const unsigned number = seed + static_cast<unsigned>(engine);
        std::mt19937 random(number);
        UttPlayerOptions wanted = options.player;
        wanted.pipelined = random() % 2 != 0;
        wanted.silenceS = random() % 3 == 0 ? -1 : 0;
        UttPlayer player(wanted);
        const int rate = kRates[random() % 7];
        const bool skips = random() % 4 == 0;
        EXPECT_EQ(zorv_utt_set_input(player.utt(), rate), 1);
        EXPECT_EQ(zorv_utt_set_pixels(player.utt(), static_cast<int>(random() % 3)), 1);
        EXPECT_EQ(zorv_utt_set_idle_ahead(player.utt(), 1 + static_cast<int>(random() % 8)), 1);
        EXPECT_EQ(zorv_utt_set_late(player.utt(), skips), 1);
        RandomHost host(player, number, rate, skips);
        if (options.failing) {
            host.accounts.mayFail();
            player.script.gain = 400;
        }
        for (int run = 0; run < runs; ++run) {
            host.run(options.failing);
            ASSERT_EQ(host.accounts.fault, "") << "seed " << number << ", run " << run << ", rate "
                                               << rate << (wanted.pipelined ? ", pipelined" : "");
        }
        EXPECT_GT(host.accounts.speech, 0u);
        EXPECT_TRUE(options.failing || zorv_utt_failure(player.utt(), nullptr, 0) == 0);
    }
}

}  // namespace zorv::test
