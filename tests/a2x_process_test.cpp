// What the expression engines of one process share, and what is said on standard error: each case
// is a process of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "support/expression_dir.h"
#include "support/scoped_env.h"

namespace zorv {
namespace {

using test::ExpressionDir;
using test::modelFile;
using test::ScopedEnv;
using Lines = std::vector<std::string>;

/// Runs the probe with these steps; returns the lines of its standard output and error, in order.
Lines probe(const Lines& steps) {
    std::string command = ZORV_A2X_PROBE;
    for (const std::string& text : steps) command += " '" + text + "'";
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    std::string output;
    for (int c; (c = std::fgetc(pipe)) != EOF;) output.push_back(static_cast<char>(c));
    EXPECT_EQ(::pclose(pipe), 0) << command << "\n" << output;
    std::istringstream stream(output);
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::string env(const std::string& name, const std::string& value) {
    return "env=" + name + "=" + value;
}

class A2xProcess : public testing::Test {
  protected:
    /// The result line of a stream with nothing set but the encoder.
    std::string plainResult() const { return probe({stream_}).at(0); }

    ExpressionDir dir_{{.window = 0, .rows = 70}};
    std::string stream_ = "stream=" + dir_.path();
    std::string together_ = "together=" + dir_.path();
    ScopedEnv encoder_{"W2V_ONNX", modelFile("a2x_w2v")};
    ScopedEnv threads_{"ZORV_A2X_W2V_THREADS", "1"};
};

TEST_F(A2xProcess, PreloadSaysWhatIsMissingAndMayBeRepaired) {
    const ScopedEnv none("W2V_ONNX", nullptr);
    const std::string unset = "0 zorv_a2x_preload_w2v: no path and $W2V_ONNX unset";
    const Lines lines =
        probe({"preload=NULL", "preload=", env("W2V_ONNX", ""), "preload=NULL", stream_,
               "preload=/no such file", env("W2V_ONNX", modelFile("a2x_w2v")), "preload=", stream_,
               env("W2V_ONNX", "/no such file"), "preload=/no such file", stream_});
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 4),
              (Lines{unset, unset, unset, "zorv_a2x_create: $W2V_ONNX not set"}));
    EXPECT_TRUE(lines[4].starts_with("0 zorv_a2x_preload_w2v: Load model from /no such file"))
        << lines[4];
    EXPECT_TRUE(lines[5].starts_with("1 ")) << "a failed load must not be remembered";
    EXPECT_TRUE(lines[6].starts_with("60 frames ")) << lines[6];
    EXPECT_TRUE(lines[7].starts_with("1 ")) << "the first load wins whatever is asked later";
    EXPECT_EQ(lines[8], lines[6]);
}

TEST_F(A2xProcess, PreloadGivesTheEncoderItsOwnThreads) {
    const auto added = [](const char* setting) {
        const ScopedEnv env("ZORV_A2X_W2V_THREADS", setting);
        const Lines lines = probe({"tasks", "preload=", "tasks"});
        EXPECT_EQ(lines.size(), 3u);
        return std::stoi(lines.at(2)) - std::stoi(lines.at(0));  // beside the caller's
    };
    EXPECT_EQ(added(nullptr), 5);
    EXPECT_EQ(added("3"), 2);
    EXPECT_EQ(added("-4"), 0);
}

TEST_F(A2xProcess, RefusedCudaIsSaidOncePerProviderChoiceAndChangesNothing) {
    const auto refused = [](const std::string& line, const std::string& tag) {
        return line.starts_with("[zorv_a2x] CUDA EP append failed (" + tag + "): ") &&
               line.ends_with(" -- falling back to CPU");
    };
    const std::string plain = plainResult();
    Lines lines = probe({env("ZORV_A2X_CUDA", "1"), stream_});
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(refused(lines[0], "w2v")) << lines[0];
    EXPECT_EQ(lines[1], plain);
    lines = probe({env("ZORV_A2X_CUDA", "1"), env("ZORV_A2X_CUDA_ALL", "1"), stream_});
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(refused(lines[0], "enc/dec") && refused(lines[1], "w2v")) << lines[0] << lines[1];
    EXPECT_EQ(lines[2], plain);
    EXPECT_EQ(probe({env("ZORV_A2X_CUDA", "01"), env("ZORV_A2X_CUDA_ALL", "1"), stream_}),
              Lines{plain});
}

TEST_F(A2xProcess, EnginesMadeAtOnceLoadTheEncoderOnceAndAgreeWithASingleOne) {
    // Every load of the encoder would say its own line.
    const std::string plain = plainResult();
    const Lines lines = probe({env("ZORV_A2X_CUDA", "1"), together_, together_});
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_TRUE(lines[0].starts_with("[zorv_a2x] CUDA EP append failed (w2v)"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), plain), 8);
}

