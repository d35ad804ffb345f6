#pragma once
// Observers keyed by notification name, in the manner of the phone's notification centre.

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"

namespace tarn {

/// Application lifecycle notification names that the library observes. A host posts these on
/// `NotificationCenter::defaultCenter()` when its application changes state.
inline constexpr const char* kApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* kApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* kApplicationWillTerminateNotification =
    "UIApplicationWillTerminateNotification";

/// One posted notification: its name, an optional object and an optional user-info dictionary.
struct TARN_API Notification {
    /// The notification's name.
    std::string name;
    /// The object it is about (empty when none).
    std::any object;
    /// Further values (null when none).
    nlohmann::json userInfo;
};

/// Observers keyed by name. `post` runs every matching observer synchronously on the posting
/// thread, in registration order. Adding or removing observers is safe from any thread, also while
/// another thread posts; an observer removed during a post on another thread may still see that one
/// post.
class TARN_API NotificationCenter {
  public:
    /// A function that receives a notification.
    using Observer = std::function<void(const Notification&)>;
    /// Identifies one registration.
    using Token = std::uint64_t;

    /// The process-wide centre the library posts on and observes.
    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Adds an observer for `name`; `owner` identifies it for `removeObserver(owner, ...)`.
    Token addObserver(const void* owner, std::string name, Observer observer);
    /// Adds an observer without an owner; remove it by its token.
    Token addObserver(std::string name, Observer observer) {
        return addObserver(nullptr, std::move(name), std::move(observer));
    }
    /// Removes the registration `token`.
    void removeObserver(Token token);
    /// Removes every observer of `owner` for `name`, or for every name when `name` is empty.
    void removeObserver(const void* owner, const std::string& name = {});

    /// Delivers the notification to every observer of its name on the calling thread.
    void post(const Notification& notification);
    /// Builds the notification from its parts and delivers it.
    void post(std::string name, std::any object = {}, nlohmann::json userInfo = nullptr) {
        post(Notification{std::move(name), std::move(object), std::move(userInfo)});
    }

    /// The number of observers of `name`.
    std::size_t observerCount(const std::string& name) const;
    /// Diagnostics: the number of observers registered for any name.
    std::size_t observerCount() const;
    /// Whether anyone observes `name`: a poster may skip building a notification nobody reads.
    bool hasObservers(std::string_view name) const;
    /// Whether `owner` observes `name`.
    bool isObserving(const void* owner, const std::string& name) const;

  private:
    struct Entry {
        Token token;
        const void* owner;
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    Token nextToken_ = 1;
};

}  // namespace tarn
