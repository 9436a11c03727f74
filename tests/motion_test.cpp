// The motion engine through its C functions, held against the plain reference.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <numeric>
#include <thread>

#include "motion_reference.h"
#include "support/audio.h"
#include "support/test_motion.h"

namespace zorv {
namespace {

using test::Floats;
using test::ReferenceMotion;
using test::speechLike;
using test::TestMotion;

using MotionPtr = std::unique_ptr<zorv_motion, decltype(&zorv_motion_destroy)>;

MotionPtr open(const TestMotion& files) {
    MotionPtr motion(zorv_motion_create(files.dir().c_str(), 1, nullptr), &zorv_motion_destroy);
    if (!motion) throw std::runtime_error(zorv_motion_last_error());
    return motion;
}

/// Frames as pulled: idx, xs and xd one after the other.
struct Frames {
    std::vector<int> idx;
    Floats xs, xd;

    std::size_t size() const { return idx.size(); }
    bool operator==(const Frames&) const = default;
};

/// Pulls at most `max` frames in one call and appends them.
int pull(zorv_motion* motion, Frames& frames, int max) {
    std::vector<int> idx(static_cast<std::size_t>(max));
    Floats xs(idx.size() * 63), xd(xs.size());
    const int n = zorv_motion_pull(motion, idx.data(), xs.data(), xd.data(), max);
    frames.idx.insert(frames.idx.end(), idx.begin(), idx.begin() + n);
    frames.xs.insert(frames.xs.end(), xs.begin(), xs.begin() + 63 * n);
    frames.xd.insert(frames.xd.end(), xd.begin(), xd.begin() + 63 * n);
    return n;
}

void drain(zorv_motion* motion, Frames& frames, int max = 64) {
    while (pull(motion, frames, max) > 0) {
    }
    ASSERT_STREQ(zorv_motion_last_error(), "");
}

/// The whole clip in one push.
Frames wholeClip(zorv_motion* motion, const Floats& audio) {
    EXPECT_EQ(zorv_motion_push(motion, audio.data(), static_cast<int>(audio.size())), 1);
    zorv_motion_finish(motion);
    Frames frames;
    drain(motion, frames);
    return frames;
}

/// The reference sums in double; float rounding passes through three models.
constexpr float kTolerance = 2e-4f;

void expectNear(const Frames& frames, const std::vector<ReferenceMotion::Frame>& expected) {
    ASSERT_EQ(frames.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(frames.idx[i], expected[i].idx) << "frame " << i;
        for (std::size_t j = 0; j < 63; ++j) {
            ASSERT_EQ(frames.xs[63 * i + j], expected[i].xs[j]) << "frame " << i << " value " << j;
            ASSERT_NEAR(frames.xd[63 * i + j], expected[i].xd[j], kTolerance)
                << "frame " << i << " value " << j;
        }
    }
}

/// How far driving keypoints leave their base, to show that a comparison compares something.
float liveliness(const Frames& frames) {
    float largest = 0;
    for (std::size_t i = 63; i < frames.xd.size(); ++i) {
        const std::size_t sameRow = i % 63;  // idx 0 again: only speech makes a difference
        if (frames.idx[i / 63] != frames.idx[0]) continue;
        largest = std::max(largest, std::abs(frames.xd[i] - frames.xd[sameRow]));
    }
    return largest;
}

TEST(Motion, WholeClipsEqualTheReferenceAroundEveryEdge) {
    for (const int nt : {1, 2, 7}) {
        const TestMotion files({.nt = nt});
        const MotionPtr motion = open(files);
        ReferenceMotion reference(files, nt);
        // One chunk takes 80 frames, each further one 70.
        for (const int n : {1, 641, 79 * 640, 80 * 640, 81 * 640 - 5, 150 * 640, 151 * 640 - 639,
                            222 * 640 + 77}) {
            if (nt != 7 && (n > 81 * 640 || n % 640 == 0)) continue;
            SCOPED_TRACE("nt " + std::to_string(nt) + ", samples " + std::to_string(n));
            const Floats audio = speechLike(n);
            zorv_motion_reset(motion.get(), 0, 1, 0);
            reference.reset(0, 1, false);
            const Frames frames = wholeClip(motion.get(), audio);
            EXPECT_EQ(zorv_motion_total(motion.get()), (n + 639) / 640);
            reference.push(audio.data(), n);
            reference.finish();
            expectNear(frames, reference.pull(1 << 20));
            if (n > 79 * 640) {
                EXPECT_GT(liveliness(frames), 0.05f);
            }
        }
        for (const Floats& vector : reference.handedOut) {
            ASSERT_LE(std::abs(vector[10]), 0.05f) << "the bounds were not in use";
        }
    }
}

TEST(Motion, AnyCutAndAnyRhythmGiveTheFramesOfOnePush) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    const Floats audio = speechLike(163 * 640 + 100);
    const Frames expected = wholeClip(motion.get(), audio);
    ASSERT_EQ(expected.size(), 164u);

