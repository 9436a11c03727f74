// The utterance engine over minutes, on the demo subject: what a viewer would have seen and what it
// cost. Prints JSON.
//   utt_bench talk    speech, silence and interruptions by turns, in one or more engines at a time
//   utt_bench idle    nobody speaks: with a viewer, then without
//   utt_bench cost    processor time of speech, beside that of the models alone
// All in real time; ZORV_DEMO_BUNDLE, ZORV_DEMO_MOTION, ZORV_DEMO_EXPRESSION and ZORV_DEMO_ENCODER
// name the subject.
#include <sys/resource.h>
#include <zorv_core.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "demo_subject.h"
#include "live_engine.h"
#include "session.h"
#include "session_report.h"
#include "workload.h"

namespace {

using namespace zorv::driver;
using nlohmann::json;

constexpr int kPieceSamples = 320;  // 20 ms

struct Settings {
    std::string source = "motion", steady, pcm;
    int engines = 1, threads = 1, eager = 0, pixels = ZORV_PIXELS_RGBA;
    double minutes = 1;
    unsigned seed = 1;
    bool burst = false;
};

LiveSetup setupOf(const Settings& settings) {
    LiveSetup setup;
    setup.bundle = zorv::bench::demoBundle();
    setup.motionDir =
        settings.source == "motion" ? zorv::bench::demoMotion() : zorv::bench::demoExpression();
    // Where the expression engine looks for its speech encoder.
    setenv("W2V_ONNX", zorv::bench::demoEncoder().c_str(), 0);
    setup.threads = settings.threads;
    setup.eager = settings.eager;
    setup.pixels = settings.pixels;
    setup.steady = settings.steady;
    return setup;
}

/// A formula or a file.
std::vector<int16_t> soundOf(const Settings& settings, int seconds) {
    if (settings.pcm.empty()) return spokenSound(seconds);
    std::ifstream file(settings.pcm, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    if (bytes.size() < 2) throw std::runtime_error("no sound in " + settings.pcm);
    std::vector<int16_t> sound(bytes.size() / 2);
    std::memcpy(sound.data(), bytes.data(), 2 * sound.size());
    return sound;
}

/// Every third line is interrupted, and after half of those the next one comes at once.
std::vector<Line> script(const Settings& settings, size_t sound, unsigned seed) {
    std::mt19937 random(seed);
    const auto between = [&random](double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(random);
    };
    std::vector<Line> lines;
    for (double at = 0; at < 60 * settings.minutes;) {
        Line line;
        const double seconds = between(1, 10);
        line.samples = std::min(sound, static_cast<size_t>(seconds * 16000));
        line.begin = static_cast<size_t>(between(0, static_cast<double>(sound - line.samples)));
        line.pauseSeconds = between(0.2, 3);
        line.atOnce = settings.burst;
        if (random() % 3 == 0) {
            line.interruptSeconds = between(0.3, seconds);
            if (random() % 2 == 0) line.pauseSeconds = 0;
        }
        at +=
            (line.interruptSeconds < 0 ? seconds + 0.5 : line.interruptSeconds) + line.pauseSeconds;
        lines.push_back(line);
    }
    return lines;
}

double loadAverage() {
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : -1;
}

json spread(const std::vector<double>& values) {
    if (values.empty()) return nullptr;
    return {{"count", values.size()},
            {"p50", quantile(values, 0.5)},
            {"p99", quantile(values, 0.99)},
            {"max", quantile(values, 1)}};
}

json talk(const Settings& settings) {
    const LiveSetup setup = setupOf(settings);
    const std::vector<int16_t> sound = soundOf(settings, 60);
    std::vector<std::unique_ptr<LiveEngine>> engines;
    for (int i = 0; i < settings.engines; ++i) {
        engines.push_back(std::make_unique<LiveEngine>(setup));
    }
    const double cpu = cpuSeconds();
    std::vector<std::future<SessionLog>> sessions;
    for (int i = 0; i < settings.engines; ++i) {
        sessions.push_back(std::async(std::launch::async, [&, i] {
            const unsigned seed = settings.seed + static_cast<unsigned>(i);
            return play(*engines[static_cast<size_t>(i)], sound,
                        script(settings, sound.size(), seed));
        }));
    }
    std::vector<double> computing, finished, pulled, interrupts, ready, render, jitter;
    int64_t due = 0, shown = 0;
    int late = 0, afterFirst = 0, atInterrupt = 0, ghosts = 0, frames = 0;
    uint64_t failures = 0;
    double longest = 0;
    std::vector<SessionLog> logs;
    for (auto& session : sessions) logs.push_back(session.get());
    const double used = cpuSeconds() - cpu;
    for (int i = 0; i < settings.engines; ++i) {
        const SessionReport report = makeReport(engines[static_cast<size_t>(i)]->readySeconds(),
                                                logs[static_cast<size_t>(i)]);
        for (const FirstFrame& first : report.firstFrames) {
            computing.push_back(first.computing());
            finished.push_back(first.finished);
            pulled.push_back(first.pulled);
        }
        interrupts.insert(interrupts.end(), report.interruptMs.begin(), report.interruptMs.end());
        ready.push_back(report.readySeconds);
        render.push_back(report.renderMs);
        jitter.push_back(report.jitterP99);
        due += report.dueSpeech, shown += report.shownSpeech;
        late += report.late, afterFirst += report.lateAfterFirstSecond;
        atInterrupt += report.lateAtInterrupt, ghosts += report.speechAfterInterrupt;
        frames += report.idle + report.speech + report.ramp;
        failures += report.failures;
        longest = std::max(longest, report.videoSeconds);
    }
    return {{"ready_seconds", spread(ready)},
            {"first_frame_computing_ms", spread(computing)},
            {"first_frame_finished_ms", spread(finished)},
            {"first_frame_pulled_ms", spread(pulled)},
            {"interrupt_to_frame_ms", spread(interrupts)},
            {"render_ms", spread(render)},
            {"pull_jitter_p99_ms", spread(jitter)},
            {"frames", frames},
            {"late_frames", late},
            {"late_after_first_second", afterFirst},
            {"late_at_interrupt", atInterrupt},
            {"speech_after_interrupt", ghosts},
            {"due_speech_frames", due},
            {"shown_speech_frames", shown},
            {"failures", failures},
            {"seconds", longest},
            {"cpu_per_second", used / longest}};
}

/// Share of a processor and voluntary context switches per second while `work` runs.
json usageDuring(const std::function<void()>& work) {
    rusage before{}, after{};
    const auto start = std::chrono::steady_clock::now();
    const double cpu = cpuSeconds();
    getrusage(RUSAGE_SELF, &before);
    work();
    getrusage(RUSAGE_SELF, &after);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return {
        {"seconds", seconds},
        {"cpu_per_second", (cpuSeconds() - cpu) / seconds},
        {"wakeups_per_second", static_cast<double>(after.ru_nvcsw - before.ru_nvcsw) / seconds}};
}

json idle(const Settings& settings) {
    using namespace std::chrono_literals;
    const LiveEngine engine(setupOf(settings));
    std::vector<uint8_t> frame(engine.frameBytes());
    std::vector<int16_t> sound(static_cast<size_t>(engine.frameSamples()));
    zorv_utt_frame info;
    const int count = static_cast<int>(settings.minutes * 60 * 25);
    const auto pull = [&] {
        auto due = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i) {
            std::this_thread::sleep_until(due += 40ms);
            engine.pull(frame, sound, info);
        }
    };
    for (int i = 0; i < 300; ++i) {  // every target frame is decoded once
        while (!engine.pull(frame, sound, info)) {
            std::this_thread::sleep_for(1ms);
        }
    }
    const json with = usageDuring(pull);
    std::this_thread::sleep_for(1s);
    const json without = usageDuring([&] { std::this_thread::sleep_for(count * 40ms); });
    return {{"pulled_at_25_fps", with}, {"not_pulled", without}};
}

/// Processor seconds that the source needs for the sound in pieces of 20 ms.
template <class Engine>
double sourceCpu(Engine engine, const std::vector<int16_t>& sound) {
    engine.reset();
    engine.setEager(-1);
    zorv::KeypointFrames frames;
    const double cpu = cpuSeconds();
    for (size_t at = 0; at + kPieceSamples <= sound.size(); at += kPieceSamples) {
        float piece[kPieceSamples];
        for (size_t i = 0; i < kPieceSamples; ++i) {
            piece[i] = static_cast<float>(sound[at + i]) * (1.0f / 32768);
        }
        engine.push(piece, kPieceSamples);
        while (engine.pull(frames) > 0) {
        }
    }
    return cpuSeconds() - cpu;
}

/// Processor seconds of one run of a renderer model.
double renderCpu(const LiveSetup& setup, const char* key) {
    const zorv::ContextPtr ctx = zorv::openContext(setup.bundle, key, setup.threads);
    constexpr int kRuns = 100;
    for (int i = 0; i < 10; ++i) zorv_render_drive_crop(ctx.get(), i);
    const double cpu = cpuSeconds();
    for (int i = 0; i < kRuns; ++i) {
        zorv_render_drive_crop(ctx.get(), i % zorv_drive_frames(ctx.get()));
    }
    return (cpuSeconds() - cpu) / kRuns;
}

json cost(const Settings& settings) {
    const LiveSetup setup = setupOf(settings);
    const std::vector<int16_t> sound = soundOf(settings, static_cast<int>(60 * settings.minutes));
    const double seconds = static_cast<double>(sound.size()) / 16000;
    const bool motion = settings.source == "motion";
    const double source =
        (motion ? sourceCpu(zorv::openMotion(setup.motionDir, setup.threads), sound)
                : sourceCpu(zorv::openExpression(setup.motionDir, setup.threads), sound)) /
        seconds;
    // A frame rendered alone costs about as much as one of a batch.
    const double render = 25 * renderCpu(setup, "render");
    const LiveEngine engine(setup);
    Line line;
    line.samples = sound.size();
    const SessionLog log = play(engine, sound, {line});
    const double all = log.cpuSeconds / (static_cast<double>(log.ticks.size()) / 25);
    return {{"cpu_per_second", all},
            {"motion_models_cpu_per_second", source},
            {"renderer_cpu_per_second", render},
            {"beyond_models_cpu_per_second", all - source - render}};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("The utterance engine over minutes");
    app.require_subcommand(1);
    Settings settings;
    json (*work)(const Settings&) = nullptr;
    for (const auto& [name, function] :
         {std::pair{"talk", &talk}, std::pair{"idle", &idle}, std::pair{"cost", &cost}}) {
        CLI::App* command = app.add_subcommand(name)->callback([&work, f = function] { work = f; });
        command->add_option("--minutes", settings.minutes)->capture_default_str();
        command->add_option("--engines", settings.engines)->capture_default_str();
        command->add_option("--threads", settings.threads)->capture_default_str();
        command->add_option("--eager", settings.eager)->capture_default_str();
        command->add_option("--pixels", settings.pixels)
            ->transform(
                CLI::CheckedTransformer(std::map<std::string, int>{{"rgba", ZORV_PIXELS_RGBA},
                                                                   {"i420", ZORV_PIXELS_I420},
                                                                   {"nv12", ZORV_PIXELS_NV12}}));
        command->add_option("--source", settings.source)
            ->check(CLI::IsMember({"motion", "expression"}));
        command->add_option("--steady", settings.steady, "Model key of the steady renderer");
        command->add_option("--pcm", settings.pcm,
                            "What is said: mono, 16 bits, 16,000 Hz (default: a formula)");
        command->add_flag("--burst", settings.burst, "Push each line at once");
        command->add_option("--seed", settings.seed)->capture_default_str();
    }
    CLI11_PARSE(app, argc, argv);
    try {
        json result = work(settings);
        result["load_average"] = loadAverage();
        std::puts(result.dump(2).c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "utt_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
