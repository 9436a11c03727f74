#pragma once

#include <exception>
#include <string>

namespace zorv::test {

/// The text of the exception that `body` throws, or "no failure".
template <class Body>
std::string failure(Body&& body) {
    try {
        body();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no failure";
}

}  // namespace zorv::test
