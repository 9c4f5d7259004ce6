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

#include <cstdint>
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
    // The parts below are views into the URL: they live as long as it does.
    std::string_view scheme() const { return partsView(0, schemeEnd_); }  // lower case
    std::string_view host() const { return partsView(schemeEnd_, hostEnd_); }
    // The port as written, or empty.
    std::string_view port() const { return partsView(hostEnd_, portEnd_); }
    std::string_view query() const {  // without "?"
        return partsView(portEnd_, static_cast<uint32_t>(parts_.size()));
    }
    std::string path() const;  // decoded
    std::string_view encodedPath() const {
        return std::string_view(absolute_).substr(authorityEnd_, pathEnd_ - authorityEnd_);
    }
    bool isFileURL() const { return scheme() == "file"; }
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

    std::string_view partsView(uint32_t begin, uint32_t end) const {
        return std::string_view(parts_).substr(begin, end - begin);
    }

    // Kept small, as a queue holds two URLs per upload: the text, where its
    // path lies in it, and the parts libcurl normalised in one string.
    std::string absolute_;
    // Scheme, host, port and query, one after the other.
    std::string parts_;
    uint32_t authorityEnd_ = 0;  // end of "scheme://userinfo@host:port" in absolute_
    uint32_t pathEnd_ = 0;       // end of the percent-encoded path in absolute_
    uint32_t schemeEnd_ = 0;     // ends of the parts in parts_
    uint32_t hostEnd_ = 0;
    uint32_t portEnd_ = 0;
};

}  // namespace znv
