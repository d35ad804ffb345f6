#pragma once
// The library's main queue: one serial executor for timers and delayed work.
//
// Everything the library runs "on the main queue" (the offline queue's timer and drain steps, the
// in-app fetch one second after start-up, in-app presentation) goes through `mainQueue()`. By
// default that is an internal thread owned by the library. A host with its own UI loop can install
// an executor that posts into that loop with `setMainQueue`, before it initialises the library.
// Tests install a `ManualExecutor`, whose virtual clock they advance by hand.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "tarn/core/Export.h"

namespace tarn {

/// A serial executor. Tasks run one at a time, in the order of their due time (ties in the order
/// they were posted).
class TARN_API Executor {
  public:
    /// A unit of work.
    using Task = std::function<void()>;
    virtual ~Executor() = default;
    /// Runs `task` on the executor as soon as possible.
    virtual void async(Task task) = 0;
    /// Runs `task` on the executor `seconds` from now.
    virtual void asyncAfter(double seconds, Task task) = 0;
    /// True when called from a task of this executor.
    virtual bool isCurrent() const = 0;
    /// The executor's clock in seconds, the one `asyncAfter` counts on (by default the monotonic
    /// clock). Repeating timers keep their rate on it.
    virtual double now() const;
};

/// The default main queue: a thread of its own with a timed task queue. Destroying it stops the
/// thread; tasks not yet run are dropped.
class TARN_API ThreadExecutor final : public Executor {
  public:
    ThreadExecutor();
    ~ThreadExecutor() override;
    void async(Task task) override { asyncAfter(0, std::move(task)); }
    void asyncAfter(double seconds, Task task) override;
    bool isCurrent() const override;
    /// Blocks until every task due by now has run (tasks posted meanwhile included). Must not be
    /// called from the executor itself.
    void waitUntilIdle();

  private:
    struct State;
    std::shared_ptr<State> state_;
    std::thread::id threadId_;
};

/// A main queue on a virtual clock that starts at 0 and moves only through `advance`. Tasks run on
/// the thread that calls `runPending` or `advance`; other threads may post at any time.
class TARN_API ManualExecutor final : public Executor {
  public:
    void async(Task task) override { asyncAfter(0, std::move(task)); }
    void asyncAfter(double seconds, Task task) override;
    bool isCurrent() const override;

    /// The virtual time in seconds.
    double now() const override;
    /// Runs every task due at the current virtual time, including tasks they post that are due
    /// too. Returns how many ran.
    std::size_t runPending();
    /// Moves the clock forward by `seconds`, running each task when its due time is reached.
    std::size_t advance(double seconds);
    /// Number of tasks waiting, due or not.
    std::size_t pendingCount() const;

  private:
    struct Item {
        double due;
        std::uint64_t seq;
        Task task;
    };
    bool popDue(double limit, Item& out);

    mutable std::mutex mutex_;
    std::vector<Item> items_;
    std::uint64_t seq_ = 0;
    double now_ = 0;
    std::thread::id runner_;
};

/// A repeating timer on an executor, in the manner of a scheduled run-loop timer: the action runs
/// every `interval` seconds until `invalidate` is called. Ticks keep a fixed rate: each is due one
/// interval after the previous one was due, however long the action took; a tick that would fall
/// in the past is skipped, as a run-loop timer skips the firings it missed.
///
/// Like a run-loop timer, a scheduled timer is kept by its executor until it is invalidated: one
/// that is released without `invalidate` goes on firing for as long as the executor lives. Once
/// invalidated, the executor lets go of it at once (its waiting tick holds no reference), so the
/// timer and its action's captures go as soon as the caller drops its own reference.
class TARN_API RepeatingTimer : public std::enable_shared_from_this<RepeatingTimer> {
  public:
    /// Creates and schedules a timer; the first tick comes one interval from now.
    static std::shared_ptr<RepeatingTimer> scheduled(double interval, std::function<void()> action,
                                                     std::shared_ptr<Executor> executor);
    ~RepeatingTimer();
    /// Stops the timer: no tick starts after this returns (a tick already running finishes).
    /// Any thread.
    void invalidate();
    /// False once invalidated.
    bool isValid() const;
    /// Seconds between ticks.
    double interval() const { return interval_; }

    /// Diagnostics: the number of timers in the process that exist, that is, timers created and not
    /// yet both invalidated (or dropped with their executor) and released. A timer that is released
    /// but never invalidated stays counted, since it goes on firing. Any thread.
    static std::size_t liveCount();

  private:
    /// What a waiting tick holds: the timer while it is scheduled, cleared by `invalidate`.
    struct Schedule;

    RepeatingTimer(double interval, std::function<void()> action,
                   std::shared_ptr<Executor> executor);
    void scheduleNext(const std::shared_ptr<Schedule>& schedule);

    double interval_;
    double nextDue_ = 0;
    bool started_ = false;
    std::function<void()> action_;
    std::weak_ptr<Executor> executor_;
    std::atomic<bool> valid_{true};
    std::weak_ptr<Schedule> schedule_;
};

/// The current main queue (created on first use as a `ThreadExecutor`). The installed queue is
/// never destroyed by the library at exit: its thread is neither stopped nor joined and ends with
/// the process, so a task running then (a drain step, say) never holds the exit.
TARN_API std::shared_ptr<Executor> mainQueue();
/// Installs the main queue; pass nullptr to go back to a fresh default one.
TARN_API void setMainQueue(std::shared_ptr<Executor> executor);

}  // namespace tarn
