// One thread rebuilds a locked list the way the MIDI manager rebuilds its node
// lists, while others walk it under the read lock, send through it, and take
// single elements. Readers must only ever see a whole list, and the run must
// be clean under ThreadSanitizer and AddressSanitizer.

#include "midi/MutLockArray.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace {

struct Node {
    explicit Node(int i) : index(i) {}
    int index;
    std::atomic<int> sent{0};
    void send(int n) { sent.fetch_add(n, std::memory_order_relaxed); }
};

constexpr int kListSize = 8;

TEST(MutLockArrayConcurrency, ReadersSeeOnlyWholeListsWhileAWriterRebuilds) {
    MutLockArray<Node> list;
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<long> walks{0};

    std::thread writer([&] {
        for (int round = 0; round < 3000; ++round) {
            list.wrlock();
            list.removeAllObjects();
            for (int i = 0; i < kListSize; ++i)
                list.addObject(std::make_shared<Node>(i));
            list.unlock();
            if (round % 3 == 0) { // the manager's way: one lock per change
                list.lockRemoveAllObjects();
                for (int i = 0; i < kListSize; ++i)
                    list.lockAddObject(std::make_shared<Node>(i));
            }
        }
        stop = true;
    });

    auto reader = [&] {
        do { // at least once, however soon the writer is done
            list.rdlock();
            const auto& a = list.array();
            if (!a.empty() && static_cast<int>(a.size()) == kListSize) {
                for (int i = 0; i < kListSize; ++i)
                    if (a[i]->index != i)
                        ++torn;
            }
            list.unlock();
            list.lockMakeObjectsPerformSelectorWithObject(&Node::send, 1);
            if (auto n = list.lockObjectAtIndex(kListSize - 1))
                n->send(1); // an element outlives a concurrent removal
            if (list.tryRdLock()) {
                walks += list.count();
                list.unlock();
            }
            ++walks;
        } while (!stop);
    };
    std::thread r1(reader), r2(reader);
    writer.join();
    r1.join();
    r2.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(walks.load(), 0);
    EXPECT_EQ(list.lockCount(), kListSize);
}

} // namespace
