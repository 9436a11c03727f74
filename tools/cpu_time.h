// Processor time of the whole process.
#pragma once

namespace zorv::tools {

/// Seconds that all threads have computed so far, in the program and in the kernel.
double cpuSeconds();

}  // namespace zorv::tools
