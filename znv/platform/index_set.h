// ZNVIndexSet: an ordered set of distinct non-negative 64-bit indices, stored as
// ascending, non-adjacent, non-overlapping ranges.
//
// Contract
// - A value type; not internally synchronised (copy it to share across threads).
// - Indices are in [0, ZNVNotFound); `firstIndex()` / `lastIndex()` of an empty
//   set are ZNVNotFound.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <utility>
#include <vector>

namespace znv {

class ZNVIndexSet {
public:
    struct Range {
        uint64_t first;
        uint64_t length;
        bool operator==(const Range&) const = default;
    };

    ZNVIndexSet() = default;
    ZNVIndexSet(std::initializer_list<uint64_t> indices);
    static ZNVIndexSet withRange(uint64_t first, uint64_t length);

    bool empty() const { return ranges_.empty(); }
    uint64_t count() const;
    bool contains(uint64_t index) const;
    // Every index of the range is in the set.
    bool containsRange(uint64_t first, uint64_t length) const;
    uint64_t firstIndex() const;
    uint64_t lastIndex() const;
    // The smallest index greater than `index`, or ZNVNotFound.
    uint64_t indexGreaterThan(uint64_t index) const;

    void add(uint64_t index);
    void addRange(uint64_t first, uint64_t length);
    void add(const ZNVIndexSet& other);
    void remove(uint64_t index);
    void removeRange(uint64_t first, uint64_t length);
    void remove(const ZNVIndexSet& other);
    void clear() { ranges_.clear(); }

    ZNVIndexSet unionWith(const ZNVIndexSet& other) const;
    ZNVIndexSet intersectionWith(const ZNVIndexSet& other) const;
    ZNVIndexSet minus(const ZNVIndexSet& other) const;

    // Walks indices in ascending order; return false from the callback to stop.
    void forEach(const std::function<bool(uint64_t)>& fn) const;
    std::vector<uint64_t> indices() const;
    const std::vector<Range>& ranges() const { return ranges_; }

    bool operator==(const ZNVIndexSet& other) const { return ranges_ == other.ranges_; }
    bool operator!=(const ZNVIndexSet& other) const { return !(*this == other); }

private:
    std::vector<Range> ranges_;  // ascending, merged
};

}  // namespace znv
