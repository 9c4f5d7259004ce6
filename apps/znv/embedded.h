// The storage service emulator as znv runs it: inside the znv process when no
// --server is given, or in the foreground with `znv emulator`.
//
// - One data directory is used by one emulator at a time: `start` takes an
//   exclusive lock on "<dataDir>.lock" and fails with a message naming the
//   problem when another process holds it (or waits for it, when asked to).
// - The port is remembered in "<dataDir>.port" and tried first next time, so
//   content URLs and queued downloads keep working across runs; when it is
//   taken, any free loopback port is used.
// - Each start makes a fresh random admin token (`adminToken`), so no other
//   local user can read the request log (tokens, file IDs) or add fault rules;
//   znv itself reads the log in-process through `emulator()`.
// Owned by the main thread; destruction stops the emulator and drops the lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "apps/emulator/emulator.h"

namespace znv::cli {

class EmbeddedEmulator {
  public:
    EmbeddedEmulator() = default;
    ~EmbeddedEmulator();
    EmbeddedEmulator(const EmbeddedEmulator&) = delete;
    EmbeddedEmulator& operator=(const EmbeddedEmulator&) = delete;

    // `port` 0: the remembered port if free, else any. With `wait`, a data
    // directory in use is waited for (SIGINT or SIGTERM end the process
    // meanwhile, with status 130 or 143) instead of refused.
    bool start(const std::string& dataDir, const std::string& token, uint16_t port,
               uint64_t maxFullFileBytes, std::string* error, bool wait = false);
    void stop();

    bool running() const { return emulator_ != nullptr; }
    std::string baseURL() const { return emulator_ ? emulator_->baseURL() : std::string(); }
    uint16_t port() const { return emulator_ ? emulator_->port() : 0; }
    const std::string& dataDir() const { return dataDir_; }
    // The token of this run's admin endpoints ("" when not running).
    const std::string& adminToken() const { return adminToken_; }
    emulator::Emulator* emulator() const { return emulator_.get(); }

    // The base URL the emulator of `dataDir` had last time ("" when unknown).
    static std::string rememberedBaseURL(const std::string& dataDir);

  private:
    std::unique_ptr<emulator::Emulator> emulator_;
    std::string dataDir_;
    std::string adminToken_;
    int lockFd_ = -1;
};

}  // namespace znv::cli
