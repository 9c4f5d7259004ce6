#include "znv/protocol/storage_chunk.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "znv/foundation/error_handler.h"
#include "znv/protocol/session_task_tags.h"

namespace znv {

ZNVStorageChunkRef ZNVStorageChunk::create(uint64_t index, uint64_t length, uint64_t fileOffset) {
    if (length == 0 || index == static_cast<uint64_t>(ZNVNotFound)) return nullptr;
    return ZNVStorageChunkRef(new ZNVStorageChunk(index, length, fileOffset));
}

bool ZNVStorageChunk::isEqualToChunk(const ZNVStorageChunk& other) const {
    return index_ == other.index_ && length_ == other.length_ && fileOffset_ == other.fileOffset_;
}

bool ZNVStorageChunk::isEqual(const ZNVStorageChunkRef& a, const ZNVStorageChunkRef& b) {
    if (a == b) return a != nullptr;
    return a && b && a->isEqualToChunk(*b);
}

size_t ZNVStorageChunk::hash() const {
    return static_cast<size_t>(index_ ^ length_ ^ fileOffset_);
}

std::optional<ZNVBytes> ZNVStorageChunk::extractDataFromFile(int fd, ZNVErrorRef* error) const {
    ZNVBytes data;
    size_t total = 0;
    if (fd >= 0) {
        try {
            data.resize(static_cast<size_t>(length_));
        } catch (const std::exception&) {
            data.clear();
        }
        while (total < data.size()) {
            ssize_t n = ::pread(fd, data.data() + total, data.size() - total,
                                static_cast<off_t>(fileOffset_ + total));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            total += static_cast<size_t>(n);
        }
    }
    if (total == 0) {
        if (error) {
            *error = ZNVNetworkErrorHandler_createCocoaError(NSFileReadUnknownError,
                                                             "failed to read chunk for upload");
        }
        return std::nullopt;
    }
    if (total != length_) {
        if (error) {
            *error = ZNVNetworkErrorHandler_createCocoaError(
                NSFileReadUnknownError, "failed to read all chunk bytes for upload");
        }
        return std::nullopt;
    }
    if (error) *error = nullptr;
    return data;
}

std::string ZNVStorageChunk::description() const {
    return fmt::format("<ZNVStorageChunk: {}, chunk index: {}, offset {}, {} bytes of data>",
                       fmt::ptr(this), index_, fileOffset_, length_);
}

ZNVStorageChunkRef _chunkWithIndexForFileSize(uint64_t index, uint64_t fileSize) {
    if (index == static_cast<uint64_t>(ZNVNotFound)) return nullptr;
    uint64_t chunkSize = ZNVSessionTaskTags::maximumChunkSize();
    // An offset beyond 64 bits lies past the end of any file.
    if (chunkSize == 0 || index > UINT64_MAX / chunkSize) return nullptr;
    uint64_t offset = chunkSize * index;
    if (fileSize <= offset) return nullptr;
    return ZNVStorageChunk::create(index, std::min(fileSize - offset, chunkSize), offset);
}

}  // namespace znv
