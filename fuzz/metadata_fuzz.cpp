// Any text as the metadata files of the engines' directories, whose tables are in order: the
// finders agree with their rules in the plainest form, and what reads the files gets usable
// numbers or fails with a text.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "a2x/a2x_model.h"
#include "common/key_finder.h"
#include "damaged_dir.h"
#include "fuzz_input.h"
#include "motion/motion_tables.h"
#include "support/expression_dir.h"
#include "support/failure.h"
#include "support/test_motion.h"

namespace {

using zorv::fuzz::require;

constexpr const char* kKeys[] = {"nt", "n_src",  "n_emo",  "s_bridge",      "delta_pitch",
                                 "h",  "window", "left",   "layers",        "maxlen",
                                 "NT", "crop",   "format", "silence_prime", ""};

zorv::KeyPosition plainPosition(std::string_view text, const std::string& key) {
    const std::string quoted = '"' + key + '"';
    for (std::size_t at = 0; at + quoted.size() <= text.size(); ++at) {
        if (text.substr(at, quoted.size()) != quoted) continue;
        for (std::size_t next = at + quoted.size(); next < text.size(); ++next) {
            if (text[next] == ':') return {zorv::KeyStatus::kFound, next + 1};
        }
        return {zorv::KeyStatus::kNoColon, 0};
    }
    return {zorv::KeyStatus::kMissing, 0};
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

void checkQuoted(const std::string& text, std::size_t from) {
    const auto value = zorv::quotedFrom(text, from);
    const auto at = text.begin() + static_cast<std::ptrdiff_t>(from);
    require(value.has_value() == (std::count(at, text.end(), '"') >= 2));
    if (!value) return;
    require(value->find('"') == std::string::npos);
    const std::size_t open = text.find('"', from);
    require(text.compare(open, value->size() + 2, '"' + *value + '"') == 0);
}

void checkNumber(const std::string& text, std::size_t from) {
    const double value = zorv::numberFrom(text, from);
    const double integer = zorv::toInt32(value);
    if (std::isnan(value)) {
        require(integer == 0);
    } else if (std::abs(value) < 2147483647.0) {
        require(std::abs(integer) <= std::abs(value) && std::abs(value - integer) < 1);
    } else {
        require(std::abs(integer) >= 2147483647.0 && std::signbit(integer) == std::signbit(value));
    }
}

void checkFinders(const std::string& text, const char* key) {
    const zorv::KeyPosition at = zorv::findKeyPosition(text, key);
    const zorv::KeyPosition expected = plainPosition(text, key);
    require(at.status == expected.status && at.afterColon == expected.afterColon);
    const bool found = at.status == zorv::KeyStatus::kFound;
    const std::string behind = found ? text.substr(at.afterColon) : "";
    require(zorv::a2x::json_int(text, key, 7) == (found ? plainInteger(behind) : 7));

    const bool missing = at.status == zorv::KeyStatus::kMissing;
    for (const bool required : {false, true}) {
        double number = 0;
        const std::string failure =
            zorv::test::failure([&] { number = zorv::motion::jsonNum(text, key, 7, required); });
        const char* reason = found                  ? "no failure"
                             : missing && !required ? "no failure"
                             : missing              ? "meta.json: missing "
                                                    : "meta.json: bad ";
        require(failure.starts_with(reason));
        if (missing && !required) require(number == 7);
    }
    if (!found) return;
    checkQuoted(text, at.afterColon);
    checkNumber(text, at.afterColon);
}

void openMotion(const zorv::test::TestMotion& directory, const std::string& text) {
    directory.writeMeta(text);
    zorv::motion::MotionTables tables;
    const std::string failure =
        zorv::test::failure([&] { tables = zorv::motion::loadMotionTables(directory.dir()); });
    require(!failure.empty());
    if (failure != "no failure") return;
    require(tables.nt == 3 && tables.source.size() == 3 && tables.target.size() == 3 * 63);
    require(tables.emotionCount() == 4);
}

void openExpression(const zorv::test::ExpressionDir& directory, const std::string& text) {
    directory.writeMeta(text);
    const std::string failure = zorv::test::failure([&] {
        const zorv::a2x::Meta meta(directory.path());
        require(meta.h >= 1 && meta.window >= 0 && meta.left >= 0);
        require(meta.maxlen >= 0 && meta.layers >= 0);
        require(meta.fieldOf(meta.left) >= 0 && meta.fieldOf(meta.window) >= 0);
        require(meta.layers == 0 || meta.fieldOf(meta.left) >= meta.left);
        const zorv::a2x::Tables tables(directory.path(), meta);
        require(tables.nt == directory.options().nt);
        require(std::int64_t{meta.maxlen} * meta.h <= static_cast<std::int64_t>(tables.pos.size()));
    });
    require(!failure.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zorv::fuzz::keepTempDirsInMemory();
    static const zorv::test::TestMotion motion;
    static const zorv::test::ExpressionDir expression;
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const char* key : kKeys) checkFinders(text, key);
    openMotion(motion, text);
    openExpression(expression, text);
    return 0;
}
