#include "znv/protocol/storage_chunk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <set>
#include <thread>
#include <unordered_set>

#include "tests/support/test_support.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/storage_chunk_writer.h"
#include "znv/session/network_session_manager.h"

namespace znv {
namespace {

constexpr uint64_t MiB = 1024 * 1024;
const uint64_t C = ZNVNetworkSessionManager::maximumChunkSize();

// A chunk with no bytes, which `create` refuses to make.
class EmptyChunk : public ZNVStorageChunk {
  public:
    explicit EmptyChunk(uint64_t index) : ZNVStorageChunk(index, 0, 0) {}
};

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

std::string sourceFile(uint64_t size, uint32_t seed = 3) {
    std::string path = test::makeTempDir("chunks") + "/source.bin";
    test::writePatternFile(path, size, seed);
    return path;
}

TEST(StorageChunk, LayoutOfAFile) {
    EXPECT_EQ(C, 4u * MiB);
    // 10 MiB: two whole chunks and a 2 MiB tail.
    auto c0 = _chunkWithIndexForFileSize(0, 10 * MiB);
    auto c2 = _chunkWithIndexForFileSize(2, 10 * MiB);
    ASSERT_TRUE(c0 && c2);
    EXPECT_EQ(*c0, *ZNVStorageChunk::create(0, C, 0));
    EXPECT_EQ(*c2, *ZNVStorageChunk::create(2, 2 * MiB, 2 * C));
    EXPECT_FALSE(_chunkWithIndexForFileSize(3, 10 * MiB));
    // An exact multiple: the last chunk is whole, the next does not exist.
    EXPECT_EQ(_chunkWithIndexForFileSize(1, 8 * MiB)->length(), C);
    EXPECT_FALSE(_chunkWithIndexForFileSize(2, 8 * MiB));
    EXPECT_EQ(_chunkWithIndexForFileSize(0, 1)->length(), 1u);
    EXPECT_FALSE(_chunkWithIndexForFileSize(0, 0));
    EXPECT_FALSE(_chunkWithIndexForFileSize(static_cast<uint64_t>(ZNVNotFound), UINT64_MAX));
    // An index whose offset does not fit in 64 bits is past any end.
    EXPECT_FALSE(_chunkWithIndexForFileSize(UINT64_MAX / C + 1, UINT64_MAX));
}

TEST(StorageChunk, ValuesEqualityAndHash) {
    EXPECT_FALSE(ZNVStorageChunk::create(5, 0, 0));
    EXPECT_FALSE(ZNVStorageChunk::create(static_cast<uint64_t>(ZNVNotFound), 1, 0));
    auto a = ZNVStorageChunk::create(1, 2, 3);
    auto b = ZNVStorageChunk::create(1, 2, 3);
    auto swapped = ZNVStorageChunk::create(2, 1, 3);
    EXPECT_TRUE(ZNVStorageChunk::isEqual(a, b));
    EXPECT_TRUE(ZNVStorageChunk::isEqual(a, a));
    EXPECT_FALSE(ZNVStorageChunk::isEqual(a, swapped));
    EXPECT_FALSE(ZNVStorageChunk::isEqual(a, nullptr));
    EXPECT_FALSE(ZNVStorageChunk::isEqual(nullptr, nullptr));
    EXPECT_EQ(a->hash(), b->hash());
    EXPECT_EQ(a->hash(), swapped->hash());  // 1^2^3 == 2^1^3, yet unequal
    std::unordered_set<ZNVStorageChunk> set{*a, *b, *swapped};
    EXPECT_EQ(set.size(), 2u);
    const std::string description = a->description();
    EXPECT_EQ(description.rfind("<ZNVStorageChunk: 0x", 0), 0u) << description;
    const std::string tail = ", chunk index: 1, offset 3, 2 bytes of data>";
    ASSERT_GT(description.size(), tail.size());
    EXPECT_EQ(description.substr(description.size() - tail.size()), tail);
}

TEST(StorageChunk, ExtractsItsBytesOrSaysWhyNot) {
    std::string path = sourceFile(100);
    std::string content = test::readFile(path);
    Fd fd(::open(path.c_str(), O_RDONLY));
    ZNVErrorRef error = ZNVError::withMessage("x", 1, "stale");
    auto data = ZNVStorageChunk::create(0, 40, 50)->extractDataFromFile(fd.fd, &error);
    ASSERT_TRUE(data);
    EXPECT_EQ(std::string(data->begin(), data->end()), content.substr(50, 40));
    EXPECT_FALSE(error);  // cleared on success

    auto shortRead = ZNVStorageChunk::create(1, 40, 80)->extractDataFromFile(fd.fd, &error);
    EXPECT_FALSE(shortRead);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSFileReadUnknownError);
    EXPECT_EQ(error->localizedDescription(), "failed to read all chunk bytes for upload");

