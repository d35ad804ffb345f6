// Application state, page tracking and the main queue on a real QApplication (offscreen).
#include <algorithm>
#include <atomic>

#include "QtHost.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/qt/PageTracking.h"
#include "tarn/qt/QtMainQueue.h"

namespace tarn::test {
namespace {

using nlohmann::json;

using QtLifecycleTest = QtHostTest;

TEST_F(QtLifecycleTest, ApplicationStateAndTrackedPagesReportWithoutStorms) {
    QWidget* window = showWindow("ShopWindow");
    ASSERT_EQ(initializeQt(hostConfig("user-1", false, /*lifecycleAuto=*/true,
                                      /*activityTracking=*/true)),
              InitializeStatusType::initialized);
    ASSERT_TRUE(waitUntil([] { return qApp->applicationState() == Qt::ApplicationActive; }));
    EXPECT_EQ(currentScreen()->className(), "ShopWindow") << "the key window is the active one";

    // Leaving the application (announced as the platform would: the offscreen platform has no
    // other application to switch to) is reported once the absence outlasts the delay. In the
    // background the queue holds its events: look in the store.
    emit qApp->applicationStateChanged(Qt::ApplicationInactive);
    emit qApp->applicationStateChanged(Qt::ApplicationHidden);
    auto storedBackgrounds = [this] {
        return std::ranges::count_if(storedEvents(), [](const json& e) {
            return e.is_object() && e.value("name", "") == "app_background";
        });
    };
    ASSERT_TRUE(waitUntil([&] { return storedBackgrounds() > 0; }));
    spin(300ms);
    EXPECT_EQ(storedBackgrounds(), 1) << "one event for two state changes";
    emit qApp->applicationStateChanged(Qt::ApplicationActive);
    ASSERT_TRUE(waitForEvent("app_foreground"));
    ASSERT_TRUE(waitForEvent("app_background"));
    EXPECT_EQ(eventsNamed("app_background")[0]["parameters"]["pageName"], "ShopWindow")
        << "the window the user left";
    EXPECT_EQ(eventsNamed("app_foreground")[0]["parameters"]["pageName"], "ShopWindow");

    // A dialog of the application taking focus, and a flicker shorter than the delay: nothing.
    auto* dialog = new QWidget(window, Qt::Dialog);
    dialog->setObjectName("Settings");
    dialog->show();
    dialog->activateWindow();
    waitUntil([&] { return QApplication::activeWindow() == dialog; }, 1s);
    delete dialog;
    emit qApp->applicationStateChanged(Qt::ApplicationInactive);
    QApplication::processEvents();
    emit qApp->applicationStateChanged(Qt::ApplicationActive);
    spin(600ms);
    EXPECT_EQ(eventsNamed("app_background").size(), 1u);
    EXPECT_EQ(eventsNamed("app_foreground").size(), 1u);

    // Tracked pages of a stack, one tracked by the base class and one by the filter (installed
    // once however often it is asked for), each reported with its name as it shows and hides.
    auto* pages = new QStackedWidget(window);
    auto* home = new qt::TarnWidget;  // the page base class
    home->setObjectName("HomePage");
    auto* product = new QLabel("Running shoes");
    product->setObjectName("ProductPage");
    EXPECT_EQ(qt::trackPage(product), qt::trackPage(product));
    pages->addWidget(home);
    pages->addWidget(product);
    window->layout()->addWidget(pages);
    pages->show();
    pages->setCurrentWidget(product);
    pages->setCurrentWidget(home);
    pages->hide();
    ASSERT_TRUE(waitForEvent("page_out", 3));
    std::vector<std::string> seen;
    for (const auto& event : receivedEvents()) {
        std::string name = event.value("name", "");
        if (name == "page_in" || name == "page_out")
            seen.push_back(name + " " + event["parameters"].value("pageName", "?"));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"page_in HomePage", "page_out HomePage",
                                              "page_in ProductPage", "page_out ProductPage",
                                              "page_in HomePage", "page_out HomePage"}));

    // Quitting stops the tracker.
    EXPECT_TRUE(AutoLifeCyle::shared().isObserving());
    QTimer::singleShot(0, qApp, &QCoreApplication::quit);
    QApplication::exec();
    EXPECT_FALSE(AutoLifeCyle::shared().isObserving()) << "aboutToQuit posts will-terminate";
}

TEST(QtMainQueueTest, RunsEveryTaskOnTheGuiThreadInOrderFromAnyThread) {
    auto queue = std::make_shared<qt::QtMainQueue>(*qApp);
    std::vector<int> order;
    std::atomic<bool> allOnGui{true};
    auto record = [&](int n) {
        return [&, n] {
            allOnGui = allOnGui && QThread::currentThread() == qApp->thread() && queue->isCurrent();
            order.push_back(n);
        };
    };
    queue->asyncAfter(0.05, record(4));
    queue->async(record(1));
    std::thread worker([&] {
        EXPECT_FALSE(queue->isCurrent());
        queue->async(record(2));
        queue->asyncAfter(0, record(3));
        queue->async([] { throw std::runtime_error("a host task that throws"); });
    });
    worker.join();
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (order.size() < 4 && std::chrono::steady_clock::now() < deadline)
        QApplication::processEvents(QEventLoop::AllEvents, 10);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(allOnGui);
}

}  // namespace
}  // namespace tarn::test
