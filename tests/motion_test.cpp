// The motion engine through its C functions, held against the plain reference.
#include <gtest/gtest.h>

#include <filesystem>

#include "motion_reference.h"
#include "support/audio.h"
#include "support/failure.h"

namespace zorv {
namespace {

using test::Floats;
using test::Frames;
using test::openMotion;
using test::ReferenceMotion;
using test::speechLike;
using test::TestMotion;
using Engine = test::MotionEngine;

/// The reference sums in double; float rounding passes through three models.
void expectNear(const Frames& frames, const Frames& expected) {
    ASSERT_EQ(frames.index, expected.index);
    ASSERT_EQ(frames.source, expected.source);
    for (std::size_t i = 0; i < expected.driving.size(); ++i) {
        ASSERT_NEAR(frames.driving[i], expected.driving[i], 2e-4f)
            << "frame " << i / 63 << " value " << i % 63;
    }
}

/// How far driving keypoints leave their base, to show that a comparison compares something.
float liveliness(const Frames& frames) {
    float largest = 0;
    for (std::size_t i = 63; i < frames.driving.size(); ++i) {
        // The same row again: only speech makes a difference.
        if (frames.index[i / 63] != frames.index[0]) continue;
        largest = std::max(largest, std::abs(frames.driving[i] - frames.driving[i % 63]));
    }
    return largest;
}

TEST(Motion, WholeClipsEqualTheReferenceAroundEveryEdge) {
    for (const int nt : {1, 2, 7}) {
        const TestMotion files({.nt = nt});
        const auto motion = openMotion(files);
        EXPECT_EQ(motion->nt(), nt);
        ReferenceMotion reference(files, nt);
        // One chunk takes 80 frames, each further one 70.
        int clip = 0;
        for (const int n : {1, 641, 79 * 640, 80 * 640, 81 * 640 - 5, 150 * 640, 151 * 640 - 639,
                            222 * 640 + 77}) {
            if (nt != 7 && (n > 81 * 640 || n % 640 == 0)) continue;
            SCOPED_TRACE("nt " + std::to_string(nt) + ", samples " + std::to_string(n));
            const Floats audio = speechLike(n);
            const int start = clip % nt, direction = clip % 3 ? 1 : -1;
            const bool loop = ++clip % 2 == 0;
            // Starts beyond the ends are the ends.
            const int given = start == 0 ? -5 : start == nt - 1 ? 99 : start;
            const Frames frames = motion->wholeClip(audio, given, 3 * direction, loop ? 7 : 0);
            EXPECT_EQ(motion->total(), (n + 639) / 640);
            reference.reset(start, direction, loop);
            reference.push(audio.data(), n);
            reference.finish();
            Frames expected;
            reference.pull(expected, 1 << 20);
            expectNear(frames, expected);
            if (n > 79 * 640) {
                EXPECT_GT(liveliness(frames), 0.05f);
            }
        }
        for (const Floats& vector : reference.handedOut) {
            ASSERT_LE(std::abs(vector[10]), 0.05f) << "the bounds were not in use";
        }
    }
}

TEST(Motion, EveryCallEqualsTheReferenceWithAndWithoutEagerPasses) {
    const TestMotion files;
    const auto motion = openMotion(files);
    ReferenceMotion reference(files, 3);
    // In the fourth eager mode is left, with provisional results that nobody has pulled.
    constexpr int kNever = 1 << 20;
    for (const auto& [eager, pullEvery, length, until] : {std::tuple{0, 7, 160, kNever},
                                                          {1, 1, 40, kNever},
                                                          {3, 2, 100, kNever},
                                                          {1, 190, 100, 90 * 640},
                                                          {12, 5, 150, kNever},
                                                          {200, 1, 100, kNever}}) {
        SCOPED_TRACE("eager " + std::to_string(eager) + ", every " + std::to_string(pullEvery));
        const Floats audio = speechLike(length * 640 - 50);
        motion->reset(1, -1, 0);
        reference.reset(1, -1, false);
        motion->setEager(eager);
        reference.setEager(eager);
        Frames frames, expected;
        for (std::size_t at = 0; at < audio.size(); at += 320) {
            const int n = static_cast<int>(std::min<std::size_t>(320, audio.size() - at));
            motion->push(audio.data() + at, n);
            reference.push(audio.data() + at, n);
            if (static_cast<int>(at) == until) motion->setEager(0), reference.setEager(0);
            ASSERT_EQ(motion->avail(), reference.avail()) << "after " << at << " samples";
            if (at / 320 % pullEvery != 0) continue;
            motion->pull(frames, 3);
            reference.pull(expected, 3);
        }
        EXPECT_GT(frames.size() + (eager == 0 || until < kNever ? 120 : 30), audio.size() / 640);
        motion->finish();
        motion->finish();
        reference.finish();
        motion->drain(frames);
        reference.pull(expected, 1 << 20);
        expectNear(frames, expected);
    }
}

// How far adaptive passes lag depends on the machine; the number of frames does not.
TEST(Motion, AdaptiveModeDeliversEveryFrame) {
    const TestMotion files;
    const auto motion = openMotion(files);
    const Floats audio = speechLike(100 * 640);
    motion->setEager(-1);
    Frames frames;
    for (int at = 0; at < 100 * 640; at += 640) {
        motion->push(audio.data() + at, 640);
        motion->drain(frames, 4);
        EXPECT_GE(static_cast<int>(frames.size()) + 9, at / 640);
    }
    motion->finish();
    motion->drain(frames);
    EXPECT_EQ(frames.size(), 100u);
}

TEST(Motion, FramesComeWithinTheLookAheadThatIsTold) {
    const TestMotion files;
    const auto motion = openMotion(files);
    for (const auto& [eager, frames] : {std::pair{0, 160}, {1, 12}, {3, 20}}) {
        SCOPED_TRACE("eager " + std::to_string(eager));
        motion->reset(0, 1, 0);
        motion->setEager(eager);
        const Floats audio = speechLike(frames * 640);
        constexpr int kPiece = 64;
        int longest = 0, seen = 0;
        for (int heard = kPiece; heard <= frames * 640; heard += kPiece) {
            motion->push(audio.data() + heard - kPiece, kPiece);
            Frames got;
            motion->drain(got);
            for (std::size_t k = 0; k < got.size(); ++k) {
                longest = std::max(longest, heard - 640 * seen++);
            }
        }
        // The oldest frame of the second chunk waits longest.
        EXPECT_EQ((zorv_motion_look_ahead(motion->get()) + kPiece - 1) / kPiece, longest / kPiece);
    }
}

TEST(Motion, DirectoriesThatDoNotOpenSayWhy) {
    const auto failure = [](const TestMotion& files, const char* ep = nullptr) {
        return test::failure([&] { Engine(zorv_motion_create(files.dir().c_str(), 0, ep)); });
    };
    const std::string prefix = "zorv_motion_create: ";
    const TestMotion files;
    EXPECT_EQ(failure(files, "cuda"), prefix + "zorv_motion: unknown ep 'cuda'");
    EXPECT_NE(failure(files, "coreml:ane"), "no failure");

    std::vector<std::string> names = {"meta.json"};
    for (const auto& table : files.tables()) names.push_back(table.first);
    for (const std::string& name : names) {
        const std::string path = files.path(name);
        const std::string content = test::readFile(path);
        std::filesystem::remove(path);
        EXPECT_EQ(failure(files), prefix + "cannot open " + path);
        if (name != "meta.json") {
            const std::size_t count = content.size() / 4;
            for (const std::size_t found : {count - 1, count + 1}) {
                test::writeFile(path, (content + "more").substr(0, found * 4));
                EXPECT_EQ(failure(files), prefix + "short read " + path + ": " +
                                              std::to_string(found) + " floats, expected " +
                                              std::to_string(count));
            }
        }
        test::writeFile(path, content);
    }

    const std::pair<const char*, const char*> metas[] = {
        {R"({"nt": 3, "n_src": 3})", "meta.json: missing n_emo"},
        {R"({"nt": 3, "n_src": 4, "n_emo": 4})", "zorv_motion: n_src != nt unsupported"},
        {R"({"nt": 0, "n_src": 0, "n_emo": 4})", "meta.json: bad nt"},
        {R"({"nt": 3, "n_src": 3, "n_emo": -1})", "meta.json: bad n_emo"},
        {R"({"n_src": 3, "n_emo": 4, "nt" 3})", "meta.json: bad nt"},
    };
    for (const auto& [text, message] : metas) {
        files.writeMeta(text);
        EXPECT_EQ(failure(files), prefix + message);
    }
    files.writeMeta(R"({"nt": 3.9, "n_src": 3, "n_emo": 4})");
    EXPECT_EQ(openMotion(files)->nt(), 3);
}

TEST(Motion, DefaultGainsAreOneAndZero) {
    const TestMotion plain({.bridgeGain = 1, .deltaPitch = 0});
    const TestMotion bare;
    bare.writeMeta(R"({"nt": 3, "n_src": 3, "n_emo": 4})");
    const Floats audio = speechLike(30 * 640);
    EXPECT_TRUE(openMotion(plain)->wholeClip(audio) == openMotion(bare)->wholeClip(audio));
}

TEST(Motion, AnEmptyStreamEndsWithoutFrames) {
    const TestMotion files;
    const auto motion = openMotion(files);
    motion->finish();
    EXPECT_EQ(motion->total(), 0);
    EXPECT_EQ(motion->avail(), 0);
    EXPECT_EQ(motion->push(Floats()), 0) << "finished";
    EXPECT_EQ(motion->error(), "zorv_motion_push: bad args / already finished");
    motion->reset(0, 1, 0);
    motion->push(Floats(1));
    motion->finish();
    float x[63], y[63];
    EXPECT_EQ(motion->pull(nullptr, x, y, 9), 1) << "index may be null";
}

TEST(Motion, ModelThatFailsInTheMiddleLeavesAnEngineThatCanBeReset) {
    const Floats quiet = speechLike(190 * 640);
    Floats loud = quiet;
    for (int i = 0; i < 2000; ++i) loud[100 * 640 + i] *= 1e5f;
    const TestMotion files;
    const Frames expected = openMotion(files)->wholeClip(quiet);
    EXPECT_EQ(openMotion(files)->wholeClip(loud).size(), 190u) << "no other model fails on it";
    for (const char* key : {"hubert_student", "lmdm", "stitch"}) {
        SCOPED_TRACE(key);
        files.useModel(key, std::string(key) + "_fails");
        const auto motion = openMotion(files);
        Frames frames;
        bool failed = false;
        for (int at = 0; at < 190 * 640 && !failed; at += 640) {
            motion->push(loud.data() + at, 640);
            const bool byAvail = at % 1280 == 0;
            const int n = byAvail ? motion->avail() : motion->pull(frames, 4);
            failed = !motion->error().empty();
            if (!failed) continue;
            EXPECT_EQ(n, 0);
            EXPECT_TRUE(motion->error().starts_with(byAvail ? "zorv_motion_avail: "
                                                            : "zorv_motion_pull: "));
        }
        EXPECT_TRUE(failed);
        EXPECT_GT(frames.size(), 10u) << "it failed in the middle";
        EXPECT_TRUE(motion->wholeClip(quiet) == expected);
        files.useModel(key, key);
    }
    files.useModel("lmdm", "lmdm_short");
    const auto motion = openMotion(files);
    EXPECT_EQ(motion->wholeClip(Floats(640)).size(), 0u);
    EXPECT_NE(motion->error(), "") << "an output of another shape was taken";

    files.useModel("lmdm", "lmdm");
    files.useModel("hubert_student", "hubert_student_open");  // takes the size that it must have
    EXPECT_TRUE(openMotion(files)->wholeClip(quiet) == expected);
    files.useModel("stitch", "lmdm");
    EXPECT_EQ(test::failure([&] { openMotion(files); }),
              "zorv_motion_create: " + files.path("stitch.onnx") +
                  ": input cond: wanted as many values as float32 [1, 63], found float32 [1, 265]");
}

TEST(Motion, DumpsTheIntermediateArraysAndChangesNothing) {
    const TestMotion files;
    const Floats audio = speechLike(161 * 640);
    const Frames expected = openMotion(files)->wholeClip(audio);
    const test::TempDir dir;
    const test::ScopedEnv on("ZORV_MOTION_DUMP", dir.path());
    const auto motion = openMotion(files);
    EXPECT_TRUE(motion->wholeClip(speechLike(3000)).size() > 0) << "a stream to overwrite";
    EXPECT_TRUE(motion->wholeClip(audio) == expected);

    const auto dumped = [&](const std::string& name) {
        const std::string bytes = test::readFile(dir.path() + "/" + name);
        Floats values(bytes.size() / 4);
        std::memcpy(values.data(), bytes.data(), bytes.size());
        return values;
    };
    const std::pair<const char*, std::size_t> sizes[] = {
        {"mel0.bin", 80 * 21},        {"feat0.bin", 20 * 1024},     {"lmdm0_kp.bin", 265},
        {"lmdm0_aud.bin", 80 * 1103}, {"lmdm0_pred.bin", 80 * 265}, {"cond.bin", 161 * 1103},
        {"res_post.bin", 161 * 265},  {"final.bin", 161 * 265},     {"xsla.bin", 161 * 63},
        {"xdla.bin", 161 * 63}};
    for (const auto& [name, count] : sizes) EXPECT_EQ(dumped(name).size(), count) << name;
    EXPECT_EQ(dumped("xs.bin"), expected.source);
    EXPECT_EQ(dumped("xd.bin"), expected.driving);
    const Floats rows = dumped("cond.bin");
    const Floats first = dumped("lmdm0_aud.bin"), features = dumped("feat0.bin");
    EXPECT_TRUE(std::equal(first.begin(), first.end(), rows.begin()));
    for (int i = 0; i < 1024; ++i) {  // of the first window, not of a later one
        ASSERT_FLOAT_EQ(rows[i], (features[6 * 1024 + i] + features[7 * 1024 + i]) / 2) << i;
    }

    ReferenceMotion reference(files, 3);
    reference.push(audio.data(), static_cast<int>(audio.size()));
    reference.finish();
    Frames frames;
    reference.pull(frames, 1 << 20);
    const Floats final = dumped("final.bin");
    for (std::size_t i = 0; i < final.size(); ++i) {
        ASSERT_NEAR(final[i], reference.handedOut[i / 265][i % 265], 1e-4f)
            << "frame " << i / 265 << " dimension " << i % 265;
    }
}

}  // namespace
}  // namespace zorv
