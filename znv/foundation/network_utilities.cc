#include "znv/foundation/network_utilities.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/unicode.h"
#include "znv/platform/filesystem.h"

namespace znv {
namespace {

// Reads at least this large drop their pages from the cache afterwards.
constexpr size_t kUncachedReadThreshold = size_t{8} << 20;

constexpr size_t kMaximumBaseNameUTF16Length = 100;
constexpr int64_t kReadUnsupportedSchemeError = 262;  // NSFileReadUnsupportedSchemeError

void setError(ZNVErrorRef* out, ZNVErrorRef error) {
    if (out) *out = std::move(error);
}

// Characters kept in a sanitised file name.
enum class NameClass { Kept, KeptOrHyphen };

bool isInClass(char32_t codePoint, NameClass nameClass) {
    if (codePoint == '.') return true;
    if (codePoint == '-') return nameClass == NameClass::KeptOrHyphen;
    return codePoint != ZNVInvalidCodePoint && ZNVUnicodeIsAlphanumeric(codePoint);
}

// `text` without the characters outside the class; malformed bytes are dropped.
std::string keepOnly(std::string_view text, NameClass nameClass) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const ZNVDecodedCodePoint decoded = ZNVDecodeUTF8(text, i);
        if (isInClass(decoded.codePoint, nameClass)) out.append(text.substr(i, decoded.length));
        i += decoded.length;
    }
    return out;
}

bool hasLetterOrDigit(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const ZNVDecodedCodePoint decoded = ZNVDecodeUTF8(text, i);
        if (decoded.codePoint != ZNVInvalidCodePoint &&
            ZNVUnicodeIsAlphanumeric(decoded.codePoint)) {
            return true;
        }
        i += decoded.length;
    }
    return false;
}

// The longest prefix of at most `limit` UTF-16 units that ends on a character
// boundary (a character outside the Basic Multilingual Plane, two units, is
// never split).
std::string_view prefixOfUTF16Length(std::string_view text, size_t limit) {
    size_t units = 0;
    size_t i = 0;
    while (i < text.size()) {
        const ZNVDecodedCodePoint decoded = ZNVDecodeUTF8(text, i);
        const size_t width = ZNVUTF16Length(decoded.codePoint);
        if (units + width > limit) break;
        units += width;
        i += decoded.length;
    }
    return text.substr(0, i);
}

// The extension after the last "." of the last path component; none when the
// component starts with its only "." or ends with the ".".
std::string_view pathExtension(std::string_view name) {
    const size_t slash = name.rfind('/');
    const std::string_view last = slash == std::string_view::npos ? name : name.substr(slash + 1);
    const size_t dot = last.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == last.size()) return {};
    return last.substr(dot + 1);
}

// The path with symbolic links resolved as far as it exists: the deepest
// existing ancestor is resolved and the rest is appended as written.
std::string resolvingSymlinks(const std::string& path) {
    std::string head = path;
    std::string tail;
    while (!head.empty()) {
        std::string resolved = ZNVRealPath(head);
        if (!resolved.empty()) {
            if (tail.empty()) return resolved;
            return resolved == "/" ? "/" + tail : resolved + "/" + tail;
        }
        const size_t slash = head.rfind('/');
        if (slash == std::string::npos) break;
        const std::string component = head.substr(slash + 1);
        tail = tail.empty() ? component : component + "/" + tail;
        head = slash == 0 ? std::string("/") : head.substr(0, slash);
    }
    return path;
}

bool pathExists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

std::optional<std::string> ZNVNetworkUtilities_stringFromIndices(const ZNVIndexSet& indices) {
    if (indices.empty()) return std::nullopt;
    std::string text;
    bool first = true;
    for (const ZNVIndexSet::Range& range : indices.ranges()) {
        for (uint64_t k = 0; k < range.length; ++k) {
            if (!first) text += ", ";
            first = false;
            text += std::to_string(range.first + k);
        }
    }
    return text;
}

