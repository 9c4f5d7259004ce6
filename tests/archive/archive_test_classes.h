// Archivable classes used by the archive tests: a node with one field of every
// value kind, a subclass of it, and an unrelated class.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "znv/platform/keyed_archive.h"

namespace znv::test {

class TestNode : public ZNVCoding {
  public:
    std::string className() const override { return "TestNode"; }
    void encodeWithCoder(ZNVCoder& coder) const override;
    // Decodes the fields common to TestNode and its subclasses.
    void decodeFields(ZNVKeyedUnarchiver& coder);

    std::optional<std::string> name;
    std::optional<int64_t> counter;
    std::optional<uint64_t> size;
    std::optional<bool> flag;
    std::optional<double> ratio;
    std::optional<ZNVDate> date;
    std::optional<ZNVURL> url;
    std::optional<ZNVBytes> data;
    std::optional<ZNVIndexSet> indexes;
    ZNVErrorRef error;
    std::shared_ptr<TestNode> child;
    std::vector<std::shared_ptr<TestNode>> children;
    bool childrenPresent = false;
};

class TestSpecialNode : public TestNode {
  public:
    std::string className() const override { return "TestSpecialNode"; }
    void encodeWithCoder(ZNVCoder& coder) const override;

    std::string extra;
};

class TestOther : public ZNVCoding {
  public:
    std::string className() const override { return "TestOther"; }
    void encodeWithCoder(ZNVCoder& coder) const override;
};

// Registers the classes above (idempotent).
void registerTestClasses();

// CPU time consumed by the calling thread. Timing budgets use it because the
// machines running the tests are shared, and wall time would measure the
// other processes too.
std::chrono::nanoseconds threadCpuTime();

// How much slower instrumented (sanitizer) builds are allowed to be.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kTimingAllowance = 10;
#else
inline constexpr int kTimingAllowance = 1;
#endif

}  // namespace znv::test
