// Automatic lifecycle and page tracking, wired by initialisation.
#include <gtest/gtest.h>

#include "support/PipelineFixture.h"
#include "tarn/core/Log.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/NotificationCenter.h"

using namespace tarn;
using namespace tarn::test;

namespace {

struct HostWindows : WindowSource {
    std::vector<Window> list;
    std::vector<Window> windows() override { return list; }
};

struct ProductScreen : TarnViewController {
    std::string className() const override { return "ProductScreen"; }
};

std::vector<std::string> names(const std::vector<nlohmann::json>& events) {
    std::vector<std::string> out;
    for (const auto& e : events)
        out.push_back(e.value("name", ""));
    return out;
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
};

TEST_F(LifeCycleTest, BackgroundAndForegroundAreSentForTheKeyWindowsScreen) {
    auto windows = std::make_shared<HostWindows>();
    setWindowSource(windows);
    initializeWithTracking(true, false);
    auto& center = NotificationCenter::defaultCenter();

    // No key window: nothing is stored.
    windows->list = {{false, std::make_shared<NamedScreen>("Hidden")}};
    center.post(kApplicationDidEnterBackgroundNotification);
    EXPECT_EQ(storedEventCount(), 0);

    // The last key window's root screen is the current one.
    windows->list = {{true, std::make_shared<NamedScreen>("First")},
                     {false, std::make_shared<NamedScreen>("Other")},
                     {true, std::make_shared<NamedScreen>("Main")}};
    center.post(kApplicationDidEnterBackgroundNotification);
    center.post(kApplicationWillEnterForegroundNotification);
    auto stored = storedEvents();
    ASSERT_EQ(names(stored), (std::vector<std::string>{"app_background", "app_foreground"}));
    EXPECT_EQ(stored[0]["parameters"]["pageName"], "Main");

    // The manual calls are ignored while the automatic tracking is on.
    TarnEvent::shared().sendAppBackgroundEvent(std::make_shared<NamedScreen>("Manual"));
    EXPECT_EQ(storedEventCount(), 2);

    // After termination the tracker no longer reacts.
    center.post(kApplicationWillTerminateNotification);
    center.post(kApplicationDidEnterBackgroundNotification);
    EXPECT_EQ(storedEventCount(), 2);
    setWindowSource(nullptr);
}

TEST_F(LifeCycleTest, ATarnScreenReportsItsPagesWhileTrackingIsOn) {
    initializeWithTracking(false, true);
    auto screen = std::make_shared<ProductScreen>();
    screen->viewDidLoad();
    screen->viewWillAppear(false);
    screen->viewDidAppear(false);
    screen->viewWillDisappear(false);
    // A page notification whose object is not a screen is ignored.
    NotificationCenter::defaultCenter().post(kTarnPageInNotification, std::string("not a screen"));
    auto stored = storedEvents();
    ASSERT_EQ(names(stored), (std::vector<std::string>{"page_in", "page_out"}));
    EXPECT_EQ(stored[0]["parameters"]["pageName"], "ProductScreen");
    EXPECT_EQ(stored[1]["parameters"]["eventType"], "page_out");

    NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
    screen->viewDidAppear(false);
    EXPECT_EQ(storedEventCount(), 2);
}

TEST_F(LifeCycleTest, WithTrackingOffScreensPostButNothingIsStored) {
    initializeWithTracking(false, false);
    test::LogCapture logs;
    std::size_t posted = 0;
    NotificationCenter::defaultCenter().addObserver(kTarnPageInNotification,
                                                    [&](const Notification&) { ++posted; });
    ProductScreen screen;  // not held by a shared_ptr: still posts itself
    screen.viewDidAppear(true);
    screen.viewWillDisappear(true);
    NotificationCenter::defaultCenter().post(kApplicationDidEnterBackgroundNotification);
    EXPECT_EQ(posted, 1u);
    EXPECT_EQ(storedEventCount(), 0);
    EXPECT_FALSE(AutoLifeCyle::shared().isObserving());
}
