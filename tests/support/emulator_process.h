// The emulator as a child process of its own (the `znv-emulator` built beside
// the tests), for tests and benchmarks that must keep its sockets, threads and
// memory out of their own process: faults acting on connections, peak memory
// of a transfer, throughput next to another client.
//
// Made and destroyed on one thread. The constructor returns once the emulator
// listens (or has failed to start: `running()` is then false); the destructor
// stops it with SIGTERM and waits for it.
#pragma once

#include <sys/types.h>

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

  private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// A loopback port on which nothing listens (bound once, then released).
int closedPort();

}  // namespace znv::test
