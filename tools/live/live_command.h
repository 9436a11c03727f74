// zorv live: an utterance engine between a voice agent and a viewer, in real time.
#pragma once

#include <string>

namespace zorv::tools {

struct LiveOptions {
    std::string bundle, motionDir, audio, output, telemetry;
    std::string encoder;                         // for an expression directory
    double interruptAt = -1;                     // seconds of speech; negative: never
    int eager = 0;                               // as zorv_utt_opts has it
    int threads = 0;                             // 0: one per processor
    int rate = 16000;                            // of the sound that is pushed
    std::string pixels = "rgba", late = "wait";  // as zorv_utt_set_pixels and _late have them
    int idleAhead = 8;
    bool json = false;
};
void live(const LiveOptions& options);

}  // namespace zorv::tools