    for (int badFd : {fd.fd, -1}) {
        auto none = ZNVStorageChunk::create(2, 10, 100)->extractDataFromFile(badFd, &error);
        EXPECT_FALSE(none);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->localizedDescription(), "failed to read chunk for upload");
        EXPECT_EQ(error->code(), NSFileReadUnknownError);
    }
}

// --- The multipart writer ---

std::vector<ZNVStorageChunkRef> chunks(std::initializer_list<std::array<uint64_t, 3>> values) {
    std::vector<ZNVStorageChunkRef> list;
    for (const auto& v : values)
        list.push_back(ZNVStorageChunk::create(v[0], v[1], v[2]));
    return list;
}

std::string part(const std::string& boundary, uint64_t index, const std::string& bytes) {
    return "\r\n--" + boundary + "\r\nContent-Disposition: form-data; name=\"chunkData." +
           std::to_string(index) + "\"; filename=\"" + std::to_string(index) +
           ".chunk\"\r\nContent-Type: application/octet-stream\r\n\r\n" + bytes;
}

std::string closing(const std::string& boundary) {
    return "\r\n--" + boundary + "--\r\n";
}

// Writes the body into a fresh file and returns the file's content.
std::string writeBody(const ZNVStorageChunkWriter& writer, ZNVStorageChunkWriter::CopyMode mode,
                      bool* ok, ZNVErrorRef* error,
                      ZNVStorageChunkWriter::CopyStatistics* stats = nullptr) {
    std::string out = test::makeTempDir("body") + "/body";
    Fd fd(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    *ok = writer.writeMultiPartFormToOutput(fd.fd, mode, stats, error);
    return test::readFile(out);
}

bool kernelCopyWorksHere() {
    std::string dir = test::makeTempDir("probe");
    test::writeFile(dir + "/a", "probe");
    Fd in(::open((dir + "/a").c_str(), O_RDONLY));
    Fd out(::open((dir + "/b").c_str(), O_WRONLY | O_CREAT, 0600));
    int ends[2];
    if (::pipe(ends) != 0) return false;
    Fd reading(ends[0]), writing(ends[1]);
    return ::splice(in.fd, nullptr, writing.fd, nullptr, 5, 0) == 5 &&
           ::splice(reading.fd, nullptr, out.fd, nullptr, 5, 0) == 5;
}

// The body, byte for byte, in both copy modes and into a pipe. The emulator's
// parser reading such bodies back in pieces is the multipart round-trip fuzz
// target's job.
TEST(StorageChunkWriter, WritesTheBodyByteForByteInEitherCopyMode) {
    std::string path = sourceFile(3 * MiB + 123, 11);
    std::string content = test::readFile(path);
    const std::string B = "0xKhTmLbOuNdArY-TEST";
    // Chunks out of file order, written in array order; the first spans several
    // blocks of a copy made by hand.
    ZNVStorageChunkWriter writer(
        chunks({{0, 2 * MiB + 5, 0}, {3, 123, 3 * MiB}, {1, MiB - 5, 2 * MiB + 5}}),
        ZNVURL::fileURL(path), B);
    const std::string expected = part(B, 0, content.substr(0, 2 * MiB + 5)) +
                                 part(B, 3, content.substr(3 * MiB, 123)) +
                                 part(B, 1, content.substr(2 * MiB + 5, MiB - 5)) + closing(B);
    // The first line is empty: the body starts with CRLF.
    ASSERT_EQ(expected.substr(0, 4), "\r\n--");
    const uint64_t payload = 3 * MiB + 123;

    for (auto mode :
         {ZNVStorageChunkWriter::CopyMode::Automatic, ZNVStorageChunkWriter::CopyMode::ReadWrite}) {
        bool ok = false;
        ZNVErrorRef error;
        ZNVStorageChunkWriter::CopyStatistics stats;
        EXPECT_TRUE(writeBody(writer, mode, &ok, &error, &stats) == expected);
        EXPECT_TRUE(ok);
        EXPECT_FALSE(error);
        EXPECT_EQ(stats.kernelCopiedBytes + stats.bufferedBytes, payload);
        if (mode == ZNVStorageChunkWriter::CopyMode::ReadWrite) {
            EXPECT_EQ(stats.kernelCopiedBytes, 0u);
        } else if (kernelCopyWorksHere()) {
            EXPECT_EQ(stats.kernelCopiedBytes, payload);
        }
    }
    // An output that cannot be cut back gets each chunk read whole.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Fd reading(ends[0]), writing(ends[1]);
    std::string piped;
    std::thread drain([&] {
        char buffer[65536];
        ssize_t n;
        while ((n = ::read(reading.fd, buffer, sizeof buffer)) > 0)
            piped.append(buffer, static_cast<size_t>(n));
    });
    ZNVErrorRef error;
    EXPECT_TRUE(writer.writeMultiPartFormToOutput(writing.fd, &error));
    ::close(writing.fd);
    writing.fd = -1;
    drain.join();
    EXPECT_TRUE(piped == expected);
}

TEST(StorageChunkWriter, AShortSourceStillEndsTheBody) {
    std::string path = sourceFile(15);
    std::string content = test::readFile(path);
    const std::string B = "b";
    ZNVStorageChunkWriter writer(chunks({{0, 10, 0}, {1, 10, 10}, {2, 10, 20}}),
                                 ZNVURL::fileURL(path), B);
    for (auto mode :
         {ZNVStorageChunkWriter::CopyMode::Automatic, ZNVStorageChunkWriter::CopyMode::ReadWrite}) {
        bool ok = true;
        ZNVErrorRef error;
        std::string body = writeBody(writer, mode, &ok, &error);
        EXPECT_FALSE(ok);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->localizedDescription(), "failed to read all chunk bytes for upload");
        // The readable part, no trace of the failed one, and the closing delimiter.
        EXPECT_EQ(body, part(B, 0, content.substr(0, 10)) + closing(B));
    }
    // Space set aside for the whole body is given back when it ends short.
    std::string large = sourceFile(MiB + MiB / 2, 5);
    ZNVStorageChunkWriter cut(chunks({{0, MiB, 0}, {1, MiB, MiB}}), ZNVURL::fileURL(large), B);
    std::string out = test::makeTempDir("cut") + "/body";
    {
        Fd fd(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        EXPECT_FALSE(cut.writeMultiPartFormToOutput(fd.fd, nullptr));
    }
    struct stat info {};
    ASSERT_EQ(::stat(out.c_str(), &info), 0);
    EXPECT_EQ(static_cast<uint64_t>(info.st_size), MiB + part(B, 0, "").size() + closing(B).size());
    EXPECT_LT(static_cast<uint64_t>(info.st_blocks) * 512, MiB + MiB / 4);
    // A chunk that starts past the end reads nothing at all.
    ZNVStorageChunkWriter beyond(chunks({{5, 4, 100}}), ZNVURL::fileURL(path), B);
    bool ok = true;
    ZNVErrorRef error;
    EXPECT_EQ(writeBody(beyond, ZNVStorageChunkWriter::CopyMode::Automatic, &ok, &error),
              closing(B));
    EXPECT_EQ(error->localizedDescription(), "failed to read chunk for upload");
}

TEST(StorageChunkWriter, RefusesBeforeWritingAnything) {
    std::string path = sourceFile(64);
    ZNVURL source = ZNVURL::fileURL(path);
    auto check = [](const ZNVStorageChunkWriter& writer, const std::string& domain, int64_t code,
                    const std::string& message) {
        ZNVErrorRef error;
        EXPECT_FALSE(writer.validate(&error));
        ASSERT_TRUE(error) << message;
        EXPECT_EQ(error->domain(), domain);
        EXPECT_EQ(error->code(), code);
        EXPECT_EQ(error->localizedDescription(), message);
        EXPECT_FALSE(writer.chunkIndices());
        // The request is left as it was.
        ZNVURLRequest request;
        request.setValue("text/plain", "Content-Type");
        EXPECT_FALSE(writer.configureRequest(&request));
        EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type"),
                  std::optional<std::string>("text/plain"));
        bool ok = true;
        ZNVErrorRef writeError;
        EXPECT_EQ(writeBody(writer, ZNVStorageChunkWriter::CopyMode::Automatic, &ok, &writeError),
                  "");
        EXPECT_FALSE(ok);
        EXPECT_TRUE(ZNVError::equal(writeError, error));
    };
    auto good = chunks({{0, 8, 0}});
    // The checks run in a fixed order: each case also breaks every later rule.
    check(ZNVStorageChunkWriter({}, *ZNVURL::fromString("http://h/x"), ""), NSURLErrorDomain,
          NSURLErrorUnknown, "internal error, missing boundary token");
    check(ZNVStorageChunkWriter({}, *ZNVURL::fromString("http://h/x"), "B"), NSURLErrorDomain,
          NSURLErrorBadURL, "the upload source must be a local file");
    check(ZNVStorageChunkWriter({}, source, "B"), NSCocoaErrorDomain, NSFileReadNoSuchFileError,
          "no chunks specified");
    // The first bad element decides.
    check(ZNVStorageChunkWriter({good[0], std::make_shared<EmptyChunk>(6), nullptr}, source, "B"),
          NSCocoaErrorDomain, NSFileReadNoSuchFileError, "empty data for chunk index 6");
    check(ZNVStorageChunkWriter({good[0], nullptr, std::make_shared<EmptyChunk>(6)}, source, "B"),
          NSCocoaErrorDomain, NSFileReadNoSuchFileError, "bad chunk description");

    ZNVStorageChunkWriter missing(good, ZNVURL::fileURL(path + ".gone"), "B");
    EXPECT_TRUE(missing.validate());
    bool ok = true;
    ZNVErrorRef error;
    EXPECT_EQ(writeBody(missing, ZNVStorageChunkWriter::CopyMode::Automatic, &ok, &error), "");
    EXPECT_FALSE(ok);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);

    ZNVStorageChunkWriter fine(good, source, "B");
    EXPECT_FALSE(fine.writeMultiPartFormToOutput(-1, &error));
    EXPECT_EQ(error->code(), NSFileNoSuchFileError);
    EXPECT_EQ(error->localizedDescription(), "empty file handle");
    EXPECT_FALSE(fine.configureRequest(nullptr, &error));
    EXPECT_EQ(error->code(), NSURLErrorBadURL);
    EXPECT_EQ(error->localizedDescription(), "empty request");
}

