#include "utt/wake_up.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace zorv {

WakeUp::~WakeUp() {
    for (const Signal& signal : signals_) {
        if (signal.fd >= 0) ::close(signal.fd);
    }
}

int WakeUp::descriptor(int mask) {
    Signal& signal = signals_[static_cast<std::size_t>(mask)];
    if (signal.fd < 0) {
        signal.fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (signal.fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
        update(mask);
    }
    return signal.fd;
}

void WakeUp::set(int ready) {
    if (ready == ready_) return;
    ready_ = ready;
    for (int mask = 1; mask <= 3; ++mask) update(mask);
}

void WakeUp::update(int mask) {
    Signal& signal = signals_[static_cast<std::size_t>(mask)];
    const bool up = (ready_ & mask) != 0;
    if (signal.fd < 0 || signal.up == up) return;
    // Neither can fail: the counter goes from 0 to 1 and back, and never blocks.
    eventfd_t count = 0;
    if ((up ? ::eventfd_write(signal.fd, 1) : ::eventfd_read(signal.fd, &count)) == 0) {
        signal.up = up;
    }
}

}  // namespace zorv
