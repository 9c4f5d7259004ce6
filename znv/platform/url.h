// ZNVURL: an absolute URL value (http, https, file, ...), parsed with libcurl's URL API.
//
// Contract
// - A value type; copies are independent; any thread may use its own copy.
// - A default-constructed URL is empty (`isEmpty()`); factories that can fail
//   return std::nullopt for text that is not an absolute URL.
// - `path()` is percent-decoded and, like a file-system path, has no trailing
//   "/" (except the root "/"); `hasDirectoryPath()` tells whether the URL's
//   path text ended with "/".
// - `pathComponents()` follows the platform convention: "/" first, then each
//   non-empty segment, decoded ("http://h/api/files/7" -> "/", "api", "files", "7").
// - `absoluteString()` is the text the URL was made from (for `fromString`) or
//   the normalised text libcurl produced (for resolution and appending).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace znv {

class ZNVURL {
public:
    ZNVURL() = default;

    // An absolute URL (with a scheme); nullopt for anything else.
    static std::optional<ZNVURL> fromString(std::string_view text);
    // A file URL for an absolute file-system path ("file:///a/b%20c").
    // A relative path is made absolute against the current directory.
    static ZNVURL fileURL(const std::string& path, bool isDirectory = false);
    // Resolves a reference (absolute, or relative such as "files/7/complete")
    // against a base, as RFC 3986 does. nullopt when it cannot be resolved.
    static std::optional<ZNVURL> resolve(std::string_view reference, const ZNVURL& base);

    bool isEmpty() const { return absolute_.empty(); }
    const std::string& absoluteString() const { return absolute_; }
    const std::string& scheme() const { return scheme_; }  // lower case
    const std::string& host() const { return host_; }
    // The port as written, or empty.
    const std::string& port() const { return port_; }
    const std::string& query() const { return query_; }  // without "?"
    std::string path() const;                            // decoded
    const std::string& encodedPath() const { return rawPath_; }
    bool isFileURL() const { return scheme_ == "file"; }
    bool hasDirectoryPath() const;

    std::vector<std::string> pathComponents() const;
    std::string lastPathComponent() const;
    // Text after the last "." of the last path component ("" when none, or
    // when the component starts with its only ".").
    std::string pathExtension() const;

    // A copy with one more path segment (percent-encoded as needed).
    // An empty component adds a trailing "/" only.
    ZNVURL appendingPathComponent(const std::string& component, bool isDirectory = false) const;
    ZNVURL deletingLastPathComponent() const;
    ZNVURL deletingPathExtension() const;

    bool operator==(const ZNVURL& other) const { return absolute_ == other.absolute_; }
    bool operator!=(const ZNVURL& other) const { return !(*this == other); }
    bool operator<(const ZNVURL& other) const { return absolute_ < other.absolute_; }

    // Percent-encodes a path segment (unreserved characters and the sub-delims
    // safe in a path are kept).
    static std::string percentEncodePathSegment(std::string_view segment);
    static std::string percentDecode(std::string_view text);

private:
    static std::optional<ZNVURL> fromNormalisedHandle(void* handle, std::string absolute);
    ZNVURL withEncodedPath(const std::string& encodedPath) const;

    std::string absolute_;
    std::string scheme_;
    std::string host_;
    std::string port_;
    std::string rawPath_;  // as in the URL, percent-encoded; "" when the URL has no path
    std::string query_;
    std::string fragment_;
    std::string authorityPrefix_;  // "scheme://userinfo@host:port" as written
};

}  // namespace znv
