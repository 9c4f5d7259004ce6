#include "znv/platform/file_reference.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <nlohmann/json.hpp>

namespace znv {

namespace {

constexpr const char* kReferencePathPrefix = "/.file/id=";
constexpr const char* kBookmarkMarker = "ZNVBookmark";
constexpr int64_t kBookmarkVersion = 1;
constexpr size_t kMaxBookmarkBytes = 64 * 1024;

std::string parentPath(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string joinPath(const std::string& dir, const char* name) {
    if (dir == "/") return "/" + std::string(name);
    return dir + "/" + name;
}

ZNVErrorRef fileError(int64_t code, const std::string& message, const std::string& path) {
    ZNVUserInfo info{{NSLocalizedDescriptionKey, message}};
    if (!path.empty()) info[NSFilePathErrorKey] = path;
    return ZNVError::make(NSCocoaErrorDomain, code, std::move(info));
}

ZNVErrorRef errnoError(int err, const std::string& path) {
    int64_t code = NSFileReadUnknownError;
    if (err == ENOENT || err == ENOTDIR) code = NSFileReadNoSuchFileError;
    if (err == EACCES || err == EPERM) code = NSFileReadNoPermissionError;
    return fileError(code, "cannot read file at " + path + ": " + std::strerror(err), path);
}

// What identifies a file on its volume. The birth time (when the file system
// records one) tells a file apart from a later one that reused its inode number.
struct Identity {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t birthNanoseconds = 0;  // 0: unknown
    bool isDirectory = false;
};

// statx of `name` relative to `dirfd` (or an absolute path with AT_FDCWD),
// never following a final symbolic link.
bool identify(int dirfd, const char* name, Identity* out, int* err = nullptr) {
    struct statx stx {};
    if (::statx(dirfd, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_INO | STATX_BTIME, &stx) !=
        0) {
        if (err) *err = errno;
        return false;
    }
    out->device = makedev(stx.stx_dev_major, stx.stx_dev_minor);
    out->inode = stx.stx_ino;
    out->birthNanoseconds =
        (stx.stx_mask & STATX_BTIME)
            ? int64_t(stx.stx_btime.tv_sec) * 1000000000 + int64_t(stx.stx_btime.tv_nsec)
            : 0;
    out->isDirectory = S_ISDIR(stx.stx_mode);
    return true;
}

bool matches(const Identity& found, uint64_t device, uint64_t inode, int64_t birth) {
    if (found.device != device || found.inode != inode) return false;
    return birth == 0 || found.birthNanoseconds == 0 || found.birthNanoseconds == birth;
}

// Breadth-first search of one directory tree for an entry with the given
// identity. Directories on other devices, symbolic links and the subtree
// `skip` (already searched) are not entered. Every examined entry costs one
// unit of `budget`.
std::optional<std::string> searchTree(const std::string& root, const std::string& skip,
                                      int maxLevel, uint64_t device, uint64_t inode, int64_t birth,
                                      size_t& budget) {
    struct Pending {
        std::string path;
        int level;
    };
    std::deque<Pending> queue{{root, 0}};
    while (!queue.empty() && budget > 0) {
        Pending dir = std::move(queue.front());
        queue.pop_front();
        int fd = ::open(dir.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        DIR* stream = ::fdopendir(fd);
        if (stream == nullptr) {
            ::close(fd);
            continue;
        }
        std::optional<std::string> found;
        while (budget > 0) {
            struct dirent* entry = ::readdir(stream);
            if (entry == nullptr) break;
            const char* name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
            --budget;
            Identity id;
            if (!identify(fd, name, &id) || id.device != device) continue;
            if (matches(id, device, inode, birth)) {
                found = joinPath(dir.path, name);
                break;
            }
            if (id.isDirectory && dir.level < maxLevel) {
                std::string child = joinPath(dir.path, name);
                if (child != skip) queue.push_back({std::move(child), dir.level + 1});
            }
        }
        ::closedir(stream);
        if (found) return found;
    }
    return std::nullopt;
}

bool isDirectoryOnDevice(const std::string& path, uint64_t device) {
    Identity id;
    return identify(AT_FDCWD, path.c_str(), &id) && id.isDirectory && id.device == device;
}

}  // namespace

// ---------------------------------------------------------------------------
// ZNVFileReference

ZNVFileReference::ZNVFileReference(uint64_t device, uint64_t inode, std::string lastKnownPath,
                                   int64_t birthNanoseconds)
    : device_(device),
      inode_(inode),
      birthNanoseconds_(birthNanoseconds),
      lastKnownPath_(std::move(lastKnownPath)) {}

std::optional<ZNVFileReference> ZNVFileReference::create(const std::string& path,
                                                         ZNVErrorRef* error) {
    if (error) *error = nullptr;
    if (path.empty()) {
        if (error) *error = fileError(NSFileReadNoSuchFileError, "no file path given", path);
        return std::nullopt;
    }
    char* real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) {
        if (error) *error = errnoError(errno, path);
        return std::nullopt;
    }
    std::string canonical(real);
    std::free(real);
    Identity id;
    int err = 0;
    if (!identify(AT_FDCWD, canonical.c_str(), &id, &err)) {
        if (error) *error = errnoError(err, path);
        return std::nullopt;
    }
    return ZNVFileReference(id.device, id.inode, std::move(canonical), id.birthNanoseconds);
}

std::optional<ZNVFileReference> ZNVFileReference::createFromURL(const ZNVURL& fileURL,
                                                                ZNVErrorRef* error) {
    if (isFileReferenceURL(fileURL)) {
        if (error) *error = nullptr;
        auto reference = fromReferenceURL(fileURL);
        if (!reference && error) {
            *error = fileError(NSFileReadUnknownError, "malformed file-reference URL",
                               fileURL.absoluteString());
        }
        return reference;
    }
    if (!fileURL.isFileURL()) {
        if (error) {
            *error = fileError(NSFileReadUnknownError,
                               "not a file URL: " + fileURL.absoluteString(), "");
        }
        return std::nullopt;
    }
    return create(fileURL.path(), error);
}

bool ZNVFileReference::isAt(const std::string& path) const {
    return isFileAt(path, device_, inode_, birthNanoseconds_);
}

bool ZNVFileReference::isFileAt(const std::string& path, uint64_t device, uint64_t inode,
                                int64_t birthNanoseconds) {
    Identity id;
    return identify(AT_FDCWD, path.c_str(), &id) && matches(id, device, inode, birthNanoseconds);
}

std::optional<std::string> ZNVFileReference::resolvePath(const SearchLimits& limits) const {
    if (lastKnownPath_.empty() || lastKnownPath_[0] != '/') return std::nullopt;
    if (isAt(lastKnownPath_)) return lastKnownPath_;
    // Start at the last known directory, or the nearest ancestor of it that
    // still exists (the folder itself may have been renamed).
    std::string dir = parentPath(lastKnownPath_);
    int climbed = 0;
    while (dir != "/" && !isDirectoryOnDevice(dir, device_) && climbed <= limits.ascend) {
        dir = parentPath(dir);
        ++climbed;
    }
    size_t budget = limits.maxEntries;
    std::string searched;  // the subtree already searched
    for (int level = climbed; level <= limits.ascend && budget > 0; ++level) {
        if (isDirectoryOnDevice(dir, device_)) {
            if (auto found = searchTree(dir, searched, limits.descend, device_, inode_,
                                        birthNanoseconds_, budget)) {
                return found;
            }
        }
        if (dir == "/") break;
        searched = dir;
        dir = parentPath(dir);
    }
    return std::nullopt;
}

ZNVURL ZNVFileReference::referenceURL() const {
    std::string text = "file://" + std::string(kReferencePathPrefix) + std::to_string(device_) +
                       "." + std::to_string(inode_) +
                       "?birth=" + std::to_string(birthNanoseconds_) +
                       "&path=" + ZNVURL::percentEncodePathSegment(lastKnownPath_);
    auto url = ZNVURL::fromString(text);
    return url ? *url : ZNVURL();
}

bool ZNVFileReference::isFileReferenceURL(const ZNVURL& url) {
    return url.isFileURL() && url.encodedPath().rfind(kReferencePathPrefix, 0) == 0;
}

namespace {
std::optional<uint64_t> parseDecimal(std::string_view text) {
    if (text.empty() || text.size() > 20) return std::nullopt;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}
}  // namespace

std::optional<ZNVFileReference> ZNVFileReference::fromReferenceURL(const ZNVURL& url) {
    if (!isFileReferenceURL(url)) return std::nullopt;
    std::string_view id = url.encodedPath();
    id.remove_prefix(std::strlen(kReferencePathPrefix));
    auto dot = id.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    auto device = parseDecimal(id.substr(0, dot));
    auto inode = parseDecimal(id.substr(dot + 1));
    // "birth=<ns>&path=<encoded path>"; the path comes last and may hold "&".
    std::string_view query = url.query();
    if (query.rfind("birth=", 0) != 0) return std::nullopt;
    query.remove_prefix(6);
    auto amp = query.find("&path=");
    if (amp == std::string_view::npos) return std::nullopt;
    auto birth = parseDecimal(query.substr(0, amp));
    if (!device || !inode || !birth || *birth > uint64_t(INT64_MAX)) return std::nullopt;
    std::string path = ZNVURL::percentDecode(query.substr(amp + 6));
    if (path.empty() || path[0] != '/') return std::nullopt;
    return ZNVFileReference(*device, *inode, std::move(path), static_cast<int64_t>(*birth));
}

std::optional<ZNVURL> ZNVFileReferenceURL(const ZNVURL& fileURL, ZNVErrorRef* error) {
    auto reference = ZNVFileReference::createFromURL(fileURL, error);
    if (!reference) return std::nullopt;
    return reference->referenceURL();
}

namespace {
ZNVURL pathURL(const std::string& path) {
    Identity id;
    bool directory = identify(AT_FDCWD, path.c_str(), &id) && id.isDirectory;
    return ZNVURL::fileURL(path, directory);
}
}  // namespace

std::optional<ZNVURL> ZNVFilePathURL(const ZNVURL& url) {
    if (ZNVFileReference::isFileReferenceURL(url)) {
        auto reference = ZNVFileReference::fromReferenceURL(url);
        if (!reference) return std::nullopt;
        // The file is nearly always where it was last seen: one statx then
        // tells both that it is the file and whether it is a directory.
        Identity id;
        const std::string& known = reference->lastKnownPath();
        if (identify(AT_FDCWD, known.c_str(), &id) &&
            matches(id, reference->device(), reference->inode(), reference->birthNanoseconds())) {
            return ZNVURL::fileURL(known, id.isDirectory);
        }
        auto path = reference->resolvePath();
        if (!path) return std::nullopt;
        return pathURL(*path);
    }
    if (url.isFileURL()) return url;
    return std::nullopt;
}

// ---------------------------------------------------------------------------
// ZNVBookmark

ZNVBookmark::ZNVBookmark(ZNVFileReference reference, uint64_t fileSize, ZNVDate modificationDate)
    : reference_(std::move(reference)), fileSize_(fileSize), modificationDate_(modificationDate) {}

std::optional<ZNVBytes> ZNVBookmark::createData(const ZNVURL& fileURL, ZNVErrorRef* error) {
    auto reference = ZNVFileReference::createFromURL(fileURL, error);
    if (!reference) return std::nullopt;
    struct stat st {};
    if (::lstat(reference->lastKnownPath().c_str(), &st) != 0 ||
        !reference->isAt(reference->lastKnownPath())) {
        if (error) *error = errnoError(ENOENT, reference->lastKnownPath());
        return std::nullopt;
    }
    auto mtime =
        std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
    ZNVBookmark bookmark(*reference, static_cast<uint64_t>(st.st_size),
                         ZNVDate(std::chrono::duration_cast<ZNVDate::duration>(mtime)));
    return bookmark.data();
}

ZNVBytes ZNVBookmark::data() const {
    nlohmann::json json;
    json["$bookmark"] = kBookmarkMarker;
    json["version"] = kBookmarkVersion;
    json["device"] = reference_.device();
    json["inode"] = reference_.inode();
    json["birthTimeNanoseconds"] = reference_.birthNanoseconds();
    // File names are bytes; a path that is not UTF-8 is kept exactly, in base64.
    const std::string& path = reference_.lastKnownPath();
    try {
        (void)nlohmann::json(path).dump();
        json["path"] = path;
    } catch (const nlohmann::json::exception&) {
        json["pathData"] =
            ZNVBase64Encode(reinterpret_cast<const uint8_t*>(path.data()), path.size());
    }
    json["size"] = fileSize_;
    json["modificationTimeNanoseconds"] =
        std::chrono::duration_cast<std::chrono::nanoseconds>(modificationDate_.time_since_epoch())
            .count();
    std::string text = json.dump();
    return ZNVBytes(text.begin(), text.end());
}

std::optional<ZNVBookmark> ZNVBookmark::fromData(const ZNVBytes& data, ZNVErrorRef* error) {
    if (error) *error = nullptr;
    auto damaged = [&](const std::string& why) -> std::optional<ZNVBookmark> {
        if (error) {
            *error = ZNVError::withMessage(NSCocoaErrorDomain, NSFileReadCorruptFileError,
                                           "the bookmark data is damaged: " + why);
        }
        return std::nullopt;
    };
    if (data.empty()) return damaged("empty");
    // A bookmark is a small flat object (a path is at most a few KiB).
    if (data.size() > kMaxBookmarkBytes) return damaged("too large");
    nlohmann::json json = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
    if (json.is_discarded() || !json.is_object()) return damaged("not a JSON object");
    auto member = [&](const char* name) -> const nlohmann::json* {
        auto it = json.find(name);
        return it == json.end() ? nullptr : &*it;
    };
    const auto* marker = member("$bookmark");
    const auto* version = member("version");
    if (!marker || *marker != kBookmarkMarker) return damaged("not a bookmark");
    if (!version || !version->is_number_integer() || version->get<int64_t>() != kBookmarkVersion) {
        return damaged("unsupported version");
    }
    auto asInt64 = [](const nlohmann::json* v) -> std::optional<int64_t> {
        if (!v || !v->is_number_integer()) return std::nullopt;
        if (v->is_number_unsigned() && v->get<uint64_t>() > uint64_t(INT64_MAX)) {
            return std::nullopt;
        }
        return v->get<int64_t>();
    };
    const auto* device = member("device");
    const auto* inode = member("inode");
    const auto* size = member("size");
    auto birth = asInt64(member("birthTimeNanoseconds"));
    auto mtime = asInt64(member("modificationTimeNanoseconds"));
    if (!device || !device->is_number_unsigned() || !inode || !inode->is_number_unsigned() ||
        !birth || *birth < 0) {
        return damaged("no file identity");
    }
    if (!size || !size->is_number_unsigned()) return damaged("no file size");
    if (!mtime) return damaged("no modification time");
    std::string path;
    if (const auto* text = member("path"); text && text->is_string()) {
        path = text->get<std::string>();
    } else if (const auto* bytes = member("pathData"); bytes && bytes->is_string()) {
        auto decoded = ZNVBase64Decode(bytes->get_ref<const std::string&>());
        if (!decoded) return damaged("path is not valid base64");
        path.assign(decoded->begin(), decoded->end());
    } else {
        return damaged("no path");
    }
    if (path.empty() || path[0] != '/') return damaged("path is not absolute");
    return ZNVBookmark(
        ZNVFileReference(device->get<uint64_t>(), inode->get<uint64_t>(), path, *birth),
        size->get<uint64_t>(),
        ZNVDate(std::chrono::duration_cast<ZNVDate::duration>(std::chrono::nanoseconds(*mtime))));
}

std::optional<ZNVURL> ZNVBookmark::resolve(bool* isStale, ZNVErrorRef* error) const {
    if (error) *error = nullptr;
    if (isStale) *isStale = false;
    auto path = reference_.resolvePath();
    if (!path) {
        if (error) {
            *error = fileError(NSFileNoSuchFileError, "the bookmarked file could not be found",
                               reference_.lastKnownPath());
        }
        return std::nullopt;
    }
    if (isStale) *isStale = *path != reference_.lastKnownPath();
    return pathURL(*path);
}

std::optional<ZNVURL> ZNVBookmark::resolveData(const ZNVBytes& data, bool* isStale,
                                               ZNVErrorRef* error) {
    if (isStale) *isStale = false;
    auto bookmark = fromData(data, error);
    if (!bookmark) return std::nullopt;
    return bookmark->resolve(isStale, error);
}

}  // namespace znv
