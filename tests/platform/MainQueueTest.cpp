#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tarn/platform/MainQueue.h"

using namespace tarn;

TEST(ManualExecutor, RunsTasksInDueOrderOnVirtualTime) {
    auto queue = std::make_shared<ManualExecutor>();
    std::vector<std::string> order;
    queue->asyncAfter(1.0, [&] { order.push_back("one second"); });
    queue->async([&] { order.push_back("now"); });
    queue->asyncAfter(0.5, [&] {
        order.push_back("half");
        // Work posted from a task that is due within the advance runs in the same advance.
        queue->asyncAfter(0.25, [&] { order.push_back("three quarters"); });
    });
    EXPECT_EQ(queue->runPending(), 1u);
    EXPECT_EQ(order, std::vector<std::string>{"now"});
    queue->advance(0.9);
    EXPECT_EQ(order, (std::vector<std::string>{"now", "half", "three quarters"}));
    EXPECT_NEAR(queue->now(), 0.9, 1e-9);
    queue->advance(0.1);
    EXPECT_EQ(order.back(), "one second");
    EXPECT_EQ(queue->pendingCount(), 0u);
}

TEST(RepeatingTimer, TicksEveryIntervalUntilInvalidated) {
    auto queue = std::make_shared<ManualExecutor>();
    int ticks = 0;
    auto timer = RepeatingTimer::scheduled(
        0.5, [&] { ++ticks; }, queue);
    queue->advance(0.4);
    EXPECT_EQ(ticks, 0);
    queue->advance(1.1);  // t = 1.5: ticks at 0.5, 1.0, 1.5
    EXPECT_EQ(ticks, 3);
    timer->invalidate();
    queue->advance(5);
    EXPECT_EQ(ticks, 3);
    EXPECT_FALSE(timer->isValid());
}

TEST(RepeatingTimer, KeepsItsRateWhateverTheActionTakesAndSkipsMissedTicks) {
    // An executor whose clock moves only when a task runs or the task itself moves it.
    class SteppedExecutor final : public Executor {
      public:
        double clock = 0;
        std::vector<std::pair<double, Task>> posted;
        void async(Task task) override { asyncAfter(0, std::move(task)); }
        void asyncAfter(double seconds, Task task) override {
            posted.emplace_back(seconds, std::move(task));
        }
        bool isCurrent() const override { return true; }
        double now() const override { return clock; }
        void runNext() {
            auto [delay, task] = std::move(posted.front());
            posted.erase(posted.begin());
            clock += delay;
            task();
        }
    };
    auto queue = std::make_shared<SteppedExecutor>();
    std::vector<double> ticks;
    double work = 0.25;
    auto timer = RepeatingTimer::scheduled(
        1.0,
        [&] {
            ticks.push_back(queue->clock);
            queue->clock += work;
        },
        queue);
    for (int i = 0; i < 3; ++i) {
        queue->runNext();
    }
    EXPECT_EQ(ticks, (std::vector<double>{1, 2, 3}));  // not 1, 2.25, 3.5
    work = 2.5;  // the tick at 4 runs past 5 and 6: those are skipped
    queue->runNext();
    queue->runNext();
    EXPECT_EQ(ticks, (std::vector<double>{1, 2, 3, 4, 7}));
    timer->invalidate();
    queue->runNext();
    EXPECT_EQ(ticks.size(), 5u);
    EXPECT_TRUE(queue->posted.empty());
}

TEST(RepeatingTimer, InvalidatingFromItsOwnTickStopsIt) {
    auto queue = std::make_shared<ManualExecutor>();
    int ticks = 0;
    std::shared_ptr<RepeatingTimer> timer;
    timer = RepeatingTimer::scheduled(
        0.1,
        [&] {
            if (++ticks == 2)
                timer->invalidate();
        },
        queue);
    queue->advance(1);
    EXPECT_EQ(ticks, 2);
}

TEST(ThreadExecutor, RunsSeriallyOffTheCallerAndHonoursDelays) {
    ThreadExecutor executor;
    std::atomic<int> running{0};
    std::atomic<int> maxRunning{0};
    std::atomic<int> done{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                executor.async([&] {
                    int now = ++running;
                    int seen = maxRunning.load();
                    while (now > seen && !maxRunning.compare_exchange_weak(seen, now)) {
                    }
                    EXPECT_TRUE(executor.isCurrent());
                    --running;
                    ++done;
                });
            }
        });
    }
    for (auto& p : posters)
        p.join();
    EXPECT_FALSE(executor.isCurrent());
    auto start = std::chrono::steady_clock::now();
    std::atomic<bool> delayed{false};
    executor.asyncAfter(0.05, [&] { delayed = true; });
    while (!delayed)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    executor.waitUntilIdle();
    EXPECT_EQ(done.load(), 200);
    EXPECT_EQ(maxRunning.load(), 1);
}

TEST(ThreadExecutor, MayBeReleasedFromItsOwnTask) {
    auto executor = std::make_shared<ThreadExecutor>();
    std::weak_ptr<ThreadExecutor> watch = executor;
    std::atomic<bool> released{false};
    std::atomic<bool> ran{false};
    executor->async([held = executor, &released, &ran]() mutable {
        while (!released)
            std::this_thread::yield();
        held.reset();  // the last reference goes away on the executor's own thread
        ran = true;
    });
    executor.reset();
    released = true;
    while (!ran)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(watch.expired());
}
