// Something to say without a recording, and what saying it costs.
#pragma once

#include <cstdint>
#include <vector>

namespace zorv::driver {

/// Mono at 16,000 Hz: a pitch with harmonics, syllables at 4 Hz, a pause in every three seconds.
std::vector<int16_t> spokenSound(int seconds);

/// Processor seconds of all threads of the process so far, in the program and in the kernel.
double cpuSeconds();

}  // namespace zorv::driver
