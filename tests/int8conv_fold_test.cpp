// The load-time folds into int8 convolutions and the fast Resize: which nodes, and that no bit of
// the results changes.
#include "render/int8conv/fold.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include "render/custom_operators.h"
#include "render/gridsample/op.h"
#include "render/int8conv/int8conv_vnni.h"
#include "render/resize/resize_fast.h"
#include "support/failure.h"
#include "support/kernels.h"
#include "support/onnx_message.h"
#include "support/session.h"

namespace zorv {
namespace {

using test::intAttribute;
using test::Ints;
using test::intsAttribute;
using test::Message;
using test::tensor;
using test::textAttribute;
using test::value;

struct Node {
    std::string type;
    std::vector<std::string> inputs, outputs;
    std::map<std::string, Message> attributes;
    std::string domain;

    Message message() const {
        Message node = Message().bytes(4, type).bytes(3, "the " + outputs.front());
        if (!domain.empty()) node.bytes(7, domain);
        for (const std::string& input : inputs) node.bytes(1, input);
        for (const std::string& output : outputs) node.bytes(2, output);
        for (const auto& [name, attribute] : attributes) node.bytes(5, attribute);
        return node;
    }
};

/// x -> Resize -> big -> Pad -> padded -> Int8ConvVNNI -> a -> Pad -> wide -> Int8ConvVNNI -> b ->
/// DepthToSpace -> y, all of it foldable; "b" holds both signs.
struct Sketch {
    explicit Sketch(unsigned seed = 1, bool padded = true) : random(seed) {
        const auto any = [&](unsigned least, unsigned most) {
            return static_cast<std::int64_t>(least + random() % (most - least + 1));
        };
        const std::int64_t c = any(1, 9), m = any(1, 9);
        dims = {any(1, 2), c, any(1, 6), any(1, 40)};
        const std::int64_t one = padded ? 0 : 1;
        nodes = {{"Resize",
                  {"x", "", "scales"},
                  {"big"},
                  {{"mode", textAttribute("mode", "nearest")},
                   {"coordinate", textAttribute("coordinate_transformation_mode", "asymmetric")},
                   {"nearest", textAttribute("nearest_mode", "floor")}},
                  ""},
                 {"Pad", {"big", "ones"}, {"padded"}, {}, ""},
                 {"Int8ConvVNNI",
                  {padded ? "padded" : "big", "w1", "s1", "b1"},
                  {"a"},
                  {{"pads", intsAttribute("pads", {one, one, one, one})}},
                  "com.velmarin.int8"},
                 {"Pad",
                  {"a", "amounts", "zero"},
                  {"wide"},
                  {{"mode", textAttribute("mode", "constant")}},
                  ""},
                 {"Int8ConvVNNI",
                  {"wide", "w2", "s2", "b2"},
                  {"b"},
                  {{"strides", intsAttribute("strides", {any(1, 2), any(1, 3)})}},
                  "com.velmarin.int8"},
                 {"DepthToSpace",
                  {"b"},
                  {"y"},
                  {{"blocksize", intAttribute("blocksize", 2)},
                   {"mode", textAttribute("mode", random() % 2 ? "CRD" : "DCR")}},
                  ""}};
        constants["scales"] = tensor<float>(1, {4}, {1, 1, 2, 2});
        constants["ones"] = tensor<std::int64_t>(7, {8}, {0, 0, 1, 1, 0, 0, 1, 1});
        constants["amounts"] =
            tensor<std::int64_t>(7, {8}, {0, 0, any(0, 2), any(0, 3), 0, 0, any(1, 2), any(2, 3)});
        constants["zero"] = tensor<float>(1, {}, {0});
        if (!padded) nodes.erase(nodes.begin() + 1), constants.erase("ones");
        addWeights("1", m, c, 3, 3);
        addWeights("2", 8, m, any(1, 2), any(1, 3));
    }