    std::mt19937 random(5);
    const auto randomly = [&] { return static_cast<int>(random() % 3000); };
    struct Case {
        const char* name;
        std::function<int()> piece;  ///< samples of the next push
        int pullEvery;               ///< pushes between pulls
        int max;
    };
    const Case cases[] = {
        {"20 ms, pulled at once", [] { return 320; }, 1, 100},
        {"17 samples, one frame at a time", [] { return 17; }, 40, 1},
        {"random pieces", randomly, 3, 5},
        {"never asked before the end", [] { return 4000; }, 1 << 20, 7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        zorv_motion_reset(motion.get(), 0, 1, 0);
        Frames frames;
        std::size_t at = 0;
        for (int pushes = 1; at < audio.size(); ++pushes) {
            const int n = static_cast<int>(std::min<std::size_t>(c.piece(), audio.size() - at));
            ASSERT_EQ(zorv_motion_push(motion.get(), audio.data() + at, n), 1);
            at += static_cast<std::size_t>(n);
            if (pushes % c.pullEvery != 0) continue;
            const int ready = zorv_motion_avail(motion.get());
            ASSERT_EQ(pull(motion.get(), frames, c.max), std::min(ready, c.max));
        }
        if (c.pullEvery < 1000) {
            EXPECT_GE(frames.size(), 60u) << "nothing came while it was open";
        }
        zorv_motion_finish(motion.get());
        drain(motion.get(), frames, c.max);
        EXPECT_TRUE(frames == expected);
    }
}

TEST(Motion, OpenStreamHandsOutWhatLaterAudioCannotChange) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    const Floats audio = speechLike(160 * 640);
    auto pushUpTo = [&, at = 0](int samples) mutable {
        EXPECT_EQ(zorv_motion_push(motion.get(), audio.data() + at, samples - at), 1);
        at = samples;
    };
    EXPECT_EQ(zorv_motion_total(motion.get()), -1);
    const int firstChunk = 75 * 640 + 4480;  // the window of frames 75 .. 79
    pushUpTo(firstChunk - 1);
    EXPECT_EQ(zorv_motion_avail(motion.get()), 0);
    pushUpTo(firstChunk);
    EXPECT_EQ(zorv_motion_avail(motion.get()), 69);
    Frames frames;
    EXPECT_EQ(pull(motion.get(), frames, 100), 69) << "max above what is there";
    EXPECT_EQ(zorv_motion_avail(motion.get()), 0);
    pushUpTo(145 * 640 + 4480);
    EXPECT_EQ(zorv_motion_avail(motion.get()), 70);
    pushUpTo(160 * 640);
    zorv_motion_finish(motion.get());
    zorv_motion_finish(motion.get());
    EXPECT_EQ(zorv_motion_avail(motion.get()), 91);
}

/// Pushes 20 ms at a time and compares every call with the reference.
void compareEager(zorv_motion* motion, ReferenceMotion& reference, const Floats& audio,
                  int pullEvery) {
    Frames frames;
    std::vector<ReferenceMotion::Frame> expected;
    for (std::size_t at = 0; at < audio.size(); at += 320) {
        const int n = static_cast<int>(std::min<std::size_t>(320, audio.size() - at));
        zorv_motion_push(motion, audio.data() + at, n);
        reference.push(audio.data() + at, n);
        ASSERT_EQ(zorv_motion_avail(motion), reference.avail()) << "after " << at << " samples";
        if (at / 320 % pullEvery != 0) continue;
        pull(motion, frames, 3);
        for (auto& frame : reference.pull(3)) expected.push_back(std::move(frame));
    }
    EXPECT_GT(frames.size() + 30, audio.size() / 640);
    zorv_motion_finish(motion);
    reference.finish();
    drain(motion, frames);
    for (auto& frame : reference.pull(1 << 20)) expected.push_back(std::move(frame));
    expectNear(frames, expected);
}

TEST(Motion, EagerPassesEqualTheReferenceCallByCall) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    ReferenceMotion reference(files, 3);
    for (const auto& [value, pullEvery, frames] :
         {std::tuple{1, 1, 40}, {3, 2, 100}, {12, 5, 150}, {200, 1, 100}}) {
        SCOPED_TRACE("eager " + std::to_string(value));
        zorv_motion_reset(motion.get(), 1, -1, 0);
        reference.reset(1, -1, false);
        zorv_motion_set_eager(motion.get(), value);
        reference.setEager(value);
        compareEager(motion.get(), reference, speechLike(frames * 640 - 50), pullEvery);
    }
}

