// Something to say without a recording.
#pragma once

#include <cstdint>
#include <vector>

namespace zorv::tools {

/// Mono at 16,000 Hz: a pitch with harmonics, syllables at 4 Hz, a pause in every three seconds.
std::vector<int16_t> spokenSound(int seconds);

}  // namespace zorv::tools
