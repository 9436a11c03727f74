#include "live_command.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>

#include "audio_reader.h"
#include "clip_renderer.h"
#include "failure.h"
#include "frame_tape.h"
#include "input_check.h"
#include "interrupt.h"
#include "live_report.h"
#include "output_guard.h"
#include "progress.h"
#include "session.h"
#include "sources.h"
#include "telemetry_file.h"
#include "video_writer.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr int kSoundRate = 16000;
constexpr int kSpareSeconds = 20;  // of frames beyond the sound's: idling, latency, late frames

void checkEncoder(const LiveOptions& options) {
    const bool expression = driver::isExpressionDir(options.motionDir);
    std::error_code error;
    if (!options.encoder.empty()) {
        if (!expression) {
            fail("--encoder is not for '{}', which holds its own models; leave it out",
                 options.motionDir);
        }
        if (!fs::is_regular_file(options.encoder, error)) {
            fail("no speech encoder '{}'; check the path given to --encoder", options.encoder);
        }
        nameEncoder(options.encoder);
    } else if (const char* set = std::getenv("W2V_ONNX"); expression && (!set || !*set)) {
        fail("'{}' needs a speech encoder; name it with --encoder", options.motionDir);
    }
}

void checkInputs(const LiveOptions& options) {
    checkIsBundle(options.bundle);
    std::error_code error;
    if (!fs::is_directory(options.motionDir, error)) {
        fail("no directory '{}'; check the path given to --motion-dir", options.motionDir);
    }
    checkEncoder(options);
    if (!options.output.empty() && !endsWith(options.output, ".mp4")) {
        fail("cannot write '{}': -o takes a name that ends in .mp4", options.output);
    }
    checkIsNotSound(options.output, options.audio);
}

std::vector<int16_t> asPcm(const std::vector<float>& samples) {
    std::vector<int16_t> pcm;
    pcm.reserve(samples.size());
    for (const float sample : samples) {
        pcm.push_back(
            static_cast<int16_t>(std::clamp(std::lround(sample * 32768.0f), -32768L, 32767L)));
    }
    return pcm;
}

driver::Line lineOf(const std::vector<int16_t>& sound, double interruptAt) {
    const double seconds = static_cast<double>(sound.size()) / kSoundRate;
    if (interruptAt >= seconds) {
        fail("the sound lasts {:.1f} s and --interrupt-at {} comes after it; interrupt earlier",
             seconds, interruptAt);
    }
    driver::Line line;
    line.samples = sound.size();
    line.interruptSeconds = interruptAt;
    return line;
}

/// What belongs to each tick's frame: a speech frame has its own sound, all others silence.
class SeenSound : public SoundSource {
  public:
    SeenSound(const std::vector<int16_t>& sound, const driver::SessionLog& log, size_t firstTick)
        : sound_(sound), log_(log), next_(firstTick) {}

    int rate() const override { return kSoundRate; }
    int channels() const override { return 1; }
    bool read(std::vector<float>& samples) override {
        if (next_ == log_.ticks.size()) return false;
        const driver::Tick& tick = log_.ticks[next_++];
        const size_t old = samples.size();
        samples.resize(old + driver::kFrameSamples);
        if (tick.speechSequence < 0) return true;
        const size_t begin = static_cast<size_t>(tick.speechSequence) * driver::kFrameSamples;
        const size_t end = std::min(begin + driver::kFrameSamples, log_.lines[0].samples);
        for (size_t i = begin; i < end; ++i) {
            samples[old + i - begin] = static_cast<float>(sound_[i]) * (1.0f / 32768);
        }
        return true;
    }

  private:
    const std::vector<int16_t>& sound_;
    const driver::SessionLog& log_;
    size_t next_;
};

void encode(const std::string& path, const driver::LiveEngine& engine, FrameTape& tape,
            const std::vector<int16_t>& sound, const driver::SessionLog& log) {
    const auto hasFrame = [](const driver::Tick& tick) { return tick.frame >= 0; };
    const auto first = std::find_if(log.ticks.begin(), log.ticks.end(), hasFrame);
    VideoWriter writer(
        path, engine.width(), engine.height(),
        std::make_unique<SeenSound>(sound, log, static_cast<size_t>(first - log.ticks.begin())), 0);
    std::vector<uint8_t> rgba, rgb(engine.frameBytes() / 4 * 3);
    int64_t loaded = -1;
    Progress progress(static_cast<int>(log.ticks.end() - first));
    for (auto tick = first; tick != log.ticks.end(); ++tick) {
        throwIfInterrupted();
        if (tick->frame != loaded) {
            tape.read(tick->frame, rgba);
            for (size_t i = 0; i < rgb.size() / 3; ++i) {
                std::copy_n(rgba.data() + 4 * i, 3, rgb.data() + 3 * i);
            }
            loaded = tick->frame;
        }
        writer.write(rgb.data());
        progress.update(static_cast<int>(tick - first) + 1);
    }
    writer.finish();
}

/// Short clips and faces that hardly move cannot be measured.
void measureSync(LiveReport& report, const std::string& video) {
    try {
        report.sync = measureLipSync(video, "", 0, std::nullopt);
    } catch (const Interrupted&) {
        throw;
    } catch (const Failure&) {
    }
}

}  // namespace

void live(const LiveOptions& options) {
    checkInputs(options);
    const std::vector<int16_t> sound = asPcm(readSpeech(options.audio, "--audio").samples);
    const driver::Line line = lineOf(sound, options.interruptAt);
    std::optional<OutputGuard> output;
    if (!options.output.empty()) output.emplace(options.output, OutputGuard::Kind::kFile);

    TelemetryFile telemetry(options.telemetry);

    driver::LiveSetup setup;
    setup.bundle = options.bundle;
    setup.motionDir = options.motionDir;
    setup.threads = modelThreads(options.threads);
    setup.eager = options.eager;
    setup.check = throwIfInterrupted;
    const driver::LiveEngine engine(setup);
    std::optional<FrameTape> tape;
    if (output) {
        tape.emplace(
            options.output, engine.frameBytes(),
            static_cast<int64_t>(sound.size() / driver::kFrameSamples) + 25 * kSpareSeconds);
    }
    driver::OnFrame keep;
    if (tape) keep = [&tape](std::vector<uint8_t>& rgba) { tape->add(rgba); };
    const driver::SessionLog log = play(engine, sound, {line}, keep);
    telemetry.save();
    LiveReport report;
    report.session = makeReport(engine.readySeconds(), log, piecesBeforeFirstFrame(setup, sound));
    if (output && log.failures == 0) {
        tape->finish();
        encode(output->path(), engine, *tape, sound, log);
        measureSync(report, output->path());
        output->commit();
        report.output = options.output;
    }
    fmt::print("{}", options.json ? liveReportJson(report) : liveReportText(report));
    if (log.failures > 0) {
        fail("speaking failed: {}; check the subject's and the models' files", log.failure);
    }
}

}  // namespace zorv::tools
