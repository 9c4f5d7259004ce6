#include "znv/platform/filesystem.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <dirent.h>

#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "znv/platform/operation_queue.h"
#include "znv/platform/uuid.h"

namespace znv {
namespace {

const char* const kPOSIXErrorDomain = "NSPOSIXErrorDomain";

void setError(ZNVErrorRef* out, ZNVErrorRef error) {
    if (out) *out = std::move(error);
}

ZNVErrorRef refusal(const std::string& path, const std::string& reason) {
    return ZNVError::make(
        NSCocoaErrorDomain, NSFileWriteNoPermissionError,
        {{NSLocalizedDescriptionKey, "the temporary directory \"" + path + "\" " + reason},
         {NSFilePathErrorKey, path}});
}

std::string parentDirectory(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// Closes a descriptor on scope exit.
struct FileDescriptor {
    int fd = -1;
    explicit FileDescriptor(int f) : fd(f) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd >= 0) ::close(fd);
    }
};

int openRetrying(const char* path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

bool syncPath(const std::string& path, bool directory, ZNVErrorRef* error) {
    // O_NONBLOCK: a FIFO planted at the name must not hold the flush up.
    FileDescriptor f(
        openRetrying(path.c_str(), O_RDONLY | O_NONBLOCK | (directory ? O_DIRECTORY : 0)));
    if (f.fd < 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to open", path, false));
        return false;
    }
    if (::fsync(f.fd) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to flush", path, true));
        return false;
    }
    return true;
}

// Copies `source` into a fresh temporary file in `directory` and flushes it;
// returns its path, or "" (with nothing left behind) on failure.
std::string copyBeside(const std::string& source, const std::string& directory,
                       ZNVErrorRef* error) {
    const ZNVRegularFile opened = ZNVOpenRegularFile(source, O_RDONLY);
    FileDescriptor in(opened.fd);
    if (in.fd < 0) {
        setError(error, opened.failure("failed to open", source, false));
        return {};
    }
    std::string pattern = directory + "/.znv-replace-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    FileDescriptor out(::mkostemp(name.data(), O_CLOEXEC));
    std::string temporary(name.data());
    if (out.fd < 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to create", temporary, true));
        return {};
    }
    struct stat st {};
    if (::fstat(in.fd, &st) == 0) ::fchmod(out.fd, st.st_mode & 07777);
    std::vector<char> buffer(1 << 16);
    for (;;) {
        ssize_t n = ::read(in.fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            setError(error, ZNVFileErrorFromErrno(errno, "failed to read", source, false));
            ::unlink(temporary.c_str());
            return {};
        }
        if (n == 0) break;
        if (!ZNVWriteAll(out.fd, buffer.data(), static_cast<size_t>(n))) {
            setError(error, ZNVFileErrorFromErrno(errno, "failed to write", temporary, true));
            ::unlink(temporary.c_str());
            return {};
        }
    }
    if (::fsync(out.fd) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to flush", temporary, true));
        ::unlink(temporary.c_str());
        return {};
    }
    return temporary;
}

std::string executablePath() {
    std::vector<char> buffer(PATH_MAX + 1);
    ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (n <= 0) return {};
    return std::string(buffer.data(), static_cast<size_t>(n));
}

std::mutex gIdentifierMutex;
std::optional<std::string> gApplicationIdentifier;  // guarded by gIdentifierMutex

}  // namespace

ZNVErrorRef ZNVFileErrorFromErrno(int errnum, const std::string& what, const std::string& path,
                                  bool writing) {
    int64_t code;
    switch (errnum) {
        case ENOENT:
        case ENOTDIR:
            code = writing ? NSFileNoSuchFileError : NSFileReadNoSuchFileError;
            break;
        case EACCES:
        case EPERM:
        case EROFS:
            code = writing ? NSFileWriteNoPermissionError : NSFileReadNoPermissionError;
            break;
        case ENOSPC:
        case EDQUOT:
            code = NSFileWriteOutOfSpaceError;
            break;
        case ENAMETOOLONG:
        case EINVAL:
            code = writing ? NSFileWriteInvalidFileNameError : NSFileReadUnknownError;
            break;
        default:
            code = writing ? NSFileWriteUnknownError : NSFileReadUnknownError;
            break;
    }
    char buffer[256];
    const char* reason = ::strerror_r(errnum, buffer, sizeof buffer);
    return ZNVError::make(NSCocoaErrorDomain, code,
                          {{NSLocalizedDescriptionKey, what + " \"" + path + "\": " + reason},
                           {NSFilePathErrorKey, path},
                           {NSUnderlyingErrorKey, ZNVError::make(kPOSIXErrorDomain, errnum)}});
}

std::string ZNVHomeDirectory() {
    if (const char* home = ::getenv("HOME"); home != nullptr && *home != '\0') return home;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    struct passwd entry {};
    struct passwd* result = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &result) == 0 &&
        result != nullptr && result->pw_dir != nullptr) {
        return result->pw_dir;
    }
    return {};
}

