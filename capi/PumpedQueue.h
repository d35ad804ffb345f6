#pragma once
// The main queue of a host that has no event loop of its own: tasks wait in a timed queue and run
// on whichever thread calls `runPending`, in the order of their due time.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "tarn/platform/MainQueue.h"

namespace tarn::capi {

class PumpedQueue final : public Executor {
  public:
    void async(Task task) override { asyncAfter(0, std::move(task)); }
    void asyncAfter(double seconds, Task task) override;
    bool isCurrent() const override;

    /// Runs every task that is due, including the ones they post that are due too; when none is
    /// due, first waits up to `timeout` for one. Returns how many ran. One caller at a time.
    std::size_t runPending(std::chrono::milliseconds timeout);

  private:
    struct Item {
        double due;
        std::uint64_t seq;
        Task task;
    };
    /// Takes the earliest task when it is due by `limit`.
    bool popDue(double limit, Item& out);

    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::vector<Item> items_;  // a heap, earliest first
    std::uint64_t seq_ = 0;
    std::thread::id runner_;
};

}  // namespace tarn::capi