TEST(StorageChunkWriter, EveryWriterDrawsItsOwnBoundary) {
    std::string path = sourceFile(8);
    std::set<std::string> seen;
    for (int i = 0; i < 20; ++i) {
        auto writer = ZNVStorageChunkWriter::writerForChunks(chunks({{0, 8, 0}, {2, 8, 0}}),
                                                             ZNVURL::fileURL(path));
        const std::string& token = writer->boundaryToken();
        ASSERT_EQ(token.size(), 16u + 36u) << token;
        EXPECT_EQ(token.rfind("0xKhTmLbOuNdArY-", 0), 0u) << token;
        for (size_t k = 0; k < 36; ++k) {
            char c = token[16 + k];
            bool dash = k == 8 || k == 13 || k == 18 || k == 23;
            EXPECT_TRUE(dash ? c == '-' : (std::isdigit(c) || (c >= 'A' && c <= 'F'))) << token;
        }
        seen.insert(writer->boundaryToken());
        EXPECT_EQ(writer->chunkIndices(), (ZNVIndexSet{0, 2}));
        ZNVURLRequest request;
        ASSERT_TRUE(writer->configureRequest(&request));
        EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type"),
                  "multipart/form-data; boundary=" + writer->boundaryToken());
    }
    EXPECT_EQ(seen.size(), 20u);
}

}  // namespace
}  // namespace znv
