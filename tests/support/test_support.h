// Helpers shared by every test executable.
//
// - Each test process runs with HOME and TMPDIR pointing at a fresh directory
//   of its own (set up by test_main.cc before any test runs), so tests never
//   touch the real home or temporary directory and can run in parallel.
// - `waitFor` polls a condition until a deadline instead of sleeping for a
//   fixed time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace znv::test {

// The per-process scratch root (parent of HOME and TMPDIR for this process).
const std::string& scratchRoot();

// A fresh directory under the scratch root.
std::string makeTempDir(const std::string& prefix = "dir");

// Polls `condition` every few milliseconds until it is true or `timeout`
// passes; returns the last value of the condition.
bool waitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Writes `size` bytes of deterministic, varied content (seeded) to `path`.
void writePatternFile(const std::string& path, uint64_t size, uint32_t seed = 1);
// The same kind of content in memory.
std::string patternBytes(size_t size, uint32_t seed = 1);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
void appendFile(const std::string& path, const std::string& content);
bool filesEqual(const std::string& a, const std::string& b);

// Resident set size of this process, in bytes (from /proc/self/statm), and
// the peak (VmHWM).
uint64_t currentRSS();
uint64_t peakRSS();

}  // namespace znv::test
