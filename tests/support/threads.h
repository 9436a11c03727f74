// Waiting for what other threads do, without supposing how long they take.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace zorv::test {

/// When waiting ends in a failure with a message; nothing that works comes near it, however busy
/// the machine is.
constexpr auto kPatience = std::chrono::minutes(10);

template <class Condition>
bool waitFor(Condition&& condition) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

/// Whether every thread of this process but the calling one sleeps, by the kernel's account.
inline bool othersSleep() {
    const std::string tasks = "/proc/self/task/", own = std::to_string(::gettid());
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(tasks.c_str()), &::closedir);
    while (const dirent* task = ::readdir(dir.get())) {
        std::string stat;
        if (task->d_name[0] == '.' || own == task->d_name ||
            !std::getline(std::ifstream(tasks + task->d_name + "/stat"), stat)) {
            continue;
        }
        if (stat.at(stat.rfind(')') + 2) != 'S') return false;
    }
    return true;
}

/// Until every other thread waits for something: a worker's ring is full, a consumer's empty.
inline void waitUntilOthersSleep() {
    waitFor(othersSleep);
}

}  // namespace zorv::test
