#include "tests/support/test_support.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace znv::test {

const std::string& scratchRoot() {
    static const std::string root = [] {
        const char* base = getenv("ZNV_TEST_SCRATCH");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/znv-test-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        return std::string(buf.data());
    }();
    return root;
}

std::string makeTempDir(const std::string& prefix) {
    std::string tmpl = scratchRoot() + "/" + prefix + "-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return std::string(buf.data());
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

namespace {

// The next value of a 32-bit xorshift sequence (never 0 after a non-zero one).
uint32_t xorshift(uint32_t& x) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

}  // namespace

void writePatternFile(const std::string& path, uint64_t size, uint32_t seed) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) throw std::runtime_error("cannot create " + path);
    std::vector<uint32_t> block(1 << 16);
    uint32_t x = seed ? seed : 1;
    uint64_t written = 0;
    while (written < size) {
        for (auto& w : block)
            w = xorshift(x);
        size_t n = static_cast<size_t>(std::min<uint64_t>(size - written, block.size() * 4));
        if (std::fwrite(block.data(), 1, n, f) != n) {
            std::fclose(f);
            throw std::runtime_error("write failed: " + path);
        }
        written += n;
    }
    std::fclose(f);
}

std::string patternBytes(size_t size, uint32_t seed) {
    std::string out(size, '\0');
    uint32_t x = (seed * 2654435761u) | 1;  // odd, so never 0, where xorshift stays
    for (auto& c : out)
        c = static_cast<char>(xorshift(x));
    return out;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

void appendFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << content;
}

bool filesEqual(const std::string& a, const std::string& b) {
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    if (!fa || !fb) return false;
    std::vector<char> ba(1 << 20), bb(1 << 20);
    for (;;) {
        fa.read(ba.data(), static_cast<std::streamsize>(ba.size()));
        fb.read(bb.data(), static_cast<std::streamsize>(bb.size()));
        std::streamsize na = fa.gcount(), nb = fb.gcount();
        if (na != nb) return false;
        if (na == 0) return true;
        if (!std::equal(ba.begin(), ba.begin() + na, bb.begin())) return false;
    }
}

uint64_t currentRSS() {
    long pages = 0, resident = 0;
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return static_cast<uint64_t>(resident) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

uint64_t peakRSS() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
    }
    return 0;
}

}  // namespace znv::test