TEST(Motion, FramesComeWithinTheLookAheadThatIsTold) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    for (const auto& [eager, frames] : {std::pair{0, 160}, {1, 12}, {3, 20}}) {
        SCOPED_TRACE("eager " + std::to_string(eager));
        zorv_motion_reset(motion.get(), 0, 1, 0);
        zorv_motion_set_eager(motion.get(), eager);
        const Floats audio = speechLike(frames * 640);
        constexpr int kPiece = 64;
        int longest = 0, seen = 0;
        for (int heard = kPiece; heard <= frames * 640; heard += kPiece) {
            zorv_motion_push(motion.get(), audio.data() + heard - kPiece, kPiece);
            Frames got;
            drain(motion.get(), got);
            for (std::size_t k = 0; k < got.size(); ++k) {
                longest = std::max(longest, heard - 640 * seen++);
            }
        }
        // The oldest frame of the second chunk waits longest.
        EXPECT_EQ((zorv_motion_look_ahead(motion.get()) + kPiece - 1) / kPiece, longest / kPiece);
    }
}

TEST(Motion, EagerModeCanBeLeftAndAdaptiveModeDeliversEveryFrame) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    const Floats audio = speechLike(100 * 640);
    const Frames expected = wholeClip(motion.get(), audio);

    // Provisional results that nobody pulled leave no trace, and none is handed out afterwards.
    zorv_motion_reset(motion.get(), 0, 1, 0);
    zorv_motion_set_eager(motion.get(), 1);
    for (int at = 0; at < 90 * 640; at += 640) {
        zorv_motion_push(motion.get(), audio.data() + at, 640);
        EXPECT_EQ(zorv_motion_avail(motion.get()), at / 640);
    }
    zorv_motion_set_eager(motion.get(), 0);
    EXPECT_EQ(zorv_motion_avail(motion.get()), 69);
    Frames frames;
    drain(motion.get(), frames, 10);
    zorv_motion_push(motion.get(), audio.data() + 90 * 640, 10 * 640);
    zorv_motion_finish(motion.get());
    drain(motion.get(), frames);
    EXPECT_TRUE(frames == expected);

    // How far adaptive passes lag depends on the machine; the number of frames does not.
    zorv_motion_reset(motion.get(), 0, 1, 0);
    zorv_motion_set_eager(motion.get(), -1);
    Frames adaptive;
    for (int at = 0; at < 100 * 640; at += 640) {
        zorv_motion_push(motion.get(), audio.data() + at, 640);
        drain(motion.get(), adaptive, 4);
        EXPECT_GE(static_cast<int>(adaptive.size()) + 9, at / 640);
    }
    zorv_motion_finish(motion.get());
    drain(motion.get(), adaptive);
    EXPECT_EQ(adaptive.idx, expected.idx);
}

