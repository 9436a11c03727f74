// zorv: the command line of libzorv_core.
#include <zorv_core.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "av.h"
#include "clip_renderer.h"
#include "doctor_command.h"
#include "failure.h"
#include "inspect_command.h"
#include "interrupt.h"
#include "live_command.h"
#include "man_page.h"
#include "progress.h"
#include "sync_command.h"

namespace zorv::tools {
namespace {

void addRender(CLI::App& app, RenderOptions& options) {
    CLI::App* command = app.add_subcommand("render", "Turn speech into a talking-face video");
    command->add_option("BUNDLE", options.bundle, "The subject's directory")->required();
    command->add_option("--audio", options.audio, "Speech: any file with sound")->required();
    command->add_option("--engine", options.engine, "What turns speech into motion")
        ->capture_default_str()
        ->check(CLI::IsMember(engineNames()));
    command->add_option("--encoder", options.encoder, "Speech encoder (.onnx), for fca and a2x");
    command->add_option("--motion-dir", options.motionDir,
                        "Directory of models, for motion and a2x");
    command->add_option("-o,--output", options.output, "OUT.mp4, or a directory for PNG frames")
        ->required();
    command->add_option("--sheet", options.sheet, "Also write a contact sheet (.png)");
    command->add_option("--telemetry", options.telemetry,
                        "Also write what the library counted (.json)");
    command->add_option("--skip-frames", options.skipFrames, "Leave out the first N frames")
        ->check(CLI::Range(0, 1 << 24));
    command->add_option("--gain", options.gain, "Strength of the motion")
        ->capture_default_str()
        ->check(CLI::Range(-100.0, 100.0));
    command->add_option("--threads", options.threads, "Model threads (default: all processors)")
        ->check(CLI::Range(1, 1024));
    command->add_flag("--json", options.json, "Report as JSON on standard output");
}

void addSync(CLI::App& app, SyncOptions& options) {
    CLI::App* command = app.add_subcommand(
        "sync", "Measure how well the mouth of a rendered video follows the sound");
    command->add_option("VIDEO", options.video, "A video with one talking face")->required();
    command->add_option("--audio", options.audio, "Sound to compare with (default: the video's)");
    command
        ->add_option("--shift-frames", options.shiftFrames,
                     "Advance the sound by N frames first: the lag reads N more")
        ->check(CLI::Range(-1000, 1000));
    command->add_option("--region", options.region, "Mouth region x,y,w,h (default: found)");
    command->add_flag("--json", options.json, "Report as JSON on standard output");
}

void addInspect(CLI::App& app, InspectOptions& options) {
    CLI::App* command =
        app.add_subcommand("inspect", "Check every file of a bundle and show what it holds");
    command->add_option("BUNDLE", options.bundle, "The subject's directory")->required();
    command->add_option("--sheet", options.sheet,
                        "Also draw frames, crops, mask and keypoints (.png)");
    command->add_flag("--json", options.json, "Report as JSON on standard output");
}

void addLive(CLI::App& app, LiveOptions& options) {
    CLI::App* command = app.add_subcommand(
        "live", "Speak a file in real time, as a voice agent would, and measure what a viewer saw");
    command->add_option("BUNDLE", options.bundle, "The subject's directory")->required();
    command->add_option("--motion-dir", options.motionDir, "Directory of models")->required();
    command->add_option("--audio", options.audio, "Speech: any file with sound")->required();
    command->add_option("--encoder", options.encoder,
                        "Speech encoder (.onnx) of an expression directory (default: $W2V_ONNX)");
    command
        ->add_option("--interrupt-at", options.interruptAt,
                     "Interrupt the speech after so many seconds")
        ->check(CLI::Range(0.0, 1e6));
    command->add_option("-o,--output", options.output, "Keep what was seen and heard: OUT.mp4");
    command->add_option("--rate", options.rate, "Push the sound at so many samples per second")
        ->capture_default_str()
        ->check(CLI::IsMember({8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}));
    command->add_option("--pixels", options.pixels, "Form of the frames that are pulled")
        ->capture_default_str()
        ->check(CLI::IsMember({"rgba", "rgb", "i420", "nv12"}));
    command
        ->add_option("--idle-ahead", options.idleAhead,
                     "Idle frames made ahead of the viewer; with fewer, speech shows sooner")
        ->capture_default_str()
        ->check(CLI::Range(1, 8));
    command
        ->add_option("--late", options.late,
                     "Late speech frames are all shown, or left out until speech is on time")
        ->capture_default_str()
        ->check(CLI::IsMember({"wait", "skip"}));
    command
        ->add_option("--eager", options.eager,
                     "Frames per provisional step of the motion source (default: adaptive)")
        ->check(CLI::Range(-2, 1000));
    command->add_option("--threads", options.threads, "Model threads (default: all processors)")
        ->check(CLI::Range(1, 1024));
    command->add_option("--telemetry", options.telemetry,
                        "Also write what the library counted (.json)");
    command->add_flag("--json", options.json, "Report as JSON on standard output");
}

void addDoctor(CLI::App& app, DoctorOptions& options) {
    CLI::App* command = app.add_subcommand(
        "doctor", "Say whether this machine runs the library well, and how many live sessions");
    command->add_option("--subject", options.subject,
                        "Folder of the demo subject (default: build/demo of the checkout)");
    command->add_option("--bundle", options.bundle, "Measure with this subject's directory");
    command->add_option("--motion-dir", options.motionDir, "Directory of models for it");
    command->add_option("--encoder", options.encoder, "Speech encoder (.onnx) for it");
    command->add_option("--threads", options.threads, "Model threads of each session")
        ->capture_default_str()
        ->check(CLI::Range(1, 1024));
    command->add_option("--speech", options.speechSeconds, "Seconds that each session speaks")
        ->capture_default_str()
        ->check(CLI::Range(1, 60));
    command->add_option("--most", options.mostSessions, "Run so many sessions at a time at most")
        ->capture_default_str()
        ->check(CLI::Range(1, 256));
    command->add_flag("--json", options.json, "Report as JSON on standard output");
}

// Reasons that come from other libraries may hold line breaks.
void reportFailure(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    Progress::clearLine();
    fmt::print(stderr, "zorv: {}\n", text);
}

/// failureCode: what the program ends with when the subcommand throws.
int run(int argc, char** argv, int& failureCode) {
    CLI::App app("Talking-face video of a prepared subject");
    app.require_subcommand(1);
    const std::string version = fmt::format("zorv {}.{}.{}", zorv_version() / 10000,
                                            zorv_version() / 100 % 100, zorv_version() % 100);
    app.set_version_flag("--version", version);
    // For the build; no help lists an option without a group.
    const auto page = [&] { throw CLI::CallForVersion(manPage(app, version), 0); };
    app.add_flag_callback("--man-page", page)->group("");
    RenderOptions renderOptions;
    SyncOptions syncOptions;
    InspectOptions inspectOptions;
    LiveOptions liveOptions;
    DoctorOptions doctorOptions;
    addRender(app, renderOptions);
    addSync(app, syncOptions);
    addInspect(app, inspectOptions);
    addLive(app, liveOptions);
    addDoctor(app, doctorOptions);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        reportFailure(fmt::format("{}; see zorv --help", error.what()));
        return 2;
    }
    int code = 0;
    if (app.got_subcommand("render")) {
        render(renderOptions);
    } else if (app.got_subcommand("sync")) {
        sync(syncOptions);
    } else if (app.got_subcommand("live")) {
        live(liveOptions);
    } else if (app.got_subcommand("doctor")) {
        failureCode = 2, code = doctor(doctorOptions);
    } else {
        inspect(inspectOptions);
    }
    if (std::fflush(stdout) != 0) fail("cannot write to standard output; check where it goes");
    return code;
}

}  // namespace
}  // namespace zorv::tools

int main(int argc, char** argv) {
    using namespace zorv::tools;
    startInterruptHandling();
    const char* verbose = std::getenv("ZORV_VERBOSE");
    av_log_set_level(verbose && *verbose == '1' ? AV_LOG_INFO : AV_LOG_QUIET);
    int failureCode = 1;
    try {
        return run(argc, argv, failureCode);
    } catch (const Interrupted&) {
        reportInterruption();
        return kInterruptedExitCode;
    } catch (const std::bad_alloc&) {
        reportFailure("out of memory; close other programs or use a shorter clip");
    } catch (const std::exception& error) {
        reportFailure(error.what());
    }
    return failureCode;
}
