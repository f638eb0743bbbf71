#include "platform/NotificationCenter.h"

#include "platform/MainThread.h"

#include <algorithm>

namespace ts {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter; // lives as long as any thread
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name, const void* object,
                                                          Handler handler) {
    std::lock_guard lock(mutex_);
    const Token token = next_++;
    entries_.push_back({token, name, object, std::make_shared<Handler>(std::move(handler))});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [token](const Entry& e) { return e.token == token; }),
                   entries_.end());
}

void NotificationCenter::postNotification(const Notification& notification) {
    std::vector<std::shared_ptr<Handler>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const Entry& e : entries_)
            if (e.name == notification.name && (!e.object || e.object == notification.object))
                matching.push_back(e.handler);
    }
    for (const auto& handler : matching)
        (*handler)(notification);
}

void NotificationCenter::postNotificationOnMainThread(const Notification& notification) {
    performOnMainThread([this, notification] { postNotification(notification); });
}

} // namespace ts
