// zorv sync: how well the mouth of a video follows the sound.
#pragma once

#include <string>

namespace zorv::tools {

struct SyncOptions {
    std::string video, audio;
    int shiftFrames = 0;
    std::string region;
    bool json = false;
};
void sync(const SyncOptions& options);

}  // namespace zorv::tools
