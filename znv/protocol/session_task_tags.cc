// Task tags and the chunk size, read from a session task alone.
#include "znv/protocol/session_task_tags.h"

#include <atomic>
#include <string_view>

#include "znv/foundation/network_utilities.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/internal/chunk_size_testing.h"

namespace znv {

namespace {

bool hasPrefix(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

namespace {
// 0: the real chunk size. Set only by tests (see setMaximumChunkSizeForTesting).
std::atomic<uint64_t> chunkSizeForTesting{0};
}  // namespace

uint64_t ZNVSessionTaskTags::maximumChunkSize() {
    const uint64_t testing = chunkSizeForTesting.load(std::memory_order_relaxed);
    return testing != 0 ? testing : ZNVStorageMaximumChunkSize;
}

void internal::setMaximumChunkSizeForTesting(uint64_t size) {
    chunkSizeForTesting.store(size, std::memory_order_relaxed);
}

std::optional<ZNVIndexSet> ZNVSessionTaskTags::chunkIndicesForTask(
    const std::shared_ptr<ZNVURLSessionTask>& task) {
    if (!task) return std::nullopt;
    std::string tag = task->taskDescription();
    std::string_view prefix = ZNVSessionTaskTagChunkIndexPrefix;
    if (!hasPrefix(tag, prefix)) return std::nullopt;
    return ZNVNetworkUtilities_indicesFromString(tag.substr(prefix.size()));
}

bool ZNVSessionTaskTags::taskHasAuthentication(const std::shared_ptr<ZNVURLSessionTask>& task) {
    if (!task) return false;
    std::optional<std::string> authorization =
        task->originalRequest().valueForHTTPHeaderField("Authorization");
    return authorization && hasPrefix(*authorization, "Bearer ");
}

bool ZNVSessionTaskTags::taskIsForDownload(const std::shared_ptr<ZNVURLSessionTask>& task) {
    if (!task) return false;
    std::string tag = task->taskDescription();
    return tag == ZNVSessionTaskTagDownload || tag == ZNVSessionTaskTagResumeDownload;
}

}  // namespace znv
