// --engine a2x: the expression engine. ZORV_A2X_... settings of the environment hold, so that the
// short-window form of its speech encoder can be tried, too.
#include <zorv_core.h>

#include <cstdlib>

#include "failure.h"
#include "keypoint_engine.h"

namespace zorv::tools {
namespace {

struct Expression {
    using Handle = zorv_a2x;
    static constexpr auto destroy = zorv_a2x_destroy;
    static constexpr auto nt = zorv_a2x_nt;
    static constexpr auto push = zorv_a2x_push;
    static constexpr auto finish = zorv_a2x_finish;
    static constexpr auto avail = zorv_a2x_avail;
    static constexpr auto pull = zorv_a2x_pull;
    static constexpr auto reset = zorv_a2x_reset;
    static constexpr auto last_error = zorv_a2x_last_error;
};

}  // namespace

void check_expression_options(const RenderOptions& options) {
    check_motion_dir(options);
    check_encoder(options);
}

std::unique_ptr<ClipRenderer> open_expression_renderer(const RenderOptions& options) {
    setenv("W2V_ONNX", options.encoder.c_str(), 1);  // where the engine looks for its encoder
    zorv_a2x* engine = zorv_a2x_create(options.motion_dir.c_str(), model_threads(options));
    if (!engine)
        fail("cannot open '{}' with encoder '{}': {}; check the directory and the encoder",
             options.motion_dir, options.encoder, zorv_a2x_last_error());
    return open_keypoint_renderer(options, std::make_unique<FamilyEngine<Expression>>(engine));
}

}  // namespace zorv::tools
