// The program `zorv render` as a user meets it: a process, its files, its one line of advice.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "audio_reader.h"
#include "contact_sheet.h"
#include "support/expression_dir.h"
#include "support/program.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"
#include "video_reader.h"
#include "video_writer.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

using test::Outcome;
using test::wavOf;
using tools::AudioReader;
using tools::Picture;
using tools::VideoReader;

class RenderCommand : public test::ProgramTest {
  protected:
    void SetUp() override { prepare(bundle_); }

    static void prepare(test::TestBundle& bundle) {
        fs::copy_file(test::modelFile("fca_stream"), bundle.path("fca_stream.onnx"),
                      fs::copy_options::overwrite_existing);
    }

    std::vector<std::string> command(const std::string& audio, const std::string& output) {
        return {
            "render",    bundle_.dir(), "--audio", audio, "--encoder", test::modelFile("encoder"),
            "--threads", "1",           "-o",      output};
    }

    /// Four seconds of speech into target("frames"), which is removed again.
    void expectHundredMovingFrames(const std::vector<std::string>& arguments) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_EQ(std::distance(fs::directory_iterator(target("frames")), {}), 100);
        EXPECT_NE(test::readFile(target("frames/000000.png")),
                  test::readFile(target("frames/000004.png")));  // the same target frame, moved
        fs::remove_all(target("frames"));
    }

    void expectMistake(const std::vector<std::string>& arguments, const std::string& advice,
                       int code = 1) {
        SCOPED_TRACE(advice);
        expectAdvice(run(arguments), code, advice);
        expectNothingWritten();
    }

    test::TestBundle bundle_;
};

TEST_F(RenderCommand, MistakesEndInOneLineOfAdviceAndWriteNothing) {
    const std::string good = speech(0.5), out = target("x.mp4");
    test::writeFile(path("zero.wav"), wavOf({}, 16000));
    test::writeFile(path("text.txt"), "not a recording");
    test::writeFile(path("taken"), "a file");
    fs::create_directory(path("full"));
    test::writeFile(path("full/file"), "x");
    ASSERT_EQ(run(command(good, path("frames"))).code, 0);

    const auto with = [&](size_t place, const std::string& value) {
        auto arguments = command(good, out);
        arguments[place] = value;
        return arguments;
    };
    expectMistake(command(path("missing.wav"), out), "No such file or directory; check the path");
    expectMistake(command(path("zero.wav"), out), "0 samples");
    expectMistake(command(path("text.txt"), out), "is not a media file");
    expectMistake(command(path("frames/000000.png"), out), "has no sound; give --audio");
    expectMistake(with(1, path("nothing")), "no bundle directory");
    expectMistake(with(5, path("nothing.onnx")), "check the path given to --encoder");
    expectMistake(command(good, path("nowhere/x.mp4")), "check that its folder exists");
    expectMistake(command(good, "/dev/full/x.mp4"), "Not a directory");
    expectMistake(command(good, path("taken")), "name an .mp4 file or a directory");
    expectMistake(command(good, path("full")), "is not empty; name a new one");
    expectMistake(command(good, target("x.avi")), "takes a name that ends in .mp4");
    expectMistake(command(good, good), "is the sound itself");
    auto skip = command(good, out);
    skip.insert(skip.end(), {"--skip-frames", "13"});
    expectMistake(skip, "lasts 13 frames and --skip-frames 13 leaves none");
    expectMistake({"render", bundle_.dir()}, "is required; see zorv --help", 2);
    expectMistake({"render", bundle_.dir(), "--audio", good, "-o", out}, "name it with --encoder");
    auto engine = command(good, out);
    engine.insert(engine.end(), {"--motion-dir", path("full")});
    expectMistake(engine, "--motion-dir is not for --engine fca");
    engine.insert(engine.end(), {"--engine", "piston"});
    expectMistake(engine, "piston", 2);

    bundle_.remove("xs_target.bin");
    expectMistake(command(good, out), "zorv_stream_create: ");
}

