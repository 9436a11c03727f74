// A host of its own for what happens once per process: runs the given steps in order and prints
// what came of them.
//   env=NAME=VALUE    sets a variable           preload[=PATH]   loads the speech encoder
//   stream=DIR        opens an engine, streams a clip, closes it
//   together=DIR      four threads do the same at once
//   tasks             counts the threads of this process
#include <zorv_core.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/audio.h"

namespace {

/// "FRAMES frames HASH" or the error; a stream that fails gives both.
std::string stream(const std::string& dir) {
    zorv_a2x* engine = zorv_a2x_create(dir.c_str(), 1);
    if (!engine) return zorv_a2x_last_error();
    const std::vector<float> audio = zorv::test::speechLike(640 * 60);
    zorv_a2x_reset(engine, 0, 1, 1);
    zorv_a2x_push(engine, audio.data(), static_cast<int>(audio.size()));
    zorv_a2x_finish(engine);
    std::vector<float> src(64 * 63), drv(64 * 63);
    int frames = 0;
    std::uint64_t hash = 0;
    while (zorv_a2x_avail(engine) > 0) {
        const int n = zorv_a2x_pull(engine, nullptr, src.data(), drv.data(), 64);
        for (int i = 0; i < n * 63; ++i) {
            std::uint32_t bits;
            std::memcpy(&bits, &drv[i], sizeof bits);
            hash = hash * 1000003 + bits;
        }
        frames += n;
    }
    zorv_a2x_destroy(engine);
    return std::to_string(frames) + " frames " + std::to_string(hash) + " " + zorv_a2x_last_error();
}

void step(const std::string& verb, const std::string& value) {
    if (verb == "env") {
        const std::size_t equals = value.find('=');
        setenv(value.substr(0, equals).c_str(), value.c_str() + equals + 1, 1);
    } else if (verb == "preload") {
        const int loaded = zorv_a2x_preload_w2v(value == "NULL" ? nullptr : value.c_str());
        std::printf("%d %s\n", loaded, zorv_a2x_last_error());
    } else if (verb == "stream") {
        std::printf("%s\n", stream(value).c_str());
    } else if (verb == "together") {
        std::vector<std::string> results(4);
        std::vector<std::thread> threads;
        for (std::string& result : results) threads.emplace_back([&] { result = stream(value); });
        for (std::thread& thread : threads) thread.join();
        for (const std::string& result : results) std::printf("%s\n", result.c_str());
    } else if (verb == "tasks") {
        const std::filesystem::directory_iterator all("/proc/self/task");
        std::printf("%d\n", static_cast<int>(std::distance(begin(all), end(all))));
    } else {
        std::printf("unknown step %s\n", verb.c_str());
    }
}

}  // namespace

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // in order with standard error
    for (int i = 1; i < count; ++i) {
        const std::string text = arguments[i];
        const std::size_t equals = text.find('=');
        step(text.substr(0, equals), equals == std::string::npos ? "" : text.substr(equals + 1));
    }
}
