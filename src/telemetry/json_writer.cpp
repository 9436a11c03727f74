#include "telemetry/json_writer.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>

namespace zorv::telemetry {
namespace {

/// Bytes of the well-formed UTF-8 character at the beginning of `text` (Unicode 15, table 3-7);
/// 0 when there is none.
std::size_t utf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
    };
    const auto follows = [&](std::size_t i) { return (byte(i) & 0xC0) == 0x80; };
    const unsigned first = byte(0);
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first <= 0xDF) return follows(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const bool overlong = first == 0xE0 && byte(1) < 0xA0;
        const bool surrogate = first == 0xED && byte(1) > 0x9F;
        return follows(1) && follows(2) && !overlong && !surrogate ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool overlong = first == 0xF0 && byte(1) < 0x90;
        const bool beyond = first == 0xF4 && byte(1) > 0x8F;
        return follows(1) && follows(2) && follows(3) && !overlong && !beyond ? 4 : 0;
    }
    return 0;
}

}  // namespace

JsonWriter& JsonWriter::open(char bracket) {
    separate();
    text_ += bracket;
    fresh_ = true;
    return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
    text_ += bracket;
    fresh_ = false;
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    separate();
    quote(name);
    text_ += ':';
    fresh_ = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    separate();
    quote(text);
    return *this;
}

JsonWriter& JsonWriter::value(double number) {
    separate();
    if (!std::isfinite(number)) {
        text_ += "null";
        return *this;
    }
    std::array<char, 32> digits;  // the host's locale plays no part
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    text_.append(digits.data(), end);
    return *this;
}

void JsonWriter::separate() {
    if (!fresh_) text_ += ',';
    fresh_ = false;
}

void JsonWriter::quote(std::string_view text) {
    constexpr char kHex[] = "0123456789abcdef";
    text_ += '"';
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (length == 0) {
            text_ += "\xEF\xBF\xBD";
        } else if (byte < 0x20) {
            text_ += "\\u00";
            text_ += kHex[byte >> 4];
            text_ += kHex[byte & 15];
        } else {
            if (byte == '"' || byte == '\\') text_ += '\\';
            text_.append(text.substr(0, length));
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    text_ += '"';
}

}  // namespace zorv::telemetry
