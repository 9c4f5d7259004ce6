#include "apps/znv/paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "znv/platform/filesystem.h"

namespace znv::cli {
namespace {

std::string xdgDirectory(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] == '/') return std::string(value) + "/znv";
    return ZNVHomeDirectory() + "/" + fallback + "/znv";
}

}  // namespace

std::string dataDirectory() {
    return xdgDirectory("XDG_DATA_HOME", ".local/share");
}
std::string stateDirectory() {
    return xdgDirectory("XDG_STATE_HOME", ".local/state");
}
std::string emulatorDataDirectory() {
    return dataDirectory() + "/emulator";
}
std::string logFilePath() {
    return stateDirectory() + "/znv.log";
}

std::string ensureDirectory(const std::string& path) {
    ZNVErrorRef error;
    if (ZNVCreateDirectories(path, 0700, &error)) return {};
    return error ? error->localizedDescription() : "cannot create " + path;
}

std::optional<std::string> readRegularFile(const std::string& path, std::string* problem) {
    std::string ignored;
    std::string& why = problem ? *problem : ignored;
    why.clear();
    const ZNVRegularFile file = ZNVOpenRegularFile(path, O_RDONLY | O_NOFOLLOW);
    if (file.fd < 0) {
        if (file.error != ENOENT) why = "cannot read " + path + ": " + file.reason();
        return std::nullopt;
    }
    std::string text(file.size, '\0');
    size_t done = 0;
    for (;;) {
        if (done == text.size()) text.resize(text.size() + 4096);  // it grew meanwhile
        const ssize_t n = ::read(file.fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n < 0) why = "cannot read " + path + ": " + std::strerror(errno);
            break;
        }
        done += static_cast<size_t>(n);
    }
    ::close(file.fd);
    if (!why.empty()) return std::nullopt;
    text.resize(done);
    return text;
}

}  // namespace znv::cli
