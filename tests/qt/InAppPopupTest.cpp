// The popup end to end: the library fetches the answer from the loopback server, a custom event
// shows the Qt popup over the host's window, the user acts on it, the events reach the server.
#include <QLineEdit>

#include "QtHost.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/store/ConversionManager.h"

namespace tarn::test {
namespace {

using nlohmann::json;
using Rows = std::vector<std::string>;

Rows rowKinds(qt::InAppPopup* popup) {
    Rows kinds;
    for (auto* row : popup->rows())
        kinds.push_back(row->property("tarnRow").toString().toStdString());
    return kinds;
}

class InAppPopupTest : public QtHostTest {
  protected:
    /// Serves "/img/1.png" and "/img/2.png" (pictures with a white stripe) and `items` (with a
    /// quick queue and `maxShowDuration`), shows a host window named `windowName` and initialises
    /// the library.
    QWidget* start(const json& items, const QString& windowName,
                   std::optional<int> maxShowDuration = std::nullopt) {
        serveImages(true);
        json configuration = {
            {"eventQueueDelay", 0.05}, {"apiRequestTimeout", 5}, {"apiRequestRetryCount", 0}};
        if (maxShowDuration)
            configuration["inAppMaxShowDuration"] = *maxShowDuration;
        json answer = {{"inAppCommunicationCommands", items}, {"configuration", configuration}};
        server_->on(kInAppPath, ScriptedAnswer::json(200, answer.dump()));
        QWidget* window = showWindow(windowName);
        EXPECT_EQ(initializeQt(hostConfig("user-1")), InitializeStatusType::initialized);
        return window;
    }
    std::string imageUrl(const std::string& path) const { return server_->baseUrl() + path; }
    void send(QWidget* window, const std::string& name) {
        TarnEvent::shared().sendCustomEvent(
            qt::screenFor(window), std::nullopt, name, std::nullopt,
            [this](const AppCommunicationAction& action) { actions_.push_back(action); });
    }
    /// The popup currently up anywhere, or nullptr.
    qt::InAppPopup* popup() const {
        for (auto* widget : QApplication::allWidgets()) {
            if (auto* shown = dynamic_cast<qt::InAppPopup*>(widget); shown && shown->isVisible())
                return shown;
        }
        return nullptr;
    }
    /// Sends the custom event `name` from `window`; the popup it brings up, or nullptr.
    qt::InAppPopup* trigger(QWidget* window, const std::string& name) {
        send(window, name);
        waitUntil([&] { return popup() != nullptr; });
        return popup();
    }
    bool popupGone(std::chrono::milliseconds timeout = 10s) {
        return waitUntil([&] { return popup() == nullptr; }, timeout);
    }

