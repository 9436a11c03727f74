// Environment variables that make the library slower than it could be.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zorv::tools {

struct SlowSwitch {
    std::string variable, value, effect;
};

/// Value of a variable, null when unset.
using Environment = std::function<const char*(const char* name)>;

/// The variables that take speed or sessions away from a machine whose best level of kernels is
/// `bestLevel` and which has `cores`; those that are set without an effect are left out.
std::vector<SlowSwitch> slowSwitches(const Environment& environment, const std::string& bestLevel,
                                     double cores);

}  // namespace zorv::tools
