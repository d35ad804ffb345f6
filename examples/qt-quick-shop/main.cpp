// A small shop as a Qt Quick (QML) host of the library; no Qt Widgets.
//
//   tarn serve --port 8080 --inapp examples/qt-shop/answer.json &
//   tarn_qt_quick_shop --server http://127.0.0.1:8080
//
// Home, product and cart pages in a StackView, each a tracked page (`Tarn.pageName`); "Add to
// cart" sends the custom event "add_to_cart" from QML, which the served answer binds to a popup;
// "Buy now" sends "purchase", which completes the popup's conversion. The popup's pictures come
// from a stand-in for the shop's CDN that the example serves itself on 127.0.0.1 (--images-port).
// --screenshot FILE adds to the cart, waits for the popup and its images, writes the window as a
// PNG and quits (exit status 0 when the popup was shown). Under the offscreen platform the
// example draws with Qt Quick's software scene graph.
#include <QBuffer>
#include <QCommandLineParser>
#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <filesystem>
#include <fstream>
#include <map>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PropertyList.h"
#include "tarn/quick/TarnQuick.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kShopQml = R"QML(
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tarn

ApplicationWindow {
    id: window
    objectName: "ShopWindow"
    title: "Tarn Shop"
    width: 480; height: 720
    visible: true
    color: "#F8F9FA"
    property int cartCount: 0
    property string status: "Browsing as a guest"
    function addToCart() { stack.push(product, {}, StackView.Immediate); stack.currentItem.addToCart() }

    header: ToolBar {
        RowLayout {
            anchors.fill: parent
            ToolButton { text: "Home"; onClicked: stack.pop(null) }
            ToolButton { text: "Cart"; onClicked: stack.push(cart) }
            Item { Layout.fillWidth: true }
        }
    }
    footer: Label { text: window.status; padding: 8 }

    StackView {
        id: stack
        anchors.fill: parent
        initialItem: Page {
            Tarn.pageName: "HomePage"
            ColumnLayout {
                anchors.fill: parent; anchors.margins: 16
                Label { text: "New this week"; font.pixelSize: 22; font.weight: Font.DemiBold }
                Repeater {
                    model: ["Runner 2  \u2014  89.00", "Trail Pro  \u2014  119.00"]
                    delegate: Button {
                        required property string modelData
                        text: modelData; Layout.fillWidth: true
                        onClicked: stack.push(product)
                    }
                }
                Item { Layout.fillHeight: true }
            }
        }
    }

    Component {
        id: product
        Page {
            id: productPage
            Tarn.pageName: "ProductPage"
            Tarn.onAction: (link, type) => {
                if (type === "deep") stack.push(cart)  // "tarnshop://cart" and the like
                window.status = "Action: " + (link || "(none)")
            }
            function addToCart() {
                window.cartCount += 1
                window.status = "Added Runner 2 to the cart"
                Tarn.sendCustomEvent("add_to_cart", {product: "runner-2", price: 89.0})
            }
            ColumnLayout {
                anchors.fill: parent; anchors.margins: 16
                Label { text: "Runner 2"; font.pixelSize: 22; font.weight: Font.DemiBold }
                Label { text: "Light, cushioned and ready for your daily run.\n\n89.00"; wrapMode: Text.Wrap }
                Button { text: "Add to cart"; Layout.fillWidth: true; onClicked: productPage.addToCart() }
                Item { Layout.fillHeight: true }
            }
        }
    }

    Component {
        id: cart
        Page {
            Tarn.pageName: "CartPage"
            ColumnLayout {
                anchors.fill: parent; anchors.margins: 16
                Label { text: "Your cart"; font.pixelSize: 22; font.weight: Font.DemiBold }
                Label { text: window.cartCount + " \u00d7 Runner 2  \u2014  89.00" }
                Button {
                    text: "Buy now"; Layout.fillWidth: true
                    onClicked: {
                        Tarn.sendCustomEvent("purchase", {total: 89.0 * window.cartCount})
                        window.cartCount = 0
                        window.status = "Thank you for your order"
                    }
                }
                Item { Layout.fillHeight: true }
            }
        }
    }
}
)QML";

