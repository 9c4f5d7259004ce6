// ZNVTaskList: the ordered collection behind a task manager's `tasks`,
// `downloads` and `uploads`, with snapshots that cost next to nothing.
//
// Contract
// - Not thread-safe on its own: the owner guards every call with its mutex.
//   A `Snapshot` taken under that mutex may be kept and walked on any thread
//   afterwards, without the lock, while the owner goes on changing the list.
// - A snapshot is the list as it was when it was taken: later appends,
//   removals and clears never show through it.
// - Taking a snapshot copies no element: elements live in fixed-size chunks
//   that snapshots share. An append writes only a slot past the end of every
//   existing snapshot (so readers and the writer never touch the same
//   element); a removal or a clear builds fresh chunks and leaves the old ones
//   to the snapshots that still hold them.
// - Costs: append amortised O(1) (a new chunk table every `kChunkSize`
//   appends), snapshot O(1), removal O(n), walk O(n) without touching any
//   element's reference count.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

namespace znv {

template <class T>
class ZNVTaskList {
    static constexpr size_t kChunkSize = 256;
    using Item = std::shared_ptr<T>;
    struct Chunk {
        std::array<Item, kChunkSize> items;
    };
    using Table = std::vector<std::shared_ptr<Chunk>>;

  public:
    class Snapshot {
      public:
        Snapshot() = default;
        size_t size() const { return size_; }
        bool empty() const { return size_ == 0; }
        const Item& operator[](size_t index) const {
            return (*table_)[index / kChunkSize]->items[index % kChunkSize];
        }
        // Calls `visit(const std::shared_ptr<T>&)` for every element in order.
        template <class Visit>
        void forEach(Visit&& visit) const {
            for (size_t i = 0; i < size_; ++i)
                visit((*this)[i]);
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

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    Snapshot snapshot() const { return Snapshot(table_, size_); }
    std::vector<Item> toVector() const { return snapshot().toVector(); }

    void append(Item item) {
        if (size_ % kChunkSize == 0) {
            // The current table may be shared by snapshots: extend a copy.
            auto next = table_ ? std::make_shared<Table>(*table_) : std::make_shared<Table>();
            next->push_back(std::make_shared<Chunk>());
            table_ = std::move(next);
        }
        (*table_)[size_ / kChunkSize]->items[size_ % kChunkSize] = std::move(item);
        ++size_;
    }

    // Position of the element that is `object`, or size() when absent.
    size_t indexOfIdentical(const void* object) const {
        auto all = snapshot();
        for (size_t i = 0; i < all.size(); ++i) {
            if (all[i].get() == object) return i;
        }
        return size_;
    }

    // Removes every element that is `object`; true when one was there.
    bool removeIdentical(const void* object) {
        if (indexOfIdentical(object) == size_) return false;
        auto old = snapshot();
        clear();
        old.forEach([&](const Item& item) {
            if (item.get() != object) append(item);
        });
        return true;
    }

    void clear() {
        table_.reset();
        size_ = 0;
    }

  private:
    // The chunk table is never changed in place once a snapshot may share it;
    // only slots at or past `size_` of its last chunk are written.
    std::shared_ptr<Table> table_;
    size_t size_ = 0;
};

}  // namespace znv
