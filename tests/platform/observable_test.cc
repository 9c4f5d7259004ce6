#include "znv/platform/observable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace znv {
namespace {

// A small observable with a scalar and an ordered collection, written the way
// the library's tasks and managers announce their changes.
class Shelf : public ZNVObservable {
  public:
    int state() const { return state_; }
    void setState(int s) {
        willChangeValueForKey("state");
        state_ = s;
        didChangeValueForKey("state");
    }
    const std::vector<std::string>& items() const { return items_; }
    void append(const std::string& item) {
        ZNVIndexSet indexes{items_.size()};
        willChange("items", ZNVKeyValueChange::Insertion, indexes);
        items_.push_back(item);
        didChange("items", ZNVKeyValueChange::Insertion, indexes);
    }
    void removeAt(const ZNVIndexSet& indexes) {
        willChange("items", ZNVKeyValueChange::Removal, indexes);
        std::vector<std::string> kept;
        for (size_t i = 0; i < items_.size(); ++i) {
            if (!indexes.contains(i)) kept.push_back(items_[i]);
        }
        items_ = kept;
        didChange("items", ZNVKeyValueChange::Removal, indexes);
    }

  private:
    int state_ = 0;
    std::vector<std::string> items_;
};

struct Seen {
    ZNVKeyValueChange kind;
    ZNVIndexSet indexes;
    bool prior;
    bool initial;
    size_t countAtCall;
};

TEST(Observable, ChangesReachOnlyTheirKeyWithKindIndexesAndPriorSeeingTheOldValue) {
    Shelf shelf;
    shelf.append("a");
    std::vector<Seen> seen;
    auto token = shelf.addObserver(
        "items",
        [&](const ZNVKeyValueChangeRecord& c) {
            EXPECT_EQ(c.object, &shelf);
            EXPECT_EQ(c.key, "items");
            seen.push_back({c.kind, c.indexes, c.isPrior, c.isInitial, shelf.items().size()});
        },
        ZNVKeyValueObservingOptionPrior);
    EXPECT_NE(token, 0u);
    shelf.append("b");
    shelf.append("c");
    shelf.removeAt(ZNVIndexSet{0, 2});

    ASSERT_EQ(seen.size(), 6u);
    // Will-change runs before the mutation, did-change after it.
    EXPECT_TRUE(seen[0].prior);
    EXPECT_EQ(seen[0].countAtCall, 1u);
    EXPECT_FALSE(seen[1].prior);
    EXPECT_EQ(seen[1].countAtCall, 2u);
    EXPECT_EQ(seen[1].kind, ZNVKeyValueChange::Insertion);
    EXPECT_EQ(seen[1].indexes, ZNVIndexSet{1});
    EXPECT_EQ(seen[3].indexes, ZNVIndexSet{2});
    EXPECT_EQ(seen[5].kind, ZNVKeyValueChange::Removal);
    EXPECT_EQ(seen[5].indexes, (ZNVIndexSet{0, 2}));
    EXPECT_EQ(seen[5].countAtCall, 1u);
    EXPECT_EQ(shelf.items(), std::vector<std::string>{"b"});

    // Only the observed key is delivered; without the prior option only after
    // the change.
    int stateCalls = 0;
    shelf.addObserver("state", [&](const ZNVKeyValueChangeRecord& c) {
        EXPECT_FALSE(c.isPrior);
        EXPECT_EQ(c.kind, ZNVKeyValueChange::Setting);
        EXPECT_TRUE(c.indexes.empty());
        EXPECT_EQ(shelf.state(), 7);
        ++stateCalls;
    });
    shelf.setState(7);
    EXPECT_EQ(stateCalls, 1);
    EXPECT_EQ(seen.size(), 6u);
    EXPECT_TRUE(shelf.hasObservers("state"));
    EXPECT_FALSE(shelf.hasObservers("other"));
}

TEST(Observable, InitialOptionCallsOnceBeforeAddReturnsAndCanRemoveItself) {
    Shelf shelf;
    shelf.setState(3);
    std::vector<bool> initialFlags;
    ZNVObserverToken returned = 0;
    ZNVObserverToken seenToken = 0;
    returned = shelf.addObserver(
        "state",
        [&](const ZNVKeyValueChangeRecord& c) {
            EXPECT_EQ(returned, 0u) << "initial call must come before addObserver returns";
            initialFlags.push_back(c.isInitial);
            seenToken = c.token;
        },
        ZNVKeyValueObservingOptionInitial);
    ASSERT_EQ(initialFlags, std::vector<bool>{true});
    EXPECT_EQ(seenToken, returned);
    returned = 0;  // later calls may see any value; reset for the check above
    shelf.setState(4);
    EXPECT_EQ(initialFlags, (std::vector<bool>{true, false}));

    // An observer that removes itself in its initial call is never called again.
    int calls = 0;
    shelf.addObserver(
        "state",
        [&](const ZNVKeyValueChangeRecord& c) {
            ++calls;
            shelf.removeObserver(c.token);
        },
        ZNVKeyValueObservingOptionInitial);
    shelf.setState(5);
    EXPECT_EQ(calls, 1);
}

TEST(Observable, RemovalInsideACallbackStopsLaterObserversOfTheSameWalk) {
    Shelf shelf;
    std::vector<std::string> order;
    ZNVObserverToken second = 0;
    ZNVObserverToken first = shelf.addObserver("state", [&](const ZNVKeyValueChangeRecord& c) {
        order.push_back("first");
        shelf.removeObserver(c.token);  // itself
        shelf.removeObserver(second);   // a later one in the same walk
    });
    second = shelf.addObserver("state",
                               [&](const ZNVKeyValueChangeRecord&) { order.push_back("second"); });
    shelf.addObserver("state", [&](const ZNVKeyValueChangeRecord&) { order.push_back("third"); });
    shelf.setState(1);
    EXPECT_EQ(order, (std::vector<std::string>{"first", "third"}));
    shelf.setState(2);
    EXPECT_EQ(order, (std::vector<std::string>{"first", "third", "third"}));
    shelf.removeObserver(first);  // already gone: ignored
    shelf.removeObserver(12345678);
}

TEST(Observable, CallbackMayAnnounceAndRegisterFurtherChanges) {
    Shelf shelf;
    std::vector<int> states;
    shelf.addObserver("state", [&](const ZNVKeyValueChangeRecord&) {
        states.push_back(shelf.state());
        if (shelf.state() < 3) shelf.setState(shelf.state() + 1);
    });
    int lateCalls = 0;
    shelf.addObserver("items", [&](const ZNVKeyValueChangeRecord&) {
        // Registered during a walk: not part of the walk that added it.
        shelf.addObserver("items", [&](const ZNVKeyValueChangeRecord&) { ++lateCalls; });
    });
    shelf.setState(1);
    EXPECT_EQ(states, (std::vector<int>{1, 2, 3}));
    shelf.append("x");
    EXPECT_EQ(lateCalls, 0);
    shelf.append("y");
    EXPECT_EQ(lateCalls, 1);
}

class Pinger : public ZNVObservable {
  public:
    void ping() {
        willChangeValueForKey("ping");
        didChangeValueForKey("ping");
    }
};

TEST(Observable, ConcurrentAnnouncementsAndRegistrationsAreSafe) {
    Pinger pinger;
    std::atomic<int> stable{0};
    pinger.addObserver(
        "ping", [&](const ZNVKeyValueChangeRecord&) { ++stable; }, ZNVKeyValueObservingOptionPrior);
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop.load()) {
            auto t = pinger.addObserver("ping", [](const ZNVKeyValueChangeRecord&) {});
            pinger.removeObserver(t);
        }
    });
    std::vector<std::thread> announcers;
    for (int t = 0; t < 3; ++t) {
        announcers.emplace_back([&] {
            for (int i = 0; i < 1000; ++i)
                pinger.ping();
        });
    }
    for (auto& a : announcers)
        a.join();
    stop = true;
    churn.join();
    EXPECT_EQ(stable.load(), 2 * 3 * 1000);
}

}  // namespace
}  // namespace znv
