// The load-time rewrite of GridSample nodes: which nodes, which bytes, and what a renderer makes
// of it.
#include "render/gridsample/rewrite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

#include "render/zorv_renderer.h"
#include "support/failure.h"
#include "support/memory.h"
#include "support/onnx_message.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

using test::failure;
using test::intAttribute;
using test::Message;
using test::ScopedEnv;
using test::TestBundle;
using test::textAttribute;

Message plainNode() {
    return test::gridSampleNode()
        .bytes(5, textAttribute("mode", "bilinear"))
        .bytes(5, textAttribute("padding_mode", "border"));
}

TEST(GridSampleRewrite, TakesOnlyNodesThatItReproduces) {
    using Verdict = GridSampleVerdict;
    const auto node = [](const std::string& mode, const std::string& padding) {
        Message message = test::gridSampleNode();
        if (mode != "-") message.bytes(5, textAttribute("mode", mode));
        if (padding != "-") message.bytes(5, textAttribute("padding_mode", padding));
        return message;
    };
    const struct {
        Message node;
        Verdict verdict;
    } cases[] = {
        {node("bilinear", "border"), Verdict::kRewritable},
        {node("linear", "border"), Verdict::kRewritable},
        {node("nearest", "border"), Verdict::kMode},
        {node("", "border"), Verdict::kMode},
        {node("-", "border"), Verdict::kMode},
        {node("bilinear", "zeros"), Verdict::kPaddingMode},
        {node("bilinear", "-"), Verdict::kPaddingMode},
        {plainNode().bytes(5, Message().bytes(1, "mode")), Verdict::kMode},
        {plainNode().bytes(5, intAttribute("align_corners", 0)), Verdict::kRewritable},
        {plainNode().bytes(5, intAttribute("align_corners", 1)), Verdict::kAlignCorners},
        {plainNode().bytes(5, Message().bytes(1, "align_corners")), Verdict::kRewritable},
        {plainNode().bytes(5, intAttribute("other", 1)), Verdict::kRewritable},
        {plainNode().bytes(7, ""), Verdict::kRewritable},
        {plainNode().bytes(7, "ai.onnx"), Verdict::kRewritable},
        {plainNode().bytes(7, "com.velmarin"), Verdict::kDomain},
        {plainNode().bytes(4, "Resize"), Verdict::kOtherNode},  // the last of a field counts
        {plainNode().bytes(4, "Resize").bytes(4, "GridSample"), Verdict::kRewritable},
        {Message(), Verdict::kOtherNode},
    };
    for (const auto& c : cases) {
        const std::size_t i = static_cast<std::size_t>(&c - cases);
        EXPECT_EQ(judgeGridSample(c.node.text()), c.verdict) << "case " << i;
        EXPECT_EQ(gsIsRewritableGridSample(c.node.text()), c.verdict == Verdict::kRewritable);
    }
}

/// A model with everything around the nodes that the rewrite must keep: unknown fields of every
/// wire type, lengths in more bytes than they need, a subgraph with a node of its own.
Message surroundings(const Message& first, const Message& second, bool minimalLengths) {
    const Message inner = Message().bytes(1, plainNode());
    const Message branch = Message().bytes(1, "then_branch").bytes(6, inner).integer(20, 5);
    const Message choice = Message().bytes(1, "c").bytes(4, "If").bytes(5, branch);
    Message graph;
    graph.bytes(2, "g").bytes(1, first).bytes(1, choice).bytes(5, std::string(300, '\7'));
    graph.raw(std::string("\x9d\x06____\xa1\x06________", 16)).bytes(1, second).integer(99, 7);
    Message model;
    model.integer(1, 8).bytes(2, "producer").bytes(7, graph);
    // ir_version again, and a string field whose length takes two bytes although one would do.
    model.raw(minimalLengths ? "" : std::string("\x08\x88\x00\x12\x83\x00__", 8) + "_");
    return model.bytes(8, Message().bytes(1, "").integer(2, 16));
}

Message fastNode(Message kept) {
    return kept.bytes(4, "GridSampleFast").bytes(7, "com.velmarin");
}

