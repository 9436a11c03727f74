// Debug dumps of intermediate arrays as headerless float files.
#pragma once

#include <cstddef>
#include <string>

namespace zorv::motion {

/// Writes into the directory that `ZORV_MOTION_DUMP` named when the engine was created; does
/// nothing when it was unset. A file that cannot be written is reported on standard error and is
/// no failure.
class Dump {
  public:
    enum class Mode { kFresh, kAppend };

    static Dump fromEnvironment();

    bool isOn() const { return !dir_.empty(); }
    /// `name` begins with "/".
    void write(const char* name, const float* data, std::size_t count,
               Mode mode = Mode::kFresh) const;

  private:
    std::string dir_;
};

}  // namespace zorv::motion
