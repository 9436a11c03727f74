// Splits an index range over short-lived threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace zorv {

/// Calls fn(begin, end) over disjoint half-open ranges that together cover [0, n), and returns
/// when all are done. Below two workers, or with fewer than `leastEach` items each, that is
/// fn(0, n) on the calling thread; otherwise one new thread per chunk of ceil(n / workers), no
/// pool. A thread that cannot be started leaves its chunk to the caller. fn must not throw.
template <class Fn>
void parallelRange(std::ptrdiff_t n, int workers, const Fn& fn, std::ptrdiff_t leastEach = 64) {
    if (workers < 2 || n < workers * leastEach) {
        fn(std::ptrdiff_t{0}, n);
        return;
    }
    const std::ptrdiff_t chunk = (n + workers - 1) / workers;
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(workers));
    std::ptrdiff_t begin = 0;
    try {
        for (; begin < n; begin += chunk) {
            threads.emplace_back(fn, begin, std::min(n, begin + chunk));
        }
    } catch (const std::system_error&) {
        fn(begin, n);
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace zorv
