// The program `zorv live` on the tiny bundle. Frames may be late on a loaded machine, but none may
// be lost, and the sound stays with the frames that carry it.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "audio_reader.h"
#include "frame_tape.h"
#include "session_report.h"
#include "support/expression_dir.h"
#include "support/failure.h"
#include "support/program.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

using test::Outcome;

class LiveCommand : public test::ProgramTest {
  protected:
    void SetUp() override { bundle_.useModel("b24_fp32", "render_b4"); }

    std::vector<std::string> command(const std::string& audio,
                                     const std::vector<std::string>& more = {}) {
        std::vector<std::string> words = {"live",    bundle_.dir(), "--motion-dir", motion_.dir(),
                                          "--audio", audio,         "--threads",    "1"};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    nlohmann::json report(const std::vector<std::string>& words) {
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return nlohmann::json::parse(outcome.out, nullptr, false);
    }

    test::TestBundle bundle_;
    test::TestMotion motion_;
};

/// The first and the last video frame whose sound is loud, and how many are.
std::vector<int> loudFrames(const std::string& video) {
    tools::AudioReader reader(video, 16000, 1, "");
    std::vector<float> sound;
    while (reader.read(sound)) {
    }
    std::vector<int> loud;
    for (size_t frame = 0; (frame + 1) * 640 <= sound.size(); ++frame) {
        double sum = 0;
        // Its middle: coding smears the edges.
        for (size_t i = 160; i < 480; ++i) sum += std::abs(sound[frame * 640 + i]);
        if (sum > 320 * 0.05) loud.push_back(static_cast<int>(frame));
    }
    return loud;
}

/// Whether the program holds a file without a name that has grown: its frames.
bool framesOnTape(pid_t program) {
    const std::string files = "/proc/" + std::to_string(program) + "/fd/";
    std::error_code gone;
    for (const auto& file : fs::directory_iterator(files, gone)) {
        const std::string name = fs::read_symlink(file.path(), gone);
        if (name.ends_with("(deleted)") && fs::file_size(file.path(), gone) > 0) return true;
    }
    return false;
}

TEST_F(LiveCommand, ShowsEveryFrameWithItsSoundAndReports) {
    const std::string out = target("x.mp4");
    const std::vector<std::vector<std::string>> ways = {
        {}, {"--rate", "48000", "--pixels", "nv12", "--idle-ahead", "1"}};
    for (const std::vector<std::string>& way : ways) {
        auto words = command(speech(0.7), {"-o", out, "--json"});
        words.insert(words.end(), way.begin(), way.end());
        const nlohmann::json seen = report(words);
        EXPECT_EQ(seen["due_speech_frames"], 18);
        EXPECT_EQ(seen["shown_speech_frames"], 18);
        EXPECT_EQ(seen["speech_frames"], 18);
        EXPECT_EQ(seen["ramp_frames"], 6);
        EXPECT_GE(seen["idle_frames"].get<int>() + seen["late_frames"].get<int>(), 12 + 25)
            << "half a second before, a second after";
        EXPECT_EQ(seen["failures"], 0);
        EXPECT_EQ(seen["output"], out);
        for (const char* name : {"ready_seconds", "render_ms", "cpu_per_second"}) {
            EXPECT_GT(seen[name], 0) << name;
        }
        EXPECT_LE(seen["pull_jitter_p50_ms"], seen["pull_jitter_p99_ms"]);
        EXPECT_GE(seen["first_frame_pulled_ms"], seen["first_frame_finished_ms"]);
        EXPECT_GE(seen["look_ahead_ms"], 20);
        EXPECT_NEAR(
            seen["first_frame_finished_ms"].get<double>() - seen["look_ahead_ms"].get<double>(),
            seen["computing_ms"], 1e-6);
        EXPECT_TRUE(seen["interrupt_to_frame_ms"].is_null());
        EXPECT_TRUE(seen["lag_frames"].is_null()) << "such a face is too small to be measured";

        EXPECT_EQ(std::distance(fs::directory_iterator(path("out")), {}), 1);
        const std::vector<int> loud = loudFrames(out);
        ASSERT_FALSE(loud.empty());
        // The last half block of the sound is silence.
        EXPECT_NEAR(static_cast<double>(loud.size()), 18, 1);
        EXPECT_EQ(loud.front(), std::lround(25 * seen["speech_begins_seconds"].get<double>()));
        EXPECT_LE(loud.back() - loud.front(), 17 + seen["late_frames"].get<int>());
    }
}

TEST_F(LiveCommand, AnInterruptEndsTheSpeech) {
    const nlohmann::json seen =
        report(command(speech(60), {"--interrupt-at", "0.8", "--eager", "2", "--json"}));
    EXPECT_EQ(seen["speech_after_interrupt"], 0);
    EXPECT_LT(seen["speech_frames"], 60 * 25);
    EXPECT_GT(seen["interrupt_to_frame_ms"], 0);
    EXPECT_EQ(seen["due_speech_frames"], 0) << "nothing was said to its end";
    EXPECT_TRUE(seen["output"].is_null());
    expectNothingWritten();
}

TEST_F(LiveCommand, SpeaksThroughTheExpressionEngine) {
    const test::ExpressionDir expression;
    auto words = command(speech(0.5), {"--json"});
    words[3] = expression.path();
    unsetenv("W2V_ONNX");
    expectAdvice(run(words), 1, "needs a speech encoder; name it with --encoder");
    words.insert(words.end(), {"--encoder", path("nothing.onnx")});
    expectAdvice(run(words), 1, "check the path given to --encoder");
    words.back() = test::modelFile("a2x_w2v");
    const nlohmann::json seen = report(words);
    EXPECT_EQ(seen["shown_speech_frames"], 13);
    EXPECT_EQ(seen["failures"], 0);
    // Its look-ahead is longer than the sound.
    EXPECT_GE(seen["look_ahead_ms"], 460);
}

TEST_F(LiveCommand, MistakesEndInOneLineOfAdviceAndWriteNothing) {
    const std::string good = speech(0.4), out = target("x.mp4");
    const auto mistake = [&](const std::vector<std::string>& words, const std::string& advice,
                             int code = 1) {
        SCOPED_TRACE(advice);
        expectAdvice(run(words), code, advice);
        expectNothingWritten();
    };
    const auto with = [&](size_t place, const std::string& value) {
        auto words = command(good, {"-o", out});
        words[place] = value;
        return words;
    };
    mistake(with(1, path("nothing")), "no bundle directory");
    mistake(with(3, path("nothing")), "check the path given to --motion-dir");
    mistake(with(3, work_.path()), "cannot speak with");
    mistake(with(5, path("nothing.wav")), "No such file or directory; check the path");
    mistake(with(9, target("x.avi")), "ends in .mp4");
    mistake(with(9, path("nowhere/x.mp4")), "check that its folder exists");
    mistake(command(good, {"--interrupt-at", "0.4"}), "lasts 0.4 s and --interrupt-at 0.4");
    mistake(command(good, {"--interrupt-at", "-1"}), "--interrupt-at", 2);
    mistake(command(good, {"--encoder", good}), "leave it out");
    mistake({"live", bundle_.dir(), "--audio", good}, "--motion-dir is required", 2);
    bundle_.remove("model_b24_fp32.onnx");
    mistake(command(good), "model_b24_fp32.onnx");
}

TEST_F(LiveCommand, AFailureOfTheEngineIsReportedAndEndsTheProgram) {
    motion_.useModel("lmdm", "lmdm_short");
    const Outcome outcome = run(command(speech(0.4), {"-o", target("x.mp4"), "--json"}));
    expectAdvice(outcome, 1, "speaking failed: zorv_motion_");
    const auto seen = nlohmann::json::parse(outcome.out, nullptr, false);
    EXPECT_GE(seen["failures"], 1);
    EXPECT_EQ(seen["speech_frames"], 0);
    EXPECT_TRUE(seen["first_frame_finished_ms"].is_null());
    expectNothingWritten();
}

TEST_F(LiveCommand, AFullDiskAndCtrlCLeaveNothing) {
    const auto limit = [] {
        const rlimit size = {2000, 2000};
        setrlimit(RLIMIT_FSIZE, &size);
    };
    const std::string audio = speech(60, 16000);
    expectAdvice(run(command(audio, {"-o", target("x.mp4")}), limit), 1, "free some space");
    expectNothingWritten();
    const pid_t child = start(command(audio, {"-o", target("x.mp4")}));
    EXPECT_TRUE(waitWhileRuns(child, [&] { return framesOnTape(child); }));
    kill(child, SIGINT);
    expectAdvice(finish(child), 130, "interrupted, nothing was written");
    expectNothingWritten();
}

// That frames come back is seen in the videos above.
TEST(FrameTapeTest, AsksForItsRoomAndHasNoName) {
    const test::TempDir dir;
    const std::string output = dir.path() + "/x.mp4";
    EXPECT_NE(test::failure([&] {
                  tools::FrameTape(output, size_t{1} << 40, 1 << 20);
              }).find("GB are free"),
              std::string::npos);
    const tools::FrameTape tape(output, 5000, 200);
    EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(SessionReportTest, TellsLateFramesApart) {
    driver::SessionLog log;
    log.lines.resize(2);
    log.lines[0].beginMs = 1000;
    log.lines[0].samples = 1280;
    driver::LineLog& cut = log.lines[1];
    cut.beginMs = 5000;
    cut.samples = 64000;
    cut.interrupted = true;
    cut.interruptedMs = 7000;
    cut.interruptToFrameMs = 9;
    const auto tick = [&](double at, int line, int kind, int sequence = -1) {
        driver::Tick next;
        next.beginMs = at;
        next.line = line;
        next.kind = static_cast<int8_t>(kind);
        next.speechSequence = sequence;
        next.frame = static_cast<int64_t>(log.ticks.size());
        log.ticks.push_back(next);
    };
    for (const double at : {500.0, 1900.0, 2100.0}) tick(at, at < 1000 ? -1 : 0, -1);
    tick(2140, 0, 1, 0), tick(2180, 0, 1, 1), tick(6999, 1, 1, 0), tick(7001, 1, -1);
    tick(7040, 1, 2), tick(7100, 1, -1), tick(7140, 1, 1, 1), tick(7180, 1, 0);
    const driver::SessionReport report = driver::makeReport(0.5, log);
    EXPECT_EQ(report.late, 5);
    EXPECT_EQ(report.lateAfterFirstSecond, 4);
    EXPECT_EQ(report.lateAtInterrupt, 1);
    EXPECT_EQ(report.speechAfterInterrupt, 1);
    EXPECT_EQ(report.dueSpeech, 2);
    EXPECT_EQ(report.shownSpeech, 2);
    EXPECT_EQ(report.speechBegins, 3.0 / 25);
    EXPECT_EQ(report.interruptMs, std::vector<double>{9});
    EXPECT_EQ(report.firstFrames.at(0).pulled, 1140);
}

}  // namespace
}  // namespace zorv
