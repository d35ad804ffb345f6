#pragma once
// A Qt host of the library wired to the loopback server: the Qt integration installed on the
// test's QApplication, the in-app endpoint answering a script, PNG images served by the server.

#include <QTest>
#include <QtWidgets>
#include <thread>

#include <nlohmann/json.hpp>

#include "support/PipelineFixture.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/inapp/AppCommunication.h"
#include "tarn/qt/InAppPopup.h"
#include "tarn/qt/TarnQt.h"

namespace tarn::test {

using namespace std::chrono_literals;

/// A popup item bound to `trigger` with `buttons` buttons "B1".."Bn" (the first a deep link, the
/// others web links to ".../offer/<n>") and images at `imageUrls`.
inline nlohmann::json popupItem(const std::string& trigger, int buttons,
                                const std::vector<std::string>& imageUrls) {
    auto item = nlohmann::json::parse(R"({"journey": "cart-recovery", "expireDate": 4102444800000,
        "template": "POPUP", "title": {"text": "10% off what is in your cart", "color": "#1A73E8"},
        "body": {"text": "Complete your order in the next hour and the discount is yours.",
                 "color": "#202124"},
        "maxShowCount": 5, "bgColor": "#FFFFFF", "conversionEvent": "purchase",
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

class QtHostTest : public PipelineTest {
  protected:
    /// Serves "/img/1.png" (yellow) and "/img/2.png" (green), 640x360 pictures, each with a white
    /// stripe across its middle when `striped`.
    void serveImages(bool striped) {
        for (int i : {1, 2}) {
            QImage image(640, 360, QImage::Format_RGB32);
            image.fill(QColor(i == 1 ? "#F4B400" : "#0F9D58"));
            if (striped)
                QPainter(&image).fillRect(0, 174, 640, 12, Qt::white);
            QByteArray bytes;
            QBuffer buffer(&bytes);
            buffer.open(QIODevice::WriteOnly);
            image.save(&buffer, "PNG");
            auto png = ScriptedAnswer::json(200, bytes.toStdString());
            png.contentType = "image/png";
            server_->on("/img/" + std::to_string(i) + ".png", png);
        }
    }

    void SetUp() override {
        PipelineTest::SetUp();
        qt::InstallOptions options;
        options.backgroundDelay = 200ms;
        options.imageTimeoutSeconds = 1;
        options.openExternalUrl = [this](const QUrl& url) {
            openedUrls_.push_back(url);
            return true;
        };
        qt::install(*qApp, options);
    }
    void TearDown() override {
        for (auto* widget : QApplication::topLevelWidgets()) {
            if (!widget->parentWidget())
                delete widget;  // children that are windows go with their parent
        }
        spin(20ms);
        PipelineTest::TearDown();
    }

    /// Runs the Qt event loop until `done` holds or `timeout` passes.
    bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
        for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            QApplication::processEvents(QEventLoop::AllEvents, 10);
            QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            std::this_thread::sleep_for(2ms);
        }
        return true;
    }
    void spin(std::chrono::milliseconds duration) {
        waitUntil([] { return false; }, duration);
    }
    /// Initialises the library and waits for the status to settle.
    InitializeStatusType initializeQt(const TarnInitConfig& config) {
        Tarn::shared().initialize(config);
        auto status = [] { return ConfigManager::shared().getInitializeStatus(); };
        waitUntil([&] { return status() != InitializeStatusType::initializing; });
        return status();
    }
    /// The received events named `name`.
    std::vector<nlohmann::json> eventsNamed(const std::string& name) const {
        auto events = receivedEvents();
        std::erase_if(events, [&](const nlohmann::json& e) { return e.value("name", "") != name; });
        return events;
    }
    /// Waits until the server has received an event named `name` `times` times.
    bool waitForEvent(const std::string& name, std::size_t times = 1) {
        return waitUntil([&] { return eventsNamed(name).size() >= times; });
    }
    /// A host window named `name`, shown and active, with a little content to dim.
    QWidget* showWindow(const QString& name) {
        auto* window = new QWidget;
        window->setObjectName(name);
        window->setStyleSheet("background: #F1F3F4;");
        auto* heading =
            new QLabel("Tarn Shop\n\nRunning shoes   49.00\nRain jacket   89.00", window);
        heading->setStyleSheet("font-size: 18px; color: #202124;");
        (new QVBoxLayout(window))->addWidget(heading);
        window->resize(480, 720);
        window->show();
        window->activateWindow();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window));
        waitUntil([window] { return QApplication::activeWindow() == window; }, 2s);
        return window;
    }

    std::vector<QUrl> openedUrls_;
};

}  // namespace tarn::test
