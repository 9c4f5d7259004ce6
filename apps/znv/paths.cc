#include "apps/znv/paths.h"

#include <cstdlib>

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

}  // namespace znv::cli