TEST(Motion, WalksTargetFramesThereAndBackOrRound) {
    struct Case {
        int nt, start, direction, loop;
        std::vector<int> expected;
    };
    for (const Case& c :
         {Case{4, 0, 1, 0, {0, 1, 2, 3, 2, 1, 0, 1}}, Case{4, 2, -3, 0, {2, 1, 0, 1, 2, 3, 2, 1}},
          Case{4, 99, 0, 1, {3, 0, 1, 2, 3, 0, 1, 2}}, Case{4, -5, -1, 1, {0, 3, 2, 1, 0, 3, 2, 1}},
          Case{2, 0, 1, 0, {0, 1, 0, 1, 0, 1, 0, 1}}, Case{1, 5, 1, 0, {0, 0, 0, 0, 0, 0, 0, 0}},
          Case{1, 0, -1, 7, {0, 0, 0, 0, 0, 0, 0, 0}}}) {
        const TestMotion files({.nt = c.nt});
        const MotionPtr motion = open(files);
        EXPECT_EQ(zorv_motion_nt(motion.get()), c.nt);
        zorv_motion_reset(motion.get(), c.start, c.direction, c.loop);
        EXPECT_EQ(wholeClip(motion.get(), Floats(8 * 640)).idx, c.expected)
            << "nt " << c.nt << " start " << c.start;
    }
}

TEST(Motion, ResetFromEveryStateStartsAfresh) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    const Floats audio = speechLike(120 * 640);
    const Frames expected = wholeClip(motion.get(), audio);
    const Floats other = speechLike(200 * 640);
    for (int state = 0; state < 5; ++state) {
        SCOPED_TRACE("state " + std::to_string(state));
        zorv_motion_reset(motion.get(), 1, 1, 1);
        zorv_motion_set_eager(motion.get(), state == 1 ? 2 : 0);
        zorv_motion_push(motion.get(), other.data() + 9000, (state == 0 ? 10 : 100) * 640);
        Frames dropped;
        if (state > 0) pull(motion.get(), dropped, 20);
        if (state > 2) zorv_motion_finish(motion.get());
        if (state > 3) drain(motion.get(), dropped);
        zorv_motion_set_eager(motion.get(), 0);
        zorv_motion_reset(motion.get(), 0, 1, 0);
        EXPECT_EQ(zorv_motion_total(motion.get()), -1);
        EXPECT_TRUE(wholeClip(motion.get(), audio) == expected);
    }
}

