#include "interrupt.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "failure.h"
#include "output_guard.h"
#include "progress.h"

namespace zorv::tools {
namespace {

std::atomic<bool> interrupted{false};
std::atomic<bool> reported{false};

// A thread of its own waits for the signals, so that cleaning up may use ordinary code.
void watch(sigset_t signals) {
    int number = 0;
    while (sigwait(&signals, &number) != 0) {
    }
    interrupted = true;
    const timespec patience = {2, 0};
    while (sigtimedwait(&signals, nullptr, &patience) < 0 && errno == EINTR) {
    }
    removeUnfinishedOutput();
    reportInterruption();
    _exit(kInterruptedExitCode);
}

}  // namespace

void startInterruptHandling() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current = {};
        sigaction(number, nullptr, &current);
        if (current.sa_handler != SIG_IGN) sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread(watch, signals).detach();
}

void throwIfInterrupted() {
    if (interrupted) throw Interrupted();
}

void reportInterruption() {
    if (reported.exchange(true)) return;
    Progress::clearLine();
    std::fputs("zorv: interrupted, nothing was written; run the command again to start over\n",
               stderr);
}

}  // namespace zorv::tools
