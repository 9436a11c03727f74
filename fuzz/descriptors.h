#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace zorv::fuzz {

/// The process's open files when it was made: one that is left open takes the lowest free number.
/// To be made per input, since the fuzzer opens some of its own between two.
class Descriptors {
  public:
    bool areAsBefore() const { return lowestFree() == first_; }

  private:
    static int lowestFree() {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(fd);
        return fd;
    }

    int first_ = lowestFree();
};

}  // namespace zorv::fuzz