TEST_F(RenderCommand, AFullDiskLeavesNothingAndSaysSo) {
    const std::string audio = speech(8);
    // A limit on file sizes fails the same calls as a full disk does.
    const auto limit = [] {
        const rlimit size = {2000, 2000};
        setrlimit(RLIMIT_FSIZE, &size);
    };
    expectAdvice(run(command(audio, target("x.mp4")), limit), 1, "free some space");
    expectAdvice(run(command(audio, target("frames")), limit), 1, "free some space");
    expectNothingWritten();
}

TEST_F(RenderCommand, InterruptionLeavesWhatWasThereBefore) {
    const std::string audio = speech(600, 16000), out = target("x.mp4");
    for (const int signals : {1, 2}) {
        for (const std::string& name : {out, target("frames")}) {
            SCOPED_TRACE(name);
            test::writeFile(out, "an older video");
            const pid_t child = start(command(audio, name));
            const auto entries = [&] {
                return std::distance(fs::directory_iterator(path("out")), {});
            };
            EXPECT_TRUE(waitWhileRuns(child, [&] { return entries() >= 2; }));
            for (int i = 0; i < signals; ++i) kill(child, i == 0 ? SIGINT : SIGTERM);
            expectAdvice(finish(child), 130, "interrupted, nothing was written");
            EXPECT_EQ(test::readFile(out), "an older video");
            fs::remove(out);
            expectNothingWritten();
        }
    }
}

// Peaks of at least a tenth of full scale, 0.2 s apart or more, in samples at 48 kHz.
std::vector<long> clicksIn(const std::string& video) {
    AudioReader reader(video, 48000, 1, "");
    std::vector<float> sound;
    while (reader.read(sound)) {
    }
    EXPECT_NEAR(reader.startSeconds(), 0.0, 1e-6);
    std::vector<long> clicks;
    for (size_t i = 0; i < sound.size(); ++i) {
        if (std::abs(sound[i]) < 0.1f) continue;
        size_t peak = i;
        for (size_t j = i; j < std::min(sound.size(), i + 480); ++j) {
            if (std::abs(sound[j]) > std::abs(sound[peak])) peak = j;
        }
        clicks.push_back(static_cast<long>(peak));
        i = peak + 9600;
    }
    return clicks;
}

TEST_F(RenderCommand, SoundAndPictureStartTogether) {
    // Clicks in a recording of another rate; skipped frames take their sound with them.
    constexpr int kRate = 44100;
    std::vector<std::int16_t> samples(3 * kRate - 1000);
    for (const double at : {0.7, 1.3, 2.2}) samples[static_cast<size_t>(at * kRate)] = 32000;
    test::writeFile(path("clicks.wav"), wavOf(samples, kRate));
    test::TestBundle odd({.width = 49, .height = 41});
    prepare(odd);
    for (const int skip : {0, 10}) {
        auto arguments = command(path("clicks.wav"), target("x.mp4"));
        arguments[1] = odd.dir();
        arguments.insert(arguments.end(), {"--skip-frames", std::to_string(skip)});
        ASSERT_EQ(run(arguments).code, 0);

        const std::vector<long> clicks = clicksIn(target("x.mp4"));
        ASSERT_EQ(clicks.size(), 3u);
        for (size_t i = 0; i < 3; ++i) {
            const double expected = (std::vector{0.7, 1.3, 2.2})[i] - skip * 0.04;
            EXPECT_NEAR(static_cast<double>(clicks[i]) / 48000, expected, 0.0005);
        }
        VideoReader video(target("x.mp4"));
        EXPECT_EQ(video.width(), 48);
        EXPECT_EQ(video.height(), 40);
        Picture picture;
        int frames = 0;
        while (video.read(picture)) ++frames;
        EXPECT_EQ(frames, 75 - skip);
        EXPECT_EQ(video.startSeconds(), 0.0);
    }
}

