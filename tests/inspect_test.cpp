// zorv inspect: names all that the library would refuse in a bundle, and nothing else.
#include <gtest/gtest.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "bundle_check.h"
#include "bundle_sheet.h"
#include "model_check.h"
#include "operator_census.h"
#include "report_writer.h"
#include "support/onnx_message.h"
#include "support/program.h"
#include "support/test_bundle.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

using test::TestBundle;
using tools::BundleReport;
using tools::Canvas;
using tools::Color;
using tools::FileReport;
using tools::Finding;
using tools::Severity;

const FileReport* fileIn(const BundleReport& report, const std::string& name) {
    for (const FileReport& file : report.files) {
        if (file.name == name) return &file;
    }
    return nullptr;
}

std::set<std::string> filesWith(const BundleReport& report, Severity severity) {
    std::set<std::string> names;
    for (const FileReport& file : report.files) {
        if (file.severity() == severity) names.insert(file.name);
    }
    return names;
}

std::string findingsOf(const BundleReport& report) {
    std::string text;
    for (const FileReport& file : report.files) {
        for (const Finding& finding : file.findings) {
            text += file.name + ": " + finding.what + "; expected " + finding.expected + "\n";
        }
    }
    return text;
}

ContextPtr openContext(const TestBundle& bundle, const std::string& key = "render") {
    return ContextPtr(zorv_create(bundle.dir().c_str(), key.c_str(), 1, nullptr));
}
bool opens(const TestBundle& bundle) {
    return openContext(bundle) != nullptr;
}
bool renders(const TestBundle& bundle) {
    const ContextPtr context = openContext(bundle);
    return context && zorv_render_drive_crop(context.get(), 0);
}
bool shows(const TestBundle& bundle, int frame) {
    const ContextPtr context = openContext(bundle);
    return context && zorv_target_frame(context.get(), frame);
}
bool speaks(const TestBundle& bundle) {
    const StreamPtr stream(
        zorv_stream_create(bundle.dir().c_str(), test::modelFile("encoder").c_str(), 1, 0, 1.0f));
    const std::vector<float> audio(640, 0.1f);
    return stream && zorv_stream_run(stream.get(), audio.data(), 640, nullptr, nullptr) == 1;
}

TEST(Inspect, ShowsWhatAGoodBundleHolds) {
    TestBundle bundle({.withFsRed = true});
    bundle.useModel("many", "render_b4");
    bundle.useModel("synth", "feat_synth_b4");
    test::writeFile(bundle.path("notes.txt"), "x");
    const BundleReport report = tools::checkBundle(bundle.dir());
    EXPECT_EQ(findingsOf(report), "");
    for (const std::string key : {"render", "many", "synth"}) {
        EXPECT_TRUE(openContext(bundle, key)) << key;
    }

    const tools::BundleFacts& facts = report.facts;
    EXPECT_EQ(facts.agent, "tiny");
    EXPECT_EQ(
        std::vector({facts.targetFrames, facts.width, facts.height, facts.crop, facts.driveFrames}),
        (std::vector<std::optional<int>>{3, 48, 40, 16, 4}));
    EXPECT_EQ(report.others, std::vector<std::string>{"notes.txt"});

    const FileReport* frames = fileIn(report, "target_frames/frame_000000.jpg");
    ASSERT_TRUE(frames);
    EXPECT_EQ(frames->lastName, "target_frames/frame_000002.jpg");
    EXPECT_EQ(frames->count, 3);
    for (const auto& [name, graph, batch] : {std::tuple{"model_render.onnx", "standard", 1},
                                             {"model_many.onnx", "standard", 4},
                                             {"model_synth.onnx", "FeatSynth", 4}}) {
        const FileReport* file = fileIn(report, name);
        ASSERT_TRUE(file && file->model) << name;
        EXPECT_EQ(file->model->graph, graph) << name;
        EXPECT_EQ(file->model->batch, batch) << name;
        EXPECT_TRUE(file->model->range) << name << " was not tried";
    }
    const auto& synth = fileIn(report, "model_synth.onnx")->model->inputs;
    ASSERT_EQ(synth.size(), 4u);
    EXPECT_EQ(synth[0].name, "fs_red");
    EXPECT_EQ(synth[0].type, "float32");
    EXPECT_EQ(tools::shapeText(synth[0]), "4 x 64 x 64 x 64");
}

using Check = std::function<bool(const TestBundle&)>;

