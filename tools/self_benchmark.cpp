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
#include "cpu_time.h"
#include "failure.h"
#include "interrupt.h"
#include "live_session.h"
#include "look_ahead.h"
#include "spoken_sound.h"

namespace zorv::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSoundRate = 16000, kFrameRate = 25;
constexpr double kInterruptAfter = 0.8, kPause = 0.2;  // seconds
constexpr int kBatchSeconds = 4;
constexpr double kLeastBatchTime = 1.5;  // seconds of rendering that make a figure
constexpr int kMostWarmFrames = 300;
constexpr auto kMostWarmTime = std::chrono::seconds(8);

/** Memory of the process that no other one shares; mapped files are not in it. */
double own_memory() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("RssAnon:", 0) == 0)
            return static_cast<double>(std::strtoull(line.c_str() + 8, nullptr, 10)) * 1024;
    return 0;
}

LiveSetup setup_of(const BenchmarkSubject& subject) {
    return {subject.bundle, subject.motion_dir, subject.threads, 0, ""};
}

/** Pulls as fast as frames come until each target frame was decoded, and returns how many were
 *  pulled: what a session does in its first round is no measure of the later ones. */
int warm_up(const LiveEngine& engine) {
    const int wanted = std::min(engine.target_frames(), kMostWarmFrames);
    const Clock::time_point end = Clock::now() + kMostWarmTime;
    std::vector<uint8_t> frame(engine.frame_bytes());
    int pulled = 0;
    while (pulled < wanted && Clock::now() < end) {
        throw_if_interrupted();
        if (zorv_utt_pull_frame(engine.utt(), frame.data(), frame.size(), nullptr))
            ++pulled;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return pulled;
}

/** Bytes of the target frames that have not been decoded yet, after `shown` frames. */
double frames_to_come(const LiveEngine& engine, size_t shown) {
    const double left = engine.target_frames() - static_cast<double>(shown);
    return std::max(0.0, left) * static_cast<double>(engine.frame_bytes()) * 3 / 4;
}

int late_for_no_reason(const LiveReport& report) {
    return report.late_after_first_second - report.late_at_interrupt;
}

Line line_of(int seconds) {
    Line line;
    line.samples = static_cast<size_t>(seconds) * kSoundRate;
    return line;
}

/** A line that ends on time even where frames come late. */
Line interrupted_line(int seconds, double interrupt_s) {
    Line line = line_of(seconds);
    line.interrupt_s = interrupt_s;
    return line;
}

/** work(0), work(1), ... each on a thread of its own. */
template <class Work>
auto at_a_time(int count, const Work& work) {
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

LiveMeasure measure_live(const BenchmarkSubject& subject, int speech_seconds) {
    const LiveSetup setup = setup_of(subject);
    const std::vector<int16_t> sound = spoken_sound(std::max(speech_seconds, 1));
    Line spoken = line_of(speech_seconds);
    spoken.pause_s = kPause;
    const Line cut = interrupted_line(1, kInterruptAfter);

    const double memory = own_memory();
    const LiveEngine engine(setup);
    const auto warmed = static_cast<size_t>(warm_up(engine));
    const SessionLog log = play(engine, sound, {spoken, cut}, nullptr);
    LiveMeasure measure;
    measure.cost.memory_bytes =
        own_memory() - memory + frames_to_come(engine, warmed + log.ticks.size());
    measure.report =
        make_report(engine.ready_seconds(), log, pieces_before_first_frame(setup, sound));
    // Idle frames are charged to the spoken ones: they cost a few per cent of them.
    const int worked = measure.report.speech + measure.report.ramp;
    if (worked > 0) measure.cpu_ms_per_speech_frame = 1000 * log.cpu_seconds / worked;
    measure.cost.cores = measure.cpu_ms_per_speech_frame / 1000 * kFrameRate;
    measure.run = {1,
                   static_cast<int>(log.ticks.size()),
                   late_for_no_reason(measure.report),
                   measure.cost.cores,
                   log.failures,
                   log.failure};
    return measure;
}

SessionsRun measure_sessions(const BenchmarkSubject& subject, int sessions, int speech_seconds) {
    const std::vector<int16_t> sound = spoken_sound(speech_seconds + 1);
    const Line line = interrupted_line(speech_seconds + 1, speech_seconds);
    const auto engines = at_a_time(sessions, [&subject](int) {
        auto engine = std::make_unique<LiveEngine>(setup_of(subject));
        warm_up(*engine);
        return engine;
    });
    const double cpu = cpu_seconds();
    const auto logs = at_a_time(sessions, [&](int i) {
        return play(*engines[static_cast<size_t>(i)], sound, {line}, nullptr);
    });
    const double used = cpu_seconds() - cpu;
    SessionsRun run;
    run.sessions = sessions;
    double longest = 0;
    for (const SessionLog& log : logs) {
        const LiveReport report = make_report(0, log, 0);
        run.due += static_cast<int>(log.ticks.size());
        run.late += late_for_no_reason(report);
        run.failures += log.failures;
        if (log.failures > 0) run.failure = log.failure;
        longest = std::max(longest, static_cast<double>(log.ticks.size()) / kFrameRate);
    }
    run.cores = used / longest;
    return run;
}

BatchMeasure measure_batch(const BenchmarkSubject& subject) {
    RenderOptions options;
    options.bundle = subject.bundle;
    options.encoder = subject.encoder;
    std::vector<float> samples;
    for (const int16_t sample : spoken_sound(kBatchSeconds))
        samples.push_back(static_cast<float>(sample) * (1.0f / 32768));
    const auto seconds_since = [](Clock::time_point start) {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    const Clock::time_point start = Clock::now();
    const std::unique_ptr<ClipRenderer> renderer = open_stream_renderer(options);
    BatchMeasure measure;
    measure.load_seconds = seconds_since(start);
    const auto clip = [&] {
        const int made = renderer->run(samples, [](const uint8_t*) { throw_if_interrupted(); });
        if (made != kBatchSeconds * kFrameRate)
            fail("the batch path failed: {}; check the subject with zorv inspect",
                 renderer->error());
        return made;
    };
    clip();
    const double cpu = cpu_seconds();
    const Clock::time_point begin = Clock::now();
    do {
        measure.frames += clip();
        measure.seconds = seconds_since(begin);
    } while (measure.seconds < kLeastBatchTime);
    measure.cpu_seconds = cpu_seconds() - cpu;
    return measure;
}

}  // namespace zorv::tools
