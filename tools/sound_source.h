// Sound in blocks, for whoever encodes it.
#pragma once

#include <vector>

namespace zorv::tools {

class SoundSource {
  public:
    virtual ~SoundSource() = default;
    virtual int rate() const = 0;  // samples per second and channel
    virtual int channels() const = 0;
    /// Appends the next block of interleaved samples; false when the sound has ended.
    virtual bool read(std::vector<float>& samples) = 0;
};

}  // namespace zorv::tools
