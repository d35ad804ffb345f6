// The Qt Quick integration end to end: a QML host (Qt Quick Controls pages, no Qt Widgets) wired
// to the loopback server. A custom event sent from QML brings up the popup over the window, the
// user acts on it through the window's own input events, pages report themselves as a StackView
// and a SwipeView move, the application state becomes background and foreground events.
#include <QBuffer>
#include <QDir>
#include <QPainter>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>
#include <thread>

#include <nlohmann/json.hpp>

#include "support/PipelineFixture.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/quick/TarnQuick.h"
#include "tarn/store/ConversionManager.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Strings = std::vector<std::string>;

constexpr const char* kShopQml = R"QML(
import QtQuick
import QtQuick.Controls
import Tarn

ApplicationWindow {
    id: root
    objectName: "ShopWindow"
    width: 480; height: 720
    visible: true
    color: "#F1F3F4"
    property var actions: []
    function addToCart() { home.addToCart() }
    function push() { stack.push(product, {}, StackView.Immediate) }
    function pop() { stack.pop(StackView.Immediate) }
    function showDeals() { stack.visible = false; deals.visible = true }

    StackView {
        id: stack
        anchors.fill: parent
        initialItem: Item {
            id: home
            objectName: "home"
            property bool tarnActive: Tarn.active
            Tarn.pageName: "HomePage"
            Tarn.onAction: (link, type) => root.actions = root.actions.concat([link + " " + type])
            function addToCart() {
                Tarn.sendCustomEvent("add_to_cart", {sku: "A-42", price: 89})
            }
            Text { text: "Tarn Shop\n\nRunning shoes   49.00\nRain jacket   89.00"; font.pixelSize: 18 }
            TextField { objectName: "search"; y: 200; width: 300 }
        }
    }
    Component { id: product; Item { Tarn.pageName: "ProductPage" } }
    SwipeView {
        id: deals
        objectName: "deals"
        anchors.fill: parent
        visible: false
        Item { Tarn.pageName: "DealsPage" }
        Item { Tarn.pageName: "OrdersPage" }
    }
}
)QML";

json popupItem(const std::string& trigger, int buttons, const Strings& imageUrls) {
    auto item = json::parse(R"({"journey": "cart-recovery", "expireDate": 4102444800000,
        "template": "POPUP", "title": {"text": "10% off what is in your cart", "color": "#1A73E8"},
        "body": {"text": "Complete your order in the next hour and the discount is yours.",
                 "color": "#202124"},
        "maxShowCount": 9, "bgColor": "#FFFFFF", "conversionEvent": "purchase",
        "images": [], "subInAppCommunication": {"template": "POPUP", "buttons": []}})");
    item.update({{"uuid", "uuid-" + trigger},
                 {"code", "CODE-" + trigger},
                 {"name", "Reminder for " + trigger},
                 {"triggeringEventName", trigger}});
    for (const auto& url : imageUrls)
        item["images"].push_back({{"url", url}});
    for (int i = 1; i <= buttons; ++i) {
        auto n = std::to_string(i);
        item["subInAppCommunication"]["buttons"].push_back(
            {{"_id", "btn-" + n},
             {"text", "B" + n},
             {"textColor", i == 2 ? "#1A73E8" : "#FFFFFF"},
             {"color", i == 2 ? "#FFFFFF" : "#1A73E8"},
             {"action",
              {{"link", "https://shop.example/offer/" + n}, {"type", i == 1 ? "deep" : "url"}}}});
    }
    return item;
}

/// The items under `root` (itself included) whose property `name` is set, in tree order.
void collect(QQuickItem* root, const char* name, std::vector<QQuickItem*>& out) {
    if (root->property(name).isValid())
        out.push_back(root);
    for (auto* child : root->childItems())
        collect(child, name, out);
}

/// The item named `name` in the visual tree under `root`, or nullptr.
QQuickItem* findItem(QQuickItem* root, const QString& name) {
    if (root->objectName() == name)
        return root;
    for (auto* child : root->childItems()) {
        if (auto* found = findItem(child, name))
            return found;
    }
    return nullptr;
}

