#include "apps/znv/embedded.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "apps/znv/names.h"
#include "apps/znv/paths.h"
#include "apps/znv/signals.h"
#include "znv/platform/filesystem.h"

namespace znv::cli {
namespace {

uint16_t readRememberedPort(const std::string& dataDir) {
    std::istringstream in(readRegularFile(dataDir + ".port").value_or(""));
    unsigned port = 0;
    if (!(in >> port) || port == 0 || port > 65535) return 0;
    return static_cast<uint16_t>(port);
}

// 128 random bits in hex; empty when the kernel has no randomness to give.
std::string randomToken() {
    unsigned char bytes[16];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return {};
        got += static_cast<size_t>(n);
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char byte : bytes) {
        token += kHex[byte >> 4];
        token += kHex[byte & 15];
    }
    return token;
}

}  // namespace

EmbeddedEmulator::~EmbeddedEmulator() {
    stop();
}

std::string EmbeddedEmulator::rememberedBaseURL(const std::string& dataDir) {
    uint16_t port = readRememberedPort(dataDir);
    if (port == 0) return {};
    return "http://127.0.0.1:" + std::to_string(port) + "/api/";
}

bool EmbeddedEmulator::start(const std::string& dataDir, const std::string& token, uint16_t port,
                             uint64_t maxFullFileBytes, std::string* error, bool wait) {
    stop();
    std::string parent = std::filesystem::path(dataDir).parent_path().string();
    if (std::string problem = ensureDirectory(parent.empty() ? "." : parent); !problem.empty()) {
        *error = problem;
        return false;
    }
    std::string lockPath = dataDir + ".lock";
    lockFd_ =
        ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (lockFd_ < 0) {
        *error = "cannot open " + lockPath + ": " + std::strerror(errno);
        return false;
    }
    if (wait && ::flock(lockFd_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        std::fprintf(stderr, "znv: waiting for the emulator data in %s ...\n",
                     escapeControls(dataDir).c_str());
        waitForLock(lockFd_, LOCK_EX, "the emulator data");
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        ::close(lockFd_);
        lockFd_ = -1;
        *error =
            "another znv is using the emulator data in " + dataDir + " (stop it, or pass --server)";
        return false;
    }

    emulator::EmulatorOptions options;
    options.dataDir = dataDir;
    options.token = token;
    options.adminToken = randomToken();
    if (options.adminToken.empty()) {
        stop();
        *error =
            "cannot make an admin token for the emulator: " + std::string(std::strerror(errno));
        return false;
    }
    options.maxFullFileBytes = maxFullFileBytes;
    uint16_t remembered = port == 0 ? readRememberedPort(dataDir) : 0;
    std::string startError;
    if (remembered != 0) {
        options.port = remembered;
        emulator_ = std::make_unique<emulator::Emulator>(options);
        if (!emulator_->start(&startError)) emulator_.reset();
    }
    if (!emulator_) {
        options.port = port;
        emulator_ = std::make_unique<emulator::Emulator>(options);
        if (!emulator_->start(&startError)) {
            emulator_.reset();
            stop();
            *error = "cannot start the emulator: " + startError;
            return false;
        }
    }
    dataDir_ = dataDir;
    adminToken_ = options.adminToken;
    // Remembered for the next start; a link or anything but a regular file
    // at the name (the data directory may lie where others can write) is
    // neither followed nor waited on.
    const ZNVRegularFile portFile =
        ZNVOpenRegularFile(dataDir + ".port", O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    if (portFile.fd >= 0) {
        const std::string text = std::to_string(emulator_->port()) + "\n";
        (void)ZNVWriteAll(portFile.fd, text.data(), text.size());
        ::close(portFile.fd);
    }
    return true;
}

void EmbeddedEmulator::stop() {
    if (emulator_) emulator_->stop();
    emulator_.reset();
    adminToken_.clear();
    if (lockFd_ >= 0) {
        ::close(lockFd_);
        lockFd_ = -1;
    }
}

}  // namespace znv::cli
