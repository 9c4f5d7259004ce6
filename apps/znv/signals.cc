#include "apps/znv/signals.h"

#include <signal.h>

#include <cerrno>
#include <ctime>

namespace znv::cli {
namespace {

sigset_t terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void blockTerminationSignals() {
    sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A reader that goes away (znv ... | head) must not kill the process
    // before it saves; writes then fail with EPIPE instead.
    signal(SIGPIPE, SIG_IGN);
}

int waitForTerminationSignal(std::chrono::milliseconds timeout) {
    sigset_t set = terminationSignals();
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) left = std::chrono::nanoseconds(0);
        timespec wait{static_cast<time_t>(left.count() / 1000000000),
                      static_cast<long>(left.count() % 1000000000)};
        int signal = sigtimedwait(&set, nullptr, &wait);
        if (signal > 0) return signal;
        if (errno == EINTR && std::chrono::steady_clock::now() < deadline) continue;
        return 0;
    }
}

int exitStatusForSignal(int signal) {
    return 128 + signal;
}

}  // namespace znv::cli
