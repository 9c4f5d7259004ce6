#include "znv/protocol/storage_chunk_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "znv/foundation/error_handler.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/url_session.h"
#include "znv/platform/uuid.h"

namespace znv {

namespace {

constexpr const char* kCRLF = "\r\n";

std::string descriptorPath(int fd) {
    char buffer[4096];
    ssize_t n = ::readlink(fmt::format("/proc/self/fd/{}", fd).c_str(), buffer, sizeof buffer);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

// Whether a splice failure means "this pair cannot be copied kernel-side"
// (as opposed to a real I/O error).
bool kernelCopyUnsupported(int error) {
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP ||
           error == EBADF || error == ETXTBSY || error == EPERM || error == EOVERFLOW;
}

// The pipe through which chunks are spliced from the source into the body.
// At 1 MiB (what an unprivileged process may ask for by default) a gigabyte
// takes a fifth less processor time to copy than through copy_file_range's
// internal 64 KiB pipe; where the kernel refuses that size the pipe keeps its
// default.
constexpr int kSplicePipeSize = 1 << 20;

class SplicePipe {
  public:
    SplicePipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return;
        read_ = fds[0];
        write_ = fds[1];
        ::fcntl(write_, F_SETPIPE_SZ, kSplicePipeSize);
        int size = ::fcntl(write_, F_GETPIPE_SZ);
        size_ = size > 0 ? static_cast<size_t>(size) : 0;
    }
    ~SplicePipe() {
        if (read_ >= 0) ::close(read_);
        if (write_ >= 0) ::close(write_);
    }
    SplicePipe(const SplicePipe&) = delete;
    SplicePipe& operator=(const SplicePipe&) = delete;

    bool usable() const { return size_ > 0; }
    size_t size() const { return size_; }
    int readEnd() const { return read_; }
    int writeEnd() const { return write_; }

  private:
    int read_ = -1;
    int write_ = -1;
    size_t size_ = 0;
};

class BodyOutput {
  public:
    explicit BodyOutput(int fd) : fd_(fd) {}

    bool writeString(const std::string& text) { return writeBytes(text.data(), text.size()); }
    bool writeBytes(const void* bytes, size_t size) {
        if (ZNVWriteAll(fd_, bytes, size)) return true;
        fail(errno);
        return false;
    }
    void fail(int error) {
        if (!error_)
            error_ = ZNVFileErrorFromErrno(error, "failed to write", descriptorPath(fd_), true);
    }
    const ZNVErrorRef& error() const { return error_; }
    int fd() const { return fd_; }

