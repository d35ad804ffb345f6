#include <QApplication>
#include <QLineEdit>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <iostream>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/qt/TarnQt.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    tarn::qt::install(app);  // 1. before initialising, on the GUI thread

    // 2. as on any platform; the main bundle holds "TarnService-Info.plist"
    tarn::TarnInitConfig config(tarn::Bundle::main(), "MyQtApp", /*actorId=*/std::nullopt,
                                /*domainUrl=*/std::nullopt, /*authorization=*/std::nullopt,
                                /*clientId=*/std::nullopt, /*clientSecret=*/std::nullopt,
                                /*applicationLifecyleAuto=*/true,
                                /*isSendActivityLifeCycleEventEnabled=*/true,
                                /*forceInitialize=*/false);
    tarn::Tarn::shared().initialize(config);

    QWidget window;
    window.setObjectName("ProductPage");  // the page name of its events
    auto* layout = new QVBoxLayout(&window);
    layout->addWidget(new QLineEdit(&window));
    window.show();

    // 3. from one of the host's widgets; "url" actions of a popup open in the browser
    tarn::TarnEvent::shared().sendCustomEvent(
        tarn::qt::screenFor(&window), std::nullopt, "add_to_cart", nlohmann::json{{"sku", "A-42"}},
        tarn::qt::openUrlActions());

    // A real host runs until its user quits; this one ends once the queue has sent the event.
    int status = 1;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (tarn::ConfigManager::shared().isInitialized() &&
            !tarn::EventQueueManager::shared().isTimerActive) {
            status = 0;
            app.quit();
        }
    });
    poll.start(200);
    QTimer::singleShot(30000, &app, [&] {
        std::cerr << "not initialised or not sent in 30 s\n";
        app.quit();
    });
    app.exec();
    return status;
}
