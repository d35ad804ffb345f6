#include "tarn/platform/MainQueue.h"

#include <algorithm>
#include <cmath>

#include "tarn/core/Shared.h"

namespace tarn {

namespace {

std::chrono::steady_clock::duration toDuration(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) {
        seconds = 0;
    }
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

}  // namespace

double Executor::now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// ---- ThreadExecutor

// The worker thread owns a reference to the state, so the executor may be destroyed from one of its
// own tasks (the thread then ends on its own after that task).
struct ThreadExecutor::State {
    struct Item {
        std::chrono::steady_clock::time_point due;
        std::uint64_t seq;
        Task task;
    };
    struct Later {
        bool operator()(const Item& a, const Item& b) const {
            return a.due != b.due ? a.due > b.due : a.seq > b.seq;
        }
    };

    std::mutex mutex;
    std::condition_variable cv;
    std::condition_variable idle;
    std::priority_queue<Item, std::vector<Item>, Later> items;
    std::uint64_t seq = 0;
    bool stopping = false;
    bool busy = false;

    void run() {
        std::unique_lock lock(mutex);
        while (!stopping) {
            if (items.empty()) {
                idle.notify_all();
                cv.wait(lock);
                continue;
            }
            auto due = items.top().due;
            if (due > std::chrono::steady_clock::now()) {
                idle.notify_all();
                cv.wait_until(lock, due);
                continue;
            }
            Task task = std::move(const_cast<Item&>(items.top()).task);
            items.pop();
            busy = true;
            lock.unlock();
            task();
            task = nullptr;
            lock.lock();
            busy = false;
        }
        // Drop what never ran, outside the lock: a task's captures may post again.
        auto rest = std::move(items);
        lock.unlock();
        idle.notify_all();
    }
};

ThreadExecutor::ThreadExecutor() : state_(std::make_shared<State>()) {
    std::thread worker([state = state_] { state->run(); });
    threadId_ = worker.get_id();
    worker.detach();
}

ThreadExecutor::~ThreadExecutor() {
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    state_->cv.notify_all();
    if (std::this_thread::get_id() != threadId_) {
        // Wait for a running task to finish, so nothing of the library runs after destruction.
        state_->idle.wait(lock, [&] { return !state_->busy; });
    }
}

void ThreadExecutor::asyncAfter(double seconds, Task task) {
    {
        std::lock_guard lock(state_->mutex);
        state_->items.push({std::chrono::steady_clock::now() + toDuration(seconds), state_->seq++,
                            std::move(task)});
    }
    state_->cv.notify_all();
}

bool ThreadExecutor::isCurrent() const {
    return std::this_thread::get_id() == threadId_;
}

void ThreadExecutor::waitUntilIdle() {
    auto limit = std::chrono::steady_clock::now();
    std::unique_lock lock(state_->mutex);
    state_->idle.wait(lock, [&] {
        return state_->stopping ||
               (!state_->busy && (state_->items.empty() || state_->items.top().due > limit));
    });
}

// ---- ManualExecutor

void ManualExecutor::asyncAfter(double seconds, Task task) {
    std::lock_guard lock(mutex_);
    if (!std::isfinite(seconds) || seconds < 0) {
        seconds = 0;
    }
    items_.push_back({now_ + seconds, seq_++, std::move(task)});
}

bool ManualExecutor::isCurrent() const {
    std::lock_guard lock(mutex_);
    return runner_ == std::this_thread::get_id();
}

double ManualExecutor::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

std::size_t ManualExecutor::pendingCount() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

bool ManualExecutor::popDue(double limit, Item& out) {
    std::lock_guard lock(mutex_);
    auto it = std::min_element(items_.begin(), items_.end(), [](const Item& a, const Item& b) {
        return a.due != b.due ? a.due < b.due : a.seq < b.seq;
    });
    if (it == items_.end() || it->due > limit) {
        return false;
    }
    out = std::move(*it);
    items_.erase(it);
    now_ = std::max(now_, out.due);
    runner_ = std::this_thread::get_id();
    return true;
}

std::size_t ManualExecutor::runPending() {
    return advance(0);
}

std::size_t ManualExecutor::advance(double seconds) {
    double limit;
    {
        std::lock_guard lock(mutex_);
        limit = now_ + std::max(0.0, seconds);
    }
    std::size_t ran = 0;
    Item item;
    // A small tolerance keeps repeated additions of e.g. 0.1 from missing a task due "exactly"
    // then.
    while (popDue(limit + 1e-9, item)) {
        item.task();
        item.task = nullptr;
        ++ran;
    }
    std::lock_guard lock(mutex_);
    now_ = std::max(now_, limit);
    runner_ = {};
    return ran;
}

// ---- RepeatingTimer

// The executor's side of a timer: each waiting tick holds this, and this holds the timer until it
// is invalidated. The timer itself only points back weakly, so nothing keeps an invalidated timer
// alive but its owner, and a timer whose executor dropped its tick goes with the tick.
struct RepeatingTimer::Schedule {
    std::mutex mutex;
    std::shared_ptr<RepeatingTimer> timer;

