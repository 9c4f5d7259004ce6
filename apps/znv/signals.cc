#include "apps/znv/signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

// Made by blockTerminationSignals before any thread exists, never closed;
// -1 when the kernel refused (the wait then only sleeps and cannot be woken).
int gSignals = -1;
int gWake = -1;

int waitWithSigtimedwait(std::chrono::milliseconds timeout) {
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

}  // namespace

void blockTerminationSignals() {
    sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A reader that goes away (znv ... | head) must not kill the process
    // before it saves; writes then fail with EPIPE instead.
    signal(SIGPIPE, SIG_IGN);
    if (gSignals < 0) {
        gSignals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        gWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
}

int waitForTerminationSignal(std::chrono::milliseconds timeout) {
    if (gSignals < 0 || gWake < 0) return waitWithSigtimedwait(timeout);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // A signal that is already pending is taken before any wake-up.
        signalfd_siginfo info{};
        if (::read(gSignals, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
            return static_cast<int>(info.ssi_signo);
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
        if (left.count() <= 0) return 0;
        pollfd fds[2] = {{gSignals, POLLIN, 0}, {gWake, POLLIN, 0}};
        int ready = ::poll(fds, 2, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) return waitWithSigtimedwait(left);
        if (ready > 0 && (fds[1].revents & POLLIN)) {
            uint64_t count = 0;
            (void)!::read(gWake, &count, sizeof count);
            // A signal that came with the wake-up is still taken first.
            if (::read(gSignals, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
                return static_cast<int>(info.ssi_signo);
            return 0;
        }
    }
}

void wakeTerminationWait() {
    if (gWake < 0) return;
    const uint64_t one = 1;
    (void)!::write(gWake, &one, sizeof one);
}

int exitStatusForSignal(int signal) {
    return 128 + signal;
}

bool waitForLock(int fd, int operation, const std::string& what,
                 std::optional<std::chrono::steady_clock::time_point> until) {
    while (::flock(fd, operation | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) return false;
        if (until && std::chrono::steady_clock::now() >= *until) return false;
        if (int signal = waitForTerminationSignal(std::chrono::milliseconds(until ? 20 : 100));
            signal != 0) {
            std::fprintf(stderr, "znv: interrupted while waiting for %s\n", what.c_str());
            std::fflush(stderr);
            std::_Exit(exitStatusForSignal(signal));
        }
    }
    return true;
}

}  // namespace znv::cli