std::string ZNVPrivateTemporaryDirectory(ZNVErrorRef* error) {
    std::string base = "/tmp";
    if (const char* tmp = ::getenv("TMPDIR"); tmp != nullptr && *tmp != '\0') base = tmp;
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    const uid_t uid = ::geteuid();
    std::string path = (base == "/" ? "" : base) + "/znv-" + std::to_string(uid);

    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to create", path, true));
        return {};
    }
    // Inspect and fix through a descriptor of the entry itself, so that a
    // swap between the check and the fix cannot redirect the fix elsewhere.
    FileDescriptor dir(openRetrying(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (dir.fd < 0) {
        int saved = errno;
        struct stat st {};
        if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
            setError(error, refusal(path, "is a symbolic link"));
        } else if (saved == ENOTDIR) {
            setError(error, refusal(path, "is not a directory"));
        } else {
            setError(error, ZNVFileErrorFromErrno(saved, "failed to open", path, false));
        }
        return {};
    }
    struct stat st {};
    if (::fstat(dir.fd, &st) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to inspect", path, false));
        return {};
    }
    if (st.st_uid != uid) {
        setError(error, refusal(path, "belongs to another user"));
        return {};
    }
    if ((st.st_mode & 07777) != 0700 && ::fchmod(dir.fd, 0700) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to restrict", path, true));
        return {};
    }
    return path;
}

uint64_t ZNVFreeSpaceAtPath(const std::string& path, ZNVErrorRef* error) {
    struct statvfs fs {};
    if (::statvfs(path.c_str(), &fs) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to read file system attributes of",
                                              path, false));
        return 0;
    }
    return static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_frsize);
}

const std::string& ZNVMainBundlePath() {
    static const std::string path = [] {
        std::string executable = ZNVRealPath(executablePath());
        if (executable.empty()) executable = executablePath();
        return executable.empty() ? std::string("/") : parentDirectory(executable);
    }();
    return path;
}

ZNVURL ZNVMainBundleURL() {
    return ZNVURL::fileURL(ZNVMainBundlePath(), true);
}

bool ZNVSetApplicationIdentifier(const std::string& identifier) {
    if (identifier.empty()) return false;
    std::lock_guard<std::mutex> lock(gIdentifierMutex);
    if (gApplicationIdentifier) return false;
    gApplicationIdentifier = identifier;
    return true;
}

std::string ZNVApplicationIdentifier() {
    {
        std::lock_guard<std::mutex> lock(gIdentifierMutex);
        if (gApplicationIdentifier) return *gApplicationIdentifier;
    }
    std::string executable = executablePath();
    size_t slash = executable.find_last_of('/');
    std::string name = slash == std::string::npos ? executable : executable.substr(slash + 1);
    return name.empty() ? std::string("znv") : name;
}

std::string ZNVRegularFile::reason() const {
    if (error == 0) return "not a regular file";
    char buffer[256];
    return ::strerror_r(error, buffer, sizeof buffer);
}

ZNVErrorRef ZNVRegularFile::failure(const std::string& what, const std::string& path,
                                    bool writing) const {
    if (error != 0) return ZNVFileErrorFromErrno(error, what, path, writing);
    return ZNVError::make(NSCocoaErrorDomain,
                          writing ? NSFileWriteUnknownError : NSFileReadUnknownError,
                          {{NSLocalizedDescriptionKey, what + " \"" + path + "\": " + reason()},
                           {NSFilePathErrorKey, path}});
}

ZNVRegularFile ZNVOpenRegularFile(const std::string& path, int flags, unsigned mode) {
    ZNVRegularFile file;
    const int fd = openRetrying(path.c_str(), flags | O_NONBLOCK, static_cast<mode_t>(mode));
    if (fd < 0) {
        file.error = errno;
        return file;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        file.error = errno;
    } else if (S_ISREG(info.st_mode)) {
        const int status = ::fcntl(fd, F_GETFL);
        if (status < 0 || ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) {
            file.error = errno;
        } else {
            file.fd = fd;
            file.size = static_cast<uint64_t>(info.st_size);
            file.owner = info.st_uid;
            return file;
        }
    }
    ::close(fd);
    return file;
}

