#include "motion/motion_models.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "common/model_registry.h"
#include "common/ort.h"
#include "motion/motion_layout.h"
#include "motion/motion_spectrum.h"

namespace zorv::motion {
namespace {

bool spinningAllowed() {
    const char* setting = std::getenv("ZORV_ORT_SPIN");
    return setting && setting[0] == '1';
}

ModelRun open(const std::string& dir, const char* name, int threads, const std::string& ep,
              const ModelContract& contract) {
    if (!ep.empty() && !ep.starts_with("coreml")) {
        throw std::runtime_error("zorv_motion: unknown ep '" + ep + "'");
    }
    const std::string path = dir + "/" + name;
    const bool spinning = spinningAllowed();
    const std::string recipe =
        "motion " + std::to_string(threads) + (spinning ? " 1 " : " 0 ") + ep;
    auto model = sharedModel(path, recipe, [&] {
        Ort::SessionOptions options = makeSessionOptions(threads);
        if (!spinning) options.AddConfigEntry("session.intra_op.allow_spinning", "0");
        if (!ep.empty()) {
            options.AppendExecutionProvider("CoreML", coreMlOptions(ep, dir + "/.coreml_cache"));
        }
        Ort::Env env = makeOrtEnv("zorv_motion");
        Ort::Session session(env, path.c_str(), options);
        return makeModel(path, std::move(env), std::move(session));
    });
    return {std::move(model), contract};
}

TensorContract values(std::vector<std::int64_t> shape) {
    return {"", std::move(shape), Fit::kCount};
}

TensorContract shaped(std::vector<std::int64_t> shape) {
    return {"", std::move(shape)};
}

}  // namespace

MotionModels::MotionModels(const std::string& dir, int threads, const std::string& ep)
    : student(
          open(dir, "hubert_student.onnx", std::max(threads, 1), ep,
               {{values({1, kBands, kTransforms})}, {shaped({1, kSpeechRows, kSpeechFloats})}})),
      lmdm(open(dir, "lmdm.onnx", std::max(threads, 1), ep,
                {{values({1, kMotionFloats}), values({1, kChunkFrames, kRowFloats})},
                 {shaped({1, kChunkFrames, kMotionFloats})}})),
      stitch(open(dir, "stitch.onnx", std::max(threads, 1), ep,
                  {{values({1, kKeypointFloats}), values({1, kKeypointFloats})},
                   {shaped({1, kKeypoints, 3})}})) {}

}  // namespace zorv::motion
