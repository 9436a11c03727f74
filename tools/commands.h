// The program's subcommands.
#pragma once

#include <string>

namespace zorv::tools {

struct RenderOptions {
    std::string bundle, audio, output, sheet, telemetry;
    std::string engine = "fca";
    std::string encoder;    // model of the engines fca and a2x
    std::string motionDir;  // models of the engines that hand out keypoints
    int skipFrames = 0;
    float gain = 1.0f;
    int threads = 0;  // 0: one per processor
    bool json = false;
};
void render(const RenderOptions& options);

struct SyncOptions {
    std::string video, audio;
    int shiftFrames = 0;
    std::string region;
    bool json = false;
};
void sync(const SyncOptions& options);

struct InspectOptions {
    std::string bundle, sheet;
    bool json = false;
};
/// Prints the report and then fails when anything in the bundle is wrong.
void inspect(const InspectOptions& options);

struct LiveOptions {
    std::string bundle, motionDir, audio, output, telemetry;
    std::string encoder;      // for an expression directory
    double interruptAt = -1;  // seconds of speech; negative: never
    int eager = 0;            // as zorv_utt_opts has it
    int threads = 0;          // 0: one per processor
    bool json = false;
};
void live(const LiveOptions& options);

struct DoctorOptions {
    std::string subject;  // folder that scripts/demo.sh makes; "": where it is looked for
    std::string bundle, motionDir, encoder;  // instead of the subject's
    int threads = 1;                         // of the models, per session
    int speechSeconds = 3;                   // of each line
    int mostSessions = 16;                   // at a time
    bool json = false;
};
/// Prints the report. Returns 0 when the machine carries a live session, else 1; fails when that
///  cannot be found out.
int doctor(DoctorOptions options);

}  // namespace zorv::tools
