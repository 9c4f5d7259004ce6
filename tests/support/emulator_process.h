// The emulator as a child process of its own (the `znv-emulator` built beside
// the tests), for tests and benchmarks that must keep its sockets, threads and
// memory out of their own process: faults acting on connections, peak memory
// of a transfer, throughput next to another client.
//
// Made and destroyed on one thread. The constructor returns once the emulator
// listens (or has failed to start: `running()` is then false); the destructor
// stops it with SIGTERM and waits for it, unless `stop` already did.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace znv::test {

class EmulatorProcess {
  public:
    // Starts `znv-emulator --port 0` followed by `arguments` (for example
    // {"--fault", "<rule JSON>"} or {"--data", dir}).
    explicit EmulatorProcess(const std::vector<std::string>& arguments = {});
    ~EmulatorProcess();
    EmulatorProcess(const EmulatorProcess&) = delete;
    EmulatorProcess& operator=(const EmulatorProcess&) = delete;

    bool running() const { return port_ != 0; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string baseURL() const;  // "http://127.0.0.1:<port>/api/"
    // The first line the emulator printed, as it stands.
    const std::string& firstLine() const { return firstLine_; }

    // Sends `signal` and returns the exit status (128 + signal number if a
    // signal ended it; 0 if something else already reaped it), or -1 if it
    // does not end within `timeout`. The destructor stops it the same way,
    // within 20 s, and kills it (a test failure) when it does not end.
    int stop(int signal, std::chrono::milliseconds timeout);
    // Peak resident memory of the emulator (VmHWM), in bytes; 0 if unknown.
    uint64_t peakRSS() const;
    // Processor time the emulator has used so far (user and system), in
    // seconds; 0 if unknown.
    double cpuSeconds() const;

  private:
    pid_t pid_ = -1;
    int port_ = 0;
    std::string firstLine_;
};

// A loopback port on which nothing listens (bound once, then released).
int closedPort();

}  // namespace znv::test
