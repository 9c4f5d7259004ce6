// ZNVStorageChunkWriter: writes a batch of chunks of one local file as a
// multipart/form-data request body into an output file, and sets the
// matching content type on the request that sends it.
//
// Contract
// - Immutable after construction; any thread may use a writer, but one
//   output descriptor must not be written by two writers at once.
// - The body is, for each chunk in array order: CRLF "--" boundary CRLF, the
//   part headers (name "chunkData.<index>", file name "<index>.chunk",
//   content type application/octet-stream), an empty line, the chunk's
//   bytes; then CRLF "--" boundary "--" CRLF. The closing delimiter is
//   written also when a chunk could not be read, so a failed body is still
//   well terminated; the call then reports the read error.
// - Where the output is a regular file written at its end, the whole body's
//   space is allocated first (given back if the body ends short), and a
//   chunk's bytes are spliced kernel-side through a pipe where the kernel
//   allows it, otherwise read and written through one reused 1 MiB buffer;
//   other outputs get one chunk at a time read whole into memory and
//   written. The output is byte for byte the same either way.
// - The output descriptor is written at its current offset and is neither
//   flushed nor closed: the caller owns it.
// - Failures are reported through the error out-parameter: validation
//   errors first (see `validate`), then the source's open error, then read
//   or write errors.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "znv/platform/error.h"
#include "znv/platform/index_set.h"
#include "znv/platform/url.h"
#include "znv/protocol/storage_chunk.h"

namespace znv {

class ZNVURLRequest;

// The fixed first part of every boundary.
inline constexpr const char* ZNVStorageChunkWriterBoundaryPrefix = "0xKhTmLbOuNdArY";

class ZNVStorageChunkWriter;
using ZNVStorageChunkWriterRef = std::shared_ptr<const ZNVStorageChunkWriter>;

class ZNVStorageChunkWriter {
  public:
    enum class CopyMode {
        Automatic,  // kernel-side copy where possible, else read and write
        ReadWrite,  // always read into memory and write (never kernel-side)
    };
    struct CopyStatistics {
        uint64_t kernelCopiedBytes = 0;
        uint64_t bufferedBytes = 0;
    };

    // A writer with a fresh boundary "0xKhTmLbOuNdArY-<UUID>".
    static ZNVStorageChunkWriterRef writerForChunks(std::vector<ZNVStorageChunkRef> chunks,
                                                    const ZNVURL& sourceURL);
    // Stores the values without checking them (a null element stands for an
    // element that is not a chunk).
    ZNVStorageChunkWriter(std::vector<ZNVStorageChunkRef> chunks, ZNVURL sourceURL,
                          std::string boundaryToken);

    const std::vector<ZNVStorageChunkRef>& chunks() const { return chunks_; }
    const ZNVURL& sourceURL() const { return sourceURL_; }
    const std::string& boundaryToken() const { return boundaryToken_; }

    // Checks, first failure wins: boundary present (URL -1), source is a file
    // URL (URL -1000), chunks present (Cocoa 260), then element by element:
    // a chunk (Cocoa 260 "bad chunk description") with a length (Cocoa 260
    // "empty data for chunk index <i>").
    bool validate(ZNVErrorRef* error = nullptr) const;
    // The chunks' indices; none when validation fails.
    std::optional<ZNVIndexSet> chunkIndices() const;
    // Sets "Content-Type: multipart/form-data; boundary=<token>".
    bool configureRequest(ZNVURLRequest* request, ZNVErrorRef* error = nullptr) const;
    // Writes the whole body to `output`; true when every chunk was written.
    bool writeMultiPartFormToOutput(int output, ZNVErrorRef* error = nullptr) const;
    bool writeMultiPartFormToOutput(int output, CopyMode mode, CopyStatistics* statistics,
                                    ZNVErrorRef* error = nullptr) const;

  private:
    std::vector<ZNVStorageChunkRef> chunks_;
    ZNVURL sourceURL_;
    std::string boundaryToken_;
};

}  // namespace znv