TEST(GridSampleRewrite, ChangesTheNodesAndNothingElse) {
    // Fields of the node around those that go keep their order.
    const Message node = Message()
                             .bytes(1, "x")
                             .bytes(5, textAttribute("padding_mode", "border"))
                             .bytes(1, "grid")
                             .bytes(4, "GridSample")
                             .bytes(2, "y")
                             .bytes(7, "ai.onnx")
                             .bytes(5, textAttribute("mode", "linear"))
                             .bytes(3, "name")
                             .integer(77, 300);
    const Message kept =
        Message().bytes(1, "x").bytes(1, "grid").bytes(2, "y").bytes(3, "name").integer(77, 300);
    const Message other = plainNode().bytes(5, intAttribute("align_corners", 1));
    const Message import = Message().bytes(1, "com.velmarin").integer(2, 1);

    for (const bool minimal : {true, false}) {
        std::string bytes = surroundings(node, other, minimal).text();
        EXPECT_EQ(rewriteGridSampleToFast(bytes), 1u);
        EXPECT_EQ(bytes, surroundings(fastNode(kept), other, minimal).bytes(8, import).text());
        const std::string once = bytes;
        EXPECT_EQ(rewriteGridSampleToFast(bytes), 0u);
        EXPECT_EQ(bytes, once);
    }
    // Both nodes, and a model that has the domain already.
    std::string both = surroundings(node, node, true).bytes(8, import).text();
    EXPECT_EQ(rewriteGridSampleToFast(both), 2u);
    EXPECT_EQ(both, surroundings(fastNode(kept), fastNode(kept), true).bytes(8, import).text());

    std::string untouched = surroundings(other, other, false).text();
    const std::string before = untouched;
    EXPECT_EQ(rewriteGridSampleToFast(untouched), 0u);
    EXPECT_EQ(untouched, before);
}

TEST(GridSampleRewrite, MalformedModelsFailUnchanged) {
    const std::string good = surroundings(plainNode(), plainNode(), false).text();
    const auto textOf = [](std::string bytes) {
        const std::string before = bytes;
        const std::string text = failure([&] { rewriteGridSampleToFast(bytes); });
        if (text != "no failure") {
            EXPECT_EQ(bytes, before);
        }
        return text;
    };
    for (std::size_t length = 0; length < good.size(); ++length) {
        const std::string text = textOf(good.substr(0, length));
        EXPECT_TRUE(text == "no failure" || text == "onnx: bad varint" || text == "onnx: truncated")
            << text << " at " << length;
    }
    EXPECT_EQ(textOf(good + "\x0b"), "onnx: bad wire type");
    EXPECT_EQ(textOf(good + std::string(11, '\xff')), "onnx: bad varint");
    // Inside: the graph, a node, an attribute, an import.
    const auto model = [](const Message& node) {
        return Message().bytes(7, Message().bytes(1, plainNode()).bytes(1, node)).text();
    };
    EXPECT_EQ(textOf(model(Message().raw("\x22\x7f"))), "onnx: truncated");
    EXPECT_EQ(textOf(model(Message().bytes(5, "\x0c"))), "onnx: bad wire type");
    EXPECT_EQ(textOf(Message().bytes(7, "\x80").text()), "onnx: bad varint");
    EXPECT_EQ(textOf(Message().bytes(8, "\x0a\x01").text()), "onnx: truncated");
}

TEST(GridSampleRewrite, LargeModelsNeedOneMoreCopy) {
    constexpr std::size_t kWeights = std::size_t{48} << 20;
    std::string bytes;
    {
        Message graph;
        graph.bytes(1, plainNode()).bytes(5, std::string(kWeights, '\5'));
        bytes = Message().integer(1, 8).bytes(7, graph).text();
    }
    bytes.shrink_to_fit();
    test::forgetPeakMemory();
    const std::size_t before = test::statusBytes("VmRSS:");
    ASSERT_EQ(rewriteGridSampleToFast(bytes), 1u);
    EXPECT_LT(test::statusBytes("VmHWM:"), before + kWeights + (8 << 20));
    EXPECT_LT(test::statusBytes("VmRSS:"), before + (8 << 20));
}

