// Automatic lifecycle and page tracking, wired by initialisation, and the manual calls' gates.
#include "support/PipelineFixture.h"
#include "tarn/core/Log.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/network/HttpTransport.h"

#include <algorithm>
#include <atomic>
#include <thread>

using namespace tarn;
using namespace tarn::test;
using Names = std::vector<std::string>;

namespace {

struct HostWindows : WindowSource {
    std::vector<Window> list;
    std::vector<Window> windows() override { return list; }
};

struct ProductScreen : TarnViewController {
    std::string className() const override { return "ProductScreen"; }
};

ScreenRef named(const std::string& name) {
    return std::make_shared<NamedScreen>(name);
}

}  // namespace

class LifeCycleTest : public PipelineTest {
  protected:
    void initializeWithTracking(bool lifecycleAuto, bool pageTracking) {
        ASSERT_EQ(initializeAndWait(hostConfig("actor-1", false, lifecycleAuto, pageTracking)),
                  InitializeStatusType::initialized);
        ASSERT_TRUE(drainUntil(2));
        ASSERT_TRUE(pumpUntil([] { return !EventQueueManager::shared().isTimerActive.load(); }));
        ASSERT_EQ(storedEventCount(), 0);
    }
    /// The stored events' names, and `key` of their parameters.
    Names stored(const char* key) const {
        Names out;
        for (const auto& e : storedEvents())
            out.push_back(e.value("name", "") + " " + e["parameters"].value(key, ""));
        return out;
    }
    static NotificationCenter& center() { return NotificationCenter::defaultCenter(); }
};

TEST_F(LifeCycleTest, BackgroundAndForegroundAreSentForTheKeyWindowsScreen) {
    auto windows = std::make_shared<HostWindows>();
    setWindowSource(windows);
    initializeWithTracking(true, false);
    // No key window: nothing is stored. Otherwise the last key window's root screen is current.
    windows->list = {{false, named("Hidden")}};
    center().post(kApplicationDidEnterBackgroundNotification);
    EXPECT_EQ(storedEventCount(), 0);
    windows->list = {{true, named("First")}, {false, named("Other")}, {true, named("Main")}};
    center().post(kApplicationDidEnterBackgroundNotification);
    center().post(kApplicationWillEnterForegroundNotification);
    // The manual calls are ignored while the automatic tracking is on, and after termination
    // the tracker no longer reacts.
    TarnEvent::shared().sendAppBackgroundEvent(named("Manual"));
    center().post(kApplicationWillTerminateNotification);
    center().post(kApplicationDidEnterBackgroundNotification);
    EXPECT_EQ(stored("pageName"), (Names{"app_background Main", "app_foreground Main"}));
    setWindowSource(nullptr);
}

TEST_F(LifeCycleTest, ATarnScreenReportsItsPagesWhileTrackingIsOn) {
    initializeWithTracking(false, true);
    auto screen = std::make_shared<ProductScreen>();
    screen->viewDidLoad();
    screen->viewWillAppear(false);
    screen->viewDidAppear(false);
    screen->viewWillDisappear(false);
    // A page notification whose object is not a screen is ignored, and so is a manual call.
    center().post(kTarnPageInNotification, std::string("not a screen"));
    TarnEvent::shared().sendPageInEvent(named("Manual"));
    EXPECT_EQ(stored("eventType"), (Names{"page_in page_in", "page_out page_out"}));
    EXPECT_EQ(stored("pageName"), (Names{"page_in ProductScreen", "page_out ProductScreen"}));
    center().post(kApplicationWillTerminateNotification);
    screen->viewDidAppear(false);
    EXPECT_EQ(storedEventCount(), 2);
}