QPoint centreOf(QQuickItem* item) {
    EXPECT_NE(item, nullptr);
    if (!item)
        return {};
    return item->mapToScene(QPointF(item->width() / 2, item->height() / 2)).toPoint();
}

class QuickHostTest : public PipelineTest {
  protected:
    void SetUp() override {
        PipelineTest::SetUp();
        quick::InstallOptions options;
        options.backgroundDelay = 200ms;
        options.imageTimeoutSeconds = 1;
        options.actions = [this](const AppCommunicationAction& action) {
            hostActions_.push_back(action.link.value_or(""));
        };
        quick::install(*qApp, options);
    }
    void TearDown() override {
        engine_.reset();
        spin(20ms);
        PipelineTest::TearDown();
    }

    bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
        for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            std::this_thread::sleep_for(2ms);
        }
        return true;
    }
    void spin(std::chrono::milliseconds duration) {
        waitUntil([] { return false; }, duration);
    }
    std::vector<json> eventsNamed(const std::string& name) const {
        auto events = receivedEvents();
        std::erase_if(events, [&](const json& e) { return e.value("name", "") != name; });
        return events;
    }
    bool waitForEvent(const std::string& name, std::size_t times = 1) {
        return waitUntil([&] { return eventsNamed(name).size() >= times; });
    }
    /// Loads the shop, waits for its window to be exposed and active, initialises the library.
    QQuickWindow* start(const TarnInitConfig& config) {
        engine_ = std::make_unique<QQmlApplicationEngine>();
        engine_->loadData(kShopQml);
        EXPECT_EQ(engine_->rootObjects().size(), 1);
        if (engine_->rootObjects().empty())
            return nullptr;
        window_ = qobject_cast<QQuickWindow*>(engine_->rootObjects().first());
        window_->requestActivate();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window_));
        waitUntil([this] { return QGuiApplication::focusWindow() == window_; }, 2s);
        Tarn::shared().initialize(config);
        waitUntil([] {
            return ConfigManager::shared().getInitializeStatus() !=
                   InitializeStatusType::initializing;
        });
        EXPECT_EQ(ConfigManager::shared().getInitializeStatus(), InitializeStatusType::initialized);
        return window_;
    }
    QQuickItem* popup() const {
        return window_ ? window_->contentItem()->findChild<QQuickItem*>("TarnInAppPopup") : nullptr;
    }
    bool popupGone(std::chrono::milliseconds timeout = 10s) {
        return waitUntil([&] { return popup() == nullptr; }, timeout);
    }
    QQuickItem* addToCart() {
        QMetaObject::invokeMethod(window_, "addToCart");
        waitUntil([&] { return popup() != nullptr; });
        spin(50ms);  // laid out and drawn, so that clicks land where the rows are
        return popup();
    }
    QObject* controller() const { return popup()->property("controller").value<QObject*>(); }
    std::vector<QQuickItem*> rows() const {
        std::vector<QQuickItem*> found;
        collect(popup(), "tarnRow", found);
        return found;
    }
    Strings rowKinds() const {
        Strings kinds;
        for (auto* row : rows())
            kinds.push_back(row->property("tarnRow").toString().toStdString());
        return kinds;
    }
    QQuickItem* named(const char* name) const { return findItem(popup(), name); }
    /// The page and lifecycle events received, as "name pageName".
    Strings pageEvents() const {
        Strings seen;
        for (const auto& event : receivedEvents()) {
            std::string name = event.value("name", "");
            if (name.starts_with("page_") || name.starts_with("app_"))
                seen.push_back(name + " " + event["parameters"].value("pageName", "?"));
        }
        return seen;
    }

    std::unique_ptr<QQmlApplicationEngine> engine_;
    QQuickWindow* window_ = nullptr;
    Strings hostActions_;
};

