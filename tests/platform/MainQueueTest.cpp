#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tarn/platform/MainQueue.h"

using namespace tarn;
using namespace std::chrono_literals;

TEST(RepeatingTimer, KeepsItsRateSkipsMissedTicksAndStopsWhenInvalidatedEvenFromItsOwnTick) {
    auto queue = std::make_shared<ManualExecutor>();
    std::vector<double> ticks;
    double work = 0.25;  // how much of the virtual clock the action takes
    auto timer = RepeatingTimer::scheduled(
        1.0,
        [&] {
            ticks.push_back(queue->now());
            queue->advance(work);
        },
        queue);
    int selfStopping = 0;
    std::shared_ptr<RepeatingTimer> other = RepeatingTimer::scheduled(
        0.1,
        [&] {
            if (++selfStopping == 2)
                other->invalidate();
        },
        queue);
    queue->advance(0.9);
    EXPECT_TRUE(ticks.empty());
    EXPECT_EQ(selfStopping, 2);
    queue->advance(2.1);
    EXPECT_EQ(ticks, (std::vector<double>{1, 2, 3}));  // not 1, 2.25, 3.5
    work = 2.5;  // the tick at 4 runs past 5 and 6: those are skipped
    queue->advance(4);
    EXPECT_EQ(ticks, (std::vector<double>{1, 2, 3, 4, 7}));
    timer->invalidate();
    queue->advance(10);
    EXPECT_EQ(ticks.size(), 5u);
    EXPECT_EQ(selfStopping, 2);
    EXPECT_EQ(queue->pendingCount(), 0u);
}

TEST(ThreadExecutor, RunsSeriallyOffTheCallerHonoursDelaysAndMayBeReleasedFromItsOwnTask) {
    auto executor = std::make_shared<ThreadExecutor>();
    std::atomic<int> running{0}, done{0};
    std::vector<std::jthread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                executor->async([&] {
                    EXPECT_EQ(++running, 1);  // never two at once
                    EXPECT_TRUE(executor->isCurrent());
                    --running;
                    ++done;
                });
            }
        });
    }
    posters.clear();  // joins
    EXPECT_FALSE(executor->isCurrent());
    auto start = std::chrono::steady_clock::now();
    std::atomic<bool> delayed{false}, released{false}, ran{false};
    executor->asyncAfter(0.05, [&] { delayed = true; });
    while (!delayed)
        std::this_thread::sleep_for(1ms);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 45ms);
    executor->waitUntilIdle();
    EXPECT_EQ(done.load(), 200);

    // The last reference goes away on the executor's own thread (once the posting call is over).
    std::weak_ptr<ThreadExecutor> watch = executor;
    executor->async([held = executor, &released, &ran]() mutable {
        while (!released)
            std::this_thread::yield();
        held.reset();
        ran = true;
    });
    executor.reset();
    released = true;
    while (!ran)
        std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(watch.expired());
}
