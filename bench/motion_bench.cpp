// The motion engine on the demo's motion directory (ZORV_DEMO_MOTION, default: build/demo/motion).
//   spectrum     transform and projection of a window, by turns with a plain transcription
//   ownCost      what push, avail and pull cost beside the model runs, as a share of real time
//   longClip     time per frame of a 30-minute clip, by turns with 30-second ones
//   twoEngines   two engines in two threads, by turns with two processes
//   oneHour      memory of a stream of an hour in pieces of 20 ms
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/ort.h"
#include "demo_subject.h"
#include "motion/motion_spectrum.h"
#include "motion_rival.h"
#include "stopwatch.h"

extern char** environ;

namespace {

using zorv::bench::cpuSeconds;
using zorv::bench::demoMotion;
using zorv::bench::median;
using zorv::bench::wallSeconds;
using MotionPtr = std::unique_ptr<zorv_motion, zorv::Destroy<zorv_motion_destroy>>;

constexpr int kSecond = 16000;

MotionPtr openEngine() {
    return MotionPtr(zorv_motion_create(demoMotion().c_str(), 1, nullptr));
}

/// A buzz whose pitch and loudness wander.
std::vector<float> voice(int samples) {
    std::vector<float> audio(static_cast<std::size_t>(samples));
    double phase = 0;
    for (std::size_t i = 0; i < audio.size(); ++i) {
        const double t = static_cast<double>(i) / kSecond;
        phase += (120 + 30 * std::sin(1.3 * t)) / kSecond;
        const double pulse = phase - std::floor(phase) - 0.5;
        audio[i] = static_cast<float>(0.4 * pulse * std::max(0.0, std::sin(2.9 * t)));
    }
    return audio;
}

/// Pulls until nothing is ready; returns the number of frames.
int drain(zorv_motion* motion) {
    int idx[16];
    float xs[16 * 63], xd[16 * 63];
    int frames = 0;
    while (const int n = zorv_motion_pull(motion, idx, xs, xd, 16)) frames += n;
    return frames;
}

/// Pushes `total` samples, taken round and round from `audio`, in pieces, pulling as it goes.
int stream(zorv_motion* motion, const std::vector<float>& audio, std::int64_t total, int piece) {
    int frames = 0;
    std::size_t at = 0;
    for (std::int64_t done = 0; done < total; done += piece) {
        if (at + static_cast<std::size_t>(piece) > audio.size()) at = 0;
        zorv_motion_push(motion, audio.data() + at, piece);
        at += static_cast<std::size_t>(piece);
        frames += drain(motion);
    }
    zorv_motion_finish(motion);
    return frames + drain(motion);
}

// ---- spectrum -------------------------------------------------------------------------------

/// Weights of all bins for all bands, or triangles as filters for speech have them.
std::vector<float> bandMatrix(bool dense) {
    std::vector<float> weights(rival::kBins * rival::kBands);
    for (int bin = 0; bin < rival::kBins; ++bin) {
        for (int band = 0; band < rival::kBands; ++band) {
            const double centre = 3 + 250 * std::pow(band / 79.0, 1.5);
            const double triangle = 1 - std::abs(bin - centre) / (2 + 0.08 * centre);
            const double value = dense ? 0.5 + 0.4 * std::sin(bin * 0.7 + band) : triangle;
            weights[static_cast<std::size_t>(bin * rival::kBands + band)] =
                static_cast<float>(std::max(0.0, value));
        }
    }
    return weights;
}

void spectrum(benchmark::State& state, zorv::SimdLevel level, bool dense) {
    if (level > zorv::detectedSimdLevel()) return state.SkipWithError("not on this processor");
    const std::vector<float> samples = voice(6480);
    const std::vector<float> weights = bandMatrix(dense);
    std::vector<float> window(512);
    for (std::size_t i = 0; i < 512; ++i) {
        window[i] =
            static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * static_cast<double>(i) / 512));
    }
    rival::PlainSpectrum plain(window.data(), weights.data());
    const auto tables =
        std::make_unique<zorv::motion::SpectrumTables>(window.data(), weights.data());
    const auto scratch = std::make_unique<zorv::motion::SpectrumScratch>();
    const zorv::motion::SpectrumKernels& kernels =
        *zorv::chooseKernel(zorv::motion::kSpectrumKernels, level).entry;
    std::vector<float> features(zorv::motion::kFeatureFloats);
    zorv::motion::bandFeatures(*tables, kernels, samples.data(), *scratch, features.data());

    constexpr int kRuns = 20;
    const auto microseconds = [&](auto&& work) {
        return 1e6 / kRuns * cpuSeconds([&] {
                   for (int i = 0; i < kRuns; ++i) {
                       work();
                       benchmark::ClobberMemory();
                   }
               });
    };
#ifdef ZORV_BENCH_FFTW
    rival::FftwSpectrum fftw;
    std::vector<double> fftwTransform;
