#include <gtest/gtest.h>
#include <zorv_core.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/expression_dir.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"

namespace zorv {
namespace {

using nlohmann::json;

/// Takes the pending batch and parses it; null when there is none.
json taken() {
    std::string text(zorv_telemetry_pending(), '\0');
    if (text.empty()) return {};
    EXPECT_EQ(zorv_telemetry_take(text.data(), text.size()), text.size());
    EXPECT_EQ(text.back(), '\0');
    text.pop_back();
    json batch = json::parse(text, nullptr, false);
    EXPECT_FALSE(batch.is_discarded()) << text;
    return batch;
}

/// The entry called `name` of one of the batch's lists; null when it is not there.
json entry(const json& batch, const std::string& list, const std::string& name,
           const std::string& attribute = "") {
    for (const json& candidate : batch[list]) {
        if (candidate["name"] != name) continue;
        if (attribute.empty()) return candidate;
        if (candidate.contains("attributes") && candidate["attributes"].front() == attribute) {
            return candidate;
        }
    }
    return {};
}

class TelemetryTest : public testing::Test {
  protected:
    TelemetryTest() {
        zorv_telemetry_clear();
        zorv_telemetry_enable(1);
    }
    ~TelemetryTest() override {
        zorv_telemetry_enable(0);
        zorv_telemetry_clear();
    }
};

TEST_F(TelemetryTest, ABatchHoldsWhatWasRecordedSinceTheLast) {
    zorv_telemetry_enable(0);
    EXPECT_EQ(zorv_telemetry_count("host.calls", nullptr, 7), 1);
    EXPECT_EQ(zorv_telemetry_pending(), 0u) << "nothing is recorded while it is off";
    zorv_telemetry_enable(1);
    EXPECT_EQ(zorv_telemetry_enabled(), 1);
    zorv_telemetry_count("host.calls", nullptr, 2);
    zorv_telemetry_count("host.calls", nullptr, 3);
    zorv_telemetry_count("host.calls", "By", 100);
    zorv_telemetry_gauge("host.depth", "{item}", 4);
    zorv_telemetry_gauge("host.depth", "{item}", -2.5);
    for (const double seconds : {0.0, 0.001, 0.0011, 0.5, 11.0}) {
        zorv_telemetry_duration("host.step", seconds);
    }
    zorv_telemetry_event("host.start", "first");
    zorv_telemetry_event("host.start", "second");

    const json batch = taken();
    EXPECT_EQ(batch["schema_version"], 1);
    EXPECT_LE(batch["start_unix_ms"], batch["end_unix_ms"]);
    EXPECT_GE(batch["device"]["cores"], 1);
    EXPECT_GT(batch["device"]["memory_bytes"], 1 << 20);
    EXPECT_EQ(batch["counters"][0].contains("attributes"), false);
    EXPECT_EQ(batch["counters"].size(), 2u);
    EXPECT_EQ(batch["counters"][0]["value"].get<int>() + batch["counters"][1]["value"].get<int>(),
              105);
    EXPECT_EQ(entry(batch, "gauges", "host.depth")["value"], -2.5);
    const json step = entry(batch, "histograms", "host.step");
    EXPECT_EQ(step["count"], 5);
    EXPECT_NEAR(step["sum"], 11.5021, 1e-6);
    EXPECT_EQ(step["buckets"].size(), step["bounds"].size() + 1);
    EXPECT_EQ(step["buckets"][0], 2) << "a bound belongs to its bucket";
    EXPECT_EQ(step["buckets"][1], 1);
    EXPECT_EQ(step["buckets"].back(), 1);
    EXPECT_EQ(batch["events"][0]["text"], "first");
    EXPECT_EQ(batch["events"][1]["text"], "second");

    EXPECT_EQ(zorv_telemetry_pending(), 0u);
    zorv_telemetry_count("host.calls", nullptr, 1);
    const json next = taken();
    EXPECT_EQ(entry(next, "counters", "host.calls")["value"], 1);
    EXPECT_EQ(next["start_unix_ms"], batch["end_unix_ms"]);
    EXPECT_TRUE(next["gauges"].empty() && next["histograms"].empty() && next["events"].empty());
}

TEST_F(TelemetryTest, AClosedBatchStaysUntilItIsTaken) {
    zorv_telemetry_count("host.calls", nullptr, 1);
    const std::size_t size = zorv_telemetry_pending();
    zorv_telemetry_count("host.calls", nullptr, 10);
    zorv_telemetry_event("host.later", "belongs to the next batch");
    EXPECT_EQ(zorv_telemetry_pending(), size);
    std::string buffer(size, 'x');
    EXPECT_EQ(zorv_telemetry_take(buffer.data(), size - 1), size);
    EXPECT_STREQ(zorv_telemetry_last_error(), "zorv_telemetry_take: buffer too small");
    EXPECT_EQ(buffer, std::string(size, 'x')) << "nothing is written";
    EXPECT_EQ(zorv_telemetry_take(nullptr, size), size);
    EXPECT_EQ(zorv_telemetry_take(buffer.data(), size), size);
    EXPECT_STREQ(zorv_telemetry_last_error(), "");
    EXPECT_EQ(entry(json::parse(buffer.c_str()), "counters", "host.calls")["value"], 1);
    EXPECT_EQ(entry(taken(), "counters", "host.calls")["value"], 10);

    zorv_telemetry_count("host.calls", nullptr, 1);
    zorv_telemetry_pending();
    zorv_telemetry_count("host.calls", nullptr, 1);
    zorv_telemetry_clear();
    EXPECT_EQ(zorv_telemetry_pending(), 0u);
}

TEST_F(TelemetryTest, AnyInputGivesValidJson) {
    const std::string control("\x01\x1f\"\\\n\t/\x7f");
    const std::string huge(10 << 20, 'a');
    for (const std::string& text :
         {control, std::string("\xff\xfe\xc0\xaf"), std::string("\xed\xa0\x80"),
          std::string("\xf4\x90\x80\x80"), std::string("\xe2\x82"), std::string("\xf0\x9f\x98\x80"),
          std::string("gr\xc3\xbc\xc3\x9f"), huge, std::string(95, 'b') + "\xe2\x82\xac"}) {
        EXPECT_EQ(zorv_telemetry_event(text.c_str(), text.c_str()), 1);
        EXPECT_EQ(zorv_telemetry_count(text.c_str(), text.c_str(), 1), 1);
        EXPECT_EQ(zorv_telemetry_count(text.c_str(), text.c_str(), 1), 1);
    }
    zorv_telemetry_gauge("host.nan", nullptr, std::nan(""));
    zorv_telemetry_gauge("host.infinite", nullptr, std::numeric_limits<double>::infinity());
    zorv_telemetry_duration("host.step", std::nan(""));
    zorv_telemetry_duration("host.step", -1);
    zorv_telemetry_duration("host.step", std::numeric_limits<double>::infinity());
    const json batch = taken();
    EXPECT_EQ(batch["counters"].size(), 9u) << "cut names are the same name again";
    EXPECT_EQ(entry(batch, "counters", control)["value"], 2);
    EXPECT_EQ(batch["events"][0]["text"], control);
    EXPECT_EQ(batch["events"][5]["text"], "\xf0\x9f\x98\x80");
    EXPECT_EQ(batch["events"][6]["text"], "gr\xc3\xbc\xc3\x9f");
    const std::string cut = batch["events"][7]["text"];
    EXPECT_EQ(cut, std::string(251, 'a') + "[cut]");
    EXPECT_TRUE(entry(batch, "gauges", "host.nan")["value"].is_null());
    EXPECT_TRUE(entry(batch, "gauges", "host.infinite")["value"].is_null());
    EXPECT_EQ(batch["dropped"]["values"], 3);

    zorv_telemetry_gauge("", nullptr, 1);
    zorv_telemetry_event("name", nullptr);
    const json refused = taken();
    EXPECT_EQ(refused["counters"].size(), 2u) << "failures of this family, and nothing else";
    EXPECT_TRUE(refused["gauges"].empty() && refused["events"].empty());
}

TEST_F(TelemetryTest, ThreadsRecordExactlyWhileAReaderTakes) {
    constexpr int kThreads = 4;
    constexpr int kEach = 20000;
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string own = "host.thread." + std::to_string(t);
            for (int i = 0; i < kEach; ++i) {
                zorv_telemetry_count("host.all", nullptr, 1);
                zorv_telemetry_count(own.c_str(), nullptr, 1);
                zorv_telemetry_duration("host.step", 0.01);
                if (i % 100 == 0) zorv_telemetry_event("host.event", own.c_str());
            }
            --running;
        });
    }
    const auto number = [](const json& from, const char* member) {
        return from.is_null() ? 0 : from[member].get<std::uint64_t>();
    };
    std::uint64_t all = 0, steps = 0, events = 0;
    for (bool last = false; !last;) {
        last = running == 0;  // one more batch after the last record
        const json batch = taken();
        if (batch.is_null()) continue;
        all += number(entry(batch, "counters", "host.all"), "value");
        steps += number(entry(batch, "histograms", "host.step"), "count");
        events += batch["events"].size() + number(batch["dropped"], "events");
    }
    for (std::thread& thread : threads) thread.join();
    constexpr std::uint64_t kTotal = kThreads * kEach;
    EXPECT_EQ(std::tuple(all, steps, events), std::tuple(kTotal, kTotal, kTotal / 100));
}

