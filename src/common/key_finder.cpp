#include "common/key_finder.h"

#include <locale.h>
#include <stdlib.h>

#include <cmath>
#include <limits>

namespace zorv {

KeyPosition findKeyPosition(const std::string& text, std::string_view key) {
    std::string needle(1, '"');
    needle.append(key).push_back('"');
    const std::size_t at = text.find(needle);
    if (at == std::string::npos) return {KeyStatus::kMissing, 0};
    const std::size_t colon = text.find(':', at + needle.size());
    if (colon == std::string::npos) return {KeyStatus::kNoColon, 0};
    return {KeyStatus::kFound, colon + 1};
}

std::optional<std::string> quotedFrom(const std::string& text, std::size_t from) {
    const std::size_t open = text.find('"', from);
    if (open == std::string::npos) return std::nullopt;
    const std::size_t close = text.find('"', open + 1);
    if (close == std::string::npos) return std::nullopt;
    return text.substr(open + 1, close - open - 1);
}

double numberFrom(const std::string& text, std::size_t from) {
    static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return ::strtod_l(text.c_str() + from, nullptr, cLocale);
}

std::int32_t toInt32(double value) {
    using Limits = std::numeric_limits<std::int32_t>;
    if (std::isnan(value)) return 0;
    if (value <= Limits::min()) return Limits::min();
    if (value >= Limits::max()) return Limits::max();
    return static_cast<std::int32_t>(value);
}

}  // namespace zorv