#endif
    std::vector<double> plainTransform, plainProjection, transform, projection, whole;
    for (auto _ : state) {
        plainTransform.push_back(microseconds([&] { plain.transform(scratch->padded.data()); }));
        plainProjection.push_back(microseconds([&] { plain.project(); }));
        transform.push_back(microseconds([&] {
            zorv::motion::fillColumns(*scratch);
            kernels.transform(*tables, *scratch);
        }));
        projection.push_back(microseconds([&] { kernels.project(*tables, *scratch); }));
        whole.push_back(microseconds([&] {
            zorv::motion::bandFeatures(*tables, kernels, samples.data(), *scratch, features.data());
        }));
#ifdef ZORV_BENCH_FFTW
        fftwTransform.push_back(microseconds([&] { fftw.transform(); }));
#endif
    }
    state.counters["plain_transforms_us"] = median(plainTransform);
    state.counters["plain_projection_us"] = median(plainProjection);
    state.counters["transforms_us"] = median(transform);
    state.counters["projection_us"] = median(projection);
    state.counters["features_us"] = median(whole);
    state.counters["times_faster"] = (median(plainTransform) + median(plainProjection)) /
                                     (median(transform) + median(projection));
#ifdef ZORV_BENCH_FFTW
    state.counters["fftw_transforms_us"] = median(fftwTransform);
#endif
}
BENCHMARK_CAPTURE(spectrum, portable_dense, zorv::SimdLevel::kPortable, true);
BENCHMARK_CAPTURE(spectrum, avx2_dense, zorv::SimdLevel::kAvx2, true);
BENCHMARK_CAPTURE(spectrum, avx512_dense, zorv::SimdLevel::kAvx512, true);
BENCHMARK_CAPTURE(spectrum, avx512_triangles, zorv::SimdLevel::kAvx512, false);

// ---- ownCost --------------------------------------------------------------------------------

const OrtApi* runtimeApi = nullptr;
double modelSeconds = 0;

OrtStatus* ORT_API_CALL timedRun(OrtSession* session, const OrtRunOptions* options,
                                 const char* const* inputNames, const OrtValue* const* inputs,
                                 std::size_t inputCount, const char* const* outputNames,
                                 std::size_t outputCount, OrtValue** outputs) noexcept {
    OrtStatus* status = nullptr;
    modelSeconds += cpuSeconds([&] {
        status = runtimeApi->Run(session, options, inputNames, inputs, inputCount, outputNames,
                                 outputCount, outputs);
    });
    return status;
}

/// Adds up the processor time of model runs while it lives. One thread.
class ModelClock {
  public:
    ModelClock() : api_(Ort::GetApi()) {
        runtimeApi = &Ort::GetApi();
        modelSeconds = 0;
        api_.Run = timedRun;
        Ort::Global<void>::api_ = &api_;
    }
    ~ModelClock() { Ort::Global<void>::api_ = runtimeApi; }

  private:
    OrtApi api_;
};

void ownCost(benchmark::State& state, int eager) {
    const ModelClock clock;
    const MotionPtr motion = openEngine();
    if (!motion) return state.SkipWithError(zorv_motion_last_error());
    constexpr int kLength = 60;
    const std::vector<float> audio = voice(kLength * kSecond);
    std::vector<double> own, models;
    for (auto _ : state) {
        zorv_motion_reset(motion.get(), 0, 1, 0);
        zorv_motion_set_eager(motion.get(), eager);
        modelSeconds = 0;
        const double whole =
            cpuSeconds([&] { stream(motion.get(), audio, kLength * kSecond, 320); });
        own.push_back(100 * (whole - modelSeconds) / kLength);
        models.push_back(100 * modelSeconds / kLength);
    }
    state.counters["own_percent_of_real_time"] = median(own);
    state.counters["models_percent_of_real_time"] = median(models);
}
BENCHMARK_CAPTURE(ownCost, steady, 0)->Unit(benchmark::kMillisecond)->Iterations(7);
BENCHMARK_CAPTURE(ownCost, eager_every_frame, 1)->Unit(benchmark::kMillisecond)->Iterations(3);

// ---- longClip -------------------------------------------------------------------------------

void longClip(benchmark::State& state) {
    const ModelClock clock;
    const MotionPtr motion = openEngine();
    if (!motion) return state.SkipWithError(zorv_motion_last_error());
    const std::vector<float> longAudio = voice(1800 * kSecond);
    struct PerFrame {
        double whole, own;
    };
    const auto offline = [&](int n, int times) {
        modelSeconds = 0;
        int frames = 0;
        const double whole = cpuSeconds([&] {
            for (int i = 0; i < times; ++i) {
                zorv_motion_reset(motion.get(), 0, 1, 0);
                zorv_motion_push(motion.get(), longAudio.data() + i * n, n);
                zorv_motion_finish(motion.get());
                frames += drain(motion.get());
            }
        });
        return PerFrame{1e6 * whole / frames, 1e6 * (whole - modelSeconds) / frames};
    };
    std::vector<double> brief, lengthy, ratio, ownRatio;
    for (auto _ : state) {
        const PerFrame s = offline(30 * kSecond, 20);
        const PerFrame l = offline(1800 * kSecond, 1);
        const PerFrame again = offline(30 * kSecond, 20);
        brief.push_back((s.whole + again.whole) / 2);
        lengthy.push_back(l.whole);
        ratio.push_back(l.whole / brief.back());
        ownRatio.push_back(2 * l.own / (s.own + again.own));
    }
    state.counters["us_per_frame_30_s"] = median(brief);
    state.counters["us_per_frame_30_min"] = median(lengthy);
    state.counters["ratio"] = median(ratio);
    state.counters["own_ratio"] = median(ownRatio);
}
BENCHMARK(longClip)->Unit(benchmark::kMillisecond)->Iterations(7);

