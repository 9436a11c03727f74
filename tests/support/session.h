// Runs of models by the plainest use of the runtime, for references and operators.
#pragma once

#include <vector>

#include "common/ort.h"

namespace zorv::test {

struct ModelInput {
    const char* name;
    std::vector<float> values;
    std::vector<std::int64_t> shape;
};

inline Ort::Env& testEnv() {
    static Ort::Env env = makeOrtEnv("test");
    return env;
}

inline std::vector<Ort::Value> runModel(Ort::Session& session, std::vector<ModelInput> inputs,
                                        const std::vector<const char*>& outputs) {
    std::vector<const char*> names;
    std::vector<Ort::Value> tensors;
    for (ModelInput& input : inputs) {
        names.push_back(input.name);
        tensors.push_back(tensorOver(input.values.data(), input.values.size(), input.shape));
    }
    return session.Run(Ort::RunOptions{nullptr}, names.data(), tensors.data(), names.size(),
                       outputs.data(), outputs.size());
}

inline std::vector<float> floatsOf(const Ort::Value& value) {
    const float* data = value.GetTensorData<float>();
    return {data, data + value.GetTensorTypeAndShapeInfo().GetElementCount()};
}

}  // namespace zorv::test
