// How many live sessions a machine carries, from what one costs and from what was tried.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zorv::tools {

/// Kept free: of the cores for bursts and other programs, of the memory for the same.
constexpr double kSpareCores = 0.3, kSpareMemory = 0.2;
/// A run keeps up when no more of its frames than this are late.
constexpr double kLateShare = 0.01;

/// What one session takes while it speaks.
struct SessionCost {
    double cores = 0;  // processor time per second of video
    double memoryBytes = 0;
};

/// What the machine has to give.
struct Capacity {
    double cores = 0;
    double memoryBytes = 0;
};

/// Sessions at a time that were run, in real time.
struct SessionsRun {
    int sessions = 0;
    int due = 0, late = 0;  // frames of all; late without a reason such as an interrupt
    double cores = 0;       // processor time per second of all together
    uint64_t failures = 0;
    std::string failure;  // one of them
    bool keptUp() const;
};

struct Verdict {
    int estimate = 0;        // by cost and capacity
    int sessions = 0;        // what the machine carries
    bool confirmed = false;  // so many were run and kept up
    std::string text;
};

/// Sessions that fit with the spare; none when the cost is not known.
int estimatedSessions(const SessionCost& cost, const Capacity& capacity);

/// runs: at least the one of a single session, then the others in the order in which they were
///  tried.
Verdict judge(const SessionCost& cost, const Capacity& capacity,
              const std::vector<SessionsRun>& runs);

/// How many to run next, at most `most`, or 0 when enough is known.
int nextRun(int estimate, int most, const std::vector<SessionsRun>& runs);

}  // namespace zorv::tools