  private:
    int fd_;
    ZNVErrorRef error_;
};

std::string partHeader(const std::string& boundary, uint64_t index) {
    std::string text;
    text += kCRLF;
    text += "--";
    text += boundary;
    text += kCRLF;
    text += "Content-Disposition: form-data";
    text += fmt::format("; name={}; filename={}", fmt::format("\"chunkData.{}\"", index),
                        fmt::format("\"{}.chunk\"", index));
    text += kCRLF;
    text += "Content-Type: application/octet-stream";
    text += kCRLF;
    text += kCRLF;
    return text;
}

enum class StreamedCopyResult { Copied, ShortSource, WriteFailed };

// The block size of copies made by hand.
constexpr size_t kCopyBlockSize = 1 << 20;

// Writes the `count` bytes the pipe holds into the output by hand.
bool drainPipeByHand(const SplicePipe& pipe, size_t count, BodyOutput& output,
                     std::vector<uint8_t>& buffer) {
    if (buffer.empty()) buffer.resize(kCopyBlockSize);
    while (count > 0) {
        ssize_t n = ::read(pipe.readEnd(), buffer.data(), std::min(count, buffer.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            output.fail(n < 0 ? errno : EIO);
            return false;
        }
        if (!output.writeBytes(buffer.data(), static_cast<size_t>(n))) return false;
        count -= static_cast<size_t>(n);
    }
    return true;
}

// Copies the chunk's bytes from `source` to the output's current offset,
// kernel-side while `kernelUsable`: each pipe's worth is spliced from the
// source's page cache into the pipe and from there into the output, so the
// bytes are copied once and never pass through this process. Whatever the
// kernel does not copy (all of it when it cannot) goes through `buffer`, one
// block at a time, so no chunk is ever held whole in memory. On a short
// source the output is cut back to where the part began.
StreamedCopyResult copyChunkStreamed(int source, const ZNVStorageChunk& chunk, BodyOutput& output,
                                     off_t partStart, const SplicePipe* pipe, uint64_t* kernelBytes,
                                     uint64_t* bufferedBytes, bool* kernelUsable,
                                     std::vector<uint8_t>& buffer) {
    off_t in = static_cast<off_t>(chunk.fileOffset());
    uint64_t remaining = chunk.length();
    while (remaining > 0 && *kernelUsable) {
        ssize_t n = ::splice(source, &in, pipe->writeEnd(), nullptr,
                             static_cast<size_t>(std::min<uint64_t>(remaining, pipe->size())), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (kernelCopyUnsupported(errno)) {
                *kernelUsable = false;
                break;
            }
            output.fail(errno);
            return StreamedCopyResult::WriteFailed;
        }
        if (n == 0) break;  // end of source
        remaining -= static_cast<uint64_t>(n);
        size_t inPipe = static_cast<size_t>(n);
        while (inPipe > 0) {
            ssize_t k = ::splice(pipe->readEnd(), nullptr, output.fd(), nullptr, inPipe, 0);
            if (k < 0 && errno == EINTR) continue;
            if (k > 0) {
                inPipe -= static_cast<size_t>(k);
                *kernelBytes += static_cast<uint64_t>(k);
                continue;
            }
            if (k < 0 && kernelCopyUnsupported(errno)) {
                // The output takes no splices: what the pipe holds is written
                // by hand, and the rest of the body too.
                *kernelUsable = false;
                if (!drainPipeByHand(*pipe, inPipe, output, buffer)) {
                    return StreamedCopyResult::WriteFailed;
                }
                *bufferedBytes += inPipe;
                break;
            }
            output.fail(k < 0 ? errno : EIO);
            return StreamedCopyResult::WriteFailed;
        }
    }
    // Finish by hand whatever the kernel did not copy.
    while (remaining > 0) {
        if (buffer.empty()) buffer.resize(kCopyBlockSize);
        size_t want = static_cast<size_t>(std::min<uint64_t>(remaining, buffer.size()));
        ssize_t n = ::pread(source, buffer.data(), want, in);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!output.writeBytes(buffer.data(), static_cast<size_t>(n))) {
            return StreamedCopyResult::WriteFailed;
        }
        in += n;
        remaining -= static_cast<uint64_t>(n);
        *bufferedBytes += static_cast<uint64_t>(n);
    }
    if (remaining == 0) return StreamedCopyResult::Copied;
    // The source shrank while it was copied: drop the partial part.
    if (::ftruncate(output.fd(), partStart) != 0 ||
        ::lseek(output.fd(), partStart, SEEK_SET) != partStart) {
        output.fail(errno);
        return StreamedCopyResult::WriteFailed;
    }
    return StreamedCopyResult::ShortSource;
}

}  // namespace

ZNVStorageChunkWriterRef ZNVStorageChunkWriter::writerForChunks(
    std::vector<ZNVStorageChunkRef> chunks, const ZNVURL& sourceURL) {
    return std::make_shared<const ZNVStorageChunkWriter>(
        std::move(chunks), sourceURL,
        fmt::format("{}-{}", ZNVStorageChunkWriterBoundaryPrefix, ZNVUUIDString()));
}

ZNVStorageChunkWriter::ZNVStorageChunkWriter(std::vector<ZNVStorageChunkRef> chunks,
                                             ZNVURL sourceURL, std::string boundaryToken)
    : chunks_(std::move(chunks)),
      sourceURL_(std::move(sourceURL)),
      boundaryToken_(std::move(boundaryToken)) {}

bool ZNVStorageChunkWriter::validate(ZNVErrorRef* error) const {
    ZNVErrorRef failure;
    if (boundaryToken_.empty()) {
        failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorUnknown,
                                                        "internal error, missing boundary token");
    } else if (!sourceURL_.isFileURL()) {
        failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorBadURL,
                                                        "the upload source must be a local file");
    } else if (chunks_.empty()) {
        failure = ZNVNetworkErrorHandler_createCocoaError(NSFileReadNoSuchFileError,
                                                          "no chunks specified");
    } else {
        for (const ZNVStorageChunkRef& chunk : chunks_) {
            if (!chunk) {
                failure = ZNVNetworkErrorHandler_createCocoaError(NSFileReadNoSuchFileError,
                                                                  "bad chunk description");
                break;
            }
            if (chunk->length() == 0) {
                failure = ZNVNetworkErrorHandler_createCocoaError(
                    NSFileReadNoSuchFileError,
                    fmt::format("empty data for chunk index {}", chunk->index()));
                break;
            }
        }
    }
    if (error) *error = failure;
    return failure == nullptr;
}

std::optional<ZNVIndexSet> ZNVStorageChunkWriter::chunkIndices() const {
    if (!validate()) return std::nullopt;
    ZNVIndexSet indices;
    for (const ZNVStorageChunkRef& chunk : chunks_)
        indices.add(chunk->index());
    return indices;
}

bool ZNVStorageChunkWriter::configureRequest(ZNVURLRequest* request, ZNVErrorRef* error) const {
    if (!request) {
        if (error)
            *error = ZNVNetworkErrorHandler_createURLError(NSURLErrorBadURL, "empty request");
        return false;
    }
    if (!validate(error)) return false;
    request->setValue(fmt::format("multipart/form-data; boundary={}", boundaryToken_),
                      "Content-Type");
    return true;
}

bool ZNVStorageChunkWriter::writeMultiPartFormToOutput(int output, ZNVErrorRef* error) const {
    return writeMultiPartFormToOutput(output, CopyMode::Automatic, nullptr, error);
}