TEST_F(TelemetryTest, TheLibraryCountsItsOwnWork) {
    const test::TestBundle bundle;
    zorv_ctx* ctx = zorv_create(bundle.dir().c_str(), "render", 1, nullptr);
    ASSERT_NE(ctx, nullptr);
    std::vector<std::uint8_t> rgba(48 * 40 * 4);
    const auto begin = std::chrono::steady_clock::now();
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(zorv_render_drive_rgba(ctx, k, rgba.data(), rgba.size()), 1);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(zorv_create("/home/nobody/subject", "render", 1, nullptr), nullptr);
    EXPECT_EQ(zorv_target_frame(ctx, -1), nullptr);
    EXPECT_EQ(zorv_stream_create("/home/nobody/subject", "", 1, 0, 1), nullptr);
    zorv_destroy(ctx);
    zorv_destroy(nullptr);

    EXPECT_GT(zorv_telemetry_take(nullptr, 0), 0u);
    EXPECT_STREQ(zorv_telemetry_last_error(), "zorv_telemetry_take: buffer too small");
    const json batch = taken();
    EXPECT_EQ(zorv_telemetry_pending(), 0u) << "asking for the size is no failure";
    EXPECT_EQ(entry(batch, "counters", "zorv.handle.opened", "context")["value"], 1);
    EXPECT_EQ(entry(batch, "counters", "zorv.handle.closed", "context")["value"], 1);
    EXPECT_EQ(entry(batch, "counters", "zorv.frames.rendered")["value"], 3);
    EXPECT_EQ(entry(batch, "counters", "zorv.frames.composited")["value"], 3);
    const json render = entry(batch, "histograms", "zorv.render.duration");
    EXPECT_EQ(render["count"], 3);
    EXPECT_GT(render["sum"], 0);
    EXPECT_LE(render["sum"], took.count());
    EXPECT_EQ(entry(batch, "histograms", "zorv.composite.duration")["count"], 3);
    EXPECT_EQ(entry(batch, "counters", "zorv.failures", "zorv_target_frame: bad args")["value"], 1);
    EXPECT_EQ(entry(batch, "counters", "zorv.failures", "zorv_create: cannot open")["value"], 2)
        << "the stream hands on what its context has told";
    EXPECT_EQ(batch.dump().find("nobody"), std::string::npos) << batch["counters"].dump();
}

