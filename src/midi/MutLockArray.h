#pragma once
// An ordered, growable list of shared objects behind one read/write lock, so
// that one thread can rebuild a list while others read or walk it (the MIDI
// manager's node lists: rebuilt on the main thread, walked by senders on any
// thread).
//
// Every operation comes twice. The plain one (addObject) works on the list
// without locking: the caller holds the lock already, or knows that no other
// thread touches the list. The lock variant (lockAddObject) takes the lock,
// calls the plain operation and releases the lock.
//
// THE LOCK: one pthread read/write lock, process-private, NOT recursive. Any
// number of readers, or one writer. A thread holding it (after rdlock,
// tryRdLock or wrlock) uses only the plain operations on this list until it
// calls unlock. addObjectsFromArray / replaceWithObjectsFromArray with another
// MutLockArray take that list's read lock while this list's write lock may be
// held: never make two lists wait for each other in the opposite order.
// The lock variants test only their arguments before locking; every test on
// the contents (emptiness, index range) happens under the lock.
//
// Elements are std::shared_ptr<T>: results are the elements themselves
// (shared), never copies, and outlive the lock. "Equal" means the same object,
// or, when T has operator==, objects that compare equal; "identical" always
// means the same object. Null elements are never stored.
//
// Unlike a list that can be missing, the inner vector always exists here, so
// the "list present" tests of the operations reduce to argument tests.

#include "platform/Log.h"

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <pthread.h>
#include <ranges>
#include <set>
#include <string>
#include <vector>

