// How the library starts threads.
#pragma once

#include <system_error>
#include <thread>
#include <utility>

#include "common/fault.h"

namespace zorv {

/// A thread that runs body(). Throws std::system_error when there is none to be had and
/// std::bad_alloc when memory runs out; then nothing was started.
template <class Body>
std::thread startThread(Body body) {
    if (fault::fails(fault::Kind::kThread)) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    return std::thread([body = std::move(body)]() mutable {
        const fault::InLibrary in;
        body();
    });
}

}  // namespace zorv
