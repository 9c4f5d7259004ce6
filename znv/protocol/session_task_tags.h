// Session task tags and the chunk size: the pieces of the storage protocol
// that tell, from a URL session task alone, what the task was made for, and
// how large one chunk of a chunked upload is.
//
// Contract
// - The tag is the session task's description, set when the task is made:
//   "download", "resume download", "new remote file", "upload entire file",
//   "chunk index <list>", "assemble remote file",
//   "request video post processing", "information for remote file",
//   "delete remote file".
// - Every function here reads only its argument; any thread may call them.
//   A null task is "not tagged", "no authorisation" and "not a download".
// - `ZNVNetworkSessionManager` repeats these functions as its own static
//   members; both names reach the same code.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "znv/platform/index_set.h"

namespace znv {

class ZNVURLSessionTask;

inline constexpr const char* ZNVSessionTaskTagDownload = "download";
inline constexpr const char* ZNVSessionTaskTagResumeDownload = "resume download";
inline constexpr const char* ZNVSessionTaskTagNewRemoteFile = "new remote file";
inline constexpr const char* ZNVSessionTaskTagUploadEntireFile = "upload entire file";
inline constexpr const char* ZNVSessionTaskTagChunkIndexPrefix = "chunk index ";
inline constexpr const char* ZNVSessionTaskTagAssembleRemoteFile = "assemble remote file";
inline constexpr const char* ZNVSessionTaskTagPostProcessing = "request video post processing";
inline constexpr const char* ZNVSessionTaskTagInformation = "information for remote file";
inline constexpr const char* ZNVSessionTaskTagDeleteRemoteFile = "delete remote file";

// The largest size of one chunk of a chunked upload.
inline constexpr uint64_t ZNVStorageMaximumChunkSize = 4194304;

struct ZNVSessionTaskTags {
    // 4194304 (`ZNVStorageMaximumChunkSize`), unless a test lowered it
    // through znv/protocol/internal/chunk_size_testing.h.
    static uint64_t maximumChunkSize();
    // The indices of a task tagged "chunk index <list>"; none otherwise.
    static std::optional<ZNVIndexSet> chunkIndicesForTask(
        const std::shared_ptr<ZNVURLSessionTask>& task);
    // Whether the task's original request carries "Authorization: Bearer ...",
    // which marks a storage request as opposed to a plain download.
    static bool taskHasAuthentication(const std::shared_ptr<ZNVURLSessionTask>& task);
    // Whether the tag is exactly "download" or "resume download".
    static bool taskIsForDownload(const std::shared_ptr<ZNVURLSessionTask>& task);
};

}  // namespace znv
