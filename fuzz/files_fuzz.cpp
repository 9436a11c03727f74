// Any bytes as one small file that the library reads, beside files that are in order: a bundle's
// manifest, a target frame, or the metadata of an engine's directory. The first byte chooses. What
// comes of it can be used, or there is a text; what asks for too much is refused before memory is
// touched.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>

#include "a2x/a2x_model.h"
#include "bundle/zorv_bundle.h"
#include "capi/zorv_image.h"
#include "common/key_finder.h"
#include "damaged_dir.h"
#include "fuzz_input.h"
#include "motion/motion_tables.h"
#include "support/expression_dir.h"
#include "support/failure.h"
#include "support/test_motion.h"

namespace zorv::fuzz {
namespace {

/// Whether `body` fails; then with a text.
template <class Body>
bool fails(Body&& body) {
    const std::string text = test::failure(body);
    require(!text.empty(), "a failure has a text");
    return text != "no failure";
}

// ---- a bundle's manifest, beside empty tensor files ----

void openManifest(const std::string& text) {
    static const test::TempDir dir;
    std::filesystem::create_directory(dir.path() + "/drive");
    for (const char* file :
         {"pooled64.f16", "P.f16", "M.f32", "drive/xs.f32", "drive/xd.f32", "drive/si.i32"}) {
        test::writeFile(dir.path() + "/" + file, "");
    }
    test::writeFile(dir.path() + "/manifest.json", text);
    Manifest manifest;
    if (fails([&] { manifest = loadManifest(dir.path()); })) return;
    require(manifest.NT >= 1 && manifest.H >= 1 && manifest.W >= 1 && manifest.crop >= 1, "sizes");
    require(fails([&] { Identity identity(manifest); }), "empty files are noticed");
    require(fails([&] { loadDrive(manifest); }) == (manifest.frames != 0), "a drive of its length");
}

// ---- a target frame ----

void openImage(const std::string& bytes) {
    constexpr std::size_t kMostPixels = std::size_t{1} << 14;
    static const test::TempDir dir;
    const std::string path = dir.path() + "/frame.jpg";
    test::writeFile(path, bytes);
    const auto decode = [&] {
        int width = 0, height = 0, again[2];
        const auto pixels = loadImageRGB(path, width, height, kMostPixels);
        require(width >= 1 && height >= 1, "a size");
        const std::size_t count =
            static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
        require(pixels.size() == (count <= kMostPixels ? count * 3 : 0), "as many pixels");
        require(loadImageRGB(path, again[0], again[1], kMostPixels) == pixels, "the same again");
        require(again[0] == width && again[1] == height, "of the same size");
    };
    const std::string text = test::failure(decode);
    require(text == "no failure" || text == "decode failed: " + path, "refused in one way");
}

// ---- the metadata of engines: the finders agree with their rules in the plainest form ----

constexpr const char* kKeys[] = {"nt",   "n_src",  "n_emo",         "s_bridge", "delta_pitch",
                                 "h",    "window", "left",          "layers",   "maxlen",
                                 "crop", "format", "silence_prime", ""};

KeyPosition plainPosition(std::string_view text, const std::string& key) {
    const std::string quoted = '"' + key + '"';
    const std::size_t at = text.find(quoted);
    if (at == text.npos) return {KeyStatus::kMissing, 0};
    const std::size_t colon = text.find(':', at + quoted.size());
    if (colon == text.npos) return {KeyStatus::kNoColon, 0};
    return {KeyStatus::kFound, colon + 1};
}

std::int32_t plainInteger(std::string_view text) {
    constexpr std::int64_t kBeyond = std::int64_t{1} << 32;
    while (!text.empty() && std::strchr(" \t\n\v\f\r", text[0]) && text[0]) text.remove_prefix(1);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    std::int64_t value = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') break;
        value = std::min(value * 10 + (digit - '0'), kBeyond);
    }
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(negative ? -value : value, Limits::min(), Limits::max()));
}

void checkNumber(const std::string& text, std::size_t from) {
    const double value = numberFrom(text, from), integer = toInt32(value);
    if (std::isnan(value)) {
        require(integer == 0, "no number is 0");
    } else if (std::abs(value) < 2147483647.0) {
        require(std::abs(integer) <= std::abs(value) && std::abs(value - integer) < 1, "truncated");
    } else {
        require(std::abs(integer) >= 2147483647.0 && std::signbit(integer) == std::signbit(value),
                "saturated");
    }
}

void checkFinders(const std::string& text, const char* key) {
    const KeyPosition at = findKeyPosition(text, key), expected = plainPosition(text, key);
    require(at.status == expected.status && at.afterColon == expected.afterColon, "the first key");
    const bool found = at.status == KeyStatus::kFound, missing = at.status == KeyStatus::kMissing;
    const std::string behind = found ? text.substr(at.afterColon) : "";
    require(a2x::json_int(text, key, 7) == (found ? plainInteger(behind) : 7), "its integer");
    for (const bool required : {false, true}) {
        double number = 0;
        const std::string failure =
            test::failure([&] { number = motion::jsonNum(text, key, 7, required); });
        const bool fine = found || (missing && !required);
        require(failure.starts_with(fine      ? "no failure"
                                    : missing ? "meta.json: missing "
                                              : "meta.json: bad "),
                "its number, or why not");
        require(!missing || required || number == 7, "the default");
    }
    if (!found) return;
    const auto value = quotedFrom(text, at.afterColon);
    require(value.has_value() == (std::count(behind.begin(), behind.end(), '"') >= 2), "a text");
    require(!value || behind.substr(behind.find('"')).starts_with('"' + *value + '"'), "as it is");
    checkNumber(text, at.afterColon);
}

void openMetadata(const std::string& text) {
    static const test::TestMotion motion;
    static const test::ExpressionDir expression;
    for (const char* key : kKeys) checkFinders(text, key);
    motion.writeMeta(text);
    fails([&] {
        const motion::MotionTables tables = motion::loadMotionTables(motion.dir());
        require(tables.nt == 3 && tables.source.size() == 3 && tables.target.size() == 3 * 63 &&
                    tables.emotionCount() == 4,
                "tables that fit");
    });
    expression.writeMeta(text);
    fails([&] {
        const a2x::Meta meta(expression.path());
        require(meta.h >= 1 && meta.window >= 0 && meta.left >= 0, "sizes");
        require(meta.maxlen >= 0 && meta.layers >= 0, "lengths");
        require(meta.fieldOf(meta.left) >= 0 && meta.fieldOf(meta.window) >= 0, "fields");
        require(meta.layers == 0 || meta.fieldOf(meta.left) >= meta.left, "that cover a layer");
        const a2x::Tables tables(expression.path(), meta);
        require(tables.nt == expression.options().nt, "as many rows");
        require(std::int64_t{meta.maxlen} * meta.h <= static_cast<std::int64_t>(tables.pos.size()),
                "a table of that length");
    });
}

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorv::fuzz;
    keepTempDirsInMemory();
    FuzzInput input(data, size);
    const int kind = input.byte() % 3;
    const std::string content(input.bytes(size));
    kind == 0 ? openManifest(content) : kind == 1 ? openImage(content) : openMetadata(content);
    return 0;
}
