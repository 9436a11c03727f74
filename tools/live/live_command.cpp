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
#include "telemetry_file.h"
#include "video_writer.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

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

constexpr std::pair<const char*, int> kPixels[] = {{"rgba", ZORV_PIXELS_RGBA},
                                                   {"rgb", ZORV_PIXELS_RGB},
                                                   {"i420", ZORV_PIXELS_I420},
                                                   {"nv12", ZORV_PIXELS_NV12}};
constexpr std::pair<const char*, int> kLate[] = {{"wait", ZORV_LATE_WAIT},
                                                 {"skip", ZORV_LATE_SKIP}};

template <class Values>
int valueOf(const Values& values, const std::string& name) {
    for (const auto& [known, value] : values) {
        if (known == name) return value;
    }
    fail("no value '{}'; see zorv live --help", name);
}

/// The sound as it is pushed.
std::vector<int16_t> readPcm(const LiveOptions& options) {
    std::vector<float> samples = readSpeech(options.audio, "--audio", options.rate).samples;
    std::vector<int16_t> pcm;
    pcm.reserve(samples.size());
    for (const float sample : samples) {
        pcm.push_back(
            static_cast<int16_t>(std::clamp(std::lround(sample * 32768.0f), -32768L, 32767L)));
    }
    return pcm;
}

driver::Line lineOf(const std::vector<int16_t>& sound, const LiveOptions& options) {
    const double interruptAt = options.interruptAt;
    const double seconds = static_cast<double>(sound.size()) / options.rate;
    if (interruptAt >= seconds) {
        fail("the sound lasts {:.1f} s and --interrupt-at {} comes after it; interrupt earlier",
             seconds, interruptAt);
    }
    driver::Line line;
    line.samples = sound.size();
    line.interruptSeconds = interruptAt;
    return line;
}

/// What was pulled, until there is time to encode it.
struct Kept {
    explicit Kept(const driver::LiveEngine& live, const std::string& output, size_t soundSamples)
        : engine(live),
          tape(output, live.frameBytes(),
               static_cast<int64_t>(soundSamples) / live.frameSamples() + 25 * kSpareSeconds) {}

    const driver::LiveEngine& engine;
    FrameTape tape;
    std::vector<int16_t> sound;  // of the frames on the tape
};

/// What a viewer heard with each tick: a new frame's own sound, silence while an old one stands.
class HeardSound : public SoundSource {
  public:
    HeardSound(const Kept& kept, const driver::SessionLog& log, size_t firstTick)
        : kept_(kept), log_(log), next_(firstTick) {}

    int rate() const override { return kept_.engine.rate(); }
    int channels() const override { return 1; }
    bool read(std::vector<float>& samples) override {
        if (next_ == log_.ticks.size()) return false;
        const driver::Tick& tick = log_.ticks[next_++];
        const auto count = static_cast<size_t>(kept_.engine.frameSamples());
        const size_t old = samples.size();
        samples.resize(old + count);
        if (tick.kind == driver::Tick::kLate) return true;
        const int16_t* heard = kept_.sound.data() + static_cast<size_t>(tick.frame) * count;
        for (size_t i = 0; i < count; ++i) {
            samples[old + i] = static_cast<float>(heard[i]) * (1.0f / 32768);
        }
        return true;
    }

  private:
    const Kept& kept_;
    const driver::SessionLog& log_;
    size_t next_;
};

/// Frames as they were pulled become R G B.
class ToRgb {
  public:
    explicit ToRgb(const driver::LiveEngine& engine)
        : width_(engine.width()), height_(engine.height()), form_(formOf(engine.pixels())) {
        scaler_.reset(sws_getContext(width_, height_, form_, width_, height_, AV_PIX_FMT_RGB24,
                                     SWS_POINT, nullptr, nullptr, nullptr));
        if (!scaler_) throw std::bad_alloc();
        // The matrix that zorv_utt_set_matrix chooses unless told.
        const int* matrix = sws_getCoefficients(height_ < 720 ? SWS_CS_ITU601 : SWS_CS_ITU709);
        sws_setColorspaceDetails(scaler_.get(), matrix, 0, matrix, 1, 0, 1 << 16, 1 << 16);
    }