std::optional<ZNVIndexSet> ZNVNetworkUtilities_indicesFromString(const std::string& text) {
    // Numbers are collected first and added in ascending order, which keeps a
    // long or hostile list linear (apart from the sort) in the set's ranges.
    std::vector<uint64_t> numbers;
    size_t i = 0;
    for (;;) {
        while (i < text.size()) {
            if (text[i] == ',') {
                ++i;
                continue;
            }
            const ZNVDecodedCodePoint decoded = ZNVDecodeUTF8(text, i);
            if (!ZNVUnicodeIsWhitespaceOrNewline(decoded.codePoint)) break;
            i += decoded.length;
        }
        if (i >= text.size() || text[i] < '0' || text[i] > '9') break;
        uint64_t value = 0;
        bool tooLarge = false;
        for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
            const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
            // Indices live below ZNVNotFound; anything larger ends the list.
            if (value > (static_cast<uint64_t>(ZNVNotFound) - 1 - digit) / 10) tooLarge = true;
            if (!tooLarge) value = value * 10 + digit;
        }
        if (tooLarge) break;
        numbers.push_back(value);
    }
    if (numbers.empty()) return std::nullopt;
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    ZNVIndexSet set;
    for (size_t start = 0; start < numbers.size();) {
        size_t end = start + 1;
        while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1)
            ++end;
        set.addRange(numbers[start], end - start);
        start = end;
    }
    return set;
}

// The text without the bytes that are not part of well-formed UTF-8.
static std::string validUTF8Only(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const ZNVDecodedCodePoint decoded = ZNVDecodeUTF8(text, i);
        if (decoded.codePoint != ZNVInvalidCodePoint) out.append(text.substr(i, decoded.length));
        i += decoded.length;
    }
    return out;
}

std::optional<std::string> ZNVNetworkUtilities_sanitizeFilename(const std::string& filename) {
    const std::string_view name(filename);
    const std::string_view rawExtension = pathExtension(name);
    const std::string_view base =
        rawExtension.empty() ? name : name.substr(0, name.size() - rawExtension.size() - 1);
    // The name goes into a JSON request, which holds only UTF-8: bytes that
    // are not are dropped from the extension as from the base.
    const std::string extension = validUTF8Only(rawExtension);

    std::string stripped = keepOnly(base, NameClass::KeptOrHyphen);
    if (extension.empty()) {
        ZNVLogDefault("File name \"{}\" does not have an extension.", filename);
    }
    if (!stripped.empty() && stripped.front() == '-') {
        // The whole name this time, extension included, and without any "-";
        // the extension is appended below once more.
        stripped = keepOnly(name, NameClass::Kept);
    }
    if (!hasLetterOrDigit(stripped)) return std::nullopt;

    std::string result(prefixOfUTF16Length(stripped, kMaximumBaseNameUTF16Length));
    if (!extension.empty()) {
        result += '.';
        result += extension;
    }
    return result;
}

ZNVURL ZNVNetworkUtilities_sanitizeBaseURL(const ZNVURL& url) {
    const std::string& text = url.absoluteString();
    if (url.encodedPath().empty() || text.empty() || text.back() == '/') return url;
    return url.appendingPathComponent("");
}

std::string ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(
    const ZNVAccountConfiguration* configuration) {
    if (configuration != nullptr && !configuration->accountConfigurationIdentifier().empty()) {
        return configuration->accountConfigurationIdentifier();
    }
    return "live";
}

bool ZNVNetworkUtilities_fileAtURLIsInAppBundle(const ZNVURL& url) {
    if (!url.isFileURL()) return false;
    return ZNVNetworkUtilities_realPathIsInAppBundle(resolvingSymlinks(url.path()));
}

bool ZNVNetworkUtilities_realPathIsInAppBundle(const std::string& realPath) {
    // Resolved once, from the executable's real path: no link left to follow.
    const std::string& bundle = ZNVMainBundlePath();
    return realPath.compare(0, bundle.size(), bundle) == 0;
}

std::optional<ZNVURL> ZNVNetworkUtilities_libraryURLWithFileName(const std::string& name) {
    if (name.empty()) return std::nullopt;
    std::string home = ZNVHomeDirectory();
    while (home.size() > 1 && home.back() == '/')
        home.pop_back();
    if (home == "/") home.clear();
    return ZNVURL::fileURL(home + "/Library/Network/" + name);
}

