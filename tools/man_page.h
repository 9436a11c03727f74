// The manual page zorv(1), from what --help is made of.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace zorv::tools {

/// In the language of man(7); `version` is "zorv 0.1.0".
std::string manPage(const CLI::App& app, const std::string& version);

}  // namespace zorv::tools
