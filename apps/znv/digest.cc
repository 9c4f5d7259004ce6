#include "apps/znv/digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <fmt/format.h>

namespace znv::cli {
namespace {

constexpr size_t kBlock = 1 << 20;

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

uint64_t nextRandom(uint64_t& state) {
    // xorshift64*: fast and good enough to defeat compression and patterns.
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545F4914F6CDD1Dull;
}

// Fills `block` with one of three kinds of content, chosen per 64 KiB.
void fillBlock(std::vector<unsigned char>& block, uint64_t& state) {
    static const char kText[] =
        "The quick brown fox jumps over the lazy dog; pack my box with five dozen liquor jugs. ";
    constexpr size_t kStretch = 64 * 1024;
    for (size_t at = 0; at < block.size(); at += kStretch) {
        size_t end = std::min(block.size(), at + kStretch);
        uint64_t kind = nextRandom(state) % 8;
        if (kind == 0) {  // a run of one byte value
            std::memset(&block[at], static_cast<int>(nextRandom(state) & 0xff), end - at);
        } else if (kind == 1) {  // text with a varying offset
            size_t offset = nextRandom(state) % (sizeof(kText) - 1);
            for (size_t i = at; i < end; ++i) {
                block[i] = static_cast<unsigned char>(kText[(offset + i) % (sizeof(kText) - 1)]);
            }
        } else {  // random bytes
            for (size_t i = at; i < end; i += 8) {
                uint64_t r = nextRandom(state);
                std::memcpy(&block[i], &r, std::min<size_t>(8, end - i));
            }
        }
    }
}

}  // namespace

std::string sha256OfFile(const std::string& path, std::string* error) {
    FdCloser file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) {
        if (error) *error = fmt::format("cannot open {}: {}", path, std::strerror(errno));
        return {};
    }
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        if (error) *error = "cannot set up SHA-256";
        return {};
    }
    std::vector<unsigned char> buffer(kBlock);
    for (;;) {
        ssize_t n = ::read(file.fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (error) *error = fmt::format("cannot read {}: {}", path, std::strerror(errno));
            return {};
        }
        if (n == 0) break;
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(n));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i)
        hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

bool writeSampleFile(const std::string& path, uint64_t size, uint64_t seed, std::string* error) {
    FdCloser file{::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    if (file.fd < 0) {
        if (error) *error = fmt::format("cannot create {}: {}", path, std::strerror(errno));
        return false;
    }
    uint64_t state = seed * 0x9E3779B97F4A7C15ull + 1;
    std::vector<unsigned char> block(kBlock);
    for (uint64_t written = 0; written < size;) {
        fillBlock(block, state);
        size_t want = static_cast<size_t>(std::min<uint64_t>(block.size(), size - written));
        size_t done = 0;
        while (done < want) {
            ssize_t n = ::write(file.fd, block.data() + done, want - done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                if (error) *error = fmt::format("cannot write {}: {}", path, std::strerror(errno));
                return false;
            }
            done += static_cast<size_t>(n);
        }
        written += want;
    }
    return true;
}

}  // namespace znv::cli