    std::vector<AppCommunicationAction> actions_;
};

TEST_F(InAppPopupTest, ShowsRelaysAndConvertsThenBadPayloadsClosedWindowsAndSurveysNeverCrash) {
    json good = popupItem("add_to_cart", 5, {imageUrl("/img/1.png"), imageUrl("/img/2.png")});
    server_->on("/img/slow.png", ScriptedAnswer::never());
    server_->on("/img/garbage.png", ScriptedAnswer::json(200, "not an image"));
    std::vector<std::string> urls = {imageUrl("/img/slow.png"), imageUrl("/img/missing.png"),
                                     imageUrl("/img/garbage.png"), "ftp://example.com/a.png"};
    urls.resize(300, imageUrl("/img/1.png"));
    json bad = popupItem("checkout", 1, urls);
    bad["title"] = {{"text", ""}, {"color", "not-a-colour"}};
    bad["body"] = {{"text", "Body in an unreadable colour"}, {"color", "rgb(1,2,3)"}};
    bad["bgColor"] = "#zzz";
    json survey = popupItem("order_delivered", 0, {});
    survey["template"] = "SURVEY";
    survey["subInAppCommunication"] = {{"template", "SURVEY"},
                                       {"link", "https://survey.example/nps?c=1"}};
    LogCapture logs;
    QWidget* window = start(json::array({good, bad, survey}), "ShopWindow");
    auto* shown = trigger(window, "add_to_cart");
    ASSERT_NE(shown, nullptr);
    EXPECT_EQ(shown->parentWidget(), window) << "presented over the host's window";
    EXPECT_EQ(shown->geometry(), window->rect());
    EXPECT_EQ(rowKinds(shown), (Rows{"title", "images", "body", "button", "button", "button"}));
    auto rows = shown->rows();
    EXPECT_EQ(static_cast<QLabel*>(rows[0])->text(), "10% off what is in your cart");
    EXPECT_TRUE(rows[0]->styleSheet().contains("rgba(26,115,232,255)"));
    EXPECT_TRUE(rows[2]->styleSheet().contains("rgba(32,33,36,255)"));
    EXPECT_EQ(static_cast<QPushButton*>(rows[5])->text(), "B3");
    EXPECT_EQ(shown->autoDismissMs(), 0) << "no duration configured, no timer";

    // Images arrive without blocking; the slider wraps both ways.
    auto* slider = shown->slider();
    ASSERT_NE(slider, nullptr);
    ASSERT_EQ(slider->count(), 2);
    ASSERT_TRUE(waitUntil([&] { return slider->settledCount() == 2; }));
    EXPECT_EQ(slider->previous(), 1);
    QTest::mouseClick(shown->findChild<QToolButton*>("tarnNext"), Qt::LeftButton);
    EXPECT_EQ(slider->currentIndex(), 0);
    QTest::mousePress(slider, Qt::LeftButton, {}, QPoint(300, 60));
    QTest::mouseRelease(slider, Qt::LeftButton, {}, QPoint(200, 60));
    EXPECT_EQ(slider->currentIndex(), 1) << "a swipe to the left shows the next image";
    slider->showIndex(0);
    spin(50ms);

    // What the user sees, written next to the test program: the host dimmed behind the card.
    QImage picture = window->grab().toImage();
    const char* folder = std::getenv("TARN_TEST_BINARY_DIR");
    ASSERT_TRUE(picture.save((folder ? QString(folder) : QDir::tempPath()) + "/qt-popup.png"));
    EXPECT_LT(picture.pixelColor(5, 5).lightness(), QColor("#F1F3F4").lightness() - 60)
        << "the host is dimmed";
    QColor card =
        picture.pixelColor(picture.width() / 2, shown->findChild<QWidget*>("tarnCard")->y() + 6);
    EXPECT_EQ(card, QColor("#FFFFFF")) << "the card is drawn in bgColor";
    QPoint belowPicture = slider->mapTo(window, QPoint(4, slider->height() - 3));
    EXPECT_EQ(picture.pixelColor(belowPicture), QColor("#FFFFFF"))
        << "the host's style sheet does not paint into the card";

    // A button: its event, then the host's callback with the unchanged action; the popup goes.
    QTest::mouseClick(static_cast<QPushButton*>(rows[4]), Qt::LeftButton);
    ASSERT_EQ(actions_.size(), 1u);
    EXPECT_EQ(actions_[0].link, "https://shop.example/offer/2");
    EXPECT_EQ(actions_[0].type, TarnActionType::url);
    EXPECT_TRUE(openedUrls_.empty()) << "links are the host's business";
    EXPECT_TRUE(popupGone());

    send(window, "purchase");
    ASSERT_TRUE(waitForEvent("purchase"));
    auto opened = eventsNamed("in_app_opened"), clicked = eventsNamed("in_app_button_clicked");
    ASSERT_EQ(opened.size(), 1u);
    ASSERT_EQ(clicked.size(), 1u);
    EXPECT_TRUE(eventsNamed("in_app_dismissed").empty());
    // (The items' own parameters: InitializationTest and DemoTest, through the same reports.)
    EXPECT_EQ(opened[0]["parameters"]["pageName"], "ShopWindow");
    EXPECT_EQ(opened[0]["parameters"]["communicationName"], "Reminder for add_to_cart");
    EXPECT_EQ(clicked[0]["parameters"]["pageName"], "ShopWindow");
    EXPECT_EQ(clicked[0]["parameters"]["buttonId"], "btn-2");
    EXPECT_EQ(clicked[0]["parameters"]["buttonText"], "B2");
    EXPECT_EQ(eventsNamed("purchase")[0]["parameters"][kConversionCommunicationCodeKey],
              "CODE-add_to_cart")
        << "the purchase completes the conversion the popup armed";

    // A popup whose colours, title and images are all bad, hundreds of image addresses among
    // them: it shows, in black, without the empty title, and the bad images fail one by one.
    shown = trigger(window, "checkout");
    ASSERT_NE(shown, nullptr);
    rows = shown->rows();
    ASSERT_EQ(rowKinds(shown), (Rows{"title", "images", "body", "button"}));
    EXPECT_TRUE(rows[0]->styleSheet().contains("rgba(0,0,0,255)")) << "unreadable is black";
    EXPECT_TRUE(rows[2]->styleSheet().contains("rgba(0,0,0,255)"));
    EXPECT_FALSE(rows[0]->isVisible()) << "an empty title takes no room";
    slider = shown->slider();
    ASSERT_EQ(slider->count(), 10) << "hundreds of addresses: the first ten are loaded";
    EXPECT_TRUE(logs.contains("Tarn-InappView: popup carries 300 images; showing the first 10;"));
    ASSERT_TRUE(waitUntil([&] { return slider->settledCount() == 10; }, 8s))
        << "an address that never answers times out";
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(slider->state(i),
                  i < 4 ? qt::ImageSlider::SlotState::failed : qt::ImageSlider::SlotState::loaded)
            << i;
    }
    EXPECT_EQ(slider->previous(), 9) << "from the first image back to the last";

