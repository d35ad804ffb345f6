#include "devserver/LiveFeed.h"

#include <algorithm>

namespace tarn::devserver {

LiveFeed::LiveFeed(std::size_t history, std::size_t queueLimit, std::size_t subscriberLimit)
    : historyLimit_(history), queueLimit_(queueLimit), subscriberLimit_(subscriberLimit) {}

std::shared_ptr<LiveFeed::Subscriber> LiveFeed::subscribe() {
    std::lock_guard lock(mutex_);
    if (closed_ || subscribers_.size() >= subscriberLimit_) {
        return nullptr;
    }
    auto subscriber = std::make_shared<Subscriber>();
    subscriber->queue.assign(history_.begin(), history_.end());
    subscribers_.push_back(subscriber);
    return subscriber;
}

void LiveFeed::unsubscribe(const std::shared_ptr<Subscriber>& subscriber) {
    std::lock_guard lock(mutex_);
    std::erase(subscribers_, subscriber);
}

void LiveFeed::publish(const std::string& message) {
    std::vector<std::shared_ptr<Subscriber>> subscribers;
    {
        std::lock_guard lock(mutex_);
        if (historyLimit_ > 0) {
            if (history_.size() >= historyLimit_) {
                history_.pop_front();
            }
            history_.push_back(message);
        }
        subscribers = subscribers_;
    }
    std::uint64_t dropped = 0;
    for (const auto& subscriber : subscribers) {
        {
            std::lock_guard lock(subscriber->mutex);
            if (subscriber->queue.size() >= queueLimit_) {
                ++subscriber->dropped;
                ++dropped;
                continue;
            }
            subscriber->queue.push_back(message);
        }
        subscriber->changed.notify_one();
    }
    if (dropped > 0) {
        std::lock_guard lock(mutex_);
        droppedTotal_ += dropped;
    }
}

bool LiveFeed::next(Subscriber& subscriber, std::string& message, std::uint64_t& dropped,
                    std::chrono::milliseconds wait, bool& closed) {
    std::unique_lock lock(subscriber.mutex);
    subscriber.changed.wait_for(lock, wait,
                                [&] { return subscriber.closed || !subscriber.queue.empty(); });
    closed = subscriber.closed;
    dropped = subscriber.dropped;
    subscriber.dropped = 0;
    if (closed || subscriber.queue.empty()) {
        return false;
    }
    message = std::move(subscriber.queue.front());
    subscriber.queue.pop_front();
    return true;
}

void LiveFeed::clearHistory() {
    std::lock_guard lock(mutex_);
    history_.clear();
}

void LiveFeed::close() {
    std::vector<std::shared_ptr<Subscriber>> subscribers;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        subscribers = subscribers_;
    }
    for (const auto& subscriber : subscribers) {
        {
            std::lock_guard lock(subscriber->mutex);
            subscriber->closed = true;
        }
        subscriber->changed.notify_all();
    }
}

std::uint64_t LiveFeed::droppedTotal() const {
    std::lock_guard lock(mutex_);
    return droppedTotal_;
}

std::size_t LiveFeed::subscriberCount() const {
    std::lock_guard lock(mutex_);
    return subscribers_.size();
}

}  // namespace tarn::devserver
