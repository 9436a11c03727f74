// Speech models of trained sizes in the engines that turn speech into keypoints: when the first
// frame is there, whether the others follow in time, what it costs. Prints a table.
//   speech_bench DIR, which speech_models.py has written
// Each row is a process of its own. Sound comes in pieces of 20 ms on a clock that the engine's own
// processor time moves on (with several model threads: its wall time), so that a row says what one
// engine does with a core to itself, whatever else the machine has to do.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zorv_core.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/ort.h"
#include "process_memory.h"
#include "stopwatch.h"
#include "workload.h"

namespace {

constexpr int kPiece = 320;
constexpr double kPieceMs = 20, kFrameMs = 40;

struct Way {
    const char* name;
    const char* dir;
    int eager = 0, threads = 1;
    bool shortWindow = false;
    /// The engine is asked after each piece of sound, else with all that has come since: what the
    /// utterance engine does.
    bool eachPiece = false;
};

constexpr Way kWays[] = {
    {"motion, whole chunks", "motion"},
    {"motion, eager 1", "motion", 1},
    {"motion, eager 2", "motion", 2},
    {"motion, eager 3", "motion", 3},
    {"motion, eager 8", "motion", 8},
    {"motion, adaptive", "motion", -1},
    {"motion, adaptive, asked each 20 ms", "motion", -1, 1, false, true},
    {"motion, whole chunks, 2 threads", "motion", 0, 2},
    {"motion, adaptive, 2 threads", "motion", -1, 2},
    {"generator of 4 steps, whole chunks", "motion_4"},
    {"generator of 4 steps, adaptive", "motion_4", -1},
    {"generator of 4 steps, adaptive, asked each 20 ms", "motion_4", -1, 1, false, true},
    {"generator of 12 steps, whole chunks", "motion_12"},
    {"generator of 12 steps, adaptive", "motion_12", -1},
    {"generator of 12 steps, adaptive, asked each 20 ms", "motion_12", -1, 1, false, true},
    {"expression, windows of 8 s", "expression"},
    {"expression, windows of 8 s, 2 threads", "expression", 0, 2},
    {"expression, short windows", "expression", 0, 1, true},
    {"expression, short windows, 2 threads", "expression", 0, 2, true},
};

// ---- model runs -----------------------------------------------------------------------------

clockid_t modelClock = CLOCK_THREAD_CPUTIME_ID;
const OrtApi* runtimeApi = nullptr;
std::map<std::string, std::vector<double>> modelMs;  // by the name of the first input

OrtStatus* ORT_API_CALL timedRun(OrtSession* session, const OrtRunOptions* options,
                                 const char* const* inputNames, const OrtValue* const* inputs,
                                 std::size_t inputCount, const char* const* outputNames,
                                 std::size_t outputCount, OrtValue** outputs) noexcept {
    OrtStatus* status = nullptr;
    const double ran = zorv::bench::seconds(modelClock, [&] {
        status = runtimeApi->Run(session, options, inputNames, inputs, inputCount, outputNames,
                                 outputCount, outputs);
    });
    modelMs[inputNames[0]].push_back(1e3 * ran);
    return status;
}

/// Writes down every model run of the process's one busy thread while it lives.
class ModelWatch {
  public:
    ModelWatch() : api_(Ort::GetApi()) {
        runtimeApi = &Ort::GetApi();
        api_.Run = timedRun;
        Ort::Global<void>::api_ = &api_;
    }
    ~ModelWatch() { Ort::Global<void>::api_ = runtimeApi; }

