// A chunk batch as the library writes it, read by the emulator's parser in
// pieces of any size: the parts are the chunks, in order, byte for byte.
//
// Input: one byte of piece size, one byte of chunk count, then per chunk two
// bytes of length; the rest is the source file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "apps/emulator/multipart.h"
#include "znv/platform/url_request.h"
#include "znv/protocol/storage_chunk_writer.h"

namespace {

// A file in memory, named by a path the writer can open.
struct MemoryFile {
    MemoryFile() : fd(::memfd_create("znv-fuzz", MFD_CLOEXEC)) {}
    ~MemoryFile() {
        if (fd >= 0) ::close(fd);
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }
    int fd;
};

std::string readAll(int fd) {
    std::string out;
    char buffer[65536];
    ssize_t n;
    ::lseek(fd, 0, SEEK_SET);
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        out.append(buffer, static_cast<size_t>(n));
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t piece = 1 + data[0] % 200;
    const size_t count = 1 + data[1] % 8;
    if (size < 2 + 2 * count) return 0;
    std::vector<size_t> lengths;
    for (size_t i = 0; i < count; ++i)
        lengths.push_back(1 + (data[2 + 2 * i] | (size_t{data[3 + 2 * i]} << 8)) % 4096);
    const std::string content(reinterpret_cast<const char*>(data) + 2 + 2 * count,
                              size - 2 - 2 * count);

    // Chunks side by side from the start of the file, as far as it reaches.
    std::vector<znv::ZNVStorageChunkRef> chunks;
    uint64_t offset = 0;
    for (size_t i = 0; i < count && offset + lengths[i] <= content.size(); ++i) {
        chunks.push_back(znv::ZNVStorageChunk::create(i * 3, lengths[i], offset));
        offset += lengths[i];
    }
    if (chunks.empty()) return 0;
    const std::string boundary = "0xKhTmLbOuNdArY-0E6F4B1A-7C2D-4E8B-9A3F-5D1C7B2E9F40";
    if (content.find("\r\n--" + boundary) != std::string::npos) return 0;  // never with a UUID

    MemoryFile source, output;
    if (source.fd < 0 || output.fd < 0) std::abort();
    if (::write(source.fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        std::abort();
    znv::ZNVStorageChunkWriter writer(chunks, znv::ZNVURL::fileURL(source.path()), boundary);
    auto mode = data[0] & 1 ? znv::ZNVStorageChunkWriter::CopyMode::ReadWrite
                            : znv::ZNVStorageChunkWriter::CopyMode::Automatic;
    znv::ZNVErrorRef error;
    if (!writer.writeMultiPartFormToOutput(output.fd, mode, nullptr, &error)) std::abort();
    znv::ZNVURLRequest request(*znv::ZNVURL::fromString("http://127.0.0.1:1/api/files/f"));
    if (!writer.configureRequest(&request)) std::abort();
    auto type = request.valueForHTTPHeaderField("Content-Type");
    auto parsedBoundary =
        znv::emulator::MultipartParser::boundaryFromContentType(type ? *type : "");
    if (!parsedBoundary || *parsedBoundary != boundary) std::abort();

    const std::string body = readAll(output.fd);
    std::vector<std::string> names, contents;
    bool inPart = false;
    znv::emulator::MultipartParser::Callbacks callbacks;
    callbacks.partBegin = [&](const znv::emulator::MultipartPartHeaders& headers) {
        names.push_back(headers.name + "|" + headers.filename + "|" + headers.contentType);
        contents.emplace_back();
        inPart = true;
        return true;
    };
    callbacks.partData = [&](const char* bytes, size_t n) {
        if (!inPart) std::abort();
        contents.back().append(bytes, n);
        return true;
    };
    callbacks.partEnd = [&] {
        inPart = false;
        return true;
    };
    znv::emulator::MultipartParser parser(boundary, callbacks);
    for (size_t at = 0; at < body.size(); at += piece) {
        if (!parser.feed(body.data() + at, std::min(piece, body.size() - at))) std::abort();
    }
    if (!parser.finish() || names.size() != chunks.size()) std::abort();
    for (size_t i = 0; i < chunks.size(); ++i) {
        const std::string index = std::to_string(chunks[i]->index());
        if (names[i] != "chunkData." + index + "|" + index + ".chunk|application/octet-stream")
            std::abort();
        if (contents[i] != content.substr(chunks[i]->fileOffset(), chunks[i]->length()))
            std::abort();
    }
    return 0;
}
