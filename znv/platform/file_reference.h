// File references and bookmarks: an identity of a local file that survives
// renames and moves on its volume.
//
// Contract
// - `ZNVFileReference` is a value: (device, inode, last known path), plus the
//   file's birth time where the file system records one. Make one
//   from a path or file URL of an existing file (symbolic links in the path are
//   resolved first, so the reference names the file itself); creation fails
//   with an NSCocoaErrorDomain error for a missing or unreadable path.
// - `resolvePath()` answers the file's current path: the last known path when
//   that entry still has the reference's device and inode; otherwise the first
//   entry with that identity found by a bounded breadth-first search: the last
//   known directory (or its nearest existing ancestor) and its subdirectories,
//   then each ancestor's tree up to `SearchLimits::ascend` levels up, each to
//   `SearchLimits::descend` directory levels down, at most
//   `SearchLimits::maxEntries` entries in all. The search stays on the
//   reference's device and never follows symbolic links. Otherwise nullopt.
//   Resolution touches the file system only for reading; any thread may call it.
// - A file-reference URL ("file:///.file/id=<device>.<inode>?birth=<ns>&path=
//   <last known path>") carries a reference where a URL is expected; `ZNVFilePathURL`
//   turns it back into a path URL.
// - A bookmark is a reference serialised as JSON bytes together with the
//   file's size and modification time when the bookmark was made. Resolving
//   bookmark data gives the file's current URL and whether it moved ("stale").
//   Damaged bookmark data is an NSCocoaErrorDomain 259 error; a file that can
//   no longer be found is NSCocoaErrorDomain 4 (NSFileNoSuchFileError).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "znv/platform/error.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/url.h"

namespace znv {

class ZNVFileReference {
  public:
    struct SearchLimits {
        int ascend = 3;             // ancestor levels above the last known directory
        int descend = 3;            // directory levels below each searched directory
        size_t maxEntries = 20000;  // directory entries examined in all
    };

    // `birthNanoseconds` 0 means "unknown" (the file system records none).
    ZNVFileReference(uint64_t device, uint64_t inode, std::string lastKnownPath,
                     int64_t birthNanoseconds = 0);

    // A reference to the existing file at `path` (made absolute, symbolic
    // links resolved). nullopt with an error when there is no such file.
    static std::optional<ZNVFileReference> create(const std::string& path,
                                                  ZNVErrorRef* error = nullptr);
    static std::optional<ZNVFileReference> createFromURL(const ZNVURL& fileURL,
                                                         ZNVErrorRef* error = nullptr);

    uint64_t device() const { return device_; }
    uint64_t inode() const { return inode_; }
    const std::string& lastKnownPath() const { return lastKnownPath_; }
    // Creation time of the file, where the file system records one: it tells
    // the file apart from a later file that reused its inode number.
    int64_t birthNanoseconds() const { return birthNanoseconds_; }

    // True when the entry at `path` (not following a final symbolic link) is
    // the referenced file.
    bool isAt(const std::string& path) const;
    // The same for a file known by its identity alone.
    static bool isFileAt(const std::string& path, uint64_t device, uint64_t inode,
                         int64_t birthNanoseconds);

    // The file's current path, or nullopt when it cannot be found.
    std::optional<std::string> resolvePath() const { return resolvePath(SearchLimits{}); }
    std::optional<std::string> resolvePath(const SearchLimits& limits) const;

    // "file:///.file/id=<device>.<inode>?birth=<ns>&path=<percent-encoded path>"
    ZNVURL referenceURL() const;
    static bool isFileReferenceURL(const ZNVURL& url);
    static std::optional<ZNVFileReference> fromReferenceURL(const ZNVURL& url);

    bool operator==(const ZNVFileReference& other) const = default;

  private:
    uint64_t device_;
    uint64_t inode_;
    int64_t birthNanoseconds_;
    std::string lastKnownPath_;
};

// The file-reference URL of an existing file URL (symbolic links resolved);
// nullopt with an error for a missing file or a URL that is not a file URL.
std::optional<ZNVURL> ZNVFileReferenceURL(const ZNVURL& fileURL, ZNVErrorRef* error = nullptr);

// A path URL for `url`: a file-reference URL resolved to the file's current
// path (nullopt when it cannot be found); a plain file URL as it is; nullopt
// for anything else.
std::optional<ZNVURL> ZNVFilePathURL(const ZNVURL& url);

class ZNVBookmark {
  public:
    // Bookmark data for an existing file. nullopt with an error when `fileURL`
    // is not a file URL or the file does not exist.
    static std::optional<ZNVBytes> createData(const ZNVURL& fileURL, ZNVErrorRef* error = nullptr);
    // Parses bookmark data (no file-system access).
    static std::optional<ZNVBookmark> fromData(const ZNVBytes& data, ZNVErrorRef* error = nullptr);
    // Parses and resolves bookmark data: the file's current URL. `isStale` is
    // set when the file is no longer at the recorded path.
    static std::optional<ZNVURL> resolveData(const ZNVBytes& data, bool* isStale = nullptr,
                                             ZNVErrorRef* error = nullptr);

    ZNVBookmark(ZNVFileReference reference, uint64_t fileSize, ZNVDate modificationDate);

    const ZNVFileReference& reference() const { return reference_; }
    // Size and modification time of the file when the bookmark was made.
    uint64_t fileSize() const { return fileSize_; }
    ZNVDate modificationDate() const { return modificationDate_; }

    ZNVBytes data() const;
    std::optional<ZNVURL> resolve(bool* isStale = nullptr, ZNVErrorRef* error = nullptr) const;

  private:
    ZNVFileReference reference_;
    uint64_t fileSize_;
    ZNVDate modificationDate_;
};

}  // namespace znv
