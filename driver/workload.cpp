#include "workload.h"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>

namespace zorv::driver {

std::vector<int16_t> spokenSound(int seconds) {
    std::vector<int16_t> sound;
    for (int i = 0; i < seconds * 16000; ++i) {
        const double t = i / 16000.0;
        const double level = std::fmod(t, 3.0) < 2.4 ? std::max(0.0, std::sin(8 * M_PI * t)) : 0;
        double voice = 0;
        for (int h = 1; h <= 12; ++h) voice += std::sin(2 * M_PI * 130 * h * t) / h;
        sound.push_back(static_cast<int16_t>(5000 * level * voice));
    }
    return sound;
}

double cpuSeconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace zorv::driver