TEST_F(RenderCommand, WritesNumberedPicturesAndAReport) {
    auto arguments = command(speech(0.5), target("frames") + "/");
    arguments.insert(arguments.end(), {"--json", "--sheet", target("sheet.png"), "--telemetry",
                                       target("telemetry.json")});
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    const auto report = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(report["frames"], 13);
    EXPECT_EQ(report["audio_seconds"], 0.5);
    for (const char* key : {"fps", "times_real_time", "output"})
        EXPECT_TRUE(report.contains(key)) << key;
    EXPECT_EQ(std::distance(fs::directory_iterator(target("frames")), {}), 13);
    for (const std::string& name :
         {target("frames/000000.png"), target("frames/000012.png"), target("sheet.png")}) {
        EXPECT_EQ(test::readFile(name).substr(1, 3), "PNG") << name;
    }
    const auto batch = nlohmann::json::parse(test::readFile(target("telemetry.json")));
    for (const auto& counter : batch["counters"]) {
        if (counter["name"] == "zorv.frames.composited") {
            EXPECT_EQ(counter["value"], 13);
        }
    }
    EXPECT_GE(batch["counters"].size(), 4u);
}

TEST_F(RenderCommand, FramesAreNotReadPastTheirEnd) {
    // The frame ends where a page ends that may be read and one begins that may not.
    constexpr int kWidth = 64, kHeight = 64, kBytes = kWidth * kHeight * 3;
    static_assert(kBytes % 4096 == 0);
    void* pages = mmap(nullptr, kBytes + 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(static_cast<char*>(pages) + kBytes, 4096, PROT_NONE), 0);
    const auto* frame = static_cast<const std::uint8_t*>(pages);
    av_log_set_level(AV_LOG_QUIET);
    tools::VideoWriter video(path("black.mp4"), kWidth, kHeight,
                             std::make_unique<AudioReader>(speech(1), 48000, 2, ""), 0);
    tools::ContactSheet sheet(kWidth, kHeight, 1);
    video.write(frame);
    sheet.add(0, frame);
    video.finish();
    munmap(pages, kBytes + 4096);
}

TEST_F(RenderCommand, RendersThroughTheExpressionEngine) {
    const test::ExpressionDir expression;
    const std::string audio = speech(4);
    std::vector<std::string> arguments = command(audio, target("frames"));
    for (std::string& word : arguments) {
        if (word == test::modelFile("encoder")) word = test::modelFile("a2x_w2v");
    }
    arguments.insert(arguments.end(), {"--engine", "a2x", "--motion-dir", expression.path()});
    expectHundredMovingFrames(arguments);
    const auto mistake = [&](const std::string& advice) { expectMistake(arguments, advice); };
    const test::ExpressionDir brief({.rows = 30});
    arguments.back() = brief.path();
    mistake("rendering stopped after frame 30 of 100: zorv_a2x: end of a2x_pos.f32");
    const test::ExpressionDir longer({.nt = 4});
    arguments.back() = longer.path();
    mistake("is for a subject of 4 target frames");
    arguments.resize(arguments.size() - 2);
    mistake("name it with --motion-dir");
    const auto encoder = std::find(arguments.begin(), arguments.end(), "--encoder");
    arguments.erase(encoder, encoder + 2);
    arguments.insert(arguments.end(), {"--motion-dir", expression.path()});
    mistake("--engine a2x needs a speech encoder");
}

TEST_F(RenderCommand, RendersThroughTheMotionEngine) {
    const test::TestMotion motion;
    const std::string audio = speech(4);  // more than one run of the generator
    std::vector<std::string> arguments = {
        "render", bundle_.dir(),    "--audio",   audio, "--engine",     "motion",
        "-o",     target("frames"), "--threads", "1",   "--motion-dir", motion.dir()};
    expectHundredMovingFrames(arguments);
    const auto mistake = [&](const std::string& advice) { expectMistake(arguments, advice); };
    motion.useModel("lmdm", "lmdm_short");
    mistake("rendering stopped after frame 0 of 100: zorv_motion_avail: ");
    arguments.back() = path("nowhere");
    mistake("check the path given to --motion-dir");
    arguments.insert(arguments.end(), {"--encoder", test::modelFile("encoder")});
    mistake("--encoder is not for --engine motion");
    arguments.resize(arguments.size() - 4);
    mistake("name it with --motion-dir");
}

}  // namespace
}  // namespace zorv
