// zorv render: speech and a bundle become a video file or numbered pictures.
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

}  // namespace zorv::tools
