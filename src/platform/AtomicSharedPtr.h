#pragma once
// A shared pointer that one thread replaces while others read it. A reader
// gets its own reference, so what it read stays alive while it works with it,
// even after a writer has replaced it. The lock covers the pointer copy only
// (never the work done with the object), and the old object is released
// outside it. A plain mutex rather than std::atomic<std::shared_ptr>, whose
// library implementation the thread sanitizer cannot follow.

#include <memory>
#include <mutex>

namespace ts {

template <typename T> class AtomicSharedPtr {
public:
    AtomicSharedPtr() = default;
    explicit AtomicSharedPtr(std::shared_ptr<T> value) : value_(std::move(value)) {}
    AtomicSharedPtr(const AtomicSharedPtr&) = delete;
    AtomicSharedPtr& operator=(const AtomicSharedPtr&) = delete;

    std::shared_ptr<T> load() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void store(std::shared_ptr<T> value) {
        {
            std::lock_guard lock(mutex_);
            value_.swap(value);
        }
        // the previous object, if this was its last owner, goes here, unlocked
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<T> value_;
};

} // namespace ts