/// A renderer of the warped model, and the picture that it gives.
class WarpedRenderer : public testing::Test {
  protected:
    WarpedRenderer() : manifest(loadManifest(bundle.dir())), identity(manifest) {
        bundle.useModel("x", "render_warped");
    }

    /// The picture, and in `lines` what creating the renderer said.
    std::vector<float> picture(const char* fastSwitch) {
        const ScopedEnv env("ZORV_GS_FAST", fastSwitch);
        testing::internal::CaptureStderr();
        std::vector<float> pixels;
        const std::string text = failure([&] {
            Renderer renderer(manifest, identity, "x", 1, "");
            const std::vector<float> source(63, 0.1f), driving(63, 0.37f);
            const std::int32_t frame = 1;
            const float* rgb = renderer.render(&frame, source.data(), driving.data(), 1);
            pixels.assign(rgb, rgb + 3 * test::kTestCrop * test::kTestCrop);
        });
        lines = testing::internal::GetCapturedStderr();
        EXPECT_EQ(text, "no failure");
        return pixels;
    }

    static constexpr const char* kLine =
        "[zorv] std GridSample -> com.velmarin::GridSampleFast load-time rewrite: 1 node(s) (x)\n";
    TestBundle bundle;
    Manifest manifest;
    Identity identity;
    std::string lines;
};

TEST_F(WarpedRenderer, ShowsTheSamePictureWithAndWithoutTheOperator) {
    const std::vector<float> plain = picture("0"), expected = picture(nullptr);
    EXPECT_EQ(lines, kLine);
    EXPECT_GT(std::abs(plain.back() - plain.front()), 0.1f) << "a flat picture proves nothing";
    ASSERT_EQ(expected.size(), plain.size());
    for (std::size_t i = 0; i < plain.size(); ++i) ASSERT_NEAR(expected[i], plain[i], 1e-6) << i;
    for (const char* on : {"1", "", "no"}) EXPECT_EQ(picture(on), expected) << on;

    // With weights beside the model.
    bundle.useModel("x", "render_warped_external");
    const std::filesystem::path weights = test::modelFile("render_warped_external") + ".weights";
    test::writeFile(bundle.path(weights.filename()), test::readFile(weights));
    EXPECT_EQ(picture(nullptr), expected);
    EXPECT_EQ(lines, kLine);
}

TEST_F(WarpedRenderer, ResizesAsTheNodeDoesAndKeepsNodesThatTheOperatorCannotBe) {
    for (const char* way : {"resized", "half", "deep", "half_resize"}) {
        bundle.useModel("x", std::string("render_warped_") + way);
        const std::vector<float> plain = picture("0"), fast = picture(nullptr);
        ASSERT_EQ(fast.size(), plain.size());
        for (std::size_t i = 0; i < plain.size(); ++i) ASSERT_NEAR(fast[i], plain[i], 1e-6) << way;
        if (way == std::string("resized")) {
            EXPECT_NE(lines.find("load-time rewrite: 2 node(s) (x)\n"), std::string::npos) << lines;
        } else {
            const bool mixed = way == std::string("half_resize");
            EXPECT_EQ(lines.find(kLine) != std::string::npos, mixed) << lines;
            // The runtime's own log may come before it.
            const std::size_t at = lines.find(
                mixed ? "[zorv] x keeps its Resize nodes, the runtime refuses their rewrite: "
                      : "[zorv] x is loaded as it is, the runtime refuses its load-time rewrite: ");
            ASSERT_NE(at, std::string::npos) << lines;
            EXPECT_EQ(lines.find('\n', at), lines.size() - 1) << lines;
        }
    }
}

TEST_F(WarpedRenderer, LeavesOtherModelsAloneAndNamesBadFiles) {
    bundle.useModel("x", "render");
    picture(nullptr);
    EXPECT_EQ(lines, "");

    const auto opening = [&] { Renderer(manifest, identity, "x", 1, ""); };
    const std::string path = bundle.path("model_x.onnx");
    test::writeFile(path, "\x08\x08\x3a\x7f");
    EXPECT_EQ(failure(opening), "onnx: truncated");
    bundle.remove("model_x.onnx");
    EXPECT_EQ(failure(opening), "Renderer: cannot open " + path);
}

}  // namespace
}  // namespace zorv
