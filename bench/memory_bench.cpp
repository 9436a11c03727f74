// What handles of each family cost in memory and time, on the demo subject: at opening, after use,
// and once more for a second handle of the same process. Prints JSON.
//   memory_bench, with ZORV_DEMO_BUNDLE, ZORV_DEMO_ENCODER, ZORV_DEMO_MOTION, ZORV_DEMO_EXPRESSION
// Each family has a process of its own.
#include <sys/wait.h>
#include <unistd.h>
#include <zorv_core.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "demo_subject.h"
#include "live_engine.h"
#include "process_memory.h"
#include "stopwatch.h"
#include "workload.h"

namespace {

using namespace zorv::driver;
using nlohmann::json;
using zorv::bench::Memory;
using zorv::bench::memoryNow;

constexpr int kSeconds = 20, kThreads = 1;  // of speech; of the models

json growth(const Memory& from) {
    const Memory now = memoryNow();
    return {{"own_mib", now.own - from.own}, {"mapped_mib", now.mapped - from.mapped}};
}

using Handle = std::shared_ptr<void>;

struct Family {
    const char* name;
    Handle (*open)();
    void (*use)(void* handle);
};

std::vector<float> speech() {
    std::vector<float> samples;
    for (const int16_t sample : spokenSound(kSeconds)) {
        samples.push_back(static_cast<float>(sample) * (1.0f / 32768));
    }
    return samples;
}

Handle openContext() {
    return Handle(zorv::openContext(zorv::bench::demoBundle(), "render", kThreads));
}
void useContext(void* handle) {
    auto* ctx = static_cast<zorv_ctx*>(handle);
    std::vector<uint8_t> rgba(static_cast<size_t>(zorv_width(ctx)) *
                              static_cast<size_t>(zorv_height(ctx)) * 4);
    for (int k = 0; k < zorv_drive_frames(ctx); ++k) {
        if (!zorv_render_drive_rgba(ctx, k, rgba.data(), rgba.size())) {
            throw std::runtime_error(zorv_last_error());
        }
    }
}

Handle openStream() {
    return Handle(
        zorv::openStream(zorv::bench::demoBundle(), zorv::bench::demoEncoder(), kThreads));
}
void useStream(void* handle) {
    const std::vector<float> samples = speech();
    if (zorv_stream_run(static_cast<zorv_stream*>(handle), samples.data(),
                        static_cast<int>(samples.size()), nullptr, nullptr) != 25 * kSeconds) {
        throw std::runtime_error(zorv_stream_last_error());
    }
}

Handle openMotion() {
    return std::make_shared<zorv::Motion>(zorv::openMotion(zorv::bench::demoMotion(), kThreads));
}
Handle openExpression() {
    return std::make_shared<zorv::Expression>(
        zorv::openExpression(zorv::bench::demoExpression(), kThreads));
}

/** Speech in pieces of half a second, frames pulled as they come. */
template <class Engine>
void useSource(void* handle) {
    auto& source = *static_cast<Engine*>(handle);
    source.reset(0, 1, 1);
    zorv::KeypointFrames frames;
    const std::vector<float> samples = speech();
    constexpr size_t kPiece = 8000;
    for (size_t at = 0; at < samples.size(); at += kPiece) {
        source.push(samples.data() + at, static_cast<int>(kPiece));
        while (source.pull(frames) > 0) {
        }
    }
}

Handle openSession(const std::string& motionDir) {
    LiveSetup setup;
    setup.bundle = zorv::bench::demoBundle();
    setup.motionDir = motionDir;
    setup.threads = kThreads;
    return std::make_shared<LiveEngine>(setup);
}
Handle openMotionSession() {
    return openSession(zorv::bench::demoMotion());
}
Handle openExpressionSession() {
    return openSession(zorv::bench::demoExpression());
}

/** All target frames, then the speech, as fast as frames come. */
void useSession(void* handle) {
    const auto& session = *static_cast<LiveEngine*>(handle);
    std::vector<uint8_t> rgba(session.frameBytes());
    const std::vector<int16_t> sound = spokenSound(kSeconds);
    const int idle = session.targetFrames();
    for (int pulled = 0; pulled < idle + 25 * kSeconds;) {
        if (!zorv_utt_pull_frame(session.utt(), rgba.data(), rgba.size(), nullptr)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        if (++pulled != idle) continue;
        zorv_utt_push_audio(session.utt(), sound.data(), static_cast<int>(sound.size()));
        zorv_utt_end_utterance(session.utt());
    }
}

constexpr Family kFamilies[] = {
    {"context", openContext, useContext},
    {"batch stream", openStream, useStream},
    {"motion engine", openMotion, useSource<zorv::Motion>},
    {"expression engine", openExpression, useSource<zorv::Expression>},
    {"utterance engine, motion", openMotionSession, useSession},
    {"utterance engine, expression", openExpressionSession, useSession},
};

json measure(const Family& family) {
    json result = {{"family", family.name}};
    std::vector<Handle> handles;
    for (const char* which : {"first", "second"}) {
        const Memory before = memoryNow();
        const double seconds = zorv::bench::wallSeconds([&] { handles.push_back(family.open()); });
        const json atOpen = growth(before);
        family.use(handles.back().get());
        result[which] = {{"open_seconds", seconds}, {"opened", atOpen}, {"used", growth(before)}};
    }
    return result;
}

}  // namespace

int main() {
    // Where the expression engine looks for its speech encoder.
    setenv("W2V_ONNX", zorv::bench::demoEncoder().c_str(), 0);
    int failed = 0;
    for (const Family& family : kFamilies) {
        const pid_t child = fork();
        if (child == 0) {
            try {
                std::puts(measure(family).dump().c_str());
                std::fflush(stdout);
                _exit(0);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "memory_bench: %s: %s\n", family.name, error.what());
                _exit(1);
            }
        }
        int status = 0;
        waitpid(child, &status, 0);
        failed += status != 0;
    }
    return failed ? 1 : 0;
}
