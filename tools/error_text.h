// The system's words for a value of errno, from any thread.
#pragma once

#include <string>
#include <system_error>

namespace zorv::tools {

inline std::string errorText(int error) {
    return std::generic_category().message(error);
}

}  // namespace zorv::tools
