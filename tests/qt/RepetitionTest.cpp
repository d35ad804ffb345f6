// The Qt integration's repeated work: timers on the Qt main queue started and stopped, the
// integration installed again and again, popups shown and closed one after another. After many
// repetitions the process holds the Qt objects, threads and timers it held after one.
#include <QAbstractEventDispatcher>
#include <QThreadPool>
#include <atomic>
#include <filesystem>

#include "QtHost.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/qt/QtMainQueue.h"

// Qt's hook table (exported by QtCore; the same table debugging tools use): entries 3 and 4 are
// called for every QObject made and destroyed, on the thread that does it.
extern Q_DECL_IMPORT quintptr qtHookData[];

namespace tarn::test {
namespace {

using nlohmann::json;

/// Counts the QObjects alive in the process, wherever they were made.
class LiveObjects {
  public:
    LiveObjects() {
        balance_ = 0;
        previousAdd_ = reinterpret_cast<Hook>(qtHookData[kAddQObject]);
        previousRemove_ = reinterpret_cast<Hook>(qtHookData[kRemoveQObject]);
        qtHookData[kAddQObject] = reinterpret_cast<quintptr>(&added);
        qtHookData[kRemoveQObject] = reinterpret_cast<quintptr>(&removed);
    }
    ~LiveObjects() {
        qtHookData[kAddQObject] = reinterpret_cast<quintptr>(previousAdd_);
        qtHookData[kRemoveQObject] = reinterpret_cast<quintptr>(previousRemove_);
    }
    /// Made minus destroyed since this counter was made.
    static long long count() { return balance_.load(); }