    std::shared_ptr<RepeatingTimer> get() {
        std::lock_guard lock(mutex);
        return timer;
    }
};

namespace {

std::atomic<std::size_t> liveTimers{0};

}  // namespace

RepeatingTimer::RepeatingTimer(double interval, std::function<void()> action,
                               std::shared_ptr<Executor> executor)
    : interval_(interval), action_(std::move(action)), executor_(executor) {
    liveTimers.fetch_add(1, std::memory_order_relaxed);
}

RepeatingTimer::~RepeatingTimer() {
    liveTimers.fetch_sub(1, std::memory_order_relaxed);
}

std::size_t RepeatingTimer::liveCount() {
    return liveTimers.load(std::memory_order_relaxed);
}

std::shared_ptr<RepeatingTimer> RepeatingTimer::scheduled(double interval,
                                                          std::function<void()> action,
                                                          std::shared_ptr<Executor> executor) {
    // A non-positive interval would spin; run-loop timers clamp it the same way.
    if (!(interval > 0)) {
        interval = 0.0001;
    }
    std::shared_ptr<RepeatingTimer> timer(
        new RepeatingTimer(interval, std::move(action), std::move(executor)));
    auto schedule = std::make_shared<Schedule>();
    schedule->timer = timer;
    timer->schedule_ = schedule;
    timer->scheduleNext(schedule);
    return timer;
}

void RepeatingTimer::scheduleNext(const std::shared_ptr<Schedule>& schedule) {
    auto executor = executor_.lock();
    if (!executor) {
        return;
    }
    double now = executor->now();
    if (!started_) {
        started_ = true;
        nextDue_ = now + interval_;
    } else {
        nextDue_ += interval_;
        if (nextDue_ < now) {
            nextDue_ += std::ceil((now - nextDue_) / interval_) * interval_;
        }
    }
    executor->asyncAfter(nextDue_ - now, [schedule] {
        auto self = schedule->get();
        if (!self || !self->valid_.load()) {
            return;
        }
        self->action_();
        if (self->valid_.load()) {
            self->scheduleNext(schedule);
        }
    });
}

void RepeatingTimer::invalidate() {
    valid_.store(false);
    std::shared_ptr<RepeatingTimer> released;
    if (auto schedule = schedule_.lock()) {
        std::lock_guard lock(schedule->mutex);
        released = std::move(schedule->timer);
    }
    // `released` may be the last reference when the caller holds none of its own: it goes here,
    // after the last use of a member.
}

bool RepeatingTimer::isValid() const {
    return valid_.load();
}

// ---- the process-wide main queue

namespace {

struct MainQueueSlot {
    std::mutex mutex;
    std::shared_ptr<Executor> executor;
};

// Never destroyed: destroying the executor at exit would stop (and wait for) the queue's thread
// while a task of it may still be running, and other threads may post to it until the very end.
MainQueueSlot& slot() {
    static detail::NeverDestroyed<MainQueueSlot> s;
    return *s;
}

/// Drops every task: the main queue while the shared instances are being reset, so that work
/// arriving from other threads meanwhile (an HTTP answer, say) cannot start a fresh queue that
/// would then run against half-destroyed instances.
class DiscardingExecutor final : public Executor {
  public:
    void async(Task) override {}
    void asyncAfter(double, Task) override {}
    bool isCurrent() const override { return false; }
};

struct MainQueueResetRegistration {
    MainQueueResetRegistration() {
        // The main queue stops first, so no task runs while the other instances are destroyed...
        detail::registerSharedReset(0, [] {
            std::shared_ptr<Executor> old;
            {
                std::lock_guard lock(slot().mutex);
                old = std::move(slot().executor);
                slot().executor = std::make_shared<DiscardingExecutor>();
            }
        });
        // ...and a fresh one is made on first use once they all are.
        detail::registerSharedReset(10000, [] {
            std::lock_guard lock(slot().mutex);
            slot().executor = nullptr;
        });
    }
};

}  // namespace

std::shared_ptr<Executor> mainQueue() {
    static MainQueueResetRegistration registration;
    auto& s = slot();
    std::lock_guard lock(s.mutex);
    if (!s.executor) {
        s.executor = std::make_shared<ThreadExecutor>();
    }
    return s.executor;
}

void setMainQueue(std::shared_ptr<Executor> executor) {
    static MainQueueResetRegistration registration;
    std::shared_ptr<Executor> old;
    {
        std::lock_guard lock(slot().mutex);
        old = std::move(slot().executor);
        slot().executor = std::move(executor);
    }
}

}  // namespace tarn