TEST_F(A2xProcess, ShortWindowsThatCannotBeHadFallBackWithOneLine) {
    const std::string plain = plainResult();
    const std::string unset =
        "[zorv_a2x] ZORV_A2X_W2V_WIN=1 but ZORV_A2X_W2V_WIN_ONNX/ZORV_A2X_W2V_HEAD_ONNX unset — "
        "falling back to the legacy 8s w2v path";
    const std::string trunk = env("ZORV_A2X_W2V_WIN_ONNX", modelFile("a2x_trunk"));
    const std::string head = env("ZORV_A2X_W2V_HEAD_ONNX", modelFile("a2x_head"));
    const std::string on = env("ZORV_A2X_W2V_WIN", "1");
    EXPECT_EQ(probe({on, trunk, stream_, head, stream_}), (Lines{unset, plain, plain}))
        << "one attempt per process";
    EXPECT_EQ(probe({on, head, together_}), (Lines{unset, plain, plain, plain, plain}));
    EXPECT_EQ(probe({trunk, head, env("ZORV_A2X_W2V_WIN", "yes"), stream_}), Lines{plain});

    const std::string missing = env("ZORV_A2X_W2V_HEAD_ONNX", "/no such file");
    const Lines lines = probe({on, trunk, missing, stream_, head, stream_});
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].starts_with(
        "[zorv_a2x] short-window w2v load FAILED (Load model from /no such file"));
    EXPECT_TRUE(lines[0].ends_with(") — legacy 8s path"));
    EXPECT_EQ(Lines(lines.begin() + 1, lines.end()), (Lines{plain, plain}));
}

TEST_F(A2xProcess, ShortWindowsLearnTheTrunksLengthFromItsFirstRunWhenItIsOpen) {
    const std::string head = env("ZORV_A2X_W2V_HEAD_ONNX", modelFile("a2x_head"));
    const std::string on = env("ZORV_A2X_W2V_WIN", "1");
    const auto armed = [&](const std::string& model, const std::string& verb) {
        return probe({on, head, env("ZORV_A2X_W2V_WIN_ONNX", modelFile(model)), verb});
    };
    const Lines declared = armed("a2x_trunk", stream_);
    ASSERT_EQ(declared.size(), 2u);
    EXPECT_EQ(declared[0], "[zorv_a2x] short-window w2v ARMED (ZORV_A2X_W2V_WIN=1, LT=399)");
    EXPECT_TRUE(declared[1].starts_with("60 frames ")) << declared[1];
    EXPECT_NE(declared[1], plainResult());

    const Lines open = armed("a2x_trunk_open", together_);
    ASSERT_EQ(open.size(), 5u);
    EXPECT_EQ(open[0], "[zorv_a2x] short-window w2v ARMED (ZORV_A2X_W2V_WIN=1, LT=from-first-run)");
    EXPECT_EQ(std::count(open.begin(), open.end(), declared[1]), 4);

    // Every frame of a block has to have its place among the trunk's steps, whatever its number.
    EXPECT_EQ(armed("a2x_trunk_short", stream_).at(1),
              "zorv_a2x_create: " + modelFile("a2x_trunk_short") +
                  ": output trunk_steps: wanted at least 303 steps for ZORV_A2X_W2V_RIGHT=12, "
                  "found 290");
    for (const auto& [right, expected] :
         {std::pair{"42", "60 frames "},
          {"43",
           "zorv_a2x_create: ZORV_A2X_W2V_RIGHT=43: a short window of 50 frames ends before a "
           "block's first frame"}}) {
        const ScopedEnv set("ZORV_A2X_W2V_RIGHT", right);
        EXPECT_TRUE(armed("a2x_trunk", stream_).back().starts_with(expected)) << right;
    }
}

TEST_F(A2xProcess, SilencePrimeSaysWhatItDid) {
    const ExpressionDir primed({.rows = 250, .silencePrime = 500});
    const std::string stream = "stream=" + primed.path();
    EXPECT_EQ(probe({stream}).at(0), "[zorv_a2x] silence-primed AR state cached (200 frames)");
    const Lines off = probe({env("ZORV_A2X_SILENCE_PRIME", "0"), stream});
    ASSERT_EQ(off.size(), 1u);
    EXPECT_NE(off[0], probe({stream}).at(1));

    // dir_ has 70 rows.
    const Lines lines = probe({env("ZORV_A2X_SILENCE_PRIME", "71"), stream_});
    EXPECT_EQ(lines.at(0),
              "[zorv_a2x] silence-prime failed (71 frames, but a2x_pos.f32 has 70 rows) -- legacy "
              "zero state");
    EXPECT_EQ(lines.at(1), plainResult());
}

}  // namespace
}  // namespace zorv
