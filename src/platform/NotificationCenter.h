#pragma once
// Named notifications with a sender and a dictionary of user information,
// delivered synchronously to every matching observer on the posting thread.
// Names are the system's own texts ("LODMXDidReceiveChannelValueNotification",
// ...). Safe to use from any thread.

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ts {

struct Notification {
    std::string name;
    const void* object = nullptr; // the sender, or none
    std::map<std::string, std::any> userInfo;

    // The user-information value under key, if present and of type T.
    template <typename T> const T* info(const std::string& key) const {
        auto it = userInfo.find(key);
        return it == userInfo.end() ? nullptr : std::any_cast<T>(&it->second);
    }
};

class NotificationCenter {
public:
    using Handler = std::function<void(const Notification&)>;
    using Token = std::uint64_t;

    static NotificationCenter& defaultCenter();

    // Observes notifications of that name; object nullptr means from any
    // sender. The handler runs on the thread that posts.
    Token addObserver(const std::string& name, const void* object, Handler handler);
    // After this returns the handler is not called again, except by a post
    // already running it on another thread.
    void removeObserver(Token token);

    void postNotification(const Notification& notification);
    // Posts at once when called on the main thread, otherwise hands the
    // notification to the main thread without waiting.
    void postNotificationOnMainThread(const Notification& notification);

private:
    struct Entry {
        Token token;
        std::string name;
        const void* object;
        std::shared_ptr<Handler> handler;
    };
    std::mutex mutex_; // guards entries_ and next_; never held while a handler runs
    std::vector<Entry> entries_;
    Token next_ = 1;
};

} // namespace ts
