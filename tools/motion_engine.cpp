// --engine motion: windows of speech features and a motion generator.
#include "failure.h"
#include "keypoint_engine.h"
#include "keypoint_families.h"

namespace zorv::tools {

void checkMotionOptions(const RenderOptions& options) {
    if (!options.encoder.empty()) {
        fail(
            "--encoder is not for --engine motion, whose models lie in --motion-dir; leave it out");
    }
    checkMotionDir(options);
}

std::unique_ptr<ClipRenderer> openMotionRenderer(const RenderOptions& options) {
    zorv_motion* engine =
        zorv_motion_create(options.motionDir.c_str(), modelThreads(options.threads), nullptr);
    if (!engine) {
        fail("cannot open the motion directory '{}': {}; prepare it again", options.motionDir,
             zorv_motion_last_error());
    }
    return openKeypointRenderer(options, std::make_unique<FamilyEngine<Motion>>(engine));
}

}  // namespace zorv::tools
