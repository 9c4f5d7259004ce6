// ZNVURLSessionResumeData: the byte form of a download's resume data.
//
// Contract
// - Resume data is opaque to everyone but the URL session: UTF-8 JSON naming
//   the request (URL, method, header fields), the partial file, how many bytes
//   it holds and the validators ("ETag", "Last-Modified") that the resumed
//   request sends in "If-Range". Data taken from a running transfer is
//   marked as growing: the file it names holds at least `bytesReceived` bytes.
// - `decode` accepts only what `encode` writes (a version member and the
//   required members with the right types); anything else gives std::nullopt.
// - Callable from any thread; only `removePartialFile` and
//   `removeUnnamedPartialFiles` touch the disk.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "znv/platform/url_request.h"

namespace znv {

class ZNVURLSessionResumeData {
  public:
    struct Info {
        std::string url;
        std::string method = "GET";
        ZNVHTTPHeaderFields headers;
        std::string partialFile;  // absolute path
        int64_t bytesReceived = 0;
        std::string etag;
        std::string lastModified;
        int64_t expectedTotalBytes = -1;
        // Set in the resume data of a transfer that is still writing the
        // file: `bytesReceived` is where it began, and whatever the file holds
        // when the data is used continues it.
        bool growing = false;
    };

    static ZNVBytes encode(const Info& info);
    static std::optional<Info> decode(const ZNVBytes& data);

    // Whether a path names one of the session's partial files: directly in the
    // private temporary directory and named like the files it creates
    // ("ZNVDownload-XXXXXX", or "ZNVDownload-<tag>-XXXXXX" for a session whose
    // configuration names a tag). Resume data naming anything else (read back
    // from a state file, say) is never written to or deleted.
    static bool isPartialFilePath(const std::string& path);
    // Whether `tag` can name partial files: 1 to 64 ASCII letters, digits,
    // '.', '_' or '-'.
    static bool isPlainTag(std::string_view tag);
    // Removes the partial files of sessions with this tag that are not in
    // `named` and were last written before `before` (a process killed before
    // it saved the resume data of its transfers leaves them behind); returns
    // their names. Nothing for a tag that is not plain.
    static std::vector<std::string> removeUnnamedPartialFiles(
        const std::string& tag, const std::set<std::string>& named,
        std::chrono::system_clock::time_point before);
    // Where a transfer made from this data continues in a partial file of
    // `fileSize` bytes: all the file holds for growing data, else at most the
    // count recorded.
    static int64_t continuationOffset(const Info& info, int64_t fileSize);
    // Deletes the partial file that resume data names, if it is one of ours
    // (resume data that is dropped would otherwise leave it behind).
    static void removePartialFile(const ZNVBytes& data);
};

}  // namespace znv