TEST(Motion, ArgumentsAndEmptyStreams) {
    const TestMotion files;
    const MotionPtr motion = open(files);
    float x[63] = {}, y[63] = {};
    const char* badPush = "zorv_motion_push: bad args / already finished";
    EXPECT_EQ(zorv_motion_push(motion.get(), x, 0), 1);
    EXPECT_STREQ(zorv_motion_last_error(), "");
    for (const auto& [handle, samples, n] :
         {std::tuple<zorv_motion*, const float*, int>{nullptr, x, 1},
          {motion.get(), nullptr, 0},
          {motion.get(), x, -1}}) {
        EXPECT_EQ(zorv_motion_push(handle, samples, n), 0);
        EXPECT_STREQ(zorv_motion_last_error(), badPush);
    }
    for (const auto& [handle, xs, xd, max] :
         {std::tuple<zorv_motion*, float*, float*, int>{nullptr, x, y, 1},
          {motion.get(), nullptr, y, 1},
          {motion.get(), x, nullptr, 1},
          {motion.get(), x, y, 0}}) {
        EXPECT_EQ(zorv_motion_pull(handle, nullptr, xs, xd, max), 0);
        EXPECT_STREQ(zorv_motion_last_error(), "zorv_motion_pull: bad args");
    }
    EXPECT_EQ(zorv_motion_avail(nullptr), 0);
    EXPECT_STREQ(zorv_motion_last_error(), "") << "every call clears the text";
    EXPECT_EQ(zorv_motion_nt(nullptr), 0);
    EXPECT_EQ(zorv_motion_total(nullptr), -1);
    zorv_motion_finish(nullptr);
    zorv_motion_set_eager(nullptr, 1);
    zorv_motion_reset(nullptr, 0, 1, 0);
    zorv_motion_destroy(nullptr);
    EXPECT_EQ(zorv_motion_create(nullptr, 1, ""), nullptr);
    EXPECT_STREQ(zorv_motion_last_error(), "zorv_motion_create: NULL motion_dir");

    zorv_motion_finish(motion.get());
    EXPECT_EQ(zorv_motion_total(motion.get()), 0);
    EXPECT_EQ(zorv_motion_avail(motion.get()), 0);
    EXPECT_EQ(zorv_motion_push(motion.get(), x, 0), 0) << "finished";
    EXPECT_STREQ(zorv_motion_last_error(), badPush);
    zorv_motion_reset(motion.get(), 0, 1, 0);
    zorv_motion_push(motion.get(), x, 1);
    zorv_motion_finish(motion.get());
    EXPECT_EQ(zorv_motion_pull(motion.get(), nullptr, x, y, 9), 1) << "idx may be null";
}