  private:
    using Hook = void (*)(QObject*);
    static constexpr int kAddQObject = 3, kRemoveQObject = 4;
    static void added(QObject* object) {
        ++balance_;
        if (previousAdd_)
            previousAdd_(object);
    }
    static void removed(QObject* object) {
        --balance_;
        if (previousRemove_)
            previousRemove_(object);
    }
    static inline std::atomic<long long> balance_{0};
    static inline Hook previousAdd_ = nullptr, previousRemove_ = nullptr;
};

std::size_t processThreads() {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/task"))
        ++n;
    return n;
}

class RepetitionTest : public QtHostTest {
  protected:
    /// Lets pending deletions, finished threads and idle pool threads go.
    void settle(std::chrono::milliseconds duration = 100ms) {
        spin(duration);
        QThreadPool::globalInstance()->waitForDone();
        spin(20ms);
    }
    /// Waits until `value()` equals `expected`; the last value seen.
    template <class F>
    auto settlesAt(F value, decltype(value()) expected) {
        waitUntil([&] { return value() == expected; }, 5s);
        return value();
    }
};

}  // namespace

// 200 timers on the Qt main queue started, ticking and stopped (some from their own tick), and
// 200 more with an hour's interval stopped before their first tick: afterwards the live timers
// and the Qt objects are what they were after one cycle, and no stopped timer ticks again.
TEST_F(RepetitionTest, TimersOnTheQtMainQueueLeaveNothingBehind) {
    LiveObjects objects;
    auto queue = std::make_shared<qt::QtMainQueue>(*qApp);
    const auto timersBefore = RepeatingTimer::liveCount();
    int lateTicks = 0;
    auto cycle = [&](double interval, bool selfStopping) {
        auto stopped = std::make_shared<bool>(false);
        auto ticks = std::make_shared<int>(0);
        std::shared_ptr<RepeatingTimer> timer;
        timer = RepeatingTimer::scheduled(
            interval,
            [&, stopped, ticks] {
                lateTicks += *stopped ? 1 : 0;
                if (++*ticks == 2 && selfStopping) {
                    timer->invalidate();
                    *stopped = true;
                }
            },
            queue);
        if (interval < 1)
            waitUntil([&] { return *ticks >= 2; }, 2s);
        timer->invalidate();
        *stopped = true;
        timer.reset();
    };
    cycle(0.002, false);
    settle();
    const auto objectsAfterOne = LiveObjects::count();
    const auto timersAfterOne = RepeatingTimer::liveCount();
    EXPECT_EQ(timersAfterOne, timersBefore);
    for (int i = 0; i < 200; ++i)
        cycle(0.002, i % 2 == 1);
    settle();
    EXPECT_EQ(RepeatingTimer::liveCount(), timersAfterOne);
    EXPECT_EQ(LiveObjects::count(), objectsAfterOne);
    EXPECT_EQ(lateTicks, 0);

    // Stopped before their first tick: the timers go at once. Each one's tick still waits in Qt's
    // timer list until its due time (a small single-shot object holding no timer), never more.
    for (int i = 0; i < 200; ++i)
        cycle(3600, false);
    EXPECT_EQ(RepeatingTimer::liveCount(), timersAfterOne);
    settle();  // the queued posts have started their single-shots
    EXPECT_LE(LiveObjects::count(), objectsAfterOne + 200);
    // Releasing the queue releases its posting object.
    const auto withQueue = LiveObjects::count();
    queue.reset();
    EXPECT_EQ(settlesAt([] { return LiveObjects::count(); }, withQueue - 1), withQueue - 1);
}

// The integration installed 50 times (as a host that changes its options does): the application
// object keeps one posting object and one lifecycle bridge, and the library still runs on the
// last installed queue.
TEST_F(RepetitionTest, InstallingAgainReplacesWhatTheLastInstallMade) {
    qt::InstallOptions options;
    options.backgroundDelay = 200ms;
    qt::install(*qApp, options);
    settle();
    const auto childrenAfterOne = qApp->children().size();
    LiveObjects objects;
    for (int i = 0; i < 50; ++i)
        qt::install(*qApp, options);
    settle();
    EXPECT_EQ(qApp->children().size(), childrenAfterOne);
    EXPECT_EQ(LiveObjects::count(), 0);
    bool ran = false;
    mainQueue()->asyncAfter(0.01, [&] { ran = true; });
    EXPECT_TRUE(waitUntil([&] { return ran; }, 2s));
}

// 60 popups with images shown and closed one after another, some closed while an image is still
// on its way: afterwards the Qt objects (widgets, network managers and replies, single-shot
// timers), the widgets and the process's threads are what they were after the first.
TEST_F(RepetitionTest, PopupsShownAndClosedAgainAndAgainLeaveNothingBehind) {
    serveImages(false);
    auto late = ScriptedAnswer::json(404, "");
    late.delay = 300ms;  // still loading when the popup closes
    server_->on("/img/late.png", late);
    auto item = popupItem("add_to_cart", 2,
                          {server_->baseUrl() + "/img/1.png", server_->baseUrl() + "/img/2.png",
                           server_->baseUrl() + "/img/late.png"});
    item["maxShowCount"] = 1000;
    json answer = {{"inAppCommunicationCommands", json::array({item})},
                   {"configuration", {{"eventQueueDelay", 0.005}, {"apiRequestRetryCount", 0}}}};
    server_->on(kInAppPath, ScriptedAnswer::json(200, answer.dump()));
    QWidget* window = showWindow("ShopWindow");
    ASSERT_EQ(initializeQt(hostConfig("user-1")), InitializeStatusType::initialized);

    auto popup = []() -> qt::InAppPopup* {
        for (auto* widget : QApplication::allWidgets())
            if (auto* shown = dynamic_cast<qt::InAppPopup*>(widget); shown && shown->isVisible())
                return shown;
        return nullptr;
    };
    auto showAndClose = [&](bool waitForImages) {
        TarnEvent::shared().sendCustomEvent(qt::screenFor(window), std::nullopt, "add_to_cart");
        ASSERT_TRUE(waitUntil([&] { return popup() != nullptr; }));
        auto* slider = popup()->slider();
        ASSERT_NE(slider, nullptr);
        if (waitForImages) {
            ASSERT_TRUE(waitUntil([&] { return slider->settledCount() >= 2; }));
        }
        QTest::keyClick(popup(), Qt::Key_Escape);
        ASSERT_TRUE(waitUntil([&] { return popup() == nullptr; }));
    };
    LiveObjects objects;
    showAndClose(true);
    settle(400ms);  // the late image's answer arrives for a popup that is gone
    const auto objectsAfterOne = LiveObjects::count();
    const auto widgetsAfterOne = QApplication::allWidgets().size();
    const auto threadsAfterOne = processThreads();
    for (int i = 0; i < 60; ++i)
        showAndClose(i % 3 != 0);
    settle(400ms);
    EXPECT_EQ(settlesAt([] { return LiveObjects::count(); }, objectsAfterOne), objectsAfterOne);
    EXPECT_EQ(QApplication::allWidgets().size(), widgetsAfterOne);
    EXPECT_EQ(settlesAt(processThreads, threadsAfterOne), threadsAfterOne);
    EXPECT_EQ(server_->count("/img/1.png"), 61u);
}

}  // namespace tarn::test
