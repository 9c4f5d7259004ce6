// Ctrl-C and SIGTERM for a program full of library threads.
//
// `blockTerminationSignals` must run first in main, before any thread exists:
// it blocks SIGINT and SIGTERM in the calling thread, and every thread started
// afterwards inherits the mask, so the signals stay pending until the main
// loop collects them with `waitForTerminationSignal` (which doubles as the
// loop's clock). No handler runs at an arbitrary point of library code.
// `wakeTerminationWait`, from any thread, ends the current (or the next) wait
// early, so the loop need not sleep out its clock when there is news.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace znv::cli {

void blockTerminationSignals();
// Waits up to `timeout`; returns SIGINT or SIGTERM if one arrived, else 0.
int waitForTerminationSignal(std::chrono::milliseconds timeout);
void wakeTerminationWait();
// The conventional exit status for a program ended by `signal` (130, 143).
int exitStatusForSignal(int signal);

// Takes the flock `operation` (LOCK_EX or LOCK_SH) on `fd`, waiting while
// another process holds it: true once taken, false when the lock fails
// otherwise or `until` has passed. SIGINT or SIGTERM meanwhile end the
// process (130 or 143) after "znv: interrupted while waiting for <what>".
bool waitForLock(int fd, int operation, const std::string& what,
                 std::optional<std::chrono::steady_clock::time_point> until = std::nullopt);

}  // namespace znv::cli
