// Where the benchmarks find the demo subject.
#pragma once

#include <cstdlib>
#include <string>

namespace zorv::bench {

/// A path that an environment variable may replace.
inline std::string demoPath(const char* variable, const char* path) {
    const char* value = std::getenv(variable);
    return value ? value : path;
}

inline std::string demoBundle() {
    return demoPath("ZORV_DEMO_BUNDLE", "build/demo/bundle");
}
inline std::string demoEncoder() {
    return demoPath("ZORV_DEMO_ENCODER", "build/demo/speech_encoder.onnx");
}
inline std::string demoMotion() {
    return demoPath("ZORV_DEMO_MOTION", "build/demo/motion");
}
inline std::string demoExpression() {
    return demoPath("ZORV_DEMO_EXPRESSION", "build/demo/expression");
}

}  // namespace zorv::bench