TEST_F(QuickHostTest, PopupFromQmlShowsReportsAndClosesEveryWay) {
    for (int i : {1, 2}) {
        QImage image(640, 360, QImage::Format_RGB32);
        image.fill(QColor(i == 1 ? "#F4B400" : "#0F9D58"));
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, "PNG");
        auto png = ScriptedAnswer::json(200, bytes.toStdString());
        png.contentType = "image/png";
        server_->on("/img/" + std::to_string(i) + ".png", png);
    }
    json item = popupItem("add_to_cart", 5,
                          {server_->baseUrl() + "/img/1.png", server_->baseUrl() + "/img/2.png",
                           server_->baseUrl() + "/img/missing.png"});
    json answer = {{"inAppCommunicationCommands", json::array({item})},
                   {"configuration",
                    {{"eventQueueDelay", 0.05},
                     {"apiRequestTimeout", 5},
                     {"apiRequestRetryCount", 0},
                     {"inAppMaxShowDuration", 1}}}};
    server_->on(kInAppPath, ScriptedAnswer::json(200, answer.dump()));
    ASSERT_NE(start(hostConfig("user-1")), nullptr);
    QQuickItem* search = window_->findChild<QQuickItem*>("search");
    ASSERT_NE(search, nullptr);
    search->forceActiveFocus();

    ASSERT_NE(addToCart(), nullptr);
    EXPECT_EQ(popup()->parentItem(), window_->contentItem()) << "over the window's content";
    EXPECT_EQ(popup()->size(), window_->contentItem()->size());
    EXPECT_TRUE(popup()->hasActiveFocus()) << "the popup takes the keys while open";
    ASSERT_EQ(rowKinds(), (Strings{"title", "images", "body", "button", "button", "button"}));
    auto shown = rows();
    EXPECT_EQ(shown[0]->property("text").toString(), "10% off what is in your cart");
    EXPECT_EQ(shown[0]->property("color").value<QColor>(), QColor("#1A73E8"));
    EXPECT_EQ(shown[2]->property("color").value<QColor>(), QColor("#202124"));
    EXPECT_EQ(shown[5]->property("color").value<QColor>(), QColor("#1A73E8"));
    EXPECT_EQ(controller()->property("autoDismissMs").toInt(), 1000);
    ASSERT_EQ(controller()->property("imageCount").toInt(), 3);
    ASSERT_TRUE(waitUntil([&] { return controller()->property("settledCount").toInt() == 3; }));
    QTest::mouseClick(window_, Qt::LeftButton, {}, centreOf(named("tarnPrevious")));
    EXPECT_EQ(controller()->property("currentImage").toInt(), 2) << "wraps to the last";
    EXPECT_EQ(controller()->property("imageState").toString(), "failed");
    QTest::keyClick(window_, Qt::Key_Right);
    EXPECT_EQ(controller()->property("currentImage").toInt(), 0);
    spin(50ms);

    // What the user sees: the host dimmed behind a white card with the first picture on it.
    QImage picture = window_->grabWindow();
    const char* folder = std::getenv("TARN_TEST_BINARY_DIR");
    ASSERT_TRUE(picture.save((folder ? QString(folder) : QDir::tempPath()) + "/quick-popup.png"));
    EXPECT_LT(picture.pixelColor(5, 5).lightness(), QColor("#F1F3F4").lightness() - 60)
        << "the host is dimmed";
    QQuickItem* card = named("tarnCard");
    EXPECT_EQ(picture.pixelColor(centreOf(card).x(), card->mapToScene({0, 6}).toPoint().y()),
              QColor("#FFFFFF"));
    EXPECT_EQ(picture.pixelColor(centreOf(named("tarnPicture"))), QColor("#F4B400"))
        << "the first image, loaded off the GUI thread";

    // A button, clicked through the window: its event, the action to QML and to the host.
    QTest::mouseClick(window_, Qt::LeftButton, {}, centreOf(shown[4]));
    EXPECT_TRUE(popupGone());
    EXPECT_EQ(hostActions_, Strings{"https://shop.example/offer/2"});
    EXPECT_EQ(window_->property("actions").toStringList(),
              QStringList{"https://shop.example/offer/2 url"});
    EXPECT_TRUE(search->hasActiveFocus()) << "the focus goes back where the user was";

    // A click on the body keeps it; Escape closes it; the close control; the timer.
    ASSERT_NE(addToCart(), nullptr);
    QTest::mouseClick(window_, Qt::LeftButton, {}, centreOf(rows()[2]));
    ASSERT_NE(popup(), nullptr);
    QTest::mouseClick(window_, Qt::LeftButton, {}, QPoint(4, 4));
    ASSERT_NE(popup(), nullptr) << "a click on the dimmed host does nothing";
    QTest::keyClick(window_, Qt::Key_Escape);
    EXPECT_TRUE(popupGone());
    ASSERT_NE(addToCart(), nullptr);
    QTest::mouseClick(window_, Qt::LeftButton, {}, centreOf(named("tarnClose")));
    EXPECT_TRUE(popupGone());
    ASSERT_NE(addToCart(), nullptr);
    EXPECT_TRUE(popupGone(3s)) << "dismissed by its timer";

    QMetaObject::invokeMethod(window_, "push");
    TarnEvent::shared().sendCustomEvent(quick::screenFor(window_), std::nullopt, "purchase");
    ASSERT_TRUE(waitForEvent("purchase"));
    ASSERT_TRUE(waitForEvent("in_app_dismissed", 3));
    EXPECT_EQ(eventsNamed("in_app_opened").size(), 4u);
    EXPECT_EQ(eventsNamed("in_app_dismissed").size(), 3u);
    auto clicked = eventsNamed("in_app_button_clicked");
    ASSERT_EQ(clicked.size(), 1u);
    EXPECT_EQ(clicked[0]["parameters"]["pageName"], "HomePage");
    EXPECT_EQ(clicked[0]["parameters"]["buttonId"], "btn-2");
    EXPECT_EQ(clicked[0]["parameters"]["buttonText"], "B2");
    auto self = eventsNamed("in_app_self_clicked");
    ASSERT_EQ(self.size(), 1u);
    EXPECT_EQ(self[0]["parameters"]["communicationName"], "Reminder for add_to_cart");
    auto cart = eventsNamed("add_to_cart");
    ASSERT_FALSE(cart.empty());
    EXPECT_EQ(cart[0]["parameters"]["sku"], "A-42") << "the parameters given in QML";
    EXPECT_EQ(eventsNamed("purchase")[0]["parameters"][kConversionCommunicationCodeKey],
              "CODE-add_to_cart");
}