bool ZNVStorageChunkWriter::writeMultiPartFormToOutput(int output, CopyMode mode,
                                                       CopyStatistics* statistics,
                                                       ZNVErrorRef* error) const {
    if (output < 0) {
        if (error) {
            *error =
                ZNVNetworkErrorHandler_createCocoaError(NSFileNoSuchFileError, "empty file handle");
        }
        return false;
    }
    if (!validate(error)) return false;
    const std::string sourcePath = sourceURL_.path();
    // A source that is not a regular file has no chunks to read at offsets,
    // and a FIFO would hold the caller in open().
    const ZNVRegularFile opened = ZNVOpenRegularFile(sourcePath, O_RDONLY);
    const int source = opened.fd;
    if (source < 0) {
        if (error) *error = opened.failure("failed to open", sourcePath, false);
        return false;
    }

    // Streamed copies (kernel-side or block by block) need a regular output
    // file written at its offset, so that a part can be cut back when the
    // source turns out short; other outputs get each chunk read whole.
    struct stat outputStat {};
    const int flags = ::fcntl(output, F_GETFL);
    bool streamable = ::fstat(output, &outputStat) == 0 && S_ISREG(outputStat.st_mode) &&
                      flags >= 0 && (flags & O_APPEND) == 0;
    bool kernelUsable = streamable && mode == CopyMode::Automatic;
    std::optional<SplicePipe> pipe;
    if (kernelUsable) {
        pipe.emplace();
        kernelUsable = pipe->usable();
    }
    const std::string closing = std::string(kCRLF) + "--" + boundaryToken_ + "--" + kCRLF;
    off_t bodyStart = streamable ? ::lseek(output, 0, SEEK_CUR) : -1;
    off_t bodyEnd = -1;
    if (bodyStart >= 0 && bodyStart >= outputStat.st_size) {
        // Allocate the whole body's blocks up front: the file system then
        // has no space to reserve page by page as the chunks arrive (on ext4,
        // with the splices, a staged gigabyte took 0.26 s of processor time
        // instead of 0.41 s). Only an optimisation, so a refusal is ignored;
        // a body that ends shorter gives back what lies past its end below.
        uint64_t size = closing.size();
        for (const ZNVStorageChunkRef& chunk : chunks_)
            size += partHeader(boundaryToken_, chunk->index()).size() + chunk->length();
        bodyEnd = bodyStart + static_cast<off_t>(size);
        if (::fallocate(output, FALLOC_FL_KEEP_SIZE, bodyStart, static_cast<off_t>(size)) != 0) {
            bodyEnd = -1;
        }
    }

    CopyStatistics counted;
    BodyOutput body(output);
    ZNVErrorRef readError;
    std::vector<uint8_t> buffer;  // one block, for every chunk copied by hand
    for (const ZNVStorageChunkRef& chunk : chunks_) {
        if (streamable) {
            // Only stream when the source holds the whole chunk, so that a
            // short source fails before its part header is written, exactly
            // as a whole read would.
            struct stat sourceStat {};
            bool whole =
                ::fstat(source, &sourceStat) == 0 && sourceStat.st_size >= 0 &&
                static_cast<uint64_t>(sourceStat.st_size) >= chunk->fileOffset() &&
                static_cast<uint64_t>(sourceStat.st_size) - chunk->fileOffset() >= chunk->length();
            if (whole) {
                off_t partStart = ::lseek(output, 0, SEEK_CUR);
                if (partStart < 0) {
                    streamable = kernelUsable = false;
                } else {
                    if (!body.writeString(partHeader(boundaryToken_, chunk->index()))) break;
                    StreamedCopyResult result = copyChunkStreamed(
                        source, *chunk, body, partStart, pipe ? &*pipe : nullptr,
                        &counted.kernelCopiedBytes, &counted.bufferedBytes, &kernelUsable, buffer);
                    if (result == StreamedCopyResult::Copied) continue;
                    if (result == StreamedCopyResult::WriteFailed) break;
                    // ShortSource: the part was removed again; read it the
                    // ordinary way below to report what is missing.
                }
            }
        }
        std::optional<ZNVBytes> data = chunk->extractDataFromFile(source, &readError);
        if (!data) break;
        if (!body.writeString(partHeader(boundaryToken_, chunk->index()))) break;
        if (!body.writeBytes(data->data(), data->size())) break;
        counted.bufferedBytes += data->size();
    }
    ::close(source);

    body.writeString(closing);
    if (bodyEnd >= 0) {
        off_t end = ::lseek(output, 0, SEEK_CUR);
        if (end >= 0 && end < bodyEnd && ::ftruncate(output, end) != 0) {
            // Then the blocks past the end stay allocated until the file goes.
        }
    }
    if (statistics) *statistics = counted;

    ZNVErrorRef failure = readError ? readError : body.error();
    if (error) *error = failure;
    return failure == nullptr;
}

}  // namespace znv
