// How the expression engine reads its environment variables.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

namespace zorv::a2x {

/// An optional feature is on when its variable is exactly "1".
inline bool isOne(const char* variable) {
    const char* value = std::getenv(variable);
    return value && std::strcmp(value, "1") == 0;
}

/// The decimal integer that `text` begins with, 0 when there is none, held within int32.
inline std::int32_t integerOf(const char* text) {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<long>(std::strtol(text, nullptr, 10), Limits::min(), Limits::max()));
}

/// The variable's integer, or `fallback` when it is unset.
inline std::int32_t integerSetting(const char* variable, std::int32_t fallback) {
    const char* value = std::getenv(variable);
    return value ? integerOf(value) : fallback;
}

/// The path of the shared speech encoder; null when `W2V_ONNX` is unset or empty.
inline const char* encoderPath() {
    const char* path = std::getenv("W2V_ONNX");
    return path && *path ? path : nullptr;
}

}  // namespace zorv::a2x
