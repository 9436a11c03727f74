// The utterance engine as a host plays it: pictures with their sound, events, settings, wake-ups.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>

#include <atomic>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "audio/speech_resampler.h"
#include "support/expression_dir.h"
#include "support/random_host.h"
#include "support/scoped_env.h"
#include "support/test_motion.h"
#include "support/threads.h"
#include "support/utt_player.h"

namespace zorv {
namespace {

using test::randomRuns;
using test::RandomRuns;
using test::Screen;
using test::UttPlayer;
using test::UttPlayerOptions;

zorv_utt_latency_info latency(zorv_utt* utt) {
    zorv_utt_latency_info info = {};
    info.struct_size = sizeof info;
    EXPECT_EQ(zorv_utt_latency(utt, &info), 1);
    return info;
}

// A thousand runs together; seeds tell each other's engines apart.
TEST(UttAccountsTest, SoundComesBackAsItWasPushed) {
    RandomRuns runs;
    randomRuns(runs, 16, 25, 100);
}

TEST(UttAccountsTest, InBatchesAsWell) {
    RandomRuns runs;
    runs.player.steady = "b4";
    randomRuns(runs, 14, 25, 200);
}

TEST(UttAccountsTest, FailuresLeaveNoHoleUntold) {
    RandomRuns runs;
    runs.failing = true;
    runs.player.render = "render_fails";
    randomRuns(runs, 5, 25, 300);
    runs.player.steady = "b4";
    runs.player.steadyModel = "render_fails_b4";
    randomRuns(runs, 5, 25, 400);
}

TEST(UttAccountsTest, BothEnginesKeepThem) {
    const test::ScopedEnv encoder("W2V_ONNX", test::modelFile("a2x_w2v"));
    const test::TestMotion motion({.nt = 5});
    const test::ExpressionDir expression({.window = 0, .nt = 5});
    RandomRuns runs;
    runs.player.engineDir = motion.dir();
    randomRuns(runs, 2, 15, 500);
    runs.player.engineDir = expression.path();
    randomRuns(runs, 2, 15, 600);
}

// With one idle frame made ahead, speech shows as soon as it is there, and the body never jumps.
TEST(UttIdleAheadTest, SpeechShowsSoon) {
    UttPlayerOptions options;
    UttPlayer player(options);
    player.waitForFrames(8);
    EXPECT_EQ(zorv_utt_set_idle_ahead(player.utt(), 1), 1);
    EXPECT_EQ(zorv_utt_frames_available(player.utt()), 1) << "the others are taken back";
    player.script.renderMs = 12;
    player.script.heldBack = 1;
    std::mt19937 random(8);
    Screen screen;
    int frame = -1, soon = 0;
    std::uint64_t gaps = 0, sequence = 0;
    int tick = 0;  // of 4 ms; the host pulls every tenth
    for (int line = 0; line < 100; ++line) {
        const int begin = tick + static_cast<int>(random() % 500);
        double firstExchange = -1, firstPull = -1;
        for (int pushed = 0, rest = 0; rest < 8; ++tick) {
            if (tick >= begin && pushed < 8 && (tick - begin) % 10 == 0) {
                player.push(1, 0.2f);
                if (++pushed == 2) firstExchange = player.clock.nowMs();  // one is held back
                if (pushed == 8) zorv_utt_end_utterance(player.utt());
            }
            player.advance(4);
            if (tick % 10 != 0 || !screen.pull(player.utt())) continue;
            EXPECT_EQ(screen.frame.frame, (frame + 1) % 5);
            frame = screen.frame.frame;
            gaps += screen.frame.sequence - sequence;
            sequence = screen.frame.sequence + 1;
            if (screen.frame.kind == 1 && firstPull < 0) firstPull = player.clock.nowMs();
            if (screen.frame.kind == 0 && firstPull > 0) ++rest;
        }
        soon += firstPull - firstExchange <= 12 + 40 + 40;
    }
    EXPECT_GE(soon, 99);
    EXPECT_EQ(gaps, 7u) << "those that were taken back, and no others";
}

// Sound at another rate moves the mouth as the same sound at 16 kHz does.
TEST(UttInputTest, AnotherRateShowsTheSameFrames) {
    constexpr int kRate = 48000, kSamples = kRate * 2 + 77;
    std::vector<std::int16_t> pcm(kSamples);
    std::vector<float> whole(kSamples), heard(kSamples);
    for (int i = 0; i < kSamples; ++i) {
        pcm[i] = static_cast<std::int16_t>(9000 * std::sin(1e-6 * i * i) + 3000);
        whole[i] = static_cast<float>(pcm[i]) / 32768;
    }
    heard.resize(zorv_resample(whole.data(), kSamples, kRate, heard.data(), kSamples));
    std::vector<std::int16_t> offline;
    for (const float sample : heard) {
        offline.push_back(static_cast<std::int16_t>(std::lround(sample * 32768)));
    }
    std::vector<std::vector<std::uint8_t>> shown[2];
    for (const int rate : {kRate, 16000}) {
        UttPlayerOptions options;
        options.nt = 1;  // the body stands still
        options.waitUntilReady = false;
        UttPlayer player(options);
        EXPECT_EQ(zorv_utt_set_input(player.utt(), rate), 1);
        const auto& sound = rate == kRate ? pcm : offline;
        EXPECT_EQ(zorv_utt_push(player.utt(), sound.data(), static_cast<int>(sound.size())), 1u);
        zorv_utt_end_utterance(player.utt());
        for (const test::PulledFrame& frame : player.pullUntil(2, 500)) {
            if (frame.info.kind == 1) shown[rate == kRate].push_back(frame.rgba);
        }
    }
    ASSERT_EQ(shown[0].size(), 51u);
    ASSERT_EQ(shown[1].size(), 51u);
    for (std::size_t k = 0; k < shown[0].size(); ++k) {
        EXPECT_LE(test::difference(shown[0][k], shown[1][k]), 1) << k;
    }
}

// What each form holds is the context's affair; planes and strides are the host's.
TEST(UttPullTest, FramesComeInTheFormThatWasSet) {
    for (int pixels = ZORV_PIXELS_RGBA; pixels <= ZORV_PIXELS_NV12; ++pixels) {
        const auto form = static_cast<PixelForm>(pixels);
        UttPlayer player;
        EXPECT_EQ(zorv_utt_set_pixels(player.utt(), pixels), 1);
        EXPECT_EQ(zorv_utt_set_matrix(player.utt(), ZORV_MATRIX_BT709), 1);
        Screen screen;
        ASSERT_TRUE(test::waitFor([&] { return screen.pull(player.utt()); }));
        FrameView pulled;
        std::copy_n(screen.frame.plane, kMaxPlanes, pulled.plane);
        std::copy_n(screen.frame.stride, kMaxPlanes, pulled.stride);
        zorv_ctx& context = player.reference();
        std::vector<std::uint8_t> shown(context.frameBytes(form)), wanted(shown);
        copyFrame(form, pulled, context.packed(form, shown.data()), 48, 40);
        context.compose(screen.frame.frame, nullptr, form, YuvMatrix::kBt709,
                        context.packed(form, wanted.data()));
        EXPECT_EQ(shown, wanted) << pixels;
        if (form == PixelForm::kRgba) continue;
        std::vector<std::uint8_t> rgba(player.frameBytes());
        EXPECT_EQ(zorv_utt_pull_frame(player.utt(), rgba.data(), rgba.size(), nullptr), 0);
        EXPECT_NE(std::string(zorv_utt_last_error()).find("zorv_utt_pull"), std::string::npos);
    }
}

TEST(UttPullTest, BothPullsShareFramesAndTime) {
    UttPlayer player;
    player.say(12, 0.3f);
    Screen screen;
    std::int64_t pts = 0;
    for (int speech = 0, k = 0; speech < 12; ++k) {
        if (k % 3 == 1) {
            speech += player.pull(1)[0].info.kind == 1;
            ++pts;
        } else if (screen.pull(player.utt())) {
            EXPECT_EQ(screen.frame.pts, pts++);
            if (screen.frame.kind != 1) continue;
            EXPECT_EQ(screen.frame.first_sample, 640 * speech++);
        }
    }
}

/// The call fails as `failure` with a text.
template <class Result>
void refused(Result result, Result failure, const std::string& text) {
    EXPECT_EQ(result, failure) << text;
    EXPECT_NE(std::string(zorv_utt_last_error()).find(text), std::string::npos)
        << zorv_utt_last_error();
}

TEST(UttBadInputTest, IsToldAndLosesNothing) {
    UttPlayer player;
    zorv_utt* utt = player.utt();
    refused<zorv_utt*>(zorv_utt_create(nullptr, nullptr), nullptr,
                       "zorv_utt_create: NULL ctx/opts");
    refused<zorv_utt*>(zorv_utt_open(&player.reference(), nullptr), nullptr, "motion_dir required");
    zorv_utt_destroy(nullptr);
    zorv_utt_end_utterance(nullptr);
    zorv_utt_interrupt(nullptr);
    zorv_utt_get_stats(nullptr, nullptr);
    EXPECT_EQ(zorv_utt_ready(nullptr), -1);
    EXPECT_EQ(zorv_utt_frames_available(nullptr), 0);
    EXPECT_EQ(zorv_utt_failure(nullptr, nullptr, 0), 0u);
    EXPECT_STREQ(zorv_utt_last_error(), "");
    refused(zorv_utt_set_input(utt, 16001), 0, "zorv_utt_set_input: rate: 8000");
    for (const int value : {-1, 4}) refused(zorv_utt_set_pixels(utt, value), 0, "ZORV_PIXELS_");
    for (const int value : {-1, 3}) refused(zorv_utt_set_matrix(utt, value), 0, "ZORV_MATRIX_");
    for (const int value : {0, 9}) refused(zorv_utt_set_idle_ahead(utt, value), 0, "1 to 8");
    for (const int value : {-1, 2}) refused(zorv_utt_set_late(utt, value), 0, "ZORV_LATE_");
    refused(zorv_utt_set_late(nullptr, 0), 0, "bad args");
    for (const int mask : {0, 4, -1}) {
        refused(zorv_utt_fd(utt, mask), -1, "mask");
        refused(zorv_utt_wait(utt, mask, 0), -1, "mask");
    }
    refused(zorv_utt_fd(nullptr, 1), -1, "bad args");
    refused(zorv_utt_wait(nullptr, 1, 0), -1, "bad args");
    const std::int16_t sample = 100;
    refused(zorv_utt_push(utt, nullptr, 1), std::uint64_t{0}, "bad args");
    refused(zorv_utt_push(utt, &sample, -1), std::uint64_t{0}, "bad args");
    refused(zorv_utt_push_audio(utt, nullptr, 0), 0, "zorv_utt_push_audio: bad args");
    refused(zorv_utt_push_audio(nullptr, &sample, 1), 0, "zorv_utt_push_audio: bad args");
    EXPECT_EQ(zorv_utt_push(utt, &sample, 0), 0u);
    EXPECT_STREQ(zorv_utt_last_error(), "") << "no samples are no mistake";
    EXPECT_EQ(zorv_utt_set_input(utt, 8000), 1);

    player.waitForFrames(8);
    refused(zorv_utt_pull(utt, nullptr), -1, "bad args");
    refused(zorv_utt_pull_frame(utt, nullptr, 9, nullptr), 0, "zorv_utt_pull_frame: bad args");
    const auto pull = [&](auto&& change) {
        Screen screen;
        screen.frame.sound = screen.sound.data();
        change(screen.frame);
        return zorv_utt_pull(utt, &screen.frame);
    };
    refused(pull([](zorv_utt_frame& frame) { frame.plane[0] = nullptr; }), -1, "plane");
    refused(pull([](zorv_utt_frame& frame) { frame.stride[0] = 191; }), -1, "stride");
    refused(pull([](zorv_utt_frame& frame) { frame.sound_capacity = 319; }), -1, "sound_capacity");
    for (const std::size_t size : {0u, 12u, 63u}) {
        refused(pull([&](zorv_utt_frame& frame) { frame.struct_size = size; }), -1, "struct_size");
    }
    EXPECT_EQ(zorv_utt_set_late(utt, ZORV_LATE_WAIT), 1) << "a refused pull settles nothing";
    EXPECT_EQ(zorv_utt_frames_available(utt), 8);

    // A record of an earlier version is filled as far as it goes, one of a later one keeps its
    // rest.
    struct {
        zorv_utt_frame frame;
        std::uint64_t rest;
    } later = {Screen().frame, 77};
    Screen screen;
    later.frame.plane[0] = screen.planes.data();
    later.frame.struct_size = sizeof later;
    EXPECT_EQ(zorv_utt_pull(utt, &later.frame), 1);
    EXPECT_EQ(later.rest, 77u);
    later.frame.struct_size = offsetof(zorv_utt_frame, kind);
    later.frame.kind = 99;
    EXPECT_EQ(zorv_utt_pull(utt, &later.frame), 1);
    EXPECT_EQ(later.frame.sequence, 1u);
    EXPECT_EQ(later.frame.kind, 99);
    zorv_utt_latency_info info = {};
    info.struct_size = 20;
    refused(zorv_utt_latency(utt, &info), 0, "struct_size");
    zorv_utt_event event = {};
    refused(zorv_utt_next_event(utt, &event), -1, "struct_size");

    refused(zorv_utt_set_input(utt, 16000), 0, "before the first");
    refused(zorv_utt_set_idle_ahead(utt, 1), 0, "before the first");
    EXPECT_EQ(latency(utt).look_ahead_samples, 320 + SpeechResampler(8000).lookAhead());
}

TEST(EventQueueTest, KeepsTheNewestAndTellsHowManyAreMissing) {
    EventQueue queue;
    for (std::uint64_t number = 1; number <= EventQueue::kKept + 5; ++number) {
        zorv_utt_event event = {};
        event.utterance = number;
        queue.put(event);
    }
    for (std::uint64_t number = 6; number <= EventQueue::kKept + 5; ++number) {
        const zorv_utt_event event = queue.take();
        EXPECT_EQ(event.utterance, number);
        EXPECT_EQ(event.missed, number == 6 ? 5u : 0u);
    }
    EXPECT_TRUE(queue.empty());
}

bool readable(int fd, int timeoutMs) {
    pollfd waits = {fd, POLLIN, 0};
    return ::poll(&waits, 1, timeoutMs) == 1;
}

// A host that sleeps in poll() is woken for every frame and event, and for nothing else; no frame
// of an utterance comes after its interrupt.
class UttWakeUpTest : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Pipelined, UttWakeUpTest, testing::Bool());

TEST_P(UttWakeUpTest, DescriptorsAreReadableWhileSomethingCanBeHad) {
    UttPlayerOptions options;
    options.pipelined = GetParam();
    UttPlayer player(options), other(options);
    zorv_utt* utt = player.utt();
    const int frames = zorv_utt_fd(utt, 1), events = zorv_utt_fd(utt, 2),
              both = zorv_utt_fd(utt, 3);
    EXPECT_EQ(zorv_utt_fd(utt, 1), frames);
    EXPECT_NE(::fcntl(frames, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(readable(events, 0));
    pollfd engines[] = {{events, POLLIN, 0}, {zorv_utt_fd(other.utt(), 3), POLLIN, 0}};
    EXPECT_EQ(::poll(engines, 2, -1), 1) << "the other engine's frames";

    std::atomic<int> interrupts{0};
    std::atomic<std::uint64_t> dead{0};   // the last utterance that an interrupt has ended
    std::atomic<std::uint64_t> shown{0};  // whose speech was pulled last
    std::atomic<bool> done{false};
    std::thread speaker([&] {
        std::mt19937 random(4);
        for (std::uint64_t k = 0; k < 500; ++k) {
            test::waitFor([&] {
                zorv_utt_stats stats;
                zorv_utt_get_stats(utt, &stats);
                return stats.frames_pulled >= 20 * k;
            });
            const std::vector<std::int16_t> pcm(640 * (1 + random() % 8), 6000);
            const auto number = zorv_utt_push(utt, pcm.data(), static_cast<int>(pcm.size()));
            if (random() % 2) {
                zorv_utt_end_utterance(utt);
                test::waitFor([&] { return shown == number; });  // as it speaks
            }
            ++interrupts;
            zorv_utt_interrupt(utt);
            dead = number;
            ++interrupts;
        }
        done = true;
    });
    Screen screen;
    int pulled = 0, woken = 0;
    zorv_utt_event event = {};
    event.struct_size = sizeof event;
    while (!done || pulled < 10000) {
        const int before = interrupts;
        if (!readable(both, 60000)) {
            ADD_FAILURE() << "not woken: " << zorv_utt_frames_available(utt) << " frames wait";
            break;
        }
        bool any = false;
        while (readable(events, 0)) {
            const bool told = zorv_utt_next_event(utt, &event) == 1;
            EXPECT_TRUE(told);
            any |= told;
        }
        const std::uint64_t deadBefore = dead;
        if (readable(frames, 0) && screen.pull(utt)) {
            any = true;
            ++pulled;
            if (screen.frame.kind == 1) shown = screen.frame.utterance;
            EXPECT_TRUE(screen.frame.kind != 1 || screen.frame.utterance > deadBefore);
        }
        woken += !any && before == interrupts && interrupts % 2 == 0;
    }
    speaker.join();
    EXPECT_EQ(woken, 0);
}

TEST(UttWaitTest, AWaitEndsWithItsReason) {
    UttPlayerOptions options;
    options.sourceNt = 4;  // the engine will not be able to speak
    options.waitUntilReady = false;
    UttPlayer mute(options);
    EXPECT_EQ(zorv_utt_wait(mute.utt(), 2, -1), -1) << "no event can come any more";
    EXPECT_NE(std::string(zorv_utt_last_error()).find("motion source has 4"), std::string::npos);
    EXPECT_EQ(zorv_utt_wait(mute.utt(), 3, -1), 1) << "idle frames go on";
    const std::int16_t sample = 0;
    refused(zorv_utt_push(mute.utt(), &sample, 1), std::uint64_t{0}, "motion source has 4");

    UttPlayer player;
    EXPECT_EQ(zorv_utt_wait(player.utt(), 2, 0), 0);
    std::atomic<bool> entered{false};
    std::thread waiter([&, utt = player.utt()] {
        entered = true;
        EXPECT_EQ(zorv_utt_wait(utt, 2, -1), -1);
        EXPECT_NE(std::string(zorv_utt_last_error()).find("destroyed"), std::string::npos);
    });
    test::waitFor([&] { return entered && player.utt()->atRest(); });
    test::waitUntilOthersSleep();
    player.destroy();
    waiter.join();
}

// What was pushed before an engine turned out mute has failed, in order.
TEST(UttWaitTest, AMuteEngineTellsWhatItWillNotSay) {
    UttPlayerOptions options;
    options.sourceNt = 4;
    options.waitUntilReady = false;
    options.holdOpening = true;
    UttPlayer mute(options);
    mute.say(3, 0.1f);
    mute.push(2, 0.1f);
    mute.script.hold = false;
    zorv_utt_event event = {};
    event.struct_size = sizeof event;
    for (const std::uint64_t number : {1u, 2u}) {
        EXPECT_EQ(zorv_utt_wait(mute.utt(), 2, -1), 2);
        EXPECT_EQ(zorv_utt_next_event(mute.utt(), &event), 1);
        EXPECT_EQ(event.utterance, number);
        EXPECT_EQ(event.type, ZORV_UTT_FAILED);
    }
    EXPECT_EQ(latency(mute.utt()).sound_bytes, 0u);
}

// A minute of speech whose renders take longer than a frame lasts, pulled 25 times per second.
TEST(UttLateTest, SkippingStaysWithTheClockAndWaitingLosesNothing) {
    const auto play = [](bool skips, double renderMs, int seconds) {
        UttPlayer player;
        zorv_utt_set_late(player.utt(), skips);
        zorv_utt_set_idle_ahead(player.utt(), 1);
        player.script.renderMs = renderMs;
        player.say(seconds * 25, 0.1f);
        Screen screen;
        const auto allowed = renderMs <= 60 ? 2 : std::llround((renderMs + 40) / 40);
        double start = -1;
        std::int64_t shown = 0, lag = 0, out = 0, quick = 0;
        for (int tick = 0; tick < seconds * 25 * 6 && shown < seconds * 25 - 1; ++tick) {
            for (int part = 0; part < 4; ++part) player.advance(10);
            // The last third of the minute is easy again.
            if (tick == seconds * 25 * 2 / 3 && skips) {
                player.script.renderMs = 10;
                quick = static_cast<std::int64_t>(latency(player.utt()).frames_left_out_late);
            }
            if (!screen.pull(player.utt()) || screen.frame.kind != 1) continue;
            const std::int64_t number = screen.frame.first_sample / 640;
            if (start < 0) start = player.clock.nowMs();
            lag = std::llround((player.clock.nowMs() - start) / 40) - number;
            out += number - shown - (screen.frame.flags & ZORV_FRAME_FIRST ? 0 : 1);
            shown = number;
            EXPECT_TRUE(!skips || lag <= allowed)
                << lag << " at frame " << number << ", " << renderMs;
        }
        const zorv_utt_latency_info info = latency(player.utt());
        EXPECT_EQ(shown, seconds * 25 - 1) << "the last frame is never left out";
        EXPECT_EQ(static_cast<std::int64_t>(info.frames_left_out_late), out);
        EXPECT_GT(info.late_slots, 100u);
        EXPECT_LT(info.sound_bytes, 100000u) << "what was said is kept";
        if (skips) {
            EXPECT_LE(out - quick, 8) << "it recovers";
            EXPECT_LE(info.frames_left_out_late, info.late_slots);
        } else {
            EXPECT_EQ(out, 0);
        }
    };
    play(true, 60, 60);
    play(true, 200, 30);
    play(false, 60, 20);
}

}  // namespace
}  // namespace zorv
