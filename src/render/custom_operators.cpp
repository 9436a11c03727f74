#include "render/custom_operators.h"

#include "common/mutex.h"

namespace zorv {
namespace {

/// Guards the runtime's table of custom domains, which the creation of a session reads and writes.
Mutex& creationMutex() {
    static Mutex mutex;
    return mutex;
}

}  // namespace

Ort::Session createOperatorSession(const Ort::Env& env, const std::string& path,
                                   const Ort::SessionOptions& options) {
    const MutexLock lock(creationMutex());
    return Ort::Session(env, path.c_str(), options);
}

Ort::Session createOperatorSession(const Ort::Env& env, const void* model, std::size_t bytes,
                                   const Ort::SessionOptions& options) {
    const MutexLock lock(creationMutex());
    return Ort::Session(env, model, bytes, options);
}

}  // namespace zorv
