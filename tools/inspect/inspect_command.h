// zorv inspect: what a bundle holds, and what is wrong in it.
#pragma once

#include <string>

namespace zorv::tools {

struct InspectOptions {
    std::string bundle, sheet;
    bool json = false;
};
/// Prints the report and then fails when anything in the bundle is wrong.
void inspect(const InspectOptions& options);

}  // namespace zorv::tools
