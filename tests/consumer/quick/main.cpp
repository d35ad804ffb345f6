#include <QGuiApplication>
#include <QQmlApplicationEngine>

#include "tarn/core/Tarn.h"
#include "tarn/quick/TarnQuick.h"

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    tarn::quick::install(app);  // 1. before initialising and before loading QML

    // 2. as on any platform; the main bundle holds "TarnService-Info.plist"
    tarn::TarnInitConfig config(tarn::Bundle::main(), "MyQuickApp", /*actorId=*/std::nullopt,
                                /*domainUrl=*/std::nullopt, /*authorization=*/std::nullopt,
                                /*clientId=*/std::nullopt, /*clientSecret=*/std::nullopt,
                                /*applicationLifecyleAuto=*/true,
                                /*isSendActivityLifeCycleEventEnabled=*/true,
                                /*forceInitialize=*/false);
    tarn::Tarn::shared().initialize(config);

    // 3. pages name themselves; events go out from QML; a served popup shows over the window
    QQmlApplicationEngine engine;
    engine.loadData(R"(
        import QtQuick
        import QtQuick.Controls
        import Tarn
        ApplicationWindow {
            width: 480; height: 720; visible: true
            StackView {
                anchors.fill: parent
                initialItem: Page {
                    Tarn.pageName: "ProductPage"
                    Tarn.onAction: (link, type) => console.log("popup action", type, link)
                    Button {
                        text: "Add to cart"
                        onClicked: Tarn.sendCustomEvent("add_to_cart", {sku: "A-42"})
                    }
                }
            }
        })");
    return app.exec();
}
