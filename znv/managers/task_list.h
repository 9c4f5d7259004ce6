// ZNVTaskList: the ordered collection behind a task manager's `tasks`,
// `downloads` and `uploads`, with snapshots that cost next to nothing and
// removals that cost a chunk, not the list.
//
// Contract
// - Not thread-safe on its own: the owner guards every call with its mutex.
//   A `Snapshot` taken under that mutex may be kept and walked on any thread
//   afterwards, without the lock, while the owner goes on changing the list.
// - A snapshot is the list as it was when it was taken: later appends,
//   removals and clears never show through it.
// - An element is held at most once: appending one already held does nothing.
// - Taking a snapshot copies no element. Elements live in chunks of up to
//   `kChunkSize` that tables of chunks share; a chunk's slots are written
//   once, when an append fills the slot past the end of every snapshot, and
//   never again (so readers and the writer never touch the same slot). A
//   removal builds a fresh chunk for the one it changes (merged with a
//   neighbour when both fit in one) and a fresh table, and leaves the old
//   ones to the snapshots that still hold them.
// - Costs, for n elements: append amortised O(1) (a new table every
//   `kChunkSize` appends, O(n / kChunkSize)); snapshot O(1);
//   `indexOfIdentical` and `removeIdentical` O(n / kChunkSize + kChunkSize);
//   a walk O(n) without touching any element's reference count; a
//   snapshot's `operator[]` O(log(n / kChunkSize)).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <memory>
#include <unordered_map>
#include <vector>

namespace znv {

template <class T>
class ZNVTaskList {
    static constexpr size_t kChunkSize = 256;
    using Item = std::shared_ptr<T>;
    struct Chunk {
        std::array<Item, kChunkSize> items;
    };
    // A chunk and the list position of its first element. It holds the
    // elements up to the next entry's start; the last one up to the size of
    // the list, or of the snapshot that reads it. No entry is empty.
    struct Entry {
        std::shared_ptr<Chunk> chunk;
        size_t start = 0;
    };
    using Table = std::vector<Entry>;

  public:
    class Snapshot {
      public:
        // Walks the elements in order.
        class Iterator {
          public:
            using iterator_category = std::forward_iterator_tag;
            using value_type = Item;
            using difference_type = std::ptrdiff_t;
            using pointer = const Item*;
            using reference = const Item&;

            Iterator() = default;
            reference operator*() const { return (*table_)[entry_].chunk->items[offset_]; }
            pointer operator->() const { return &**this; }
            Iterator& operator++() {
                ++position_;
                ++offset_;
                if (entry_ + 1 < table_->size() && position_ == (*table_)[entry_ + 1].start) {
                    ++entry_;
                    offset_ = 0;
                }
                return *this;
            }
            Iterator operator++(int) {
                Iterator before = *this;
                ++*this;
                return before;
            }
            bool operator==(const Iterator& other) const { return position_ == other.position_; }

          private:
            friend class Snapshot;
            Iterator(const Table* table, size_t position) : table_(table), position_(position) {}
            const Table* table_ = nullptr;
            size_t entry_ = 0;
            size_t offset_ = 0;
            size_t position_ = 0;
        };

        Snapshot() = default;
        size_t size() const { return size_; }
        bool empty() const { return size_ == 0; }
        Iterator begin() const { return Iterator(table_.get(), 0); }
        Iterator end() const { return Iterator(table_.get(), size_); }
        const Item& operator[](size_t index) const {
            const Table& table = *table_;
            auto after = std::upper_bound(
                table.begin(), table.end(), index,
                [](size_t position, const Entry& entry) { return position < entry.start; });
            const Entry& entry = *std::prev(after);
            return entry.chunk->items[index - entry.start];
        }
        // Calls `visit(const std::shared_ptr<T>&)` for every element in order.
        template <class Visit>
        void forEach(Visit&& visit) const {
            for (const Item& item : *this)
                visit(item);
        }
        // The elements as a vector of (possibly base-class) pointers.
        template <class U = T>
        std::vector<std::shared_ptr<U>> toVector() const {
            std::vector<std::shared_ptr<U>> result;
            result.reserve(size_);
            forEach([&](const Item& item) { result.push_back(item); });
            return result;
        }