struct Damage {
    std::function<void(TestBundle&)> apply;
    std::string file, what, expected;
    Check works;  // what of the library works before and no longer after
};

Damage truncated(const std::string& file, const std::string& what, const std::string& expected,
                 Check works = opens) {
    return {[=](TestBundle& bundle) { bundle.truncate(file); }, file, what, expected, works};
}
Damage removed(const std::string& file, const std::string& expected, Check works = opens) {
    return {[=](TestBundle& bundle) { bundle.remove(file); }, file, "missing", expected, works};
}
Damage manifest(const std::string& from, const std::string& to, const std::string& what,
                const std::string& expected) {
    return {[=](TestBundle& bundle) { bundle.replace("manifest.json", from, to); }, "manifest.json",
            what, expected, opens};
}
Damage otherModel(const std::string& model, const std::string& what, const std::string& expected,
                  Check works = opens) {
    return {[=](TestBundle& bundle) { bundle.useModel("render", model); }, "model_render.onnx",
            what, expected, works};
}

/// A picture that other programs show.
std::string bitmap(unsigned char width, unsigned char height) {
    std::string bytes("BM\0\0\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0", 18);
    bytes += {static_cast<char>(width), 0, 0, 0, static_cast<char>(height), 0, 0, 0, 1, 0, 24, 0};
    return bytes + std::string(24 + size_t{3} * width * height, '\0');
}

// Each damage is found at its file and nowhere else, with what was expected there, and it is a
// damage: something of the library stops working.
TEST(Inspect, NamesTheDamagedFileAndWhatWasExpected) {
    const std::string frame = "target_frames/frame_000001.jpg", picture = "JPEG picture of 48 x 40";
    const Check showsIt = [](const TestBundle& bundle) { return shows(bundle, 1); };
    const std::vector<Damage> damages = {
        removed("manifest.json", ""),
        manifest("zorv-bundle-v0", "zorv-bundle-v1", "zorv-bundle-v1", "\"zorv-bundle-v0\""),
        manifest("\"agent\"", "\"agant\"", "key \"agent\" is missing", ""),
        manifest("\"NT\": 3", "\"NT\": \"3\"", "\"NT\" reads as 0", "at least 1"),
        manifest("\"H\": 40", "\"H\": -40", "\"H\" reads as -40", "at least 1"),
        manifest("\"ksize\": 5", "\"ksize\": 4", "\"ksize\" reads as 4", "odd"),
        manifest("\"frames\": 4", "\"frames\": -4", "\"frames\" reads as -4", "at least 0"),
        removed("pooled64.f16", "3 x 64 x 32 x 32 float16 = 393216 bytes"),
        truncated("pooled64.f16", "393215 bytes, 1 too few", "393216 bytes"),
        removed("P.f16", "4608 bytes", renders),
        {[](TestBundle& bundle) { bundle.extend("P.f16", 1536); }, "P.f16",
         "6144 bytes, 1536 too many (4 rows)", "3 x 3 x 16 x 16 float16 = 4608 bytes", opens},
        truncated("M.f32", "71 bytes, 1 too few", "3 x 6 float32 = 72 bytes"),
        truncated("mask_512.u8", "255 bytes, 1 too few", "16 x 16 uint8 = 256 bytes"),
        {[](TestBundle& bundle) { bundle.empty("drive/xs.f32"); }, "drive/xs.f32",
         "0 bytes, 1008 too few", "4 x 63 float32 = 1008 bytes", opens},
        removed("drive/xd.f32", "1008 bytes"),
        {[](TestBundle& bundle) {
             test::writeFile(bundle.path("drive/si.i32"),
                             {"\0\0\0\0\2\0\0\0\3\0\0\0\xff\xff\xff\xff", 16});
         },
         "drive/si.i32", "2 of 4 indices are out of range, the first is entry 2: 3", "0 to 2",
         opens},
        removed(frame, picture, showsIt),
        {[=](TestBundle& bundle) { bundle.noise(frame); }, frame, "cannot be decoded", picture,
         showsIt},
        {[=](TestBundle& bundle) { test::writeFile(bundle.path(frame), bitmap(48, 40)); }, frame,
         "cannot be decoded", picture, showsIt},
        {[=](TestBundle& bundle) {  // a Huffman table of 4080 symbols
             std::string jpeg = test::readFile(bundle.path(frame));
             jpeg.replace(jpeg.find("\xff\xc4") + 5, 16, 16, '\xff');
             test::writeFile(bundle.path(frame), jpeg);
         },
         frame, "cannot be decoded", picture, showsIt},
        {[=](TestBundle& bundle) {
             const TestBundle wide({.width = 64});
             test::writeFile(bundle.path(frame), test::readFile(wide.path(frame)));
         },
         frame, "is 64 x 40", picture, showsIt},
        otherModel("encoder", "input \"pooled64\" is missing", "64 x 32 x 32 float32"),
        otherModel("render_symbolic_batch", "is N x 64 x 32 x 32", "a fixed number"),
        otherModel("render_pooled_3d", "is 1 x 64 x 1024 float32", "64 x 32 x 32 float32"),
        otherModel("render_pooled_small", "is 1 x 64 x 16 x 32 float32", "1 x 64 x 32 x 32 float32",
                   renders),
        otherModel("render_crop_8", "\"P_rgb\" is 1 x 3 x 8 x 8", "1 x 3 x 16 x 16 float32",
                   renders),
        {[](TestBundle& bundle) { bundle.noise("model_render.onnx"); }, "model_render.onnx",
         "does not load", "an ONNX model", opens},
        {[](TestBundle& bundle) {
             bundle.useModel("render", "feat_synth"), bundle.remove("P.f16");
         },
         "fs_red.f16", "missing", "3 x 64 x 64 x 64 float16 = 1572864 bytes", opens},
        removed("model_render.onnx", "a renderer model", speaks),
        truncated("xs_target.bin", "755 bytes, 1 too few", "3 x 63 float32 = 756 bytes", speaks),
        {[](TestBundle& bundle) {
             test::writeFile(bundle.path("fca_stream.onnx"),
                             test::readFile(test::modelFile("fca_stream_short_m")));
         },
         "fca_stream.onnx", "output \"m\" has 62 float32 values", "at least 63", speaks},
    };
    for (const Damage& damage : damages) {
        TestBundle bundle;
        SCOPED_TRACE(damage.file + ": " + damage.what);
        ASSERT_TRUE(damage.works(bundle));
        damage.apply(bundle);
        EXPECT_FALSE(damage.works(bundle)) << "no damage";
        const BundleReport report = tools::checkBundle(bundle.dir());
        EXPECT_FALSE(report.good());
        std::set<std::string> faulty = filesWith(report, Severity::kFault);
        faulty.erase("model_<key>.onnx");  // when the only one is gone
        EXPECT_EQ(faulty, std::set<std::string>{damage.file}) << findingsOf(report);
        const FileReport* file = fileIn(report, damage.file);
        ASSERT_TRUE(file && !file->findings.empty());
        EXPECT_TRUE(std::any_of(file->findings.begin(), file->findings.end(),
                                [&](const Finding& finding) {
                                    return finding.what.find(damage.what) != std::string::npos &&
                                           finding.expected.find(damage.expected) !=
                                               std::string::npos;
                                }))
            << findingsOf(report);
    }
}