uint64_t ZNVNetworkUtilities_freeSizeAvailableOnFileSystem() {
    return ZNVFreeSpaceAtPath(ZNVHomeDirectory());
}

uint64_t ZNVNetworkUtilities_sizeOfFileAtURL(const ZNVURL& url, ZNVErrorRef* error) {
    if (!url.isFileURL()) {
        setError(error, ZNVNetworkErrorHandler_createURLError(NSURLErrorFileDoesNotExist,
                                                              "the URL must refer to a file"));
        return 0;
    }
    const std::string path = url.path();
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        setError(error,
                 ZNVFileErrorFromErrno(errno, "failed to read the attributes of", path, false));
        return 0;
    }
    return static_cast<uint64_t>(st.st_size);
}

void ZNVNetworkUtilities_removeFileAtURL(const ZNVURL& url) {
    if (!url.isFileURL()) return;
    const std::string path = url.path();
    if (!pathExists(path)) return;
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    if (ec) {
        ZNVErrorRef error = ZNVFileErrorFromErrno(ec.value(), "failed to remove", path, true);
        ZNVLogDefault("failed to clear out file: {}", error->localizedDescription());
    }
}

void ZNVNetworkUtilities_ensureFileAtURL(const ZNVURL& url) {
    if (!url.isFileURL()) return;
    const std::string path = url.path();
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) return;

    const std::string parent = url.deletingLastPathComponent().path();
    if (!parent.empty()) {
        ZNVErrorRef error;
        if (!ZNVCreateDirectories(parent, 0755, &error)) {
            ZNVLogDefault("failed to create subdirectory for file: {}",
                          error->localizedDescription());
        }
    }
    // O_EXCL: never truncate something that appeared meanwhile, and never
    // follow a dangling symbolic link to create a file elsewhere.
    int fd;
    do {
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) ::close(fd);
}

bool ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(const ZNVURL& source, const ZNVURL& target,
                                                        ZNVErrorRef* error) {
    if (!source.isFileURL() || !target.isFileURL()) return false;
    return ZNVReplaceFileDurably(source.path(), target.path(), error);
}

std::optional<ZNVBytes> ZNVNetworkUtilities_loadDataFromURL(const ZNVURL& url, ZNVErrorRef* error) {
    if (!url.isFileURL()) {
        setError(error, ZNVError::make(NSCocoaErrorDomain, kReadUnsupportedSchemeError,
                                       {{NSLocalizedDescriptionKey,
                                         "only file URLs can be read: " + url.absoluteString()}}));
        return std::nullopt;
    }
    const std::string path = url.path();
    // Opened without waiting for the writer of a FIFO (one without a writer
    // reads as empty), then read blocking.
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        setError(error, ZNVFileErrorFromErrno(errno, "failed to open", path, false));
        return std::nullopt;
    }
    if (const int status = ::fcntl(fd, F_GETFL); status >= 0) {
        ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK);
    }
    struct stat st {};
    const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (regular) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    // Read the size seen first in one piece, then on to the end of the file:
    // it may have grown, and some files report no size at all.
    ZNVBytes data(regular ? static_cast<size_t>(st.st_size) : 0);
    size_t filled = 0;
    std::vector<uint8_t> buffer;
    for (;;) {
        uint8_t* into;
        size_t room;
        if (filled < data.size()) {
            into = data.data() + filled;
            room = data.size() - filled;
        } else {
            buffer.resize(1 << 16);
            into = buffer.data();
            room = buffer.size();
        }
        const ssize_t n = ::read(fd, into, room);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int saved = errno;
            ::close(fd);
            setError(error, ZNVFileErrorFromErrno(saved, "failed to read", path, false));
            return std::nullopt;
        }
        if (n == 0) break;
        if (into == buffer.data()) {
            data.insert(data.end(), buffer.begin(), buffer.begin() + n);
            filled = data.size();
        } else {
            filled += static_cast<size_t>(n);
        }
    }
    data.resize(filled);
    // A large file was wanted once: do not let it crowd the page cache. Small
    // ones are left alone, since dropping a page that is still dirty starts
    // its write-out first, a disk request per answer read from a fresh file.
    if (filled >= kUncachedReadThreshold) ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
    return data;
}

}  // namespace znv
