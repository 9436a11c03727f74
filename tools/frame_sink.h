// Where finished frames go.
#pragma once

#include <cstdint>

namespace zorv::tools {

class FrameSink {
  public:
    virtual ~FrameSink() = default;
    /// Takes the next frame, W x H x 3 RGB bytes of the size given at construction.
    virtual void write(const uint8_t* rgb) = 0;
    /// Completes the output; it is unusable without this.
    virtual void finish() {}
};

}  // namespace zorv::tools
