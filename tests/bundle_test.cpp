// The bundle's files: manifest texts, exact sizes, placements.
#include "bundle/zorv_bundle.h"

#include <gtest/gtest.h>

#include <clocale>

#include "support/failure.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

using test::failure;
using test::TestBundle;

Manifest parse(const std::string& text) {
    const test::TempDir dir;
    test::writeFile(dir.path() + "/manifest.json", text);
    return loadManifest(dir.path());
}

const std::string kGood =
    R"({"format": "zorv-bundle-v0", "agent": "a", "NT": 2, "H": 3, "W": 4, "crop": 5,)"
    R"( "amount": 0.5, "sigma": 1.5, "ksize": 7, "frames": 0})";

std::string with(const std::string& from, const std::string& to) {
    std::string text = kGood;
    return text.replace(text.find(from), from.size(), to);
}

TEST(Manifest, FieldsAndTheirFirstOccurrence) {
    const Manifest good = parse(kGood);
    EXPECT_EQ(good.agent, "a");
    EXPECT_EQ(std::vector({good.NT, good.H, good.W, good.crop, good.unsharp.ksize, good.M_src_w,
                           good.M_src_h}),
              std::vector({2, 3, 4, 5, 7, 4, 3}));
    EXPECT_EQ(std::vector({good.unsharp.amount, good.unsharp.sigma}), std::vector({0.5f, 1.5f}));

    // The first quoted W wins, even as a value; "M_src_w" never counts as one.
    EXPECT_EQ(parse(with("\"NT\"", "\"note\": \"W\", \"x\": 9, \"NT\"")).W, 9);
    const Manifest source = parse(with("\"NT\"", "\"M_src_w\": 8, \"M_src_h\": true, \"NT\""));
    EXPECT_EQ(source.W, 4);
    EXPECT_EQ(source.M_src_w, 8);
    EXPECT_EQ(source.M_src_h, 0);
    EXPECT_EQ(parse(with("\"crop\": 5", "\"crop\": 255.9")).crop, 255);
    EXPECT_EQ(parse(with("\"frames\": 0", "\"frames\": 1e99")).frames, INT32_MAX);
    // A colon far away is accepted: "frames" without one takes the next key's number.
    EXPECT_EQ(parse(with("\"frames\": 0", "\"frames\", \"other\": 6")).frames, 6);
}

TEST(Manifest, FailuresNameTheKey) {
    const auto text = [](const std::string& manifest) { return failure([&] { parse(manifest); }); };
    EXPECT_EQ(text(with("\"sigma\"", "\"sigm\"")), "manifest: missing key sigma");
    EXPECT_EQ(text(with("\"frames\": 0", "\"frames\" 0")), "manifest: malformed key frames");
    EXPECT_EQ(text("{\"format\": \"zorv"), "manifest: bad string format");
    for (const auto& [good, bad] : {std::pair{"\"NT\": 2", "\"NT\": \"2\""},
                                    {"\"H\": 3", "\"H\": -3"},
                                    {"\"W\": 4", "\"W\": nan"},
                                    {"\"crop\": 5", "\"crop\": 0"}}) {
        EXPECT_EQ(text(with(good, bad)), "manifest: bad dims") << bad;
    }
    EXPECT_EQ(failure([] { loadManifest("/no such dir"); }),
              "cannot open /no such dir/manifest.json");
    const test::TempDir dir;
    test::writeFile(dir.path() + "/manifest.json", with("v0\"", "v0 \""));
    EXPECT_EQ(failure([&] { loadManifest(dir.path()); }), "not an zorv-bundle-v0: " + dir.path());
}

// That every other size is refused is checked where damaged bundles are inspected.
TEST(Identity, AbsurdSizesAndFilesThatMayBeMissing) {
    TestBundle bundle;
    Manifest manifest = loadManifest(bundle.dir());
    for (const int crop : {1 << 20, INT32_MAX}) {
        manifest.crop = crop;
        EXPECT_EQ(failure([&] { Identity identity(manifest); }),
                  "size mismatch " + bundle.path("P.f16"));
    }
    bundle.remove("P.f16");
    const Identity optional(manifest);
    EXPECT_FALSE(optional.hasP() || optional.hasFsRed());
    manifest.frames = 0;
    EXPECT_EQ(failure([&] { loadDrive(manifest); }),
              "size mismatch " + bundle.path("drive/xs.f32"));
    for (const std::string name : {"xs.f32", "xd.f32", "si.i32"}) bundle.empty("drive/" + name);
    EXPECT_EQ(loadDrive(manifest).frames, 0);
}

TEST(Identity, AccessorsAndRescaledPlacements) {
    TestBundle::Options options;
    options.withFsRed = true;
    TestBundle bundle(options);
    Manifest manifest = loadManifest(bundle.dir());
    const Identity identity(manifest);
    const std::size_t image = 3 * std::size_t{test::kTestCrop} * test::kTestCrop;
    EXPECT_EQ(identity.pooled64(2), identity.pooled64(0) + 2 * 65536);
    EXPECT_EQ(identity.P(2), identity.P(0) + 2 * image);
    EXPECT_EQ(identity.fsRed(1), identity.fsRed(0) + 262144);

    manifest.M_src_w = 2 * manifest.W;  // the height is that of the frames
    const Identity halved(manifest);
    manifest.M_src_w = 0;
    const Identity unscaled(manifest);
    for (int i = 0; i < manifest.NT; ++i) {
        for (int k = 0; k < 6; ++k) {
            EXPECT_EQ(halved.M(i)[k], k < 3 ? identity.M(i)[k] / 2 : identity.M(i)[k]);
            EXPECT_EQ(unscaled.M(i)[k], identity.M(i)[k]);
        }
    }
}

}  // namespace
}  // namespace zorv
