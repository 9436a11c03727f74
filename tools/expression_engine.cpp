// --engine a2x: the expression engine. ZORV_A2X_... settings of the environment hold, so that the
// short-window form of its speech encoder can be tried, too.
#include "failure.h"
#include "input_check.h"
#include "keypoint_engine.h"
#include "keypoint_families.h"

namespace zorv::tools {

void check_expression_options(const RenderOptions& options) {
    check_motion_dir(options);
    check_encoder(options);
}

std::unique_ptr<ClipRenderer> open_expression_renderer(const RenderOptions& options) {
    name_encoder(options.encoder);
    zorv_a2x* engine = zorv_a2x_create(options.motion_dir.c_str(), model_threads(options.threads));
    if (!engine)
        fail("cannot open '{}' with encoder '{}': {}; check the directory and the encoder",
             options.motion_dir, options.encoder, zorv_a2x_last_error());
    return open_keypoint_renderer(options, std::make_unique<FamilyEngine<Expression>>(engine));
}

}  // namespace zorv::tools
