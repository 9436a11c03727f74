// Any bytes as a model: a load-time rewrite fails with one of its texts and changes nothing, or
// gives a message; of the sampler's every field outside the nodes that it replaced is there again
// byte for byte. The comparison reads the wire format with code of its own.
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_input.h"
#include "render/gridsample/rewrite.h"
#include "render/int8conv/fold.h"
#include "render/resize/resize_fast.h"

namespace {

using zorv::fuzz::require;

struct Field {
    std::uint64_t number = 0;
    unsigned type = 0;
    std::string_view raw, payload;
};

std::optional<std::uint64_t> takeVarint(std::string_view& rest) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < 10 && i < rest.size(); ++i) {
        value |= std::uint64_t{static_cast<unsigned char>(rest[i]) & 0x7fu} << (7 * i);
        if (static_cast<unsigned char>(rest[i]) < 0x80) {
            rest.remove_prefix(i + 1);
            return value;
        }
    }
    return std::nullopt;
}

/// Appends the fields of a message; false when it is malformed.
bool split(std::string_view message, std::vector<Field>& fields) {
    for (std::string_view rest = message; !rest.empty();) {
        Field field;
        const std::string_view start = rest;
        const auto tag = takeVarint(rest);
        if (!tag) return false;
        field.number = *tag >> 3;
        field.type = *tag & 7;
        std::optional<std::uint64_t> length;
        if (field.type == 0 && takeVarint(rest)) length = 0;
        if (field.type == 1) length = 8;
        if (field.type == 2) length = takeVarint(rest);
        if (field.type == 5) length = 4;
        if (!length || *length > rest.size()) return false;
        field.payload = rest.substr(0, *length);
        rest.remove_prefix(*length);
        field.raw = start.substr(0, start.size() - rest.size());
        fields.push_back(field);
    }
    return true;
}

std::vector<Field> fieldsOf(std::string_view message) {
    std::vector<Field> fields;
    require(split(message, fields));
    return fields;
}

constexpr std::string_view kTail =
    "\x22\x0eGridSampleFast\x3a\x0c"
    "com.velmarin";
constexpr std::string_view kImport =
    "\x42\x10\x0a\x0c"
    "com.velmarin"
    "\x10\x01";

/// Whether `after` is the node `before` as the operator's.
bool isReplacement(std::string_view before, std::string_view after) {
    std::string expected;
    for (const Field& field : fieldsOf(before)) {
        if (field.number != 4 && field.number != 5 && field.number != 7) expected += field.raw;
    }
    return expected.append(kTail) == after;
}

/// Compares two graphs and returns the number of nodes that were replaced.
std::size_t compareGraphs(std::string_view before, std::string_view after) {
    const auto a = fieldsOf(before), b = fieldsOf(after);
    require(a.size() == b.size());
    std::size_t replaced = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const Field &from = a[i], &to = b[i];
        const bool isNode = from.number == 1 && from.type == 2;
        if (isNode && zorv::gsIsRewritableGridSample(from.payload)) {
            require(to.number == 1 && to.type == 2 && isReplacement(from.payload, to.payload));
            require(!zorv::gsIsRewritableGridSample(to.payload));
            ++replaced;
        } else {
            require(from.raw == to.raw);
        }
    }
    return replaced;
}

bool importsDomain(const std::vector<Field>& model) {
    for (const Field& field : model) {
        if (field.number != 8 || field.type != 2) continue;
        std::string_view domain;
        for (const Field& part : fieldsOf(field.payload)) {
            if (part.number == 1 && part.type == 2) domain = part.payload;
        }
        if (domain == "com.velmarin") return true;
    }
    return false;
}

void compareModels(std::string_view before, std::string_view after, std::size_t count) {
    // The import, if one was added, is the last field; it is the only thing that was.
    const auto a = fieldsOf(before), b = fieldsOf(after);
    require(b.size() == a.size() || b.size() == a.size() + 1);
    if (b.size() > a.size()) require(b.back().raw == kImport);
    std::size_t replaced = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const Field &from = a[i], &to = b[i];
        if (from.number == 7 && from.type == 2) {
            require(to.number == 7 && to.type == 2);
            replaced += compareGraphs(from.payload, to.payload);
        } else {
            require(from.raw == to.raw);
        }
    }
    require(replaced == count);
    require((b.size() > a.size()) == (count > 0 && !importsDomain(a)));
}

/// Runs a rewrite that may throw the texts of malformed models.
template <class Rewrite>
void unlessMalformed(const Rewrite& rewrite) {
    try {
        rewrite();
    } catch (const std::runtime_error& error) {
        const std::string_view text = error.what();
        require(text == "onnx: bad varint" || text == "onnx: truncated" ||
                text == "onnx: bad wire type");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A block of exactly this size: a read behind it shows.
    const std::unique_ptr<char[]> block(new char[size]);
    if (size > 0) std::memcpy(block.get(), data, size);
    const std::string_view model(block.get(), size);
    const std::string_view untouched(reinterpret_cast<const char*>(data), size);
    std::string bytes(model), out = "as before", folded = "as before";
    std::size_t count = 0;
    unlessMalformed([&] {
        count = zorv::rewriteGridSampleToFast(model, out);
        require(zorv::rewriteGridSampleToFast(bytes) == count);
        require(bytes == (count > 0 ? std::string_view(out) : untouched));
        compareModels(model, bytes, count);
        require(zorv::rewriteGridSampleToFast(bytes) == 0);
    });
    require(model == untouched && (count > 0 || (out == "as before" && bytes == untouched)));
    std::string resized = "as before";
    std::vector<std::string> resizes;
    unlessMalformed([&] {
        resizes = zorv::rewriteResizeToFast(model, resized);
        std::string again;
        if (!resizes.empty()) require(zorv::rewriteResizeToFast(resized, again).empty());
    });
    require(model == untouched && resizes.empty() == (resized == "as before"));
    std::vector<zorv::Int8Fold> folds;
    unlessMalformed([&] {
        folds = zorv::foldIntoInt8Conv(model, folded);
        if (!folds.empty()) fieldsOf(folded);
    });
    require(model == untouched && folds.empty() == (folded == "as before"));
    return 0;
}
