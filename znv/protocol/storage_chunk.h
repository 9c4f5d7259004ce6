// ZNVStorageChunk: one slice of a local file (index, length, offset), and the
// layout of a file into chunks of `ZNVSessionTaskTags::maximumChunkSize()`.
//
// Contract
// - Chunks are immutable and shared as `ZNVStorageChunkRef` (a shared pointer
//   to const); any thread may read them.
// - `create` refuses a length of 0 and the no-index marker `ZNVNotFound`, so
//   a chunk made through it always has at least one byte and a real index.
// - `extractDataFromFile` reads the chunk's bytes from an open, readable file
//   descriptor with positional reads (the descriptor's offset is left alone);
//   it fails with a Cocoa-domain error 256 when nothing or too little could
//   be read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "znv/platform/error.h"

namespace znv {

class ZNVStorageChunk;
using ZNVStorageChunkRef = std::shared_ptr<const ZNVStorageChunk>;

class ZNVStorageChunk {
  public:
    // Null when `length` is 0 or `index` is ZNVNotFound.
    static ZNVStorageChunkRef create(uint64_t index, uint64_t length, uint64_t fileOffset);
    virtual ~ZNVStorageChunk() = default;

    uint64_t index() const { return index_; }
    uint64_t length() const { return length_; }
    uint64_t fileOffset() const { return fileOffset_; }

    // Equal when index, length and offset are equal.
    bool isEqualToChunk(const ZNVStorageChunk& other) const;
    bool operator==(const ZNVStorageChunk& other) const { return isEqualToChunk(other); }
    // Same object, or both chunks with equal values; a null never equals.
    static bool isEqual(const ZNVStorageChunkRef& a, const ZNVStorageChunkRef& b);
    // index ^ length ^ fileOffset.
    size_t hash() const;

    // The chunk's bytes read from `fd`; none with an error when nothing (or
    // fewer than `length` bytes) could be read, or `fd` is negative.
    std::optional<ZNVBytes> extractDataFromFile(int fd, ZNVErrorRef* error = nullptr) const;

    // "<ZNVStorageChunk: 0x..., chunk index: I, offset O, L bytes of data>"
    std::string description() const;

  protected:
    // Stores the values unchecked (for `create` and for subclasses).
    ZNVStorageChunk(uint64_t index, uint64_t length, uint64_t fileOffset)
        : index_(index), length_(length), fileOffset_(fileOffset) {}

  private:
    uint64_t index_;
    uint64_t length_;
    uint64_t fileOffset_;
};

// Chunk `index` of a file of `fileSize` bytes: it starts at index × C and holds
// min(fileSize − index × C, C) bytes; null past the end of the file or for
// the no-index marker.
ZNVStorageChunkRef _chunkWithIndexForFileSize(uint64_t index, uint64_t fileSize);

}  // namespace znv

template <>
struct std::hash<znv::ZNVStorageChunk> {
    size_t operator()(const znv::ZNVStorageChunk& chunk) const { return chunk.hash(); }
};
