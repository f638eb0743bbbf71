#pragma once
// Calls handed to the main thread (the thread of the QCoreApplication).
// Without a QCoreApplication nothing is queued: the call is dropped with a
// log line, as there is no loop that could ever run it.

#include <functional>

namespace ts {

bool isMainThread();

// Runs fn on the main thread without waiting. Called on the main thread it runs
// at once.
void performOnMainThread(std::function<void()> fn);

// Always queues fn to the main thread's event loop, even from the main thread
// (so a caller's stack unwinds first); calls from one thread keep their order.
void enqueueOnMainThread(std::function<void()> fn);

// Runs fn on the main thread and waits for it to finish. Called on the main
// thread it runs at once.
void performOnMainThreadAndWait(std::function<void()> fn);

} // namespace ts
