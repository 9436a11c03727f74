#include "self_benchmark.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "clip_renderer.h"
#include "failure.h"
#include "interrupt.h"
#include "session.h"
#include "workload.h"

namespace zorv::tools {
namespace {

using namespace driver;
using Clock = std::chrono::steady_clock;

constexpr int kSoundRate = 16000, kFrameRate = 25;
constexpr double kInterruptAfter = 0.8, kPause = 0.2;  // seconds
constexpr int kBatchSeconds = 4;
constexpr double kLeastBatchTime = 1.5;  // seconds of rendering that make a figure
constexpr int kMostWarmFrames = 300;
constexpr auto kMostWarmTime = std::chrono::seconds(8);

/// Memory of the process that no other one shares; mapped files are not in it.
double ownMemory() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("RssAnon:", 0) == 0) {
            return static_cast<double>(std::strtoull(line.c_str() + 8, nullptr, 10)) * 1024;
        }
    }
    return 0;
}

LiveSetup setupOf(const BenchmarkSubject& subject) {
    LiveSetup setup;
    setup.bundle = subject.bundle;
    setup.motionDir = subject.motionDir;
    setup.threads = subject.threads;
    setup.check = throwIfInterrupted;
    return setup;
}

/// Pulls as fast as frames come until each target frame was decoded, and returns how many were
///  pulled: what a session does in its first round is no measure of the later ones.
int warmUp(const LiveEngine& engine) {
    const int wanted = std::min(engine.targetFrames(), kMostWarmFrames);
    const Clock::time_point end = Clock::now() + kMostWarmTime;
    std::vector<uint8_t> frame(engine.frameBytes());
    int pulled = 0;
    while (pulled < wanted && Clock::now() < end) {
        throwIfInterrupted();
        if (zorv_utt_pull_frame(engine.utt(), frame.data(), frame.size(), nullptr)) {
            ++pulled;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return pulled;
}

/// Bytes of the target frames that have not been decoded yet, after `shown` frames.
double framesToCome(const LiveEngine& engine, size_t shown) {
    const double left = engine.targetFrames() - static_cast<double>(shown);
    return std::max(0.0, left) * static_cast<double>(engine.frameBytes()) * 3 / 4;
}

int lateForNoReason(const SessionReport& report) {
    return report.lateAfterFirstSecond - report.lateAtInterrupt;
}

Line lineOf(int seconds) {
    Line line;
    line.samples = static_cast<size_t>(seconds) * kSoundRate;
    return line;
}

/// A line that ends on time even where frames come late.
Line interruptedLine(int seconds, double interruptSeconds) {
    Line line = lineOf(seconds);
    line.interruptSeconds = interruptSeconds;
    return line;
}

/// work(0), work(1), ... each on a thread of its own.
template <class Work>
auto atATime(int count, const Work& work) {
    using Result = decltype(work(0));
    std::vector<std::future<Result>> running;
    running.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) running.push_back(std::async(std::launch::async, work, i));
    std::vector<Result> results;
    results.reserve(running.size());
    for (std::future<Result>& one : running) results.push_back(one.get());
    return results;
}

}  // namespace

LiveMeasure measureLive(const BenchmarkSubject& subject, int speechSeconds) {
    const LiveSetup setup = setupOf(subject);
    const std::vector<int16_t> sound = spokenSound(std::max(speechSeconds, 1));
    Line spoken = lineOf(speechSeconds);
    spoken.pauseSeconds = kPause;
    const Line cut = interruptedLine(1, kInterruptAfter);

    const double memory = ownMemory();
    const LiveEngine engine(setup);
    const auto warmed = static_cast<size_t>(warmUp(engine));
    const SessionLog log = play(engine, sound, {spoken, cut});
    LiveMeasure measure;
    measure.cost.memoryBytes =
        ownMemory() - memory + framesToCome(engine, warmed + log.ticks.size());
    SessionReport& report = measure.report.session;
    report = makeReport(engine.readySeconds(), log);
    // Idle frames are charged to the spoken ones: they cost a few per cent of them.
    const int worked = report.speech + report.ramp;
    if (worked > 0) measure.cpuMsPerSpeechFrame = 1000 * log.cpuSeconds / worked;
    measure.cost.cores = measure.cpuMsPerSpeechFrame / 1000 * kFrameRate;
    measure.run = {1,
                   static_cast<int>(log.ticks.size()),
                   lateForNoReason(report),
                   measure.cost.cores,
                   log.failures,
                   log.failure};
    return measure;
}

SessionsRun measureSessions(const BenchmarkSubject& subject, int sessions, int speechSeconds) {
    const std::vector<int16_t> sound = spokenSound(speechSeconds + 1);
    const Line line = interruptedLine(speechSeconds + 1, speechSeconds);
    const auto engines = atATime(sessions, [&subject](int) {
        auto engine = std::make_unique<LiveEngine>(setupOf(subject));
        warmUp(*engine);
        return engine;
    });
    const double cpu = cpuSeconds();
    const auto logs = atATime(
        sessions, [&](int i) { return play(*engines[static_cast<size_t>(i)], sound, {line}); });
    const double used = cpuSeconds() - cpu;
    SessionsRun run;
    run.sessions = sessions;
    double longest = 0;
    for (const SessionLog& log : logs) {
        const SessionReport report = makeReport(0, log);
        run.due += static_cast<int>(log.ticks.size());
        run.late += lateForNoReason(report);
        run.failures += log.failures;
        if (log.failures > 0) run.failure = log.failure;
        longest = std::max(longest, static_cast<double>(log.ticks.size()) / kFrameRate);
    }
    run.cores = used / longest;
    return run;
}

BatchMeasure measureBatch(const BenchmarkSubject& subject) {
    RenderOptions options;
    options.bundle = subject.bundle;
    options.encoder = subject.encoder;
    std::vector<float> samples;
    for (const int16_t sample : spokenSound(kBatchSeconds)) {
        samples.push_back(static_cast<float>(sample) * (1.0f / 32768));
    }
    const auto secondsSince = [](Clock::time_point start) {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    const Clock::time_point start = Clock::now();
    const std::unique_ptr<ClipRenderer> renderer = openStreamRenderer(options);
    BatchMeasure measure;
    measure.loadSeconds = secondsSince(start);
    const auto clip = [&] {
        const int made = renderer->run(samples, [](const uint8_t*) { throwIfInterrupted(); });
        if (made != kBatchSeconds * kFrameRate) {
            fail("the batch path failed: {}; check the subject with zorv inspect",
                 renderer->error());
        }
        return made;
    };
    clip();
    const double cpu = cpuSeconds();
    const Clock::time_point begin = Clock::now();
    do {
        measure.frames += clip();
        measure.seconds = secondsSince(begin);
    } while (measure.seconds < kLeastBatchTime);
    measure.cpuSeconds = cpuSeconds() - cpu;
    return measure;
}

}  // namespace zorv::tools
