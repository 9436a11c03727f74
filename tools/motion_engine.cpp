// --engine motion: windows of speech features and a motion generator.
#include "failure.h"
#include "keypoint_engine.h"
#include "keypoint_families.h"

namespace zorv::tools {

void check_motion_options(const RenderOptions& options) {
    if (!options.encoder.empty())
        fail(
            "--encoder is not for --engine motion, whose models lie in --motion-dir; leave it out");
    check_motion_dir(options);
}

std::unique_ptr<ClipRenderer> open_motion_renderer(const RenderOptions& options) {
    zorv_motion* engine =
        zorv_motion_create(options.motion_dir.c_str(), model_threads(options.threads), nullptr);
    if (!engine)
        fail("cannot open the motion directory '{}': {}; prepare it again", options.motion_dir,
             zorv_motion_last_error());
    return open_keypoint_renderer(options, std::make_unique<FamilyEngine<Motion>>(engine));
}

}  // namespace zorv::tools
