#include "tarn/platform/NotificationCenter.h"

#include <algorithm>
#include <chrono>

#include "base/LogLineBatch.h"
#include "base/LogRecordSink.h"
#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"

namespace tarn {

namespace {

/// The logger's records, posted as "TarnLogNotification" when anyone observes that name. A record
/// logged under one of the library's locks is posted once that lock is released, so an observer
/// that calls back into the library cannot deadlock on it.
void postLogRecord(const std::string& message, std::optional<std::string_view> tag) {
    auto& center = NotificationCenter::defaultCenter();
    if (center.hasObservers(kTarnLogNotification)) {
        TarnLog record{message, tag ? std::optional<std::string>(*tag) : std::nullopt,
                       std::chrono::system_clock::now()};
        detail::runAfterLogHold([record = std::move(record)] {
            NotificationCenter::defaultCenter().post(kTarnLogNotification, record);
        });
    }
}

}  // namespace

NotificationCenter& NotificationCenter::defaultCenter() {
    // The logger (below this layer) posts its records here from the first use of the centre on,
    // which comes before anyone can observe them.
    static const bool logRecordsPosted = (detail::setLogRecordSink(&postLogRecord), true);
    (void)logRecordsPosted;
    // Reset late, after the components that observe it.
    return detail::SharedInstance<NotificationCenter, 900>::get();
}

NotificationCenter::Token NotificationCenter::addObserver(const void* owner, std::string name,
                                                          Observer observer) {
    std::lock_guard lock(mutex_);
    Token token = nextToken_++;
    entries_.push_back(
        {token, owner, std::move(name), std::make_shared<Observer>(std::move(observer))});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&](const Entry& e) { return e.token == token; });
}

void NotificationCenter::removeObserver(const void* owner, const std::string& name) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&](const Entry& e) {
        return e.owner == owner && (name.empty() || e.name == name);
    });
}

void NotificationCenter::post(const Notification& notification) {
    std::vector<std::shared_ptr<Observer>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_) {
            if (e.name == notification.name) {
                matching.push_back(e.observer);
            }
        }
    }
    for (const auto& observer : matching) {
        (*observer)(notification);
    }
}

bool NotificationCenter::hasObservers(std::string_view name) const {
    std::lock_guard lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const Entry& e) { return e.name == name; });
}

std::size_t NotificationCenter::observerCount(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(entries_.begin(), entries_.end(),
                                                  [&](const Entry& e) { return e.name == name; }));
}

std::size_t NotificationCenter::observerCount() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

}  // namespace tarn

namespace tarn {

bool NotificationCenter::isObserving(const void* owner, const std::string& name) const {
    std::lock_guard lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const Entry& e) { return e.owner == owner && e.name == name; });
}

}  // namespace tarn