  private:
    OrtApi api_;
};

// ---- one row --------------------------------------------------------------------------------

struct Heard {
    std::vector<double> readyMs;  // per frame, since the first piece
    double cpuSeconds = 0;
};

template <class Engine>
Heard hear(Engine& engine, const Way& way, const std::vector<float>& sound) {
    engine.reset(0, 1, 1);
    engine.setEager(way.eager);
    Heard heard;
    zorv::KeypointFrames frames;
    double now = 0;
    const double cpu = zorv::driver::cpuSeconds();
    const auto work = [&](auto&& step) { now += 1e3 * zorv::bench::seconds(modelClock, step); };
    const auto pullAll = [&] {
        for (int count = -1; count != 0;) {
            work([&] { count = engine.pull(frames); });
            const float* values = frames.driving.data();
            if (!std::all_of(values, values + 63 * count,
                             [](float v) { return std::isfinite(v); })) {
                throw std::runtime_error("keypoints that are not finite");
            }
            heard.readyMs.insert(heard.readyMs.end(), static_cast<std::size_t>(count), now);
        }
    };
    const auto pieces = static_cast<int>(sound.size()) / kPiece;
    for (int pushed = 0; pushed < pieces;) {
        now = std::max(now, pushed * kPieceMs);
        const int come = std::min(pieces, static_cast<int>(now / kPieceMs) + 1);
        const int count = way.eachPiece ? 1 : come - pushed;
        work([&] { engine.push(sound.data() + pushed * kPiece, count * kPiece); });
        pushed += count;
        pullAll();
    }
    engine.finish();
    pullAll();
    heard.cpuSeconds = zorv::driver::cpuSeconds() - cpu;
    return heard;
}

/// How long after its own sound a viewer must show every frame of a part of the line, so that none
/// is missing when its turn comes.
double delayMs(const std::vector<double>& readyMs, std::size_t from, std::size_t to) {
    double most = 0;
    for (std::size_t k = from; k < to; ++k) {
        most = std::max(most, readyMs[k] - kFrameMs * static_cast<double>(k));
    }
    return most;
}

std::string runsPerSecond(double seconds) {
    static const std::map<std::string, const char*> kNames = {
        {"mel", "features"}, {"before", "generator"},       {"source", "stitch"},
        {"x", "head"},       {"feat", "streaming encoder"}, {"ctx_t", "decoder"}};
    std::string text;
    for (const auto& [input, ms] : modelMs) {
        const auto name = kNames.find(input);
        char one[96];
        std::snprintf(one, sizeof one, "%s%s %.1f x %.3g ms", text.empty() ? "" : ", ",
                      name == kNames.end() ? "encoder" : name->second,
                      static_cast<double>(ms.size()) / seconds, zorv::bench::median(ms));
        text += one;
    }
    return text;
}

template <class Engine>
void row(const Way& way, int seconds, Engine (*open)(const Way&)) {
    std::vector<float> sound;
    for (const std::int16_t sample : zorv::driver::spokenSound(seconds)) {
        sound.push_back(static_cast<float>(sample) * (1.0f / 32768));
    }
    modelClock = way.threads > 1 ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID;
    const zorv::bench::Memory before = zorv::bench::memoryNow();
    Engine engine = open(way);
    Heard heard;
    {
        const ModelWatch watch;
        heard = hear(engine, way, sound);
    }
    const zorv::bench::Memory one = zorv::bench::memoryNow();
    const std::vector<float> brief(sound.begin(), sound.begin() + 2 * 16000);
    Engine further = open(way);
    std::thread other([&] { hear(further, way, brief); });
    hear(engine, way, brief);
    other.join();
    const zorv::bench::Memory two = zorv::bench::memoryNow();

    const std::size_t frames = static_cast<std::size_t>(seconds) * 25;
    if (heard.readyMs.size() != frames) throw std::runtime_error("frames are missing");
    std::printf("| %s | %.0f | %.0f, %.0f | %.2f | %.0f + %.0f | %s |\n", way.name,
                heard.readyMs[0], delayMs(heard.readyMs, 0, frames / 2),
                delayMs(heard.readyMs, frames / 2, frames), heard.cpuSeconds / seconds,
                one.own - before.own, two.own - one.own, runsPerSecond(seconds).c_str());
}

std::string root;

zorv::Motion openMotion(const Way& way) {
    return zorv::openMotion(root + "/" + way.dir, way.threads);
}

zorv::Expression openExpression(const Way& way) {
    ::setenv("W2V_ONNX", (root + "/speech_encoder.onnx").c_str(), 1);
    ::setenv("ZORV_A2X_W2V_WIN_ONNX", (root + "/speech_trunk.onnx").c_str(), 1);
    ::setenv("ZORV_A2X_W2V_HEAD_ONNX", (root + "/speech_head.onnx").c_str(), 1);
    ::setenv("ZORV_A2X_W2V_WIN", way.shortWindow ? "1" : "0", 1);
    return zorv::openExpression(root + "/" + way.dir, way.threads);
}

/// True when it could be measured.
bool inAProcess(const Way& way, int seconds) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        try {
            if (std::string(way.dir) == "expression") {
                row(way, seconds, openExpression);
            } else {
                row(way, seconds, openMotion);
            }
            std::fflush(stdout);
            _exit(0);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "speech_bench: %s: %s\n", way.name, error.what());
            _exit(1);
        }
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Speech models of trained sizes in the engines");
    int seconds = 12;
    std::string only;
    app.add_option("dir", root, "What speech_models.py has written")->required();
    app.add_option("--seconds", seconds, "Of speech")
        ->check(CLI::Range(4, 100))
        ->capture_default_str();
    app.add_option("--only", only, "Rows whose names contain this");
    CLI11_PARSE(app, argc, argv);
    std::puts(
        "| engine | first frame, ms | delay that loses no frame, first and second half, ms | "
        "cores | MiB, first + further engine | model runs per second of speech |\n"
        "|---|---|---|---|---|---|");
    bool good = true;
    for (const Way& way : kWays) {
        if (std::string(way.name).find(only) != std::string::npos) {
            good = inAProcess(way, seconds) && good;
        }
    }
    double load = 0;
    if (getloadavg(&load, 1) == 1) std::printf("load average %.1f\n", load);
    return good ? 0 : 1;
}