    void addWeights(const std::string& suffix, std::int64_t m, std::int64_t c, std::int64_t kh,
                    std::int64_t kw) {
        std::vector<std::int8_t> weights(static_cast<std::size_t>(m * c * kh * kw));
        for (auto& weight : weights) weight = static_cast<std::int8_t>(random());
        std::vector<float> scale, bias;
        for (std::int64_t i = 0; i < m; ++i) {
            scale.push_back(0.001f * static_cast<float>(1 + random() % 9));
            bias.push_back(static_cast<float>(random() % 9) - 4);
        }
        constants["w" + suffix] = tensor(3, {m, c, kh, kw}, weights);
        constants["s" + suffix] = tensor(1, {m}, scale);
        constants["b" + suffix] = tensor(1, {m}, bias);
    }

    Node& node(const std::string& output) {
        for (Node& one : nodes) {
            if (one.outputs.front() == output) return one;
        }
        throw std::out_of_range(output);
    }

    std::string model() const {
        Message graph = Message().bytes(2, "sketch").bytes(11, value("x", dims));
        for (const auto& [name, constant] : constants) {
            if (constantNodes) {
                Message node = Message().bytes(2, name).bytes(4, "Constant");
                graph.bytes(
                    1,
                    node.bytes(5, Message().bytes(1, "value").bytes(5, constant).integer(20, 4)));
            } else {
                graph.bytes(5, Message(constant).bytes(8, name));
            }
        }
        for (const Node& one : nodes) graph.bytes(1, one.message());
        graph.bytes(12, value("y")).raw(more.text());
        return Message()
            .integer(1, 8)
            .bytes(7, graph)
            .bytes(8, Message().bytes(1, "").integer(2, 16))
            .bytes(8, Message().bytes(1, "com.velmarin.int8").integer(2, 1))
            .text();
    }

    std::mt19937 random;
    Ints dims;
    std::vector<Node> nodes;
    std::map<std::string, Message> constants;
    bool constantNodes = false;
    Message more;  ///< fields of the graph
};

/// A letter for each fold: R, P or D.
std::string letters(const std::vector<Int8Fold>& folds) {
    std::string text;
    for (const Int8Fold& fold : folds) text += "RPD"[static_cast<int>(fold.kind)];
    return text;
}

std::string foldsOf(const Sketch& sketch) {
    std::string out = "untouched";
    const auto folds = foldIntoInt8Conv(sketch.model(), out);
    EXPECT_EQ(folds.empty(), out == "untouched");
    return letters(folds);
}

std::vector<float> run(const std::string& model, const Ints& dims, std::vector<float> x) {
    Ort::SessionOptions options = makeSessionOptions(1);
    registerInt8ConvVNNI(options);
    registerGridSampleFast(options);
    Ort::Session session =
        createOperatorSession(test::testEnv(), model.data(), model.size(), options);
    return test::floatsOf(test::runModel(session, {{"x", std::move(x), dims}}, {"y"}).front());
}

TEST(Int8Fold, KeepsEveryBit) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        Sketch sketch(seed, seed % 2 == 0);
        sketch.constantNodes = seed % 4 >= 2;
        std::vector<float> x(elementCount(sketch.dims));
        const auto negative = static_cast<float>(seed % 3);
        for (float& v : x) v = static_cast<float>(sketch.random() % 1001) / 300 - negative;
        std::string folded, again = "untouched";
        const auto folds = foldIntoInt8Conv(sketch.model(), folded);
        ASSERT_EQ(letters(folds), seed % 2 ? "RPD" : "RPPD") << seed;
        EXPECT_EQ(folds[0].node, "the big");
        EXPECT_EQ(folds[0].into, "the a");
        EXPECT_TRUE(test::same(run(folded, sketch.dims, x), run(sketch.model(), sketch.dims, x)))
            << seed;
        EXPECT_TRUE(foldIntoInt8Conv(folded, again).empty() && again == "untouched") << seed;
        EXPECT_EQ(folded.find("scales"), std::string::npos);  // what nobody reads any more goes
    }
}