// What is odd but works is a warning: the bundle is still good, as it is for the library.
TEST(Inspect, OnlyWarnsOfWhatTheLibraryAccepts) {
    const auto expectWarning = [](const TestBundle& bundle, const std::string& file) {
        const BundleReport report = tools::checkBundle(bundle.dir());
        EXPECT_TRUE(opens(bundle) && report.good()) << findingsOf(report);
        EXPECT_TRUE(filesWith(report, Severity::kWarning).contains(file)) << findingsOf(report);
    };
    for (const auto& [file, bytes] :
         {std::pair<std::string, std::string>{"mask_512.u8", std::string(256, '\0')},
          {"mask_512.u8", std::string(257, '\xff')},
          {"xs_target.bin", std::string(757, '\0')},
          {"M.f32", std::string(72, '\0')},
          {"drive/xs.f32", std::string(1008, '\xff')},
          {"target_frames/frame_000003.jpg", "x"}}) {
        const TestBundle bundle;
        test::writeFile(bundle.path(file), bytes);
        expectWarning(bundle, file);
    }
    for (const auto& [from, to] : {std::pair{"\"sigma\": 1.0", "\"sigma\": 0"},
                                   {"\"W\"", "\"M_src_w\": 100, \"M_src_h\": 40, \"W\""}}) {
        TestBundle bundle;
        bundle.replace("manifest.json", from, to);
        expectWarning(bundle, "manifest.json");
    }
    TestBundle mute;
    mute.remove("fca_stream.onnx");
    expectWarning(mute, "fca_stream.onnx");
}