    void convert(const std::vector<uint8_t>& frame, std::vector<uint8_t>& rgb) {
        uint8_t* planes[4];
        int strides[4];
        av_image_fill_arrays(planes, strides, frame.data(), form_, width_, height_, 1);
        const int stride = 3 * width_;
        padded_.resize(static_cast<size_t>(stride) * static_cast<size_t>(height_) + 64);
        uint8_t* out = padded_.data();  // the scaler writes past row ends
        sws_scale(scaler_.get(), planes, strides, 0, height_, &out, &stride);
        rgb.assign(padded_.begin(), padded_.end() - 64);
    }

  private:
    static AVPixelFormat formOf(int pixels) {
        switch (pixels) {
            case ZORV_PIXELS_RGB:
                return AV_PIX_FMT_RGB24;
            case ZORV_PIXELS_I420:
                return AV_PIX_FMT_YUV420P;
            case ZORV_PIXELS_NV12:
                return AV_PIX_FMT_NV12;
            default:
                return AV_PIX_FMT_RGBA;
        }
    }

    int width_, height_;
    AVPixelFormat form_;
    av::Owner<SwsContext> scaler_;
    std::vector<uint8_t> padded_;
};

void encode(const std::string& path, Kept& kept, const driver::SessionLog& log) {
    const driver::LiveEngine& engine = kept.engine;
    const auto hasFrame = [](const driver::Tick& tick) { return tick.frame >= 0; };
    const auto first = std::find_if(log.ticks.begin(), log.ticks.end(), hasFrame);
    VideoWriter writer(
        path, engine.width(), engine.height(),
        std::make_unique<HeardSound>(kept, log, static_cast<size_t>(first - log.ticks.begin())), 0);
    ToRgb toRgb(engine);
    std::vector<uint8_t> frame, rgb;
    int64_t loaded = -1;
    Progress progress(static_cast<int>(log.ticks.end() - first));
    for (auto tick = first; tick != log.ticks.end(); ++tick) {
        throwIfInterrupted();
        if (tick->frame != loaded) {
            kept.tape.read(tick->frame, frame);
            toRgb.convert(frame, rgb);
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
    const std::vector<int16_t> sound = readPcm(options);
    const driver::Line line = lineOf(sound, options);
    std::optional<OutputGuard> output;
    if (!options.output.empty()) output.emplace(options.output, OutputGuard::Kind::kFile);

    TelemetryFile telemetry(options.telemetry);

    driver::LiveSetup setup;
    setup.bundle = options.bundle;
    setup.motionDir = options.motionDir;
    setup.threads = modelThreads(options.threads);
    setup.eager = options.eager;
    setup.rate = options.rate;
    setup.pixels = valueOf(kPixels, options.pixels);
    setup.idleAhead = options.idleAhead;
    setup.late = valueOf(kLate, options.late);
    setup.check = throwIfInterrupted;
    const driver::LiveEngine engine(setup);
    std::optional<Kept> kept;
    driver::OnFrame keep;
    if (output) {
        kept.emplace(engine, options.output, sound.size());
        keep = [&kept](std::vector<uint8_t>& frame, const std::vector<int16_t>& heard) {
            kept->tape.add(frame);
            kept->sound.insert(kept->sound.end(), heard.begin(), heard.end());
        };
    }
    const driver::SessionLog log = play(engine, sound, {line}, keep);
    telemetry.save();
    LiveReport report;
    report.session = makeReport(engine.readySeconds(), log);
    if (output && log.failures == 0) {
        kept->tape.finish();
        encode(output->path(), *kept, log);
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