TEST(Int8Fold, TakesOnlyWhatItReproduces) {
    EXPECT_EQ(foldsOf(Sketch(1)), "RPPD");
    const auto attribute = [](const char* output, const char* name, const Message& message) {
        return [=](Sketch& s) { s.node(output).attributes[name] = message; };
    };
    const auto constant = [](const char* name, const Message& message) {
        return [=](Sketch& s) { s.constants[name] = message; };
    };
    const auto convolution = [&](const char* name, const Ints& values) {
        return attribute("a", name, intsAttribute(name, values));
    };
    const Ints kernel = {1, 1, 3, 5};
    const struct {
        const char* expected;
        std::function<void(Sketch&)> change;
    } cases[] = {
        // Resize
        {"PPD", attribute("big", "mode", textAttribute("mode", "linear"))},
        {"PPD", attribute("big", "mode", intAttribute("mode", 0))},
        {"PPD", [](Sketch& s) { s.node("big").attributes.erase("coordinate"); }},
        {"PPD", [](Sketch& s) { s.node("big").attributes.erase("nearest"); }},
        {"PPD", attribute("big", "nearest", textAttribute("nearest_mode", "ceil"))},
        {"PPD", attribute("big", "twice", textAttribute("nearest_mode", "floor"))},
        {"PPD", attribute("big", "other", intAttribute("exclude_outside", 1))},
        {"RPPD", attribute("big", "other", intAttribute("exclude_outside", 0))},
        {"PPD", attribute("big", "other", intsAttribute("axes", {2, 3}))},
        {"PPD", constant("scales", tensor<float>(1, {4}, {1, 1, 2, 3}))},
        {"PPD", constant("scales", tensor<float>(1, {4}, {1, 2, 2, 2}))},
        {"PPD", constant("scales", tensor<float>(1, {2}, {2, 2}))},
        {"PPD", constant("scales", tensor<float>(1, {4}, {1, 1, 2, 2}).integer(14, 1))},
        {"PPD", [](Sketch& s) { s.more.bytes(11, value("scales", {4})); }},
        {"PPD", [](Sketch& s) { s.node("big").inputs[2] = "x"; }},
        {"PPD", [](Sketch& s) { s.node("big").inputs.emplace_back("sizes"); }},
        {"PPD", [](Sketch& s) { s.node("big").domain = "other"; }},
        {"PD", [](Sketch& s) { s.more.bytes(12, value("big")).bytes(12, value("padded")); }},
        {"PD",
         [](Sketch& s) {
             s.nodes.push_back({"Relu", {"big"}, {"spare"}, {}, ""});
             s.nodes.push_back({"Relu", {"padded"}, {"second"}, {}, ""});
         }},
        {"PPD",
         [](Sketch& s) {
             const Node inner = {"Relu", {"big"}, {"hidden"}, {}, ""};
             const Message branch = Message().bytes(1, "then_branch").integer(20, 5);
             s.nodes.push_back({"If", {"x"}, {"spare"}, {}, ""});
             s.nodes.back().attributes["then"] =
                 Message(branch).bytes(6, Message().bytes(1, inner.message()));
         }},
        // The convolution behind it
        {"PPD", convolution("strides", {1, 2})},
        {"PPD", convolution("dilations", {2, 1})},
        {"PPD", attribute("a", "group", intAttribute("group", 2))},
        {"PPD", constant("w1", tensor<std::int8_t>(3, kernel, std::vector<std::int8_t>(15)))},
        {"PPD", constant("ones", tensor<std::int64_t>(7, {8}, {0, 0, 1, 1, 0, 0, 1, 2}))},
        {"PD", convolution("pads", {0, 0, 0, 1})},
        {"PD", attribute("a", "twice", intsAttribute("pads", {0, 0, 0, 0}))},
        {"PD", [](Sketch& s) { s.node("a").inputs[3] = "padded"; }},
        // Pad
        {"RPD", attribute("wide", "mode", textAttribute("mode", "reflect"))},
        {"RPD", constant("zero", tensor<float>(1, {}, {0.5f}))},
        {"RPD", constant("amounts", tensor<std::int64_t>(7, {8}, {0, 1, 0, 0, 0, 0, 0, 0}))},
        {"RPD", constant("amounts", tensor<std::int64_t>(7, {8}, {0, 0, 3, -1, 0, 0, 0, 0}))},
        {"RPD", [](Sketch& s) { s.node("wide").inputs.emplace_back("axes"); }},
        // DepthToSpace
        {"RPP", attribute("y", "blocksize", intAttribute("blocksize", 4))},
        {"RPP", attribute("y", "mode", textAttribute("mode", "other"))},
        {"RPPD", [](Sketch& s) { s.node("y").attributes.erase("mode"); }},
        // Without int8 convolutions nothing at all
        {"", [](Sketch& s) { s.node("a").domain = s.node("b").domain = "other"; }},
    };
    int number = 0;
    for (const auto& [expected, change] : cases) {
        Sketch sketch(1);
        change(sketch);
        EXPECT_EQ(foldsOf(sketch), expected) << "case " << number;
        ++number;
    }
}

