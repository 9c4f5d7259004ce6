#include "znv/platform/index_set.h"

#include <algorithm>
#include <iterator>

#include "znv/platform/error.h"

namespace znv {

ZNVIndexSet::ZNVIndexSet(std::initializer_list<uint64_t> indices) {
    for (uint64_t i : indices)
        add(i);
}

ZNVIndexSet ZNVIndexSet::withRange(uint64_t first, uint64_t length) {
    ZNVIndexSet set;
    set.addRange(first, length);
    return set;
}

uint64_t ZNVIndexSet::count() const {
    uint64_t total = 0;
    for (const Range& r : ranges_)
        total += r.length;
    return total;
}

bool ZNVIndexSet::contains(uint64_t index) const {
    auto it = std::upper_bound(ranges_.begin(), ranges_.end(), index,
                               [](uint64_t v, const Range& r) { return v < r.first; });
    if (it == ranges_.begin()) return false;
    --it;
    return index - it->first < it->length;
}

bool ZNVIndexSet::containsRange(uint64_t first, uint64_t length) const {
    if (length == 0) return true;
    auto it = std::upper_bound(ranges_.begin(), ranges_.end(), first,
                               [](uint64_t v, const Range& r) { return v < r.first; });
    if (it == ranges_.begin()) return false;
    --it;
    return first >= it->first && first + length <= it->first + it->length;
}

uint64_t ZNVIndexSet::firstIndex() const {
    return ranges_.empty() ? static_cast<uint64_t>(ZNVNotFound) : ranges_.front().first;
}

uint64_t ZNVIndexSet::lastIndex() const {
    return ranges_.empty() ? static_cast<uint64_t>(ZNVNotFound)
                           : ranges_.back().first + ranges_.back().length - 1;
}

uint64_t ZNVIndexSet::indexGreaterThan(uint64_t index) const {
    for (const Range& r : ranges_) {
        if (r.first > index) return r.first;
        if (index - r.first + 1 < r.length) return index + 1;
    }
    return static_cast<uint64_t>(ZNVNotFound);
}

void ZNVIndexSet::add(uint64_t index) {
    addRange(index, 1);
}

void ZNVIndexSet::addRange(uint64_t first, uint64_t length) {
    if (length == 0) return;
    const uint64_t last = first + length;  // exclusive
    // The ranges that overlap or touch [first, last) form one run; they merge
    // with the new range. Searching and splicing in place keeps appends at the
    // end (the common case) amortised constant.
    auto begin =
        std::lower_bound(ranges_.begin(), ranges_.end(), first,
                         [](const Range& r, uint64_t v) { return r.first + r.length < v; });
    auto end = std::upper_bound(begin, ranges_.end(), last,
                                [](uint64_t v, const Range& r) { return v < r.first; });
    if (begin == end) {
        ranges_.insert(begin, Range{first, length});
        return;
    }
    const uint64_t mergedFirst = std::min(first, begin->first);
    const uint64_t mergedLast = std::max(last, std::prev(end)->first + std::prev(end)->length);
    *begin = Range{mergedFirst, mergedLast - mergedFirst};
    ranges_.erase(std::next(begin), end);
}

void ZNVIndexSet::add(const ZNVIndexSet& other) {
    if (&other == this) return;
    for (const Range& r : other.ranges_)
        addRange(r.first, r.length);
}

void ZNVIndexSet::remove(uint64_t index) {
    removeRange(index, 1);
}

void ZNVIndexSet::removeRange(uint64_t first, uint64_t length) {
    if (length == 0) return;
    const uint64_t last = first + length;  // exclusive
    // The ranges that overlap [first, last); only the first and the last of
    // them can keep a piece.
    auto begin =
        std::lower_bound(ranges_.begin(), ranges_.end(), first,
                         [](const Range& r, uint64_t v) { return r.first + r.length <= v; });
    auto end = std::lower_bound(begin, ranges_.end(), last,
                                [](const Range& r, uint64_t v) { return r.first < v; });
    if (begin == end) return;
    Range pieces[2];
    size_t count = 0;
    if (begin->first < first) pieces[count++] = Range{begin->first, first - begin->first};
    const uint64_t tailEnd = std::prev(end)->first + std::prev(end)->length;
    if (tailEnd > last) pieces[count++] = Range{last, tailEnd - last};
    auto at = ranges_.erase(begin, end);
    ranges_.insert(at, pieces, pieces + count);
}

void ZNVIndexSet::remove(const ZNVIndexSet& other) {
    if (&other == this) {
        clear();
        return;
    }
    for (const Range& r : other.ranges_)
        removeRange(r.first, r.length);
}

ZNVIndexSet ZNVIndexSet::unionWith(const ZNVIndexSet& other) const {
    ZNVIndexSet result = *this;
    result.add(other);
    return result;
}

ZNVIndexSet ZNVIndexSet::intersectionWith(const ZNVIndexSet& other) const {
    ZNVIndexSet result;
    size_t i = 0, j = 0;
    while (i < ranges_.size() && j < other.ranges_.size()) {
        const Range& a = ranges_[i];
        const Range& b = other.ranges_[j];
        uint64_t start = std::max(a.first, b.first);
        uint64_t end = std::min(a.first + a.length, b.first + b.length);
        if (start < end) result.ranges_.push_back({start, end - start});
        if (a.first + a.length < b.first + b.length) {
            ++i;
        } else {
            ++j;
        }
    }
    return result;
}

ZNVIndexSet ZNVIndexSet::minus(const ZNVIndexSet& other) const {
    ZNVIndexSet result = *this;
    result.remove(other);
    return result;
}

void ZNVIndexSet::forEach(const std::function<bool(uint64_t)>& fn) const {
    for (const Range& r : ranges_) {
        for (uint64_t k = 0; k < r.length; ++k) {
            if (!fn(r.first + k)) return;
        }
    }
}

std::vector<uint64_t> ZNVIndexSet::indices() const {
    std::vector<uint64_t> out;
    forEach([&](uint64_t i) {
        out.push_back(i);
        return true;
    });
    return out;
}

}  // namespace znv
