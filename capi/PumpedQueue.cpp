#include "PumpedQueue.h"

#include <algorithm>

namespace tarn::capi {

namespace {

struct Later {
    template <class Item>
    bool operator()(const Item& a, const Item& b) const {
        return a.due != b.due ? a.due > b.due : a.seq > b.seq;
    }
};

}  // namespace

void PumpedQueue::asyncAfter(double seconds, Task task) {
    {
        std::lock_guard lock(mutex_);
        items_.push_back({now() + std::max(0.0, seconds), seq_++, std::move(task)});
        std::push_heap(items_.begin(), items_.end(), Later{});
    }
    posted_.notify_all();
}

bool PumpedQueue::isCurrent() const {
    std::lock_guard lock(mutex_);
    return runner_ == std::this_thread::get_id();
}

bool PumpedQueue::popDue(double limit, Item& out) {
    std::lock_guard lock(mutex_);
    if (items_.empty() || items_.front().due > limit) {
        return false;
    }
    std::pop_heap(items_.begin(), items_.end(), Later{});
    out = std::move(items_.back());
    items_.pop_back();
    return true;
}

std::size_t PumpedQueue::runPending(std::chrono::milliseconds timeout) {
    {
        // Wait for the first due task, a new post or the end of the timeout, whichever comes
        // first; the waits are on the same monotonic clock as `now()`.
        std::unique_lock lock(mutex_);
        const double deadline = now() + std::chrono::duration<double>(timeout).count();
        while (items_.empty() || items_.front().due > now()) {
            const double until = items_.empty() ? deadline : std::min(deadline, items_.front().due);
            const double left = until - now();
            if (left <= 0) {
                break;
            }
            posted_.wait_for(lock, std::chrono::duration<double>(left));
        }
        runner_ = std::this_thread::get_id();
    }
    std::size_t ran = 0;
    Item item;
    while (popDue(now(), item)) {
        auto task = std::move(item.task);
        item.task = nullptr;
        try {
            task();
        } catch (...) {
            // A task's failure is its own; the queue goes on with the next one.
        }
        ++ran;
    }
    std::lock_guard lock(mutex_);
    runner_ = {};
    return ran;
}

}  // namespace tarn::capi