std::string resizeModel(const Ints& dims, const Message& constant, bool sizes,
                        const std::string& mode, const std::string& coordinates) {
    Message node = Message().bytes(1, "x").bytes(1, "").bytes(1, sizes ? "" : "target");
    if (sizes) node.bytes(1, "target");
    node.bytes(2, "y").bytes(4, "Resize").bytes(5, textAttribute("mode", mode));
    node.bytes(5, textAttribute("coordinate_transformation_mode", coordinates));
    const Message graph = Message()
                              .bytes(2, "resize")
                              .bytes(11, value("x", dims))
                              .bytes(5, Message(constant).bytes(8, "target"))
                              .bytes(1, node)
                              .bytes(12, value("y"));
    return Message().integer(1, 8).bytes(7, graph).bytes(8, Message().integer(2, 16)).text();
}

TEST(ResizeFast, GivesTheRuntimesBits) {
    std::mt19937 random(7);
    const auto any = [&](unsigned most) { return static_cast<std::int64_t>(1 + random() % most); };
    for (int i = 0; i < 60; ++i) {
        const Ints dims = {any(2), any(3), any(20), any(70)};
        // Sizes fit channels behind the pixels as well.
        const Message sizes =
            i % 4 == 3 ? tensor<std::int64_t>(7, {4}, {dims[0], dims[1] + any(9), any(60), dims[3]})
                       : tensor<std::int64_t>(7, {4}, {dims[0], dims[1], any(60), any(90)});
        const auto factor = static_cast<float>(1 + i % 4);
        const Message scales = tensor<float>(1, {4}, {1, 1, factor, 2});
        const std::string model =
            resizeModel(dims, i % 2 ? sizes : scales, i % 2 != 0, "linear", "half_pixel");
        std::string fast, again = "untouched";
        ASSERT_EQ(rewriteResizeToFast(model, fast), std::vector<std::string>{"y"});
        EXPECT_EQ(fast.find("target"), std::string::npos);
        EXPECT_TRUE(rewriteResizeToFast(fast, again).empty() && again == "untouched");
        std::vector<float> x(elementCount(dims));
        for (float& v : x) v = static_cast<float>(random() % 2001) / 700 - 1;
        EXPECT_TRUE(test::same(run(fast, dims, x), run(model, dims, x))) << i;
    }
}

TEST(ResizeFast, TakesOnlyWhatItReproduces) {
    const Ints dims = {1, 2, 3, 4};
    std::string fast;
    const auto expectStays = [&](const Message& constant, bool sizes, const char* mode,
                                 const char* coordinates) {
        const std::string model = resizeModel(dims, constant, sizes, mode, coordinates);
        EXPECT_TRUE(rewriteResizeToFast(model, fast).empty()) << mode << ' ' << coordinates;
    };
    const Message sizes = tensor<std::int64_t>(7, {4}, {1, 2, 6, 8});
    expectStays(sizes, true, "cubic", "half_pixel");
    expectStays(sizes, true, "linear", "align_corners");
    for (const std::vector<float>& scales :
         {std::vector<float>{1, 1, 1.5f, 2}, {1, 2, 2, 2}, {1, 1, 0.5f, 1}, {2, 2}}) {
        const auto rank = static_cast<std::int64_t>(scales.size());
        expectStays(tensor<float>(1, {rank}, scales), false, "linear", "half_pixel");
    }
    // What the runtime cannot do either is refused while the model is loaded.
    const Message other = tensor<std::int64_t>(7, {4}, {1, 4, 6, 5});
    rewriteResizeToFast(resizeModel(dims, other, true, "linear", "half_pixel"), fast);
    EXPECT_NE(test::failure([&] { run(fast, dims, std::vector<float>(24)); }).find("ResizeFast"),
              std::string::npos);
}

}  // namespace
}  // namespace zorv
