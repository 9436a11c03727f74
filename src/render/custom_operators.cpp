#include "render/custom_operators.h"

#include <mutex>

namespace zorv {
namespace {

std::mutex& creationMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

Ort::Session createOperatorSession(const Ort::Env& env, const std::string& path,
                                   const Ort::SessionOptions& options) {
    const std::lock_guard lock(creationMutex());
    return Ort::Session(env, path.c_str(), options);
}

Ort::Session createOperatorSession(const Ort::Env& env, const void* model, std::size_t bytes,
                                   const Ort::SessionOptions& options) {
    const std::lock_guard lock(creationMutex());
    return Ort::Session(env, model, bytes, options);
}

}  // namespace zorv
