#include "motion/motion_dump.h"

#include <cstdio>
#include <cstdlib>

#include "common/log.h"

namespace zorv::motion {

Dump Dump::fromEnvironment() {
    Dump dump;
    if (const char* dir = std::getenv("ZORV_MOTION_DUMP")) dump.dir_ = dir;
    return dump;
}

void Dump::write(const char* name, const float* data, std::size_t count, Mode mode) const {
    if (!isOn()) return;
    const std::string path = dir_ + name;
    std::FILE* file = std::fopen(path.c_str(), mode == Mode::kFresh ? "wb" : "ab");
    const std::size_t written =
        file && count > 0 ? std::fwrite(data, sizeof(float), count, file) : 0;
    const bool closed = file && std::fclose(file) == 0;
    if (!closed || written != count) {
        logLine("[zorv_motion] cannot write %s", path.c_str());
    }
}

}  // namespace zorv::motion
