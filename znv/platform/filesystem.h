// File-system facilities the library stands on: the home directory, a private
// temporary directory, free space, the running program's directory and
// identifier, and a durable atomic replacement of one file by another.
//
// Contract
// - Free functions, callable from any thread. Failures are values: functions
//   that can fail return "" / 0 / false and fill the optional error
//   out-parameter with an NSCocoaErrorDomain error whose message names the
//   path, and whose user info carries NSFilePathErrorKey and the POSIX error
//   as NSUnderlyingErrorKey (domain "NSPOSIXErrorDomain", code errno).
// - Nothing here reads settings beyond the process environment's HOME and
//   TMPDIR, which stand for the user's home and temporary directories.
#pragma once

#include <cstdint>
#include <string>

#include "znv/platform/error.h"
#include "znv/platform/url.h"

namespace znv {

// $HOME when set and non-empty, else the password database's entry for the
// effective user; "" when neither is known.
std::string ZNVHomeDirectory();

// The per-user private temporary directory "${TMPDIR:-/tmp}/znv-<uid>",
// created with mode 0700 when missing. The shared temporary directory is not
// private, so an existing entry is refused ("" and an error) when it is a
// symbolic link, not a directory, or owned by another user; a directory of
// ours with a wider mode is narrowed to 0700. Checked on every call.
std::string ZNVPrivateTemporaryDirectory(ZNVErrorRef* error = nullptr);

// Bytes available to an unprivileged user on the file system holding `path`;
// 0 when its attributes cannot be read.
uint64_t ZNVFreeSpaceAtPath(const std::string& path, ZNVErrorRef* error = nullptr);

// The directory that holds the running executable (symbolic links resolved),
// as a path and as a directory file URL. Stands in for the application bundle.
const std::string& ZNVMainBundlePath();
ZNVURL ZNVMainBundleURL();

// The application's identifier: the host sets it once, before the library
// needs it; until then it is the executable's file name. Returns false (and
// changes nothing) when it was already set or `identifier` is empty.
bool ZNVSetApplicationIdentifier(const std::string& identifier);
std::string ZNVApplicationIdentifier();

// The path with every symbolic link, "." and ".." resolved; "" when it names
// nothing.
std::string ZNVRealPath(const std::string& path);

// An existing regular file opened by ZNVOpenRegularFile, or why it was not.
struct ZNVRegularFile {
    int fd = -1;         // owned by the caller; -1 on failure
    int error = 0;       // errno of the failed call; 0 when the entry is not a regular file
    uint64_t size = 0;   // the file's size when it was opened
    unsigned owner = 0;  // the file's owner (uid)
    bool notRegular() const { return fd < 0 && error == 0; }
    // "not a regular file", or the text of `error`.
    std::string reason() const;
    // The failure as ZNVFileErrorFromErrno makes it: "<what> \"<path>\": <reason>".
    ZNVErrorRef failure(const std::string& what, const std::string& path, bool writing) const;
};

// Opens `path` (`flags`: the access mode and any of O_CREAT, O_NOFOLLOW,
// O_APPEND, O_TRUNC; close-on-exec always) only if it is a regular file,
// without ever waiting on anything else at the name: opening a FIFO waits
// for its other end, for ever if nobody comes. The file is opened with
// O_NONBLOCK, refused unless fstat finds a regular file (a FIFO, device,
// socket or directory is closed again), then set back to blocking.
ZNVRegularFile ZNVOpenRegularFile(const std::string& path, int flags, unsigned mode = 0);

// Writes all `size` bytes to `fd`, retrying interrupted and short writes;
// false with errno set (EIO when the file took nothing) on failure.
bool ZNVWriteAll(int fd, const void* data, size_t size);

// Creates a directory and its missing parents with `mode` (an existing
// directory is success).
bool ZNVCreateDirectories(const std::string& path, unsigned mode = 0755,
                          ZNVErrorRef* error = nullptr);

// Moves `source` over `target` in one step and makes the result durable: the
// source's data is flushed, it is renamed over the target (which need not
// exist) and the target's directory is flushed, so after a crash the target
// holds either its old content or the complete new one. Across file systems
// the source is copied into a temporary file beside the target first, renamed
// over it and then removed; no temporary file is left behind on failure.
bool ZNVReplaceFileDurably(const std::string& source, const std::string& target,
                           ZNVErrorRef* error = nullptr);

// Moves `source` over `target` like ZNVReplaceFileDurably but flushes
// nothing: the caller makes the result durable later (ZNVFlushToDisk on the
// target and its directory) when it can wait for the disk.
bool ZNVMoveFile(const std::string& source, const std::string& target,
                 ZNVErrorRef* error = nullptr);

// Waits until the data of the file or directory at `path` is on disk.
bool ZNVFlushToDisk(const std::string& path, ZNVErrorRef* error = nullptr);

// Removes a file without making the caller wait while its blocks are freed
// (a freshly written body of tens of megabytes takes milliseconds to unlink):
// the file leaves its name at once, renamed to a hidden ".znv-removing-..."
// entry of the same directory, and a background thread unlinks it. Hidden
// entries left by a process that ended first are removed with the first
// background removal in their directory. A missing file is success; a failed
// rename returns false with the error and removes nothing.
bool ZNVRemoveFileInBackground(const std::string& path, ZNVErrorRef* error = nullptr);

// An NSCocoaErrorDomain error for a failed POSIX call on `path`:
// "<what> \"<path>\": <strerror>", with a code that tells missing files,
// permissions, full disks and bad names apart (read or write codes).
ZNVErrorRef ZNVFileErrorFromErrno(int errnum, const std::string& what, const std::string& path,
                                  bool writing);

}  // namespace znv
