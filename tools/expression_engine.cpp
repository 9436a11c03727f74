// --engine a2x: the expression engine. ZORV_A2X_... settings of the environment hold, so that the
// short-window form of its speech encoder can be tried, too.
#include "failure.h"
#include "input_check.h"
#include "keypoint_engine.h"
#include "keypoint_families.h"

namespace zorv::tools {

void checkExpressionOptions(const RenderOptions& options) {
    checkMotionDir(options);
    checkEncoder(options);
}

std::unique_ptr<ClipRenderer> openExpressionRenderer(const RenderOptions& options) {
    nameEncoder(options.encoder);
    zorv_a2x* engine = zorv_a2x_create(options.motionDir.c_str(), modelThreads(options.threads));
    if (!engine) {
        fail("cannot open '{}' with encoder '{}': {}; check the directory and the encoder",
             options.motionDir, options.encoder, zorv_a2x_last_error());
    }
    return openKeypointRenderer(options, std::make_unique<FamilyEngine<Expression>>(engine));
}

}  // namespace zorv::tools