TEST(Motion, DirectoriesThatDoNotOpenSayWhy) {
    const auto failure = [](const TestMotion& files, const char* ep = nullptr) -> std::string {
        if (zorv_motion_create(files.dir().c_str(), 0, ep)) return "no failure";
        return zorv_motion_last_error();
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
    for (const char* key : {"hubert_student", "lmdm", "stitch"}) {
        test::writeFile(files.path(std::string(key) + ".onnx"), "no model");
        EXPECT_NE(failure(files).find(key), std::string::npos) << failure(files);
        files.useModel(key, key);
    }

    const std::pair<const char*, const char*> metas[] = {
        {"{}", "meta.json: missing nt"},
        {R"({"nt": 3})", "meta.json: missing n_src"},
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
    files.writeMeta(R"({"nt": 2147483647, "n_src": 1e300, "n_emo": 4})");
    EXPECT_NE(failure(files).find("floats, expected 704374636216"), std::string::npos)
        << failure(files);
    files.writeMeta(R"({"nt": 3.9, "n_src": 3, "n_emo": 4})");
    EXPECT_EQ(zorv_motion_nt(open(files).get()), 3);
}

TEST(Motion, DefaultGainsAreOneAndZero) {
    const TestMotion plain({.bridgeGain = 1, .deltaPitch = 0});
    const TestMotion bare;
    bare.writeMeta(R"({"nt": 3, "n_src": 3, "n_emo": 4})");
    const Floats audio = speechLike(30 * 640);
    EXPECT_TRUE(wholeClip(open(plain).get(), audio) == wholeClip(open(bare).get(), audio));
}

TEST(Motion, ModelThatFailsInTheMiddleLeavesAnEngineThatCanBeReset) {
    const Floats quiet = speechLike(190 * 640);
    Floats loud = quiet;
    for (int i = 0; i < 2000; ++i) loud[100 * 640 + i] *= 1e5f;
    const TestMotion files;
    const Frames expected = wholeClip(open(files).get(), quiet);
    EXPECT_EQ(wholeClip(open(files).get(), loud).size(), 190u) << "no other model fails on it";
    for (const char* key : {"hubert_student", "lmdm", "stitch"}) {
        SCOPED_TRACE(key);
        files.useModel(key, std::string(key) + "_fails");
        const MotionPtr motion = open(files);
        Frames frames;
        bool failed = false;
        for (int at = 0; at < 190 * 640 && !failed; at += 640) {
            zorv_motion_push(motion.get(), loud.data() + at, 640);
            const bool byAvail = at % 1280 == 0;
            const int n = byAvail ? zorv_motion_avail(motion.get()) : pull(motion.get(), frames, 4);
            failed = *zorv_motion_last_error() != '\0';
            if (!failed) continue;
            EXPECT_EQ(n, 0);
            const std::string name = byAvail ? "zorv_motion_avail: " : "zorv_motion_pull: ";
            EXPECT_EQ(std::string(zorv_motion_last_error()).find(name), 0u);
            EXPECT_GT(std::strlen(zorv_motion_last_error()), name.size() + 10);
        }
        EXPECT_TRUE(failed);
        EXPECT_GT(frames.size(), 10u) << "it failed in the middle";
        zorv_motion_reset(motion.get(), 0, 1, 0);
        EXPECT_TRUE(wholeClip(motion.get(), quiet) == expected);
        files.useModel(key, key);
    }
    files.useModel("lmdm", "lmdm_short");
    const MotionPtr motion = open(files);
    zorv_motion_push(motion.get(), quiet.data(), 640);
    zorv_motion_finish(motion.get());
    EXPECT_EQ(zorv_motion_avail(motion.get()), 0);
    EXPECT_STRNE(zorv_motion_last_error(), "") << "an output of another shape was taken";
}

TEST(Motion, DumpsTheIntermediateArraysAndChangesNothing) {
    const TestMotion files;
    const Floats audio = speechLike(161 * 640);
    const Frames expected = wholeClip(open(files).get(), audio);
    const test::TempDir dir;
    ::setenv("ZORV_MOTION_DUMP", dir.path().c_str(), 1);
    const MotionPtr motion = open(files);
    ::unsetenv("ZORV_MOTION_DUMP");
    EXPECT_TRUE(wholeClip(motion.get(), speechLike(3000)).size() > 0) << "a stream to overwrite";
    zorv_motion_reset(motion.get(), 0, 1, 0);
    EXPECT_TRUE(wholeClip(motion.get(), audio) == expected);

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
    EXPECT_EQ(dumped("xs.bin"), expected.xs);
    EXPECT_EQ(dumped("xd.bin"), expected.xd);
    const Floats rows = dumped("cond.bin");
    const Floats first = dumped("lmdm0_aud.bin");
    EXPECT_TRUE(std::equal(first.begin(), first.end(), rows.begin()));

    ReferenceMotion reference(files, 3);
    reference.push(audio.data(), static_cast<int>(audio.size()));
    reference.finish();
    reference.pull(1 << 20);
    const Floats final = dumped("final.bin");
    for (std::size_t i = 0; i < final.size(); ++i) {
        ASSERT_NEAR(final[i], reference.handedOut[i / 265][i % 265], 1e-4f)
            << "frame " << i / 265 << " dimension " << i % 265;
    }
}

TEST(Motion, EnginesInTwoThreadsDoNotDisturbEachOther) {
    const TestMotion files;
    const Floats audio = speechLike(150 * 640);
    const Frames expected = wholeClip(open(files).get(), audio);
    const auto work = [&](bool& equal) {
        const MotionPtr motion = open(files);
        equal = wholeClip(motion.get(), audio) == expected;
        EXPECT_EQ(zorv_motion_push(motion.get(), nullptr, 0), 0);
        EXPECT_STREQ(zorv_motion_last_error(), "zorv_motion_push: bad args / already finished");
    };
    bool equal[2] = {};
    std::thread one(work, std::ref(equal[0]));
    std::thread other(work, std::ref(equal[1]));
    EXPECT_EQ(zorv_motion_create(nullptr, 1, nullptr), nullptr);
    one.join();
    other.join();
    EXPECT_TRUE(equal[0] && equal[1]);
    EXPECT_STREQ(zorv_motion_last_error(), "zorv_motion_create: NULL motion_dir");
}

}  // namespace
}  // namespace zorv