// ---- twoEngines -----------------------------------------------------------------------------

constexpr int kWorkSeconds = 120;

/// A worker process: prepares, says so on standard output, works when standard input closes.
int workerProcess() {
    const MotionPtr motion = openEngine();
    const std::vector<float> audio = voice(kWorkSeconds * kSecond);
    char byte = motion ? 'r' : 'f';
    if (::write(STDOUT_FILENO, &byte, 1) != 1 || ::read(STDIN_FILENO, &byte, 1) != 0) return 1;
    return motion && stream(motion.get(), audio, kWorkSeconds * kSecond, 320) > 0 ? 0 : 1;
}

/// Seconds from the starting shot until two processes are done; negative on failure.
double inProcesses() {
    int start[2], ready[2];
    if (::pipe2(start, O_CLOEXEC) != 0 || ::pipe2(ready, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, start[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
    char self[] = "/proc/self/exe", argument[] = "--worker";
    char* arguments[] = {self, argument, nullptr};
    bool good = true;
    std::vector<pid_t> children;
    for (int i = 0; i < 2; ++i) {
        pid_t child = 0;
        good = good && ::posix_spawn(&child, self, &actions, nullptr, arguments, environ) == 0;
        if (good) children.push_back(child);
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(start[0]);
    ::close(ready[1]);
    char byte = 0;
    for (std::size_t i = 0; i < children.size(); ++i) {
        good = ::read(ready[0], &byte, 1) == 1 && byte == 'r' && good;
    }
    const double elapsed = wallSeconds([&] {
        ::close(start[1]);
        for (const pid_t child : children) {
            int status = 0;
            good = ::waitpid(child, &status, 0) == child && status == 0 && good;
        }
    });
    ::close(ready[0]);
    return good ? elapsed : -1;
}

double inThreads(zorv_motion* one, zorv_motion* other, const std::vector<float>& audio) {
    const auto work = [&](zorv_motion* motion) {
        stream(motion, audio, kWorkSeconds * kSecond, 320);
    };
    zorv_motion_reset(one, 0, 1, 0);
    zorv_motion_reset(other, 0, 1, 0);
    return wallSeconds([&] {
        std::thread second(work, other);
        work(one);
        second.join();
    });
}

void twoEngines(benchmark::State& state) {
    const MotionPtr one = openEngine();
    const MotionPtr other = openEngine();
    if (!one || !other) return state.SkipWithError(zorv_motion_last_error());
    const std::vector<float> audio = voice(kWorkSeconds * kSecond);
    std::vector<double> threads, processes, ratio;
    for (auto _ : state) {
        const double before = inProcesses();
        threads.push_back(inThreads(one.get(), other.get(), audio));
        const double after = inProcesses();
        if (before < 0 || after < 0) return state.SkipWithError("a worker process failed");
        processes.push_back((before + after) / 2);
        ratio.push_back(processes.back() / threads.back());
    }
    state.counters["threads_s"] = median(threads);
    state.counters["processes_s"] = median(processes);
    state.counters["threads_reach"] = median(ratio);
}
BENCHMARK(twoEngines)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(7);

// ---- oneHour --------------------------------------------------------------------------------

/// A line of /proc/self/status in MiB.
double statusMib(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string word;
    double kib = 0;
    while (status >> word) {
        if (word == key && status >> kib) return kib / 1024;
    }
    return 0;
}

void oneHour(benchmark::State& state) {
    const std::vector<float> audio = voice(60 * kSecond);
    const MotionPtr motion = openEngine();
    if (!motion) return state.SkipWithError(zorv_motion_last_error());
    for (auto _ : state) {
        zorv_motion_reset(motion.get(), 0, 1, 0);
        ::malloc_trim(0);                             // what other benchmarks left
        std::ofstream("/proc/self/clear_refs") << 5;  // the peak starts again here
        const double before = statusMib("VmRSS:");
        int frames = 0;
        const double elapsed = wallSeconds(
            [&] { frames = stream(motion.get(), audio, std::int64_t{3600} * kSecond, 320); });
        state.counters["frames"] = frames;
        state.counters["above_models_mib"] = statusMib("VmHWM:") - before;
        state.counters["times_real_time"] = 3600 / elapsed;
    }
}
BENCHMARK(oneHour)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--worker") == 0) return workerProcess();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
