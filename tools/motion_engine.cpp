// --engine motion: windows of speech features and a motion generator.
#include <zorv_core.h>

#include "failure.h"
#include "keypoint_engine.h"

namespace zorv::tools {
namespace {

struct Motion {
    using Handle = zorv_motion;
    static constexpr auto destroy = zorv_motion_destroy;
    static constexpr auto nt = zorv_motion_nt;
    static constexpr auto push = zorv_motion_push;
    static constexpr auto finish = zorv_motion_finish;
    static constexpr auto avail = zorv_motion_avail;
    static constexpr auto pull = zorv_motion_pull;
    static constexpr auto reset = zorv_motion_reset;
    static constexpr auto last_error = zorv_motion_last_error;
};

}  // namespace

void check_motion_options(const RenderOptions& options) {
    if (!options.encoder.empty())
        fail(
            "--encoder is not for --engine motion, whose models lie in --motion-dir; leave it out");
    check_motion_dir(options);
}

std::unique_ptr<ClipRenderer> open_motion_renderer(const RenderOptions& options) {
    zorv_motion* engine =
        zorv_motion_create(options.motion_dir.c_str(), model_threads(options), nullptr);
    if (!engine)
        fail("cannot open the motion directory '{}': {}; prepare it again", options.motion_dir,
             zorv_motion_last_error());
    return open_keypoint_renderer(options, std::make_unique<FamilyEngine<Motion>>(engine));
}

}  // namespace zorv::tools
