// Pictures that go out and sound that comes in, one piece after the other.
#pragma once

#include <cstdint>
#include <vector>

namespace zorv::tools {

/// Where finished frames go.
class FrameSink {
  public:
    virtual ~FrameSink() = default;
    /// Takes the next frame, W x H x 3 RGB bytes of the size given at construction.
    virtual void write(const uint8_t* rgb) = 0;
    /// Completes the output; it is unusable without this.
    virtual void finish() {}
};

/// Sound in blocks, for whoever encodes it.
class SoundSource {
  public:
    virtual ~SoundSource() = default;
    virtual int rate() const = 0;  // samples per second and channel
    virtual int channels() const = 0;
    /// Appends the next block of interleaved samples; false when the sound has ended.
    virtual bool read(std::vector<float>& samples) = 0;
};

}  // namespace zorv::tools