TEST_F(LifeCycleTest, WithTrackingOffScreensPostOnlyTheManualCallsAreStored) {
    initializeWithTracking(false, false);
    std::size_t posted = 0;
    center().addObserver(kTarnPageInNotification, [&](const Notification&) { ++posted; });
    ProductScreen screen;  // not held by a shared_ptr: still posts itself
    screen.viewDidAppear(true);
    screen.viewWillDisappear(true);
    center().post(kApplicationDidEnterBackgroundNotification);
    EXPECT_EQ(posted, 1u);
    EXPECT_EQ(storedEventCount(), 0);
    EXPECT_FALSE(AutoLifeCyle::shared().isObserving());
    // Manual calls go through, those without a screen are dropped.
    TarnEvent::shared().sendAppBackgroundEvent(nullptr);
    TarnEvent::shared().sendPageInEvent(nullptr);
    TarnEvent::shared().sendPageInEvent(named("Detail"));
    TarnEvent::shared().sendAppBackgroundEvent(named("Detail"));
    EXPECT_EQ(stored("pageName"), (Names{"page_in Detail", "app_background Detail"}));
}

// Forced initialisations one after another, each starting both trackers and fetching the in-app
// answer once, and starts from two threads at once: the notification centre ends up with the
// observers it had after the first initialisation, one fetch was made per initialisation, and the
// transport holds no handle or thread more than after the first.
TEST_F(LifeCycleTest, RepeatedInitialisationsAndStartsLeaveOneRegistrationPerName) {
    initializeWithTracking(true, true);
    const std::size_t observersAfterOne = center().observerCount();
    ASSERT_TRUE(AutoLifeCyle::shared().isObserving());
    ASSERT_TRUE(ActivityLifeCycle::shared().isObserving());
    auto transportAfterOne = CurlHttpSession::liveResources();
    EXPECT_EQ(transportAfterOne.easyHandles, 0u);

    constexpr int kInitialisations = 30;
    for (int i = 1; i <= kInitialisations; ++i) {
        ASSERT_EQ(initializeAndWait(hostConfig("actor-1", true, true, true)),
                  InitializeStatusType::initialized);
        ASSERT_TRUE(drainUntil(2 + static_cast<std::size_t>(i)));  // its sdk_initialize
        EXPECT_EQ(center().observerCount(), observersAfterOne) << "initialisation " << i;
    }
    EXPECT_EQ(server_->count(kInAppPath), static_cast<std::size_t>(kInitialisations + 1));
    EXPECT_EQ(center().observerCount(kApplicationWillTerminateNotification), 3u);  // queue, both

    // While two threads start the trackers again and again, no moment has two registrations of
    // one tracker for one name (a page would then be reported twice).
    std::atomic<bool> starting{true};
    std::size_t mostSeen = 0;
    std::atomic<bool> watching{false};
    std::jthread watcher([&] {
        do {
            mostSeen = std::max(mostSeen, center().observerCount(kTarnPageInNotification));
            watching = true;
        } while (starting);
    });
    while (!watching)  // on a busy machine the watcher may otherwise start after the starters end
        std::this_thread::yield();
    std::vector<std::jthread> starters;
    for (int t = 0; t < 2; ++t) {
        starters.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                AutoLifeCyle::shared().start();
                ActivityLifeCycle::shared().start();
            }
        });
    }
    starters.clear();  // joins
    starting = false;
    watcher.join();
    EXPECT_EQ(mostSeen, 1u);
    EXPECT_EQ(center().observerCount(), observersAfterOne);
    // The queue's and the tracker's; the page notifications only the tracker's.
    EXPECT_EQ(center().observerCount(kApplicationDidEnterBackgroundNotification), 2u);
    EXPECT_EQ(center().observerCount(kApplicationWillEnterForegroundNotification), 2u);
    EXPECT_EQ(center().observerCount(kTarnPageInNotification), 1u);
    EXPECT_EQ(center().observerCount(kTarnPageOutNotification), 1u);

    ASSERT_TRUE(pumpUntil([] { return CurlHttpSession::liveResources().easyHandles == 0; }));
    auto transport = CurlHttpSession::liveResources();
    EXPECT_EQ(transport.multiHandles, transportAfterOne.multiHandles);
    EXPECT_EQ(transport.workerThreads, transportAfterOne.workerThreads);

    AutoLifeCyle::shared().stop();
    ActivityLifeCycle::shared().stop();
    EXPECT_EQ(center().observerCount(), observersAfterOne - 6);
}
