#include "apps/znv/binding.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "apps/znv/names.h"
#include "apps/znv/paths.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"

namespace znv::cli {
namespace {

std::string libraryFile(const std::string& profile, const std::string& suffix) {
    auto url = ZNVNetworkUtilities_libraryURLWithFileName(profileIdentifier(profile) + suffix);
    return url ? url->path() : std::string();
}

std::string describe(const std::string& server) {
    return server == kBuiltInServer ? std::string("the built-in emulator") : server;
}

}  // namespace

std::string profileIdentifier(const std::string& profile) {
    return profile.empty() ? std::string("live") : profile;
}

std::string stateFilePath(const std::string& profile) {
    return libraryFile(profile, ".state");
}

std::string bindingFilePath(const std::string& profile) {
    return libraryFile(profile, ".server");
}

std::string boundServer(const std::string& profile) {
    // Anything but a regular file there binds nothing (and is replaced when
    // the profile is bound).
    const std::string text = readRegularFile(bindingFilePath(profile)).value_or("");
    return text.substr(0, text.find('\n'));
}

std::string bindProfile(const std::string& profile, const std::string& server) {
    std::string bound = boundServer(profile);
    if (bound == server) return {};
    std::string name = profileIdentifier(profile);
    if (!bound.empty()) {
        std::string use =
            bound == kBuiltInServer ? std::string("leave out --server") : "use --server " + bound;
        return escapeControls("profile \"" + name + "\" is bound to " + describe(bound) +
                              ", not to " + describe(server) + "; " + use +
                              ", or give this server a queue of its own with --profile NAME");
    }
    std::string path = bindingFilePath(profile);
    ZNVErrorRef error;
    if (path.empty() ||
        !ZNVCreateDirectories(std::filesystem::path(path).parent_path().string(), 0700, &error)) {
        return "cannot remember the server of profile \"" + name + "\"";
    }
    // Written under a name of this process's own, then linked into place only
    // if no binding appeared meanwhile: of two first uses at once, one binds
    // and the other sees that binding (and is refused if it names another
    // server), instead of both going on with the one queue.
    std::string temporary = path + ".tmp-" + std::to_string(::getpid());
    const auto failed = [&](int error) {
        ::unlink(temporary.c_str());
        return "cannot write " + path + ": " + std::strerror(error);
    };
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return failed(errno);
    std::string line = server + "\n";
    const bool written =
        ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
        ::fsync(fd) == 0;
    const int writeError = errno;
    ::close(fd);
    if (!written) return failed(writeError ? writeError : EIO);
    if (::link(temporary.c_str(), path.c_str()) != 0) {
        if (errno != EEXIST) return failed(errno);
        // Bound meanwhile: that binding decides (read again, once).
        if (!boundServer(profile).empty()) {
            ::unlink(temporary.c_str());
            return bindProfile(profile, server);
        }
        // What is there names no server (an empty file, a link, a FIFO):
        // this binding takes its place. Of two first uses doing so at once,
        // the one whose binding is not the one left is refused, as above.
        if (::rename(temporary.c_str(), path.c_str()) != 0) return failed(errno);
        const std::string bound = boundServer(profile);
        if (bound == server) return {};
        return bound.empty() ? failed(EIO) : bindProfile(profile, server);
    }
    ::unlink(temporary.c_str());
    return {};
}

}  // namespace znv::cli
