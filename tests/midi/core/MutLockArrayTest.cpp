#include "midi/MutLockArray.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

struct Item {
    int value = 0;
    int hits = 0;
    bool operator==(const Item& o) const { return value == o.value; }
    std::string description() const { return "item" + std::to_string(value); }
    void hit() { ++hits; }
    void add(int n) { hits += n; }
};
using Array = MutLockArray<Item>;
using P = std::shared_ptr<Item>;

P item(int v) {
    return std::make_shared<Item>(Item{v});
}

std::string values(Array& a) {
    std::string s;
    for (const P& p : a.lockCreateArrayCopy())
        s += std::to_string(p->value);
    return s;
}

Array& fill(Array& a, std::initializer_list<int> vs) {
    for (int v : vs)
        a.lockAddObject(item(v));
    return a;
}

TEST(MutLockArray, InsertAcceptsIndexesUpToTheCount) {
    struct Case {
        long index;
        bool accepted;
        const char* after;
    };
    for (const Case& c : {Case{0, true, "9123"}, Case{3, true, "1239"}, Case{4, false, "123"},
                          Case{-1, false, "123"}, Case{1, true, "1923"}}) {
        Array a;
        fill(a, {1, 2, 3});
        EXPECT_EQ(a.lockInsertObjectAtIndex(item(9), c.index), c.accepted) << c.index;
        EXPECT_EQ(values(a), c.after) << c.index;
    }
    Array a;
    EXPECT_FALSE(a.lockInsertObjectAtIndex(nullptr, 0));
    a.lockAddObject(nullptr);
    EXPECT_EQ(a.lockCount(), 0);
}

TEST(MutLockArray, IndexedReadsAndRemovalsIgnoreOutOfRangeIndexes) {
    Array a;
    fill(a, {1, 2, 3});
    EXPECT_EQ(a.lockObjectAtIndex(-1), nullptr);
    EXPECT_EQ(a.lockObjectAtIndex(3), nullptr);
    EXPECT_EQ(a.lockObjectAtIndex(2)->value, 3);
    a.lockRemoveObjectAtIndex(-1);
    a.lockRemoveObjectAtIndex(3);
    EXPECT_EQ(values(a), "123");
    EXPECT_EQ(a.lockObjectsAtIndexes({0, 2, 7}).size(), 2u);
    a.lockRemoveObjectsAtIndexes({0, 2, 7});
    EXPECT_EQ(values(a), "2");
    a.lockRemoveObjectAtIndex(0);
    EXPECT_EQ(a.lockFirstObject(), nullptr);
    EXPECT_EQ(a.lockLastObject(), nullptr);
    a.lockRemoveFirstObject();
    a.lockRemoveLastObject();
    EXPECT_EQ(a.lockCount(), 0);
}

TEST(MutLockArray, EqualityAndIdentityLookupsDiffer) {
    Array a;
    P one = item(1);
    P oneAgain = item(1); // equal, not identical
    a.lockAddObject(item(0));
    a.lockAddObject(one);
    EXPECT_EQ(a.lockIndexOfObject(nullptr), -1);
    EXPECT_EQ(a.lockIndexOfObject(item(5)), Array::kNotFound);
    EXPECT_EQ(a.lockIndexOfObject(oneAgain), 1);
    EXPECT_TRUE(a.lockContainsObject(oneAgain));
    EXPECT_FALSE(a.lockContainsObject(nullptr));
    EXPECT_EQ(a.lockIndexOfIdenticalPtr(oneAgain), Array::kNotFound);
    EXPECT_EQ(a.lockIndexOfIdenticalPtr(nullptr), Array::kNotFound);
    EXPECT_EQ(a.lockIndexOfIdenticalPtr(one), 1);
    EXPECT_FALSE(a.lockContainsIdenticalPtr(oneAgain));
    EXPECT_TRUE(a.lockContainsIdenticalPtr(one));
    a.lockRemoveIdenticalPtr(oneAgain);
    EXPECT_EQ(a.lockCount(), 2);
    a.lockRemoveIdenticalPtr(one);
    EXPECT_EQ(values(a), "0");
}

TEST(MutLockArray, RemovingByEqualityTakesEveryMatch) {
    Array a;
    fill(a, {1, 2, 1, 3, 1});
    a.lockRemoveObject(item(1));
    EXPECT_EQ(values(a), "23");
    fill(a, {4, 2});
    a.lockRemoveObjectsInArray({item(2), item(4)});
    EXPECT_EQ(values(a), "3");
}

TEST(MutLockArray, RemovingIdenticalPointersTakesOneOccurrencePerFind) {
    P a1 = item(1), b = item(2);
    struct Case {
        const char* name;
        std::vector<P> removed;
        const char* after;
    };
    for (const Case& c : {Case{"once", {a1}, "21"}, Case{"listed twice", {a1, a1}, "21"},
                          Case{"equal but distinct", {item(1)}, "121"},
                          Case{"two objects", {b, a1}, "1"}, Case{"empty", {}, "121"}}) {
        Array a;
        a.lockAddObject(a1);
        a.lockAddObject(b);
        a.lockAddObject(a1);
        a.lockRemoveIdenticalPtrsInArray(c.removed);
        EXPECT_EQ(values(a), c.after) << c.name;
    }
}

