#include "platform/MainThread.h"

#include "platform/Log.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

namespace ts {

bool isMainThread() {
    QCoreApplication* app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void enqueueOnMainThread(std::function<void()> fn) {
    QCoreApplication* app = QCoreApplication::instance();
    if (!app) {
        logLine("no main event loop: a queued call was dropped");
        return;
    }
    QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
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
    QCoreApplication* app = QCoreApplication::instance();
    if (!app) {
        logLine("no main event loop: a blocking call was dropped");
        return;
    }
    QMetaObject::invokeMethod(app, std::move(fn), Qt::BlockingQueuedConnection);
}

} // namespace ts
