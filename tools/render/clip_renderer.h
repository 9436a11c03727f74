// A clip of speech becomes frames: one implementation per way through the library.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "render_command.h"

namespace zorv::tools {

class ClipRenderer {
  public:
    /// Takes the next frame, width x height x 3 RGB bytes. An exception ends the run.
    using OnFrame = std::function<void(const uint8_t* rgb)>;

    virtual ~ClipRenderer() = default;
    virtual int width() const = 0;
    virtual int height() const = 0;

    /// Renders one frame per started 640 samples and hands over all but the first
    /// RenderOptions::skipFrames, in order. Returns the frames handed over; fewer than there are
    /// means that `error()` says why.
    virtual int run(const std::vector<float>& samples, const OnFrame& onFrame) = 0;
    virtual std::string error() const = 0;
};

/// What `--engine NAME` stands for.
struct Engine {
    const char* name;
    /// Fails when the options that this engine needs are missing, or others are given.
    void (*check)(const RenderOptions& options);
    std::unique_ptr<ClipRenderer> (*open)(const RenderOptions& options);
};

/// The engine of that name; fails when there is none.
const Engine& findEngine(const std::string& name);
std::vector<std::string> engineNames();

/// Threads for the models: as asked for, else (0) one per processor.
int modelThreads(int asked);

/// Of the expression engine: the encoder that the environment names.
std::unique_ptr<ClipRenderer> openExpressionRenderer(const RenderOptions& options);
std::unique_ptr<ClipRenderer> openMotionRenderer(const RenderOptions& options);

/// Engine "fca": the library's batch stream does everything.
std::unique_ptr<ClipRenderer> openStreamRenderer(const RenderOptions& options);

}  // namespace zorv::tools