/// A product picture drawn on the fly: a coloured card with a simple shoe silhouette.
QByteArray productPicture(const QColor& color, const QString& caption) {
    QImage image(800, 450, QImage::Format_ARGB32_Premultiplied);
    image.fill(color);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setBrush(color.lighter(135));
    p.setPen(Qt::NoPen);
    p.drawEllipse(QPointF(400, 420), 330, 60);
    QPainterPath shoe;
    shoe.moveTo(170, 330);
    shoe.cubicTo(180, 250, 260, 200, 330, 190);
    shoe.lineTo(420, 250);
    shoe.cubicTo(520, 270, 630, 280, 650, 330);
    shoe.lineTo(650, 360);
    shoe.lineTo(170, 360);
    shoe.closeSubpath();
    p.setBrush(Qt::white);
    p.drawPath(shoe);
    p.setBrush(color.darker(140));
    p.drawRect(170, 352, 480, 18);
    p.setPen(Qt::white);
    QFont font = p.font();
    font.setPixelSize(44);
    font.setBold(true);
    p.setFont(font);
    p.drawText(QRect(0, 40, 800, 80), Qt::AlignCenter, caption);
    p.end();
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

/// Serves "/cart-1.png" and "/cart-2.png" on 127.0.0.1 over plain HTTP/1.0, as a stand-in for
/// the shop's CDN.
class PictureServer : public QTcpServer {
  public:
    explicit PictureServer(QObject* parent) : QTcpServer(parent) {
        pictures_["/cart-1.png"] = productPicture(QColor("#1A73E8"), "Runner 2");
        pictures_["/cart-2.png"] = productPicture(QColor("#E8710A"), "Trail Pro");
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (auto* socket = nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

  private:
    void answer(QTcpSocket* socket) {
        if (!socket->canReadLine()) {
            return;
        }
        const QList<QByteArray> request = socket->readLine(1024).split(' ');
        QByteArray path = request.size() > 1 ? request[1] : QByteArray();
        auto it = pictures_.find(path);
        QByteArray head = it == pictures_.end()
                              ? "HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n"
                              : "HTTP/1.0 200 OK\r\nContent-Type: image/png\r\n"
                                "Content-Length: " +
                                    QByteArray::number(it->second.size()) + "\r\n";
        socket->write(head + "Connection: close\r\n\r\n");
        if (it != pictures_.end()) {
            socket->write(it->second);
        }
        socket->disconnectFromHost();
    }
    std::map<QByteArray, QByteArray> pictures_;
};

QQuickItem* findPopup(QQuickWindow* window) {
    return window->contentItem()->findChild<QQuickItem*>("TarnInAppPopup");
}

}  // namespace

int main(int argc, char** argv) {
    if (qgetenv("QT_QPA_PLATFORM") == "offscreen" && qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND")) {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    }
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName("tarn-qt-quick-shop");
    QCommandLineParser parser;
    parser.setApplicationDescription("A small Qt Quick shop hosting the library, against `tarn serve`.");
    parser.addHelpOption();
    QCommandLineOption server("server", "The dev server's address.", "URL",
                              "http://127.0.0.1:8080");
    QCommandLineOption clientId("client-id", "Client of the token endpoint.", "ID", "dev-client");
    QCommandLineOption clientSecret("client-secret", "Its secret.", "SECRET", "dev-secret");
    QCommandLineOption imagesPort("images-port", "Port of the picture server.", "PORT", "8099");
    QCommandLineOption screenshot("screenshot", "Write the popup to FILE and quit.", "FILE");
    QCommandLineOption dataDir("data",
                               "Data folder (default: the user's app data; a fresh "
                               "temporary one with --screenshot).",
                               "DIR");
    parser.addOptions({server, clientId, clientSecret, imagesPort, screenshot, dataDir});
    parser.process(app);

    auto* pictures = new PictureServer(&app);
    if (!pictures->listen(QHostAddress::LocalHost, parser.value(imagesPort).toUShort())) {
        qWarning("picture server: %s", qPrintable(pictures->errorString()));
    }

    // The service file and the data folder the library reads (both private to the user).
    QTemporaryDir scratch;
    fs::path root = scratch.path().toStdString();
    fs::path bundle = root / "bundle";
    fs::create_directories(bundle);
    {
        std::ofstream file(bundle / "TarnService-Info.plist");
        file << tarn::writePropertyList(
            {{"DOMAIN", parser.value(server).toStdString()},
             {"CLIENT_ID", parser.value(clientId).toStdString()},
             {"CLIENT_SECRET", parser.value(clientSecret).toStdString()}});
    }
    fs::permissions(bundle / "TarnService-Info.plist",
                    fs::perms::owner_read | fs::perms::owner_write);
    std::ofstream(bundle / "Info.plist") << tarn::writePropertyList(
        {{"CFBundleIdentifier", "com.example.tarnshop"}, {"CFBundleName", "TarnShop"}});
    fs::path data =
        parser.isSet(dataDir) ? fs::path(parser.value(dataDir).toStdString())
        : parser.isSet(screenshot)
            ? root / "data"
            : fs::path(
                  QStandardPaths::writableLocation(QStandardPaths::AppDataLocation).toStdString());
    fs::create_directories(data);
    tarn::setDataDirectory(data);
    tarn::Bundle::setMain(bundle);

    // A Qt Quick host: install, initialise, then load the QML that imports Tarn.
    tarn::quick::install(app);
    tarn::Tarn::shared().initialize(tarn::TarnInitConfig(
        tarn::Bundle(bundle), "TarnShop", std::nullopt, std::nullopt, std::nullopt, std::nullopt,
        std::nullopt, /*applicationLifecyleAuto=*/true,
        /*isSendActivityLifeCycleEventEnabled=*/true, /*forceInitialize=*/false));
    QQmlApplicationEngine engine;
    engine.loadData(kShopQml);
    if (engine.rootObjects().isEmpty()) {
        return 1;
    }
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().first());

    if (!parser.isSet(screenshot)) {
        return QGuiApplication::exec();
    }

    // --screenshot: add to the cart once the library is ready, wait for the popup and its
    // pictures, write the window, quit.
    const QString file = parser.value(screenshot);
    int status = 1;
    auto* poll = new QTimer(&app);
    auto started = std::chrono::steady_clock::now();
    bool sent = false;
    QObject::connect(poll, &QTimer::timeout, &app, [&] {
        auto elapsed = std::chrono::steady_clock::now() - started;
        auto initStatus = tarn::ConfigManager::shared().getInitializeStatus();
        if (!sent && initStatus == tarn::InitializeStatusType::initialized) {
            QMetaObject::invokeMethod(window, "addToCart");
            sent = true;
        }
        auto* popup = findPopup(window);
        auto* controller = popup ? popup->property("controller").value<QObject*>() : nullptr;
        bool imagesDone = controller && controller->property("settledCount") ==
                                            controller->property("imageCount");
        if (imagesDone || elapsed > std::chrono::seconds(20)) {
            if (popup) {
                status = window->grabWindow().save(file) ? 0 : 1;
                qInfo("screenshot: %s", qPrintable(file));
            } else {
                qWarning("no popup was shown (is `tarn serve --inapp answer.json` running?)");
            }
            poll->stop();
            QTimer::singleShot(1500, &app, &QCoreApplication::quit);  // let the events go out
        }
    });
    poll->start(100);
    QGuiApplication::exec();
    return status;
}