TEST(Inspect, LooksIntoModelsWithTheLibrarysOwnOperators) {
    TestBundle bundle;
    bundle.useModel("own", "render_own_operators");
    FileReport model{"model_own.onnx"};
    tools::checkRendererModel(bundle.dir(), tools::checkBundle(bundle.dir()).facts, model);
    EXPECT_TRUE(model.findings.empty()) << model.findings[0].what;
    ASSERT_TRUE(model.model);
    EXPECT_EQ(model.model->batch, 1);
    ASSERT_TRUE(model.model->operators);
    EXPECT_EQ(model.model->operators->fast.size(), 1u);
    ASSERT_EQ(model.model->operators->int8.size(), 1u);
    ASSERT_EQ(model.model->operators->folded.size(), 1u);
    EXPECT_EQ(model.model->operators->folded[0].type, "Pad");
    EXPECT_EQ(model.model->operators->folded[0].into, model.model->operators->int8[0]);
    EXPECT_TRUE(model.model->operators->rewritten.empty());
}

TEST(Inspect, SaysWhichGridSampleNodesAreRewritten) {
    TestBundle bundle;
    bundle.useModel("warped", "render_warped");
    const BundleReport report = tools::checkBundle(bundle.dir());
    const FileReport* file = fileIn(report, "model_warped.onnx");
    ASSERT_TRUE(file && file->model && file->model->operators);
    const tools::OperatorCensus& census = *file->model->operators;
    ASSERT_EQ(census.rewritten.size(), 1u);
    ASSERT_EQ(census.kept.size(), 1u);
    EXPECT_EQ(census.kept[0].why, "align_corners is not 0");
    EXPECT_NE(census.kept[0].name, census.rewritten[0]);
    ASSERT_TRUE(file->model->rewriteDifference) << "was not rendered without the rewrite";
    EXPECT_LT(*file->model->rewriteDifference, 1e-5);
    EXPECT_TRUE(report.good()) << findingsOf(report);
    const std::string text = tools::reportText(report);
    for (const std::string& line : {"runs as GridSampleFast: 1 node: " + census.rewritten[0],
                                    census.kept[0].name + ", since align_corners is not 0"}) {
        EXPECT_NE(text.find(line), std::string::npos) << text;
    }
    EXPECT_EQ(std::getenv("ZORV_GS_FAST"), nullptr) << "stays switched off";

    bundle.useModel("warped", "render_warped_sensitive");
    const BundleReport other = tools::checkBundle(bundle.dir());
    EXPECT_EQ(filesWith(other, Severity::kFault), std::set<std::string>{"model_warped.onnx"});
    EXPECT_NE(findingsOf(other).find("renders otherwise with GridSampleFast"), std::string::npos)
        << findingsOf(other);
}

// A node in the branch of another one, of a model that is nothing else.
TEST(Inspect, LooksIntoSubgraphs) {
    const test::Message sampler = test::gridSampleNode()
                                      .bytes(5, test::textAttribute("mode", "linear"))
                                      .bytes(5, test::textAttribute("padding_mode", "border"));
    const test::Message branch = test::Message().bytes(6, test::Message().bytes(1, sampler));
    const test::Message graph = test::Message().bytes(1, test::Message().bytes(5, branch));
    const auto census = tools::countOperators(test::Message().bytes(7, graph).text());
    EXPECT_TRUE(census.rewritten.empty());
    ASSERT_EQ(census.kept.size(), 1u);
    EXPECT_EQ(census.kept[0].name, "y");
    EXPECT_EQ(census.kept[0].why, "inside a subgraph");
}

// ---- the sheet ----

constexpr Color kOutline = {255, 214, 0}, kTop = {255, 64, 64}, kMask = {40, 230, 110},
                kPoints = {0, 225, 255};

/** Where a colour occurs below the legend. */
struct Area {
    double count = 0, x = 0, y = 0;  // centre
    int left = 1 << 30, right = -1, top = 1 << 30, bottom = -1;
    int width() const { return right - left; }
    int height() const { return bottom - top; }
};