TEST_F(QuickHostTest, PagesOfStackAndSwipeViewsAndApplicationStateReportThemselves) {
    ASSERT_NE(start(hostConfig("user-1", false, /*lifecycleAuto=*/true,
                               /*activityTracking=*/true)),
              nullptr);
    // The home page came in before the library was ready (not reported); it is tracked all the
    // same, so leaving it is.
    EXPECT_TRUE(window_->findChild<QQuickItem*>("home")->property("tarnActive").toBool());
    QMetaObject::invokeMethod(window_, "push");
    spin(50ms);
    QMetaObject::invokeMethod(window_, "pop");
    ASSERT_TRUE(waitForEvent("page_in", 2));

    // Leaving the application (announced as the platform would) while the home page is in.
    emit qApp->applicationStateChanged(Qt::ApplicationInactive);
    emit qApp->applicationStateChanged(Qt::ApplicationHidden);
    spin(400ms);
    emit qApp->applicationStateChanged(Qt::ApplicationActive);
    ASSERT_TRUE(waitForEvent("app_foreground"));
    // A flicker shorter than the delay: nothing.
    emit qApp->applicationStateChanged(Qt::ApplicationInactive);
    emit qApp->applicationStateChanged(Qt::ApplicationActive);
    spin(300ms);

    QMetaObject::invokeMethod(window_, "showDeals");
    spin(50ms);
    window_->findChild<QObject*>("deals")->setProperty("currentIndex", 1);
    spin(50ms);
    window_->hide();
    ASSERT_TRUE(waitForEvent("page_out", 5));
    spin(100ms);
    EXPECT_EQ(pageEvents(),
              (Strings{"page_out HomePage", "page_in ProductPage",
                       "page_out ProductPage", "page_in HomePage", "app_background HomePage",
                       "app_foreground HomePage", "page_out HomePage", "page_in DealsPage",
                       "page_out DealsPage", "page_in OrdersPage", "page_out OrdersPage"}));
}

}  // namespace
}  // namespace tarn::test