bool ZNVWriteAll(int fd, const void* data, size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

std::string ZNVRealPath(const std::string& path) {
    if (path.empty()) return {};
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return {};
    std::string result(resolved);
    ::free(resolved);
    return result;
}

bool ZNVCreateDirectories(const std::string& path, unsigned mode, ZNVErrorRef* error) {
    if (path.empty()) {
        setError(error, ZNVFileErrorFromErrno(ENOENT, "failed to create directory", path, true));
        return false;
    }
    std::string current;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        current = path.substr(0, slash);
        start = slash + 1;
        if (current.empty() || current.back() == '/') continue;
        if (::mkdir(current.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
            setError(error,
                     ZNVFileErrorFromErrno(errno, "failed to create directory", current, true));
            return false;
        }
    }
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        setError(error, ZNVFileErrorFromErrno(ENOTDIR, "failed to create directory", path, true));
        return false;
    }
    return true;
}

namespace {

// Renames `source` over `target`; across file systems through a copy beside
// the target (which the copy flushes). `st` is the source's lstat.
bool moveOver(const std::string& source, const std::string& target, const struct stat& st,
              ZNVErrorRef* error) {
    if (::rename(source.c_str(), target.c_str()) == 0) return true;
    if (errno != EXDEV || !S_ISREG(st.st_mode)) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to replace", target, true));
        return false;
    }
    // Different file systems: rename cannot cross them, so stage a copy
    // beside the target and rename that instead.
    std::string temporary = copyBeside(source, parentDirectory(target), error);
    if (temporary.empty()) return false;
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to replace", target, true));
        ::unlink(temporary.c_str());
        return false;
    }
    ::unlink(source.c_str());
    return true;
}

}  // namespace

bool ZNVReplaceFileDurably(const std::string& source, const std::string& target,
                           ZNVErrorRef* error) {
    struct stat st {};
    if (::lstat(source.c_str(), &st) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to replace with", source, false));
        return false;
    }
    if (S_ISREG(st.st_mode) && !syncPath(source, false, error)) return false;
    if (!moveOver(source, target, st, error)) return false;
    return syncPath(parentDirectory(target), true, error);
}

bool ZNVMoveFile(const std::string& source, const std::string& target, ZNVErrorRef* error) {
    struct stat st {};
    if (::lstat(source.c_str(), &st) != 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to replace with", source, false));
        return false;
    }
    return moveOver(source, target, st, error);
}

bool ZNVFlushToDisk(const std::string& path, ZNVErrorRef* error) {
    return syncPath(path, false, error);
}

namespace {

constexpr const char kRemovingPrefix[] = ".znv-removing-";

// Never destroyed: removals still queued at exit leave hidden entries that a
// later process sweeps.
ZNVOperationQueue& removalQueue() {
    static auto* queue = new ZNVOperationQueue("com.znv.file-removal");
    return *queue;
}

// Whether `directory` is seen for the first time by this process.
bool firstRemovalIn(const std::string& directory) {
    // Never destroyed, like the queue: a thread may still remove a file while
    // the process runs its exit handlers.
    struct Seen {
        std::mutex mutex;
        std::set<std::string> directories;  // guarded by mutex
    };
    static auto* seen = new Seen;
    std::lock_guard lock(seen->mutex);
    return seen->directories.insert(directory).second;
}

void sweepHiddenEntries(const std::string& directory) {
    DIR* dir = ::opendir(directory.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(dir)) {
        if (::strncmp(entry->d_name, kRemovingPrefix, sizeof kRemovingPrefix - 1) == 0) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    for (const auto& name : names)
        ::unlink((directory + "/" + name).c_str());
}

}  // namespace

bool ZNVRemoveFileInBackground(const std::string& path, ZNVErrorRef* error) {
    if (error) *error = nullptr;
    const size_t slash = path.rfind('/');
    const std::string directory =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    const std::string hidden =
        (directory == "/" ? "" : directory) + "/" + kRemovingPrefix + ZNVUUIDString();
    if (::rename(path.c_str(), hidden.c_str()) != 0) {
        if (errno == ENOENT) return true;
        if (error) *error = ZNVFileErrorFromErrno(errno, "failed to remove", path, true);
        return false;
    }
    const bool sweep = firstRemovalIn(directory);
    removalQueue().addOperation([hidden, directory, sweep] {
        ::unlink(hidden.c_str());
        if (sweep) sweepHiddenEntries(directory);
    });
    return true;
}

}  // namespace znv