Area findColors(const Canvas& canvas, const std::vector<Color>& colors) {
    Area area;
    const std::vector<uint8_t> rgb = canvas.rgb();
    for (int y = 40; y < canvas.height(); ++y) {
        for (int x = 0; x < canvas.width(); ++x) {
            const uint8_t* pixel = rgb.data() + 3 * (y * canvas.width() + x);
            for (const Color& color : colors) {
                if (pixel[0] != color.r || pixel[1] != color.g || pixel[2] != color.b) continue;
                area.count += 1, area.x += x, area.y += y;
                area.left = std::min(area.left, x), area.right = std::max(area.right, x);
                area.top = std::min(area.top, y), area.bottom = std::max(area.bottom, y);
            }
        }
    }
    area.x /= area.count, area.y /= area.count;
    return area;
}

std::string floats(const std::vector<float>& values) {
    return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float)};
}

Canvas sheetOf(const TestBundle& bundle) {
    auto sheet = tools::drawBundle(tools::checkBundle(bundle.dir()));
    if (!sheet) throw std::runtime_error("no sheet");
    return std::move(*sheet);
}

TEST(InspectSheet, DrawsCropMaskAndKeypointsWhereTheyLand) {
    TestBundle bundle({.nt = 1, .width = 62, .height = 62});  // 10 sheet pixels per frame pixel
    // A quarter turn: the crop's right is the frame's down, its top edge is on the right.
    test::writeFile(bundle.path("M.f32"), floats({0, -2, 50, 2, 0, 10}));
    // The mask takes the crop's left half; the keypoints stand at the crop's centre.
    std::string mask;
    for (int i = 0; i < 256; ++i) mask += i % 16 < 8 ? '\xff' : '\0';
    test::writeFile(bundle.path("mask_512.u8"), mask);
    test::writeFile(bundle.path("xs_target.bin"), std::string(252, '\0'));

    const Canvas canvas = sheetOf(bundle);
    const Area box = findColors(canvas, {kOutline, kTop});
    EXPECT_NEAR(box.width(), 320, 4);
    EXPECT_NEAR(box.height(), 320, 4);
    const double x = (box.left + box.right) / 2.0, y = (box.top + box.bottom) / 2.0;
    EXPECT_NEAR(findColors(canvas, {kTop}).x, box.right, 3);
    const Area points = findColors(canvas, {kPoints});
    EXPECT_NEAR(points.x, x, 1.5);
    EXPECT_NEAR(points.y, y, 1.5);
    const Area halves = findColors(canvas, {kMask});  // elsewhere the outline covers its line
    EXPECT_NEAR(halves.top, y, 2);
    EXPECT_NEAR(halves.width(), 320, 4);

    // Placements for frames of twice the size shrink by half.
    bundle.replace("manifest.json", "\"W\"", "\"M_src_w\": 124, \"M_src_h\": 124, \"W\"");
    EXPECT_NEAR(findColors(sheetOf(bundle), {kOutline, kTop}).width(), 160, 4);
}

// ---- the program ----

class InspectCommand : public test::ProgramTest {};

TEST_F(InspectCommand, ExitStatusReportAndSheet) {
    TestBundle bundle;
    const std::string sheet = target("sheet.png"), dir = bundle.dir();
    const auto inspect = [this](std::vector<std::string> words) {
        words.insert(words.begin(), "inspect");
        return run(words);
    };
    test::Outcome outcome = inspect({dir, "--json", "--sheet", sheet});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(test::readFile(sheet).substr(1, 3), "PNG");
    EXPECT_EQ(nlohmann::json::parse(outcome.out)["good"], true);
    bundle.useModel("render", "render_symbolic_batch");
    bundle.replace("manifest.json", "tiny", "t\xff\x1b[1m");
    outcome = inspect({dir, "--json"});
    EXPECT_EQ(outcome.code, 1);
    const auto report = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(report["good"], false);
    EXPECT_EQ(report["faults"], 1);

    outcome = inspect({dir});
    EXPECT_NE(outcome.out.find("FAULT    model_render.onnx"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find('\x1b'), std::string::npos) << "acts on the terminal";
    expectAdvice(outcome, 1, "bundle '");

    fs::remove(sheet);
    bundle.empty("manifest.json");
    EXPECT_EQ(inspect({dir, "--sheet", sheet}).code, 1);
    expectNothingWritten();
    expectAdvice(inspect({dir + "/manifest.json"}), 1, "check the path");
    EXPECT_EQ(inspect({dir, "--sheet", "/nowhere/x.png"}).out, "");
    EXPECT_EQ(inspect({}).code, 2);
}

}  // namespace
}  // namespace zorv
