#include "render_command.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "audio_reader.h"
#include "clip_renderer.h"
#include "contact_sheet.h"
#include "failure.h"
#include "image_writer.h"
#include "input_check.h"
#include "interrupt.h"
#include "output_guard.h"
#include "progress.h"
#include "telemetry_file.h"
#include "video_writer.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr int kSamplesPerFrame = 640;

bool writesVideo(const std::string& output) {
    if (endsWith(output, ".mp4")) return true;
    for (const char* other : {".mov", ".mkv", ".avi", ".webm", ".m4v", ".gif", ".png", ".jpg"}) {
        if (endsWith(output, other)) {
            fail(
                "cannot write '{}': -o takes a name that ends in .mp4, or a directory for PNG "
                "frames",
                output);
        }
    }
    return false;
}

void checkInputs(const RenderOptions& options) {
    checkIsBundle(options.bundle);
    findEngine(options.engine).check(options);
    for (const std::string& output : {options.output, options.sheet}) {
        checkIsNotSound(output, options.audio);
    }
}

int framesOf(const std::vector<float>& samples, const RenderOptions& options) {
    const int all = static_cast<int>((samples.size() + kSamplesPerFrame - 1) / kSamplesPerFrame);
    if (options.skipFrames >= all) {
        fail("the sound lasts {} frames and --skip-frames {} leaves none; skip fewer", all,
             options.skipFrames);
    }
    return all - options.skipFrames;
}

void renderClip(ClipRenderer& renderer, const std::vector<float>& samples, int frames,
                FrameSink& sink, ContactSheet* sheet) {
    Progress progress(frames);
    int done = 0;
    const int made = renderer.run(samples, [&](const uint8_t* rgb) {
        throwIfInterrupted();
        sink.write(rgb);
        if (sheet) sheet->add(done, rgb);
        progress.update(++done);
    });
    throwIfInterrupted();
    if (made != frames) {
        fail("rendering stopped after frame {} of {}: {}; check the subject's files", done, frames,
             renderer.error());
    }
    sink.finish();
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void report(const RenderOptions& options, const Speech& speech, int frames, double load,
            double run) {
    const double fps = frames / run;
    const double video = static_cast<double>(frames) / VideoWriter::kFrameRate;
    if (!options.json) {
        fmt::print("{}: {} frames in {:.1f} s, {:.1f} frames/s, {:.2f} times real time\n",
                   options.output, frames, run, fps, video / run);
        return;
    }
    const nlohmann::json result = {
        {"output", options.output},
        {"frames", frames},
        {"audio_seconds", static_cast<double>(speech.samples.size()) / 16000},
        {"load_seconds", load},
        {"render_seconds", run},
        {"fps", fps},
        {"times_real_time", video / run},
    };
    fmt::print("{}\n", result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace

void render(const RenderOptions& options) {
    const bool video = writesVideo(options.output);
    checkInputs(options);
    const Speech speech = readSpeech(options.audio, "--audio");
    const int frames = framesOf(speech.samples, options);
    OutputGuard output(options.output,
                       video ? OutputGuard::Kind::kFile : OutputGuard::Kind::kDirectory);
    std::optional<OutputGuard> sheetOutput;
    if (!options.sheet.empty()) sheetOutput.emplace(options.sheet, OutputGuard::Kind::kFile);

    TelemetryFile telemetry(options.telemetry);

    const auto loadStart = std::chrono::steady_clock::now();
    const std::unique_ptr<ClipRenderer> renderer = findEngine(options.engine).open(options);
    throwIfInterrupted();
    const double load = secondsSince(loadStart);

    const int width = renderer->width(), height = renderer->height();
    std::unique_ptr<FrameSink> sink;
    if (video) {
        sink = std::make_unique<VideoWriter>(
            output.path(), width, height,
            std::make_unique<AudioReader>(options.audio, VideoWriter::kAudioRate, 2, "--audio"),
            options.skipFrames);
    } else {
        sink = std::make_unique<PngSequenceWriter>(output.path(), width, height);
    }
    std::optional<ContactSheet> sheet;
    if (sheetOutput) sheet.emplace(width, height, frames);

    const auto runStart = std::chrono::steady_clock::now();
    renderClip(*renderer, speech.samples, frames, *sink, sheet ? &*sheet : nullptr);
    const double run = secondsSince(runStart);
    if (sheet) sheet->save(sheetOutput->path());
    throwIfInterrupted();
    output.commit();
    if (sheet) sheetOutput->commit();
    telemetry.save();
    report(options, speech, frames, load, run);
}

}  // namespace zorv::tools
