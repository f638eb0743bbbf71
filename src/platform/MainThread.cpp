#include "platform/MainThread.h"

#include "platform/Log.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>

namespace ts {
namespace {

// Calls waiting for the main thread. They are kept here, under a mutex, and
// the event loop is only woken to drain them, through an event descriptor
// that the main thread watches: one wake-up for any number of calls, in
// order, and nothing but the mutex passes between the threads (so the thread
// sanitizer can follow the hand-over, which it cannot through Qt's own
// cross-thread event queue).
struct CallQueue {
    std::mutex mutex; // guards calls and drainPosted; never held while a call runs
    std::deque<std::function<void()>> calls;
    bool drainPosted = false;
    int wakeDescriptor = -1; // made once on the main thread, kept for the process's life
};

CallQueue& queue() {
    static CallQueue* q = new CallQueue; // used by threads until the very end
    return *q;
}

void postDrain();

// Runs the calls queued so far; calls queued meanwhile wait for the next
// wake-up, so a flood cannot hold the event loop.
void drain() {
    CallQueue& q = queue();
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard lock(q.mutex);
        batch.swap(q.calls);
    }
    for (auto& call : batch)
        call();
    bool more = false;
    {
        std::lock_guard lock(q.mutex);
        more = !q.calls.empty();
        q.drainPosted = more;
    }
    if (more)
        postDrain();
}

void postDrain() {
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(queue().wakeDescriptor, &one, sizeof one);
}

// Runs on the main thread as the QCoreApplication is made.
void watchWakeDescriptor() {
    CallQueue& q = queue();
    if (q.wakeDescriptor < 0)
        q.wakeDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (q.wakeDescriptor < 0) {
        logLine("cannot make the main thread's wake-up descriptor; calls from other threads are lost");
        return;
    }
    auto* notifier = new QSocketNotifier(q.wakeDescriptor, QSocketNotifier::Read,
                                         QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [] {
        std::uint64_t count = 0;
        [[maybe_unused]] ssize_t n = read(queue().wakeDescriptor, &count, sizeof count);
        drain();
    });
    // Calls queued before this loop existed are drained as it starts.
    std::lock_guard lock(q.mutex);
    if (!q.calls.empty()) {
        q.drainPosted = true;
        postDrain();
    }
}
Q_COREAPP_STARTUP_FUNCTION(watchWakeDescriptor)

} // namespace

bool isMainThread() {
    QCoreApplication* app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void enqueueOnMainThread(std::function<void()> fn) {
    if (!QCoreApplication::instance()) {
        logLine("no main event loop: a queued call was dropped");
        return;
    }
    CallQueue& q = queue();
    bool post = false;
    {
        std::lock_guard lock(q.mutex);
        q.calls.push_back(std::move(fn));
        post = !q.drainPosted;
        q.drainPosted = true;
    }
    if (post)
        postDrain();
}

void performOnMainThread(std::function<void()> fn) {
    if (isMainThread()) {
        fn();
        return;
    }
    enqueueOnMainThread(std::move(fn));
}

void performOnMainThreadAndWait(std::function<void()> fn) {
    if (isMainThread()) {
        fn();
        return;
    }
    if (!QCoreApplication::instance()) {
        logLine("no main event loop: a blocking call was dropped");
        return;
    }
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    enqueueOnMainThread([&] {
        fn();
        std::lock_guard lock(mutex);
        finished = true;
        done.notify_one();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
}

} // namespace ts