template <class T> class MutLockArray {
public:
    using Ptr = std::shared_ptr<T>;
    using List = std::vector<Ptr>;
    using IndexSet = std::set<size_t>;
    // The not-found index, the largest signed 32-bit value.
    static constexpr long kNotFound = 0x7FFFFFFF;

    // Sorting by descriptors: a key comparison (negative, zero, positive) and
    // a direction; later descriptors break ties of earlier ones.
    struct SortDescriptor {
        std::function<int(const T&, const T&)> compare;
        bool ascending = true;
    };

    // A negative capacity counts as 0.
    explicit MutLockArray(int capacity = 0) {
        pthread_rwlockattr_t attr;
        pthread_rwlockattr_init(&attr);
        pthread_rwlockattr_setpshared(&attr, PTHREAD_PROCESS_PRIVATE);
        pthread_rwlock_init(&lock_, &attr);
        pthread_rwlockattr_destroy(&attr);
        array_.reserve(static_cast<size_t>(std::max(capacity, 0)));
    }
    static std::shared_ptr<MutLockArray> arrayWithCapacity(int capacity) {
        return std::make_shared<MutLockArray>(capacity);
    }
    ~MutLockArray() {
        // Emptied under the write lock, so a reader still inside finishes first.
        lockRemoveAllObjects();
        pthread_rwlock_destroy(&lock_);
    }
    MutLockArray(const MutLockArray&) = delete;
    MutLockArray& operator=(const MutLockArray&) = delete;

    // "<MutLockArray: (a, b)>" with each element's description() when it has
    // one, else its address. Reads without locking, like the other plain forms.
    std::string description() const {
        std::string text = "<MutLockArray: (";
        for (size_t i = 0; i < array_.size(); ++i) {
            if (i)
                text += ", ";
            text += elementText(array_[i]);
        }
        return text + ")>";
    }

    // ---- explicit locking
    void rdlock() { pthread_rwlock_rdlock(&lock_); }
    bool tryRdLock() { return pthread_rwlock_tryrdlock(&lock_) == 0; }
    void wrlock() { pthread_rwlock_wrlock(&lock_); }
    void unlock() { pthread_rwlock_unlock(&lock_); }
    // The inner list itself, for use between a lock call and unlock.
    List& array() { return array_; }
    const List& array() const { return array_; }
    auto objectEnumerator() { return std::ranges::subrange(array_.begin(), array_.end()); }
    auto reverseObjectEnumerator() { return std::ranges::subrange(array_.rbegin(), array_.rend()); }

    // ---- copies
    List createArrayCopy() const { return array_; }
    List lockCreateArrayCopy() {
        ReadGuard g(this);
        List copy;
        copy.reserve(array_.size());
        copy.insert(copy.end(), array_.begin(), array_.end());
        return copy;
    }

    // ---- adding
    void addObject(const Ptr& object) {
        if (object)
            array_.push_back(object);
    }
    void lockAddObject(const Ptr& object) {
        if (!object)
            return;
        WriteGuard g(this);
        addObject(object);
    }

    void addObjectsFromArray(const List& objects) { appendAll(objects); }
    void lockAddObjectsFromArray(const List& objects) {
        WriteGuard g(this);
        addObjectsFromArray(objects);
    }
    // Appends a snapshot of the other list, taken under its read lock.
    void addObjectsFromArray(MutLockArray& other) {
        if (&other == this) {
            appendAll(List(array_)); // the caller holds our lock; copy without relocking
            return;
        }
        appendAll(other.lockCreateArrayCopy());
    }
    void lockAddObjectsFromArray(MutLockArray& other) {
        if (&other == this) {
            WriteGuard g(this);
            appendAll(List(array_));
            return;
        }
        // The copy is taken before our write lock: the two locks are never
        // held together on this path.
        List copy = other.lockCreateArrayCopy();
        WriteGuard g(this);
        appendAll(copy);
    }

    void replaceWithObjectsFromArray(const List& objects) {
        try {
            List copy(objects); // objects may alias our own list
            array_.clear();
            appendAll(copy);
        } catch (const std::exception& e) {
            logReplaceFailure(e.what());
        }
    }
    void lockReplaceWithObjectsFromArray(const List& objects) {
        WriteGuard g(this);
        replaceWithObjectsFromArray(objects);
    }
    // The other list is read-locked while its elements are appended, and
    // unlocked in every case. Replacing a list by itself changes nothing.
    void replaceWithObjectsFromArray(MutLockArray& other) {
        if (&other == this)
            return;
        other.rdlock();
        try {
            array_.clear();
            appendAll(other.array_);
        } catch (const std::exception& e) {
            logReplaceFailure(e.what());
        }
        other.unlock();
    }
    void lockReplaceWithObjectsFromArray(MutLockArray& other) {
        if (&other == this)
            return;
        WriteGuard g(this);
        replaceWithObjectsFromArray(other);
    }

    // Replaces the elements at the indexes, in ascending index order, by the
    // objects in order. Nothing changes unless there is one non-null object per
    // index and every index is below the count.
    void replaceObjectsAtIndexesWithObjects(const IndexSet& indexes, const List& objects) {
        if (indexes.size() != objects.size() || indexes.empty())
            return;
        if (*indexes.rbegin() >= array_.size())
            return;
        if (std::ranges::any_of(objects, [](const Ptr& p) { return !p; }))
            return;
        size_t i = 0;
        for (size_t index : indexes)
            array_[index] = objects[i++];
    }
    void lockReplaceObjectsAtIndexesWithObjects(const IndexSet& indexes, const List& objects) {
        WriteGuard g(this);
        replaceObjectsAtIndexesWithObjects(indexes, objects);
    }

    // Inserts and answers true; false for a null object or an index above the
    // count (compared unsigned, so a negative index is refused too).
    bool insertObjectAtIndex(const Ptr& object, long index) {
        const auto u = static_cast<unsigned long>(index);
        if (!object || u > array_.size())
            return false;
        array_.insert(array_.begin() + static_cast<std::ptrdiff_t>(u), object);
        return true;
    }
    bool lockInsertObjectAtIndex(const Ptr& object, long index) {
        if (!object)
            return false;
        WriteGuard g(this);
        return insertObjectAtIndex(object, index);
    }

    // ---- removing
    void removeAllObjects() { array_.clear(); }
    void lockRemoveAllObjects() {
        // The elements are released after the lock: an element's destructor
        // (a node closing its port, say) must not run with readers waiting.
        List old;
        {
            WriteGuard g(this);
            old.swap(array_);
        }
    }

    void removeFirstObject() {
        if (!array_.empty())
            array_.erase(array_.begin());
    }
    void lockRemoveFirstObject() {
        WriteGuard g(this);
        removeFirstObject();
    }
    void removeLastObject() {
        if (!array_.empty())
            array_.pop_back();
    }
    void lockRemoveLastObject() {
        WriteGuard g(this);
        removeLastObject();
    }

    // Removes every element equal to the object.
    void removeObject(const Ptr& object) {
        if (!object)
            return;
        std::erase_if(array_, [&](const Ptr& e) { return isEqual(e, object); });
    }
    void lockRemoveObject(const Ptr& object) {
        WriteGuard g(this);
        removeObject(object);
    }

    // An index below 0 or not below the count is ignored.
    void removeObjectAtIndex(long index) {
        if (index < 0 || static_cast<size_t>(index) >= array_.size())
            return;
        array_.erase(array_.begin() + index);
    }
    void lockRemoveObjectAtIndex(long index) {
        WriteGuard g(this);
        removeObjectAtIndex(index);
    }

    // Indexes not below the count are skipped.
    void removeObjectsAtIndexes(const IndexSet& indexes) {
        for (auto it = indexes.rbegin(); it != indexes.rend(); ++it) {
            if (*it < array_.size())
                array_.erase(array_.begin() + static_cast<std::ptrdiff_t>(*it));
        }
    }
    void lockRemoveObjectsAtIndexes(const IndexSet& indexes) {
        WriteGuard g(this);
        removeObjectsAtIndexes(indexes);
    }

    // Removes every element equal to any element of the list.
    void removeObjectsInArray(const List& objects) {
        if (objects.empty())
            return;
        std::erase_if(array_, [&](const Ptr& e) {
            return std::ranges::any_of(objects, [&](const Ptr& o) { return o && isEqual(e, o); });
        });
    }
    void lockRemoveObjectsInArray(const List& objects) {
        WriteGuard g(this);
        removeObjectsInArray(objects);
    }

    // For each object, the first element that is that very object; all found
    // indexes are removed at once (an object listed twice removes one element).
    void removeIdenticalPtrsInArray(const List& objects) {
        if (objects.empty())
            return;
        IndexSet found;
        for (const Ptr& o : objects) {
            const long i = indexOfIdenticalPtr(o);
            if (i != kNotFound)
                found.insert(static_cast<size_t>(i));
        }
        removeObjectsAtIndexes(found);
    }
    void lockRemoveIdenticalPtrsInArray(const List& objects) {
        if (objects.empty())
            return;
        WriteGuard g(this);
        removeIdenticalPtrsInArray(objects);
    }

    // Removes the first element that is the object itself.
    void removeIdenticalPtr(const Ptr& object) {
        const long i = indexOfIdenticalPtr(object);
        if (i != kNotFound)
            array_.erase(array_.begin() + i);
    }
    void lockRemoveIdenticalPtr(const Ptr& object) {
        if (!object)
            return;
        WriteGuard g(this);
        removeIdenticalPtr(object);
    }

    // ---- reading
    Ptr firstObject() const { return array_.empty() ? nullptr : array_.front(); }
    Ptr lockFirstObject() {
        ReadGuard g(this);
        return firstObject();
    }
    Ptr lastObject() const { return array_.empty() ? nullptr : array_.back(); }
    Ptr lockLastObject() {
        WriteGuard g(this); // the write lock, as the list's users have always had it
        return lastObject();
    }

    Ptr objectAtIndex(long index) const {
        if (index < 0 || static_cast<size_t>(index) >= array_.size())
            return nullptr;
        return array_[static_cast<size_t>(index)];
    }
    Ptr lockObjectAtIndex(long index) {
        ReadGuard g(this);
        return objectAtIndex(index);
    }

    // A new list of the elements at the indexes; indexes past the end are skipped.
    List objectsAtIndexes(const IndexSet& indexes) const {
        List out;
        for (size_t i : indexes)
            if (i < array_.size())
                out.push_back(array_[i]);
        return out;
    }
    List lockObjectsAtIndexes(const IndexSet& indexes) {
        ReadGuard g(this);
        return objectsAtIndexes(indexes);
    }

    bool containsObject(const Ptr& object) const {
        if (!object)
            return false;
        return std::ranges::any_of(array_, [&](const Ptr& e) { return isEqual(e, object); });
    }
    bool lockContainsObject(const Ptr& object) {
        if (!object)
            return false;
        ReadGuard g(this);
        return containsObject(object);
    }

    // The first equal element's index; kNotFound when none; -1 for a null object.
    long indexOfObject(const Ptr& object) const {
        if (!object)
            return -1;
        for (size_t i = 0; i < array_.size(); ++i)
            if (isEqual(array_[i], object))
                return static_cast<long>(i);
        return kNotFound;
    }
    long lockIndexOfObject(const Ptr& object) {
        if (!object)
            return -1;
        ReadGuard g(this);
        return indexOfObject(object);
    }

    bool containsIdenticalPtr(const Ptr& object) const {
        return indexOfIdenticalPtr(object) != kNotFound;
    }
    bool lockContainsIdenticalPtr(const Ptr& object) {
        if (!object)
            return false;
        ReadGuard g(this);
        return containsIdenticalPtr(object);
    }
    long indexOfIdenticalPtr(const Ptr& object) const {
        if (!object)
            return kNotFound;
        for (size_t i = 0; i < array_.size(); ++i)
            if (array_[i].get() == object.get())
                return static_cast<long>(i);
        return kNotFound;
    }
    long lockIndexOfIdenticalPtr(const Ptr& object) {
        if (!object)
            return kNotFound;
        ReadGuard g(this);
        return indexOfIdenticalPtr(object);
    }

    // Each element's value for a key (a getter); nullopt for a missing key.
    template <class R>
    std::optional<std::vector<R>> valueForKey(const std::function<R(const T&)>& key) const {
        if (!key)
            return std::nullopt;
        std::vector<R> out;
        out.reserve(array_.size());
        for (const Ptr& e : array_)
            out.push_back(key(*e));
        return out;
    }
    template <class R>
    std::optional<std::vector<R>> lockValueForKey(const std::function<R(const T&)>& key) {
        if (!key)
            return std::nullopt;
        WriteGuard g(this); // the write lock, as the list's users have always had it
        return valueForKey(key);
    }

    // The elements that satisfy the predicate; nullopt when the list is empty
    // or the predicate missing.
    std::optional<List>
    filteredArrayUsingPredicate(const std::function<bool(const T&)>& pred) const {
        if (array_.empty() || !pred)
            return std::nullopt;
        List out;
        for (const Ptr& e : array_)
            if (pred(*e))
                out.push_back(e);
        return out;
    }
    std::optional<List> lockFilteredArrayUsingPredicate(const std::function<bool(const T&)>& pred) {
        if (!pred)
            return std::nullopt;
        ReadGuard g(this);
        return filteredArrayUsingPredicate(pred);
    }

    // Calls one operation (a member function pointer or any callable taking
    // T&) on every element in order.
    template <class Op> void makeObjectsPerformSelector(Op&& op) {
        for (const Ptr& e : array_)
            std::invoke(op, *e);
    }
    template <class Op> void lockMakeObjectsPerformSelector(Op&& op) {
        ReadGuard g(this);
        makeObjectsPerformSelector(std::forward<Op>(op));
    }
    template <class Op, class Arg>
    void makeObjectsPerformSelectorWithObject(Op&& op, const Arg& arg) {
        for (const Ptr& e : array_)
            std::invoke(op, *e, arg);
    }
    template <class Op, class Arg>
    void lockMakeObjectsPerformSelectorWithObject(Op&& op, const Arg& arg) {
        ReadGuard g(this);
        makeObjectsPerformSelectorWithObject(std::forward<Op>(op), arg);
    }

    // Sorts in place (stable) by a "less than" comparison of the elements.
    void sortUsingSelector(const std::function<bool(const T&, const T&)>& less) {
        if (array_.empty() || !less)
            return;
        std::ranges::stable_sort(array_, [&](const Ptr& a, const Ptr& b) { return less(*a, *b); });
    }
    void lockSortUsingSelector(const std::function<bool(const T&, const T&)>& less) {
        if (!less)
            return;
        WriteGuard g(this);
        sortUsingSelector(less);
    }
    void sortUsingDescriptors(const std::vector<SortDescriptor>& descriptors) {
        if (descriptors.empty())
            return;
        std::ranges::stable_sort(array_, [&](const Ptr& a, const Ptr& b) {
            for (const SortDescriptor& d : descriptors) {
                if (!d.compare)
                    continue;
                const int c = d.compare(*a, *b);
                if (c != 0)
                    return d.ascending ? c < 0 : c > 0;
            }
            return false;
        });
    }
    void lockSortUsingDescriptors(const std::vector<SortDescriptor>& descriptors) {
        WriteGuard g(this);
        sortUsingDescriptors(descriptors);
    }

    long count() const { return static_cast<long>(array_.size()); }
    long lockCount() {
        ReadGuard g(this);
        return count();
    }

private:
    struct ReadGuard {
        explicit ReadGuard(MutLockArray* a) : array(a) { array->rdlock(); }
        ~ReadGuard() { array->unlock(); }
        MutLockArray* array;
    };
    struct WriteGuard {
        explicit WriteGuard(MutLockArray* a) : array(a) { array->wrlock(); }
        ~WriteGuard() { array->unlock(); }
        MutLockArray* array;
    };

    static bool isEqual(const Ptr& a, const Ptr& b) {
        if (a.get() == b.get())
            return true;
        if constexpr (std::equality_comparable<T>) {
            return a && b && *a == *b;
        } else {
            return false;
        }
    }

    static std::string elementText(const Ptr& e) {
        if constexpr (requires(const T& t) {
                          { t.description() } -> std::convertible_to<std::string>;
                      }) {
            return e->description();
        } else {
            char buffer[32];
            std::snprintf(buffer, sizeof buffer, "%p", static_cast<const void*>(e.get()));
            return buffer;
        }
    }

    void appendAll(const List& objects) {
        for (const Ptr& o : objects)
            if (o)
                array_.push_back(o);
    }

    static void logReplaceFailure(const char* what) {
        ts::logf("\t\tERR: %s - %s", "-[MutLockArray replaceWithObjectsFromArray:]", what);
    }

    // Guarded by lock_ (see the header comment): writers hold it exclusively.
    List array_;
    pthread_rwlock_t lock_;
};
