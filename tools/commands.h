// The program's subcommands.
#pragma once

#include <string>

namespace zorv::tools {

struct RenderOptions {
    std::string bundle, audio, encoder, output, sheet;
    int skip_frames = 0;
    float gain = 1.0f;
    int threads = 0;  // 0: one per processor
    bool json = false;
};
void render(const RenderOptions& options);

struct SyncOptions {
    std::string video, audio;
    int shift_frames = 0;
    std::string region;
    bool json = false;
};
void sync(const SyncOptions& options);

}  // namespace zorv::tools
