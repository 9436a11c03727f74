// Finds values in the JSON that the system's own tooling writes. Not a JSON parser on purpose:
// the first occurrence of the quoted key anywhere in the text wins, whatever surrounds it, and
// bundles in the field rely on just that.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zorv {

enum class KeyStatus { kFound, kMissing, kNoColon };

struct KeyPosition {
    KeyStatus status;
    std::size_t afterColon;  ///< offset just after the key's colon when found
};

/// The first `"key"` in the text, then the first ':' after it with anything in between.
KeyPosition findKeyPosition(const std::string& text, std::string_view key);

/// The text between the next two double quotes from `from` on; no escapes. Empty optional when
/// there is no such pair.
std::optional<std::string> quotedFrom(const std::string& text, std::size_t from);

/// The number at `from` as strtod reads it in the C locale, whatever the host's locale;
/// 0 when there is none.
double numberFrom(const std::string& text, std::size_t from);

/// Truncates toward zero, saturates at the ends of int32; NaN is 0.
std::int32_t toInt32(double value);

}  // namespace zorv