TEST(MutLockArray, AddingAndReplacingFromListsAndOtherLockedLists) {
    Array a, other;
    fill(a, {1});
    a.lockAddObjectsFromArray(Array::List{});
    EXPECT_EQ(values(a), "1");
    fill(other, {7, 8});
    a.lockAddObjectsFromArray(other);
    EXPECT_EQ(values(a), "178");
    other.lockAddObject(item(9)); // the appended part was a snapshot
    EXPECT_EQ(values(a), "178");
    a.lockAddObjectsFromArray(a);
    EXPECT_EQ(values(a), "178178");

    a.lockReplaceWithObjectsFromArray(other);
    EXPECT_EQ(values(a), "789");
    a.lockReplaceWithObjectsFromArray(a);
    EXPECT_EQ(values(a), "789");
    a.lockReplaceWithObjectsFromArray(Array::List{item(5)});
    EXPECT_EQ(values(a), "5");
    // The other list was unlocked again: a writer gets through.
    other.lockRemoveAllObjects();
    EXPECT_EQ(other.lockCount(), 0);
    // Plain form under our own write lock takes only the other's read lock.
    fill(other, {3});
    a.wrlock();
    a.replaceWithObjectsFromArray(other);
    a.unlock();
    EXPECT_EQ(values(a), "3");
}

TEST(MutLockArray, ReplaceAtIndexesNeedsOneObjectPerValidIndex) {
    struct Case {
        Array::IndexSet indexes;
        std::vector<int> objects;
        const char* after;
    };
    for (const Case& c :
         {Case{{0, 2}, {8, 9}, "829"}, Case{{1}, {7}, "173"}, Case{{0, 3}, {8, 9}, "123"},
          Case{{0, 1}, {8}, "123"}, Case{{}, {}, "123"}}) {
        Array a;
        fill(a, {1, 2, 3});
        Array::List objs;
        for (int v : c.objects)
            objs.push_back(item(v));
        a.lockReplaceObjectsAtIndexesWithObjects(c.indexes, objs);
        EXPECT_EQ(values(a), c.after);
    }
}

TEST(MutLockArray, FilteringValuesSortingAndPerformingOnElements) {
    Array a;
    EXPECT_FALSE(a.lockFilteredArrayUsingPredicate([](const Item&) { return true; }));
    fill(a, {3, 1, 2, 5});
    auto odd = a.lockFilteredArrayUsingPredicate([](const Item& i) { return i.value % 2; });
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->size(), 3u);
    EXPECT_FALSE(a.lockFilteredArrayUsingPredicate(nullptr));

    auto doubled = a.lockValueForKey<int>([](const Item& i) { return i.value * 2; });
    ASSERT_TRUE(doubled);
    EXPECT_EQ(*doubled, (std::vector<int>{6, 2, 4, 10}));
    EXPECT_FALSE(a.lockValueForKey<int>(nullptr));

    a.lockSortUsingSelector([](const Item& x, const Item& y) { return x.value < y.value; });
    EXPECT_EQ(values(a), "1235");
    a.lockSortUsingDescriptors(
        {{[](const Item& x, const Item& y) { return (x.value % 2) - (y.value % 2); }, true},
         {[](const Item& x, const Item& y) { return x.value - y.value; }, false}});
    EXPECT_EQ(values(a), "2531");

    a.lockMakeObjectsPerformSelector(&Item::hit);
    a.lockMakeObjectsPerformSelectorWithObject(&Item::add, 10);
    for (const P& p : a.lockCreateArrayCopy())
        EXPECT_EQ(p->hits, 11);
    EXPECT_EQ(a.description(), "<MutLockArray: (item2, item5, item3, item1)>");
}

TEST(MutLockArray, TryReadLockFailsWhileAWriterHoldsTheLock) {
    Array a;
    fill(a, {1});
    EXPECT_TRUE(a.tryRdLock());
    EXPECT_TRUE(a.tryRdLock()); // readers share
    a.unlock();
    a.unlock();
    a.wrlock();
    bool got = true;
    std::thread([&] { got = a.tryRdLock(); }).join();
    EXPECT_FALSE(got);
    EXPECT_EQ(a.firstObject()->value, 1); // plain forms while holding the lock
    a.unlock();
    std::thread([&] {
        got = a.tryRdLock();
        if (got)
            a.unlock();
    }).join();
    EXPECT_TRUE(got);
}

TEST(MutLockArray, ElementsOutliveTheirRemoval) {
    Array a;
    fill(a, {4});
    P kept = a.lockFirstObject();
    a.lockRemoveAllObjects();
    EXPECT_EQ(kept->value, 4);
    EXPECT_EQ(kept.use_count(), 1);
}

} // namespace