TEST_F(TelemetryTest, EveryFamilyCountsWhatItOpensAndCloses) {
    const test::TestBundle bundle;
    const test::TestMotion motion;
    const test::ExpressionDir expression;
    const test::ScopedEnv speech("W2V_ONNX", test::modelFile("a2x_w2v"));
    const std::string encoder = test::modelFile("encoder"), dir = bundle.dir();
    zorv_ctx* ctx = zorv_create(dir.c_str(), "render", 1, nullptr);
    zorv_utt_opts opts = {};
    opts.motion_dir = motion.dir().c_str();
    opts.steady_model = "-";
    zorv_utt_destroy(zorv_utt_create(ctx, &opts));
    zorv_destroy(ctx);
    zorv_fca_destroy(zorv_fca_create(encoder.c_str(), test::modelFile("fca_stream").c_str(), 1));
    zorv_stream* stream = zorv_stream_create(dir.c_str(), encoder.c_str(), 1, 0, 1);
    zorv_stream_cancel(stream);
    EXPECT_EQ(zorv_stream_run(stream, std::vector<float>(640).data(), 640, nullptr, nullptr), -1);
    zorv_stream_destroy(stream);
    zorv_motion_destroy(zorv_motion_create(motion.dir().c_str(), 1, nullptr));
    zorv_a2x_destroy(zorv_a2x_create(expression.path().c_str(), 1));
    const json batch = taken();
    for (const char* family : {"context", "utt", "fca", "stream", "motion", "a2x"}) {
        const json opened = entry(batch, "counters", "zorv.handle.opened", family);
        ASSERT_TRUE(opened.is_object()) << family;
        EXPECT_EQ(entry(batch, "counters", "zorv.handle.closed", family)["value"], opened["value"])
            << family;
    }
    EXPECT_EQ(batch.dump().find("zorv.failures"), std::string::npos) << "a cancelled run is none";
}

TEST_F(TelemetryTest, WhatDoesNotFitIsCountedAsDropped) {
    for (int i = 0; i < 1000; ++i) {
        zorv_telemetry_count(("host.many." + std::to_string(i)).c_str(), nullptr, 1);
        zorv_telemetry_event("host.event", std::to_string(i).c_str());
    }
    const json batch = taken();
    const std::size_t kept = batch["counters"].size();
    EXPECT_GT(kept, 300u);
    EXPECT_EQ(batch["dropped"]["metrics"], 1000 - kept);
    EXPECT_EQ(batch["events"].size(), 256u);
    EXPECT_EQ(batch["dropped"]["events"], 1000 - 256);
    zorv_telemetry_count("host.other", nullptr, 1);
    const json next = taken();
    EXPECT_EQ(next["counters"].size(), 1u) << "a batch has all the room";
    EXPECT_EQ(next["dropped"]["metrics"], 0);
}

}  // namespace
}  // namespace zorv