    // The host's window goes while the popup is up: the popup goes with it.
    QPointer<QWidget> gone = shown;
    delete window;
    spin(50ms);
    EXPECT_TRUE(gone.isNull());
    // No window at all: the popup comes as a window of its own.
    ASSERT_NE(trigger(nullptr, "checkout"), nullptr);
    EXPECT_TRUE(popup()->isWindow());
    QTest::keyClick(popup(), Qt::Key_Escape);
    EXPECT_TRUE(popupGone());

    // A survey without Qt WebEngine: a clear line, the page in the system browser.
    send(nullptr, "order_delivered");
    ASSERT_TRUE(waitUntil([&] { return !openedUrls_.empty(); }));
    EXPECT_EQ(openedUrls_[0].toString(), "https://survey.example/nps?c=1");
    EXPECT_TRUE(logs.contains(
        "Tarn-InappView: survey shown in the system browser: this build has no Qt WebEngine;"));
    ASSERT_TRUE(waitForEvent("in_app_opened", 4));
    EXPECT_EQ(eventsNamed("in_app_opened")[3]["parameters"]["communicationTemplate"], "SURVEY");
    EXPECT_EQ(eventsNamed("in_app_dismissed").size(), 1u);

    // The optional link handler opens web addresses only, and always hands the action on.
    openedUrls_.clear();
    std::vector<std::string> handedOn;
    auto handler = qt::openUrlActions([&](const AppCommunicationAction& action) {
        handedOn.push_back(action.link.value_or(""));
    });
    handler({"https://shop.example/offers", TarnActionType::url});
    handler({"tarnshop://cart", TarnActionType::deep});
    handler({"javascript:alert(1)", TarnActionType::url});
    handler({std::nullopt, TarnActionType::url});
    ASSERT_EQ(openedUrls_.size(), 1u);
    EXPECT_EQ(openedUrls_[0].toString(), "https://shop.example/offers");
    EXPECT_EQ(handedOn,
              (Rows{"https://shop.example/offers", "tarnshop://cart", "javascript:alert(1)", ""}));
}

TEST_F(InAppPopupTest, BodyClickEscapeAndTheTimerReportThemselves) {
    QWidget* window = start(json::array({popupItem("add_to_cart", 2, {})}), "CartScreen", 1);
    auto* shown = trigger(window, "add_to_cart");
    ASSERT_NE(shown, nullptr);
    EXPECT_EQ(rowKinds(shown), (Rows{"title", "body", "button", "button"}))
        << "no image row without image addresses";
    EXPECT_EQ(shown->autoDismissMs(), 1000) << "inAppMaxShowDuration is read in seconds";
    QTest::mouseClick(shown->rows()[1], Qt::LeftButton);
    ASSERT_NE(popup(), nullptr) << "a click on the body keeps the popup";
    EXPECT_TRUE(popupGone(3s)) << "dismissed by its timer";
    ASSERT_NE(trigger(window, "add_to_cart"), nullptr);
    QTest::keyClick(popup(), Qt::Key_Escape);
    EXPECT_TRUE(popupGone());
    ASSERT_NE(trigger(window, "add_to_cart"), nullptr);
    QTest::mouseClick(popup()->findChild<QToolButton*>("tarnClose"), Qt::LeftButton);
    EXPECT_TRUE(popupGone());

    // Whichever way it closes, the keyboard focus goes back where the user was, not to the next
    // field in the window's chain.
    auto* login = new QLineEdit(window);
    auto* search = new QLineEdit(window);
    window->layout()->addWidget(login);
    window->layout()->addWidget(search);
    search->setFocus();
    ASSERT_TRUE(waitUntil([search] { return QApplication::focusWidget() == search; }, 2s));
    ASSERT_NE(trigger(window, "add_to_cart"), nullptr);
    EXPECT_EQ(QApplication::focusWidget(), popup()) << "the popup takes the keys while open";
    QTest::keyClick(popup(), Qt::Key_Escape);
    EXPECT_TRUE(popupGone());
    EXPECT_EQ(QApplication::focusWidget(), search);
    ASSERT_NE(trigger(window, "add_to_cart"), nullptr);
    QTest::mouseClick(popup()->findChild<QToolButton*>("tarnClose"), Qt::LeftButton);
    EXPECT_TRUE(popupGone());
    EXPECT_EQ(QApplication::focusWidget(), search);

    ASSERT_TRUE(waitForEvent("in_app_dismissed", 5));
    ASSERT_TRUE(waitForEvent("in_app_opened", 5));
    auto selfClicked = eventsNamed("in_app_self_clicked");
    ASSERT_EQ(selfClicked.size(), 1u);
    EXPECT_EQ(selfClicked[0]["parameters"]["pageName"], "CartScreen");
    EXPECT_TRUE(actions_.empty()) << "the host's callback is for actions only";
    spin(300ms);
    EXPECT_EQ(eventsNamed("in_app_dismissed").size(), 5u) << "each showing dismissed once";
}

}  // namespace
}  // namespace tarn::test
