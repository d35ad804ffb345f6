#include "QtHost.h"

#include <QBuffer>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QPointer>
#include <QTest>
#include <QVBoxLayout>
#include <thread>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/qt/TarnQt.h"

namespace tarn::test {

using nlohmann::json;

json popupItem(const std::string& trigger, int buttons, const std::vector<std::string>& imageUrls) {
    json buttonList = json::array();
    const char* colors[] = {"#1A73E8", "#FFFFFF", "#34A853", "#FBBC05", "#EA4335"};
    for (int i = 1; i <= buttons; ++i) {
        buttonList.push_back({{"_id", "btn-" + std::to_string(i)},
                              {"text", "B" + std::to_string(i)},
                              {"textColor", i == 2 ? "#1A73E8" : "#FFFFFF"},
                              {"color", colors[(i - 1) % 5]},
                              {"action",
                               {{"link", "https://shop.example/offer/" + std::to_string(i)},
                                {"type", i == 1 ? "deep" : "url"}}}});
    }
    json images = json::array();
    for (const auto& url : imageUrls) {
        images.push_back({{"url", url}});
    }
    return {{"uuid", "uuid-" + trigger},
            {"code", "CODE-" + trigger},
            {"journey", "cart-recovery"},
            {"name", "Reminder for " + trigger},
            {"expireDate", 4102444800000},
            {"template", "POPUP"},
            {"triggeringEventName", trigger},
            {"title", {{"text", "10% off what is in your cart"}, {"color", "#1A73E8"}}},
            {"body",
             {{"text", "Complete your order in the next hour and the discount is yours."},
              {"color", "#202124"}}},
            {"images", images},
            {"maxShowCount", 5},
            {"bgColor", "#FFFFFF"},
            {"subInAppCommunication", {{"template", "POPUP"}, {"buttons", buttonList}}},
            {"conversionEvent", "purchase"}};
}

json inAppAnswer(const json& items, std::optional<int> maxShowDuration) {
    json configuration = {
        {"eventQueueDelay", 0.05}, {"apiRequestTimeout", 5}, {"apiRequestRetryCount", 0}};
    if (maxShowDuration) {
        configuration["inAppMaxShowDuration"] = *maxShowDuration;
    }
    return {{"inAppCommunicationCommands", items}, {"configuration", configuration}};
}

std::string pngBytes(int width, int height, const char* color) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor(color));
    QPainter painter(&image);
    painter.fillRect(0, height / 2 - 6, width, 12, Qt::white);
    painter.end();
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes.toStdString();
}

void QtHostTest::SetUp() {
    PipelineTest::SetUp();
    qt::InstallOptions options;
    options.backgroundDelay = std::chrono::milliseconds(200);
    options.imageTimeoutSeconds = 1;
    options.openExternalUrl = [this](const QUrl& url) {
        openedUrls_.push_back(url);
        return true;
    };
    qt::install(*qApp, options);
}

void QtHostTest::TearDown() {
    std::vector<QPointer<QWidget>> windows;
    for (auto* widget : QApplication::topLevelWidgets()) {
        windows.emplace_back(widget);
    }
    for (auto& widget : windows) {
        delete widget.data();  // children that are windows go with their parent
    }
    spin(std::chrono::milliseconds(20));
    PipelineTest::TearDown();
}

bool QtHostTest::waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        QApplication::processEvents(QEventLoop::AllEvents, 10);
        QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void QtHostTest::spin(std::chrono::milliseconds duration) {
    waitUntil([] { return false; }, duration);
}

InitializeStatusType QtHostTest::initializeQt(const TarnInitConfig& config) {
    Tarn::shared().initialize(config);
    waitUntil([] {
        return ConfigManager::shared().getInitializeStatus() != InitializeStatusType::initializing;
    });
    return ConfigManager::shared().getInitializeStatus();
}

qt::InAppPopup* QtHostTest::popup() const {
    for (auto* widget : QApplication::allWidgets()) {
        if (widget->objectName() == "TarnInAppPopup" && widget->isVisible()) {
            return dynamic_cast<qt::InAppPopup*>(widget);
        }
    }
    return nullptr;
}

std::vector<json> QtHostTest::eventsNamed(const std::string& name) const {
    std::vector<json> result;
    for (auto& event : receivedEvents()) {
        if (event.value("name", "") == name) {
            result.push_back(event);
        }
    }
    return result;
}

bool QtHostTest::waitForEvent(const std::string& name, std::size_t times) {
    return waitUntil([&] { return eventsNamed(name).size() >= times; });
}

QWidget* QtHostTest::showWindow(const QString& name) {
    auto* window = new QWidget;
    window->setObjectName(name);
    window->setStyleSheet("background: #F1F3F4;");
    auto* layout = new QVBoxLayout(window);
    auto* heading = new QLabel("Tarn Shop\n\nRunning shoes   49.00\nRain jacket   89.00", window);
    heading->setStyleSheet("font-size: 18px; color: #202124;");
    layout->addWidget(heading);
    window->resize(480, 720);
    window->show();
    window->activateWindow();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(window));
    waitUntil([window] { return QApplication::activeWindow() == window; }, std::chrono::seconds(2));
    return window;
}

}  // namespace tarn::test
