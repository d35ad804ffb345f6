#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
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

// Timers started and stopped again and again on a real executor thread: after 200 cycles the number
// of live timers is what it was after one, an invalidated timer lets go of its action's captures
// at once (not only when its next tick would have come, an hour later for a long interval), no
// invalidated timer ticks again, and a timer released without being invalidated goes on ticking
// (and counting) until its executor is gone.
TEST(RepeatingTimer, StartStopCyclesOnARealThreadLeaveNoTimerBehind) {
    auto executor = std::make_shared<ThreadExecutor>();
    const std::size_t before = RepeatingTimer::liveCount();
    std::atomic<int> stoppedTicks{0};  // ticks of timers after their invalidate returned
    auto cycle = [&](double interval, bool waitForATick) {
        struct Probe {
            std::atomic<bool> stopped{false}, ticked{false};
        };
        auto probe = std::make_shared<Probe>();
        std::weak_ptr<Probe> watch = probe;
        auto timer = RepeatingTimer::scheduled(
            interval,
            [probe, &stoppedTicks] {
                if (probe->stopped)
                    ++stoppedTicks;
                probe->ticked = true;
            },
            executor);
        while (waitForATick && !probe->ticked)
            std::this_thread::sleep_for(100us);
        // A tick may be running right now: it finishes, and none starts after it.
        timer->invalidate();
        executor->async([probe] { probe->stopped = true; });
        executor->waitUntilIdle();
        probe.reset();
        EXPECT_FALSE(watch.expired());  // the owner still holds the timer...
        timer.reset();
        EXPECT_TRUE(watch.expired());  // ...and nothing else does
    };

    cycle(0.005, true);
    const std::size_t afterOne = RepeatingTimer::liveCount();
    EXPECT_EQ(afterOne, before);
    for (int i = 0; i < 200; ++i)
        cycle(0.005, i % 2 == 0);
    EXPECT_EQ(RepeatingTimer::liveCount(), afterOne);
    for (int i = 0; i < 200; ++i)
        cycle(3600, false);  // the ticks stay queued for an hour; the timers do not
    EXPECT_EQ(RepeatingTimer::liveCount(), afterOne);

    // A timer that stops itself from its own tick (as a drain step that finds nothing does).
    for (int i = 0; i < 200; ++i) {
        std::shared_ptr<RepeatingTimer> self;
        std::atomic<bool> done{false};
        std::mutex m;
        {
            std::lock_guard lock(m);
            self = RepeatingTimer::scheduled(
                0.001,
                [&] {
                    std::lock_guard lock(m);
                    self->invalidate();
                    self.reset();
                    done = true;
                },
                executor);
        }
        while (!done)
            std::this_thread::sleep_for(100us);
        executor->waitUntilIdle();
    }
    EXPECT_EQ(RepeatingTimer::liveCount(), afterOne);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(stoppedTicks.load(), 0);

    // Released without invalidate: the executor keeps it, as a run loop keeps a scheduled timer.
    std::atomic<int> orphanTicks{0};
    RepeatingTimer::scheduled(
        0.002, [&] { ++orphanTicks; }, executor)
        .reset();
    EXPECT_EQ(RepeatingTimer::liveCount(), afterOne + 1);
    while (orphanTicks < 3)
        std::this_thread::sleep_for(1ms);
    executor.reset();  // its waiting tick is dropped (by the ending thread), and the timer with it
    for (int i = 0; i < 2000 && RepeatingTimer::liveCount() != afterOne; ++i)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(RepeatingTimer::liveCount(), afterOne);
}
