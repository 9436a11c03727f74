#include "support/fault_plan.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <zorv_core.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/own_allocations.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace zorv::test {
namespace {

constexpr unsigned kPatienceSeconds = 120;

using Kind = fault::Kind;

struct FaultTraits {
    const char* name;
    Kind kind;
    bool persists;
    std::vector<const char*> causes;  ///< one of them is in the text
};

const FaultTraits& traitsOf(Fault fault) {
    // What failed on another thread of a batch run is told by its caller without the cause.
    static const std::array<FaultTraits, 6> traits = {{
        {"allocation", Kind::kAllocation, false, {"std::bad_alloc", "render/paste failed"}},
        {"memory out", Kind::kAllocation, true, {"std::bad_alloc", "render/paste failed"}},
        {"open",
         Kind::kOpen,
         false,
         {"cannot open", "missing", "read failed", "cannot read", "decode failed", "lacks"}},
        {"read",
         Kind::kRead,
         false,
         {"short read", "size mismatch", "read failed", "cannot read", "decode failed"}},
        {"map", Kind::kMap, false, {"mmap failed", "std::bad_alloc"}},
        {"thread", Kind::kThread, false, {"Resource temporarily unavailable"}},
    }};
    return traits[static_cast<std::size_t>(fault)];
}

// What is armed. `seen` counts up to it.
std::atomic<bool> armed = false;
std::atomic<const FaultTraits*> plan = nullptr;
std::atomic<long> place = 0;
std::atomic<long> seen = 0;
std::atomic<bool> fired = false;
const char* scenarioName = "";
long reported = 0;

bool decide(Kind kind) {
    if (!armed || !fault::inLibrary || plan.load()->kind != kind) return false;
    const long at = ++seen;
    if (plan.load()->persists ? at < place : at != place) return false;
    fired = true;
    return true;
}

bool refuses(const void* caller) {
    if (!armed || !fault::inLibrary) return false;
    if (isRuntimeCode(caller)) {
        std::fputs("an entry of the model runtime is not marked\n", stderr);
        std::abort();
    }
    return decide(Kind::kAllocation);
}

void arm(Fault fault, long n) {
    plan = &traitsOf(fault);
    place = n;
    seen = 0;
    fired = false;
    armed = true;
}

std::array<char, 128> situation() {
    std::array<char, 128> text;
    std::snprintf(text.data(), text.size(), "%s, %s %ld", scenarioName, plan.load()->name,
                  place.load());
    return text;
}

extern "C" void giveUp(int) {
    const auto where = situation();
    for (const char* part : {where.data(), ": hangs\n"}) {
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, part, std::strlen(part));
    }
    std::abort();
}

/// While a scenario is driven.
class Driving {
  public:
    explicit Driving(const char* name) : calls_(refuses) {
        scenarioName = name;
        arm(Fault::kAllocation, -1);
        fault::decide = decide;
        std::signal(SIGALRM, giveUp);
    }
    ~Driving() {
        ::alarm(0);
        fault::decide = nullptr;
        disarm();
#if defined(__SANITIZE_ADDRESS__)
        EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << scenarioName;
#endif
    }
    Driving(const Driving&) = delete;
    Driving& operator=(const Driving&) = delete;

  private:
    const RuntimeCalls calls_;
};

/// One run per place, until a run meets none.
void driveFault(Fault fault, const std::function<void()>& run) {
    reported = 0;
    for (long n = 1;; ++n) {
        ::alarm(kPatienceSeconds);
        arm(fault, n);
        run();
        disarm();
        if (testing::Test::HasFailure()) return;
        if (!fired) break;
    }
    std::printf("%s, %s: %ld places, %ld failures told\n", scenarioName, plan.load()->name,
                place - 1, reported);
}

}  // namespace

const Family kContext = {zorv_last_error, [] { zorv_target_frame(nullptr, 0); }};
const Family kStream = {zorv_stream_last_error, [] { zorv_stream_create(nullptr, "", 1, 0, 1); }};
const Family kMotion = {zorv_motion_last_error, [] { zorv_motion_push(nullptr, nullptr, 1); }};
const Family kA2x = {zorv_a2x_last_error, [] { zorv_a2x_push(nullptr, nullptr, 1); }};
const Family kUtterance = {zorv_utt_last_error, [] { zorv_utt_push_audio(nullptr, nullptr, 1); }};
const Family kTelemetry = {zorv_telemetry_last_error,
                           [] { zorv_telemetry_event(nullptr, nullptr); }};

const std::vector<Fault>& allFaults() {
    static const std::vector<Fault> faults = {Fault::kAllocation, Fault::kMemoryOut,
                                              Fault::kOpen,       Fault::kRead,
                                              Fault::kMap,        Fault::kThread};
    return faults;
}

void disarm() {
    armed = false;
}

void noteFailure(const std::string& text, const std::string& function) {
    disarm();
    ++reported;
    EXPECT_TRUE(fired) << "failed for no reason: " << text;
    EXPECT_TRUE(text.starts_with(function))
        << situation().data() << ", " << function << ": " << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    for (const char* cause : plan.load()->causes) {
        if (text.find(cause) != std::string::npos) return;
    }
    ADD_FAILURE() << situation().data() << ": the text says \"" << text << "\"";
}

void drive(const char* name, const std::vector<Fault>& faults,
           const std::function<std::string()>& scenario) {
    const Driving driving(name);
    const std::string expected = scenario();
    EXPECT_FALSE(expected.empty());
    for (const Fault fault : faults) {
        driveFault(fault, [&] {
            EXPECT_TRUE(scenario() == expected) << situation().data() << ": another result";
        });
        if (testing::Test::HasFailure()) break;
    }
}

void driveOnce(const char* name, const Family& family, const std::string& function,
               const std::function<bool()>& call) {
    const Driving driving(name);
    driveFault(Fault::kAllocation, [&] {
        family.misuse();
        if (!inLibrary(call)) noteFailure(family.lastError(), function);
    });
}

}  // namespace zorv::test
