#include "session_verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace zorv::tools {
namespace {

constexpr double kManySessions = 10000;  // more make no difference to anyone
constexpr double kMiB = 1024.0 * 1024.0;

double fitting(double has, double spare, double need) {
    return need > 0 ? std::clamp(std::floor(has * (1 - spare) / need), 0.0, kManySessions)
                    : kManySessions;
}

std::string sessionsText(int count) {
    return fmt::format("{} live session{}", count, count == 1 ? "" : "s");
}

std::string needs(const SessionCost& cost, const Capacity& capacity) {
    return fmt::format(
        "one takes {:.2f} cores and {:.0f} MiB while it speaks; {:.0f} % of {:.3g} usable cores "
        "and "
        "{:.0f} % of {:.1f} GiB are given out",
        cost.cores, cost.memoryBytes / kMiB, 100 * (1 - kSpareCores), capacity.cores,
        100 * (1 - kSpareMemory), capacity.memoryBytes / kMiB / 1024);
}

std::string unfit(const SessionsRun& single) {
    if (single.failures > 0) {
        return fmt::format("a session failed: {}; check the subject with zorv inspect",
                           single.failure);
    }
    return fmt::format(
        "of {} frames that a single session owed {} were late; close other programs, give the "
        "models more "
        "threads (--threads) or take a smaller renderer",
        single.due, single.late);
}

std::string tried(const SessionsRun& run) {
    if (run.failures > 0) return fmt::format("{} at a time failed: {}", run.sessions, run.failure);
    return fmt::format("{} at a time ran with {} of {} frames late", run.sessions, run.late,
                       run.due);
}

}  // namespace

bool SessionsRun::keptUp() const {
    return failures == 0 && due > 0 && late <= kLateShare * due;
}

int estimatedSessions(const SessionCost& cost, const Capacity& capacity) {
    if (!(cost.cores > 0)) return 0;
    return static_cast<int>(
        std::min(fitting(capacity.cores, kSpareCores, cost.cores),
                 fitting(capacity.memoryBytes, kSpareMemory, cost.memoryBytes)));
}

int nextRun(int estimate, int most, const std::vector<SessionsRun>& runs) {
    const SessionsRun& last = runs.back();
    if (!runs.front().keptUp()) return 0;
    const int wanted = std::min(estimate, most);
    if (runs.size() == 1) return wanted > 1 ? wanted : 0;
    // A second try at half the number; a third would take more time than it is worth.
    const int half = last.sessions / 2;
    return runs.size() == 2 && !last.keptUp() && half > 1 ? half : 0;
}

Verdict judge(const SessionCost& cost, const Capacity& capacity,
              const std::vector<SessionsRun>& runs) {
    Verdict verdict;
    verdict.estimate = estimatedSessions(cost, capacity);
    const SessionsRun& single = runs.front();
    if (!single.keptUp()) {
        verdict.text = "This machine carries no live session of this subject: " + unfit(single);
        return verdict;
    }
    // Even without the spare the machine carries the one session that was seen to keep up.
    int shown = 1;
    std::string trials;
    for (size_t i = 1; i < runs.size(); ++i) {
        if (runs[i].keptUp()) shown = std::max(shown, runs[i].sessions);
        trials += (i == 1 ? "; " : ", ") + tried(runs[i]);
    }
    const bool allKeptUp =
        std::all_of(runs.begin(), runs.end(), [](const SessionsRun& run) { return run.keptUp(); });
    verdict.sessions = allKeptUp ? std::max(shown, verdict.estimate) : shown;
    verdict.confirmed = verdict.sessions == shown;
    verdict.text =
        fmt::format("This machine carries {} of this subject at a time{}: {}{}.",
                    sessionsText(verdict.sessions), verdict.confirmed ? "" : " by estimate",
                    needs(cost, capacity), trials);
    if (verdict.estimate < 1) {
        verdict.text += " There is nothing to spare: expect late frames when anything else runs.";
    }
    return verdict;
}

}  // namespace zorv::tools
