// Splits an index range over short-lived threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <thread>
#include <vector>

#include "common/thread.h"

namespace zorv {

/// Calls fn(begin, end) over disjoint half-open ranges that together cover [0, n), and returns when
/// all are done. Below two workers, or with fewer than `leastEach` items each, that is fn(0, n) on
/// the calling thread; otherwise one new thread per chunk of ceil(n / workers), no pool. Where no
/// thread can be started, the calling thread does the rest. fn must not throw.
template <class Fn>
void parallelRange(std::ptrdiff_t n, int workers, const Fn& fn, std::ptrdiff_t leastEach = 64) {
    if (workers < 2 || n < workers * leastEach) {
        fn(std::ptrdiff_t{0}, n);
        return;
    }
    const std::ptrdiff_t chunk = (n + workers - 1) / workers;
    std::vector<std::thread> threads;
    std::ptrdiff_t begin = 0;
    try {
        threads.reserve(static_cast<std::size_t>(workers));
        for (; begin < n; begin += chunk) {
            const std::ptrdiff_t end = std::min(n, begin + chunk);
            threads.push_back(startThread([&fn, begin, end] { fn(begin, end); }));
        }
    } catch (const std::exception&) {
        fn(begin, n);
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace zorv