      private:
        friend class ZNVTaskList;
        Snapshot(std::shared_ptr<const Table> table, size_t size)
            : table_(std::move(table)), size_(size) {}
        std::shared_ptr<const Table> table_;
        size_t size_ = 0;
    };

    ZNVTaskList() = default;
    // A copy would share its last chunk with the original, and both would
    // append into it: snapshots are the way to share a list.
    ZNVTaskList(const ZNVTaskList&) = delete;
    ZNVTaskList& operator=(const ZNVTaskList&) = delete;

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    Snapshot snapshot() const { return Snapshot(table_, size_); }
    std::vector<Item> toVector() const { return snapshot().toVector(); }

    void append(Item item) {
        const void* object = item.get();
        auto [where, added] = chunkOf_.try_emplace(object, nullptr);
        if (!added) return;
        if (!table_ || size_ - table_->back().start == kChunkSize) {
            // The current table may be shared by snapshots: extend a copy.
            auto next = table_ ? std::make_shared<Table>(*table_) : std::make_shared<Table>();
            next->push_back(Entry{std::make_shared<Chunk>(), size_});
            table_ = std::move(next);
        }
        const Entry& last = table_->back();
        last.chunk->items[size_ - last.start] = std::move(item);
        where->second = last.chunk.get();
        ++size_;
    }

    // Position of the element that is `object`, or size() when absent.
    size_t indexOfIdentical(const void* object) const {
        auto where = chunkOf_.find(object);
        if (where == chunkOf_.end()) return size_;
        const size_t index = entryOf(where->second);
        const Entry& entry = (*table_)[index];
        for (size_t offset = 0;; ++offset) {
            if (entry.chunk->items[offset].get() == object) return entry.start + offset;
        }
    }

    // Removes the element that is `object`; true when it was there.
    bool removeIdentical(const void* object) {
        auto where = chunkOf_.find(object);
        if (where == chunkOf_.end()) return false;
        const size_t index = entryOf(where->second);
        chunkOf_.erase(where);
        const Table& old = *table_;
        const size_t left = extent(index) - 1;
        // The entries [first, last] are replaced by one fresh chunk holding
        // what they keep: the changed chunk, with a neighbour when both fit.
        size_t first = index;
        size_t last = index;
        if (left > 0 && index + 1 < old.size() && left + extent(index + 1) <= kChunkSize) {
            last = index + 1;
        } else if (left > 0 && index > 0 && left + extent(index - 1) <= kChunkSize) {
            first = index - 1;
        }
        auto fresh = std::make_shared<Chunk>();
        size_t kept = 0;
        for (size_t e = first; e <= last; ++e) {
            for (size_t offset = 0; offset < extent(e); ++offset) {
                const Item& item = old[e].chunk->items[offset];
                if (item.get() == object) continue;
                chunkOf_[item.get()] = fresh.get();
                fresh->items[kept++] = item;
            }
        }
        auto next = std::make_shared<Table>();
        next->reserve(old.size());
        next->insert(next->end(), old.begin(), old.begin() + static_cast<ptrdiff_t>(first));
        if (kept > 0) next->push_back(Entry{std::move(fresh), old[first].start});
        for (size_t e = last + 1; e < old.size(); ++e)
            next->push_back(Entry{old[e].chunk, old[e].start - 1});
        --size_;
        table_ = next->empty() ? nullptr : std::move(next);
        return true;
    }

    void clear() {
        table_.reset();
        size_ = 0;
        chunkOf_.clear();
    }

  private:
    size_t extent(size_t index) const {
        const Table& table = *table_;
        const size_t end = index + 1 < table.size() ? table[index + 1].start : size_;
        return end - table[index].start;
    }
    size_t entryOf(const Chunk* chunk) const {
        const Table& table = *table_;
        size_t index = 0;
        while (table[index].chunk.get() != chunk)
            ++index;
        return index;
    }

    // The table is never changed once a snapshot may share it, and a chunk's
    // slot is written only by the append that fills it.
    std::shared_ptr<Table> table_;
    size_t size_ = 0;
    // The chunk of the current table that holds each element.
    std::unordered_map<const void*, const Chunk*> chunkOf_;
};

}  // namespace znv
