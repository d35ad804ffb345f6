// A small shop as a Qt Widgets host of the library.
//
//   tarn serve --port 8080 --inapp examples/qt-shop/answer.json &
//   tarn_qt_shop --server http://127.0.0.1:8080
//
// Home, product and cart screens, login and logout; "Add to cart" sends the custom event
// "add_to_cart", which the served answer binds to a popup; "Buy now" in the cart sends
// "purchase", which completes the popup's conversion. The popup's product pictures come from a
// stand-in for the shop's CDN that the example serves itself on 127.0.0.1 (--images-port).
// --screenshot FILE adds to the cart, waits for the popup and its images, writes the window as a
// PNG and quits (exit status 0 when the popup was shown).
#include <QApplication>
#include <QBuffer>
#include <QCommandLineParser>
#include <QDir>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMainWindow>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QStackedWidget>
#include <QStandardPaths>
#include <QStatusBar>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolBar>
#include <QVBoxLayout>
#include <filesystem>
#include <fstream>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PropertyList.h"
#include "tarn/qt/InAppPopup.h"
#include "tarn/qt/PageTracking.h"
#include "tarn/qt/TarnQt.h"

namespace fs = std::filesystem;

namespace {

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

/// Serves "/cart-1.png" and "/cart-2.png" on 127.0.0.1 over plain HTTP/1.0 (one request per
/// connection), as a stand-in for the shop's CDN.
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

class HomePage : public tarn::qt::TarnWidget {
  public:
    HomePage() { setObjectName("HomePage"); }
};

class CartPage : public tarn::qt::TarnWidget {
  public:
    CartPage() { setObjectName("CartPage"); }
};

/// The shop's main window: a toolbar, three pages in a stack and a status bar.
class ShopWindow : public QMainWindow {
  public:
    ShopWindow() {
        setObjectName("ShopWindow");
        setWindowTitle("Tarn Shop");
        setStyleSheet("QMainWindow { background: #F8F9FA; } QLabel { color: #202124; }");
        stack_ = new QStackedWidget(this);
        setCentralWidget(stack_);

        // Home: the catalogue.
        auto* home = new HomePage;
        auto* homeLayout = new QVBoxLayout(home);
        homeLayout->addWidget(heading("New this week"));
        for (const char* name : {"Runner 2  \u2014  89.00", "Trail Pro  \u2014  119.00"}) {
            auto* row = new QPushButton(name);
            row->setStyleSheet(
                "text-align: left; padding: 14px; font-size: 15px;"
                " background: white; border: 1px solid #DADCE0; border-radius: 8px;");
            connect(row, &QPushButton::clicked, this,
                    [this] { stack_->setCurrentWidget(product_); });
            homeLayout->addWidget(row);
        }
        homeLayout->addStretch();

        // Product: a plain widget, tracked without deriving from the page base class.
        product_ = new QWidget;
        product_->setObjectName("ProductPage");
        tarn::qt::trackPage(product_);
        auto* productLayout = new QVBoxLayout(product_);
        productLayout->addWidget(heading("Runner 2"));
        auto* text = new QLabel("Light, cushioned and ready for your daily run.\n\n89.00");
        text->setWordWrap(true);
        productLayout->addWidget(text);
        auto* add = new QPushButton("Add to cart");
        add->setObjectName("addToCart");
        add->setStyleSheet(
            "padding: 12px; font-size: 15px; font-weight: 600; color: white;"
            " background: #1A73E8; border: none; border-radius: 8px;");
        connect(add, &QPushButton::clicked, this, [this] { addToCart(); });
        productLayout->addWidget(add);
        productLayout->addStretch();

        // Cart: what was added and the purchase.
        auto* cart = new CartPage;
        auto* cartLayout = new QVBoxLayout(cart);
        cartLayout->addWidget(heading("Your cart"));
        cartList_ = new QListWidget;
        cartLayout->addWidget(cartList_);
        auto* buy = new QPushButton("Buy now");
        buy->setStyleSheet(
            "padding: 12px; font-size: 15px; font-weight: 600; color: white;"
            " background: #188038; border: none; border-radius: 8px;");
        connect(buy, &QPushButton::clicked, this, [this] { purchase(); });
        cartLayout->addWidget(buy);

        stack_->addWidget(home);
        stack_->addWidget(product_);
        stack_->addWidget(cart);
        cart_ = cart;

        auto* bar = addToolBar("Shop");
        bar->setMovable(false);
        bar->addAction("Home", this, [this, home] { stack_->setCurrentWidget(home); });
        bar->addAction("Cart", this, [this] { stack_->setCurrentWidget(cart_); });
        login_ = bar->addAction("Log in", this, [this] { toggleLogin(); });
        statusBar()->showMessage("Browsing as a guest");
        resize(480, 720);
    }

    void addToCart() {
        cartList_->addItem("Runner 2  \u2014  89.00");
        statusBar()->showMessage("Added Runner 2 to the cart");
        tarn::TarnEvent::shared().sendCustomEvent(
            tarn::qt::screenFor(product_), std::nullopt, "add_to_cart",
            nlohmann::json{{"product", "runner-2"}, {"price", 89.0}},
            tarn::qt::openUrlActions([this](const tarn::AppCommunicationAction& action) {
                if (action.type == tarn::TarnActionType::deep) {
                    stack_->setCurrentWidget(cart_);  // "tarnshop://cart" and the like
                }
                statusBar()->showMessage(
                    QString::fromStdString("Action: " + action.link.value_or("(none)")));
            }));
    }

    void purchase() {
        tarn::TarnEvent::shared().sendCustomEvent(
            tarn::qt::screenFor(cart_), std::nullopt, "purchase",
            nlohmann::json{{"total", 89.0 * cartList_->count()}});
        cartList_->clear();
        statusBar()->showMessage("Thank you for your order");
    }

    void toggleLogin() {
        loggedIn_ = !loggedIn_;
        if (loggedIn_) {
            tarn::TarnEvent::shared().sendLoginEvent(tarn::qt::screenFor(this), std::nullopt,
                                                     "shopper-42");
            statusBar()->showMessage("Logged in as shopper-42");
        } else {
            tarn::TarnEvent::shared().sendLogoutEvent();
            statusBar()->showMessage("Browsing as a guest");
        }
        login_->setText(loggedIn_ ? "Log out" : "Log in");
    }

    QWidget* product() const { return product_; }
    void showProduct() { stack_->setCurrentWidget(product_); }

  private:
    static QLabel* heading(const QString& text) {
        auto* label = new QLabel(text);
        label->setStyleSheet("font-size: 22px; font-weight: 600; margin: 8px 0;");
        return label;
    }

    QStackedWidget* stack_ = nullptr;
    QWidget* product_ = nullptr;
    QWidget* cart_ = nullptr;
    QListWidget* cartList_ = nullptr;
    QAction* login_ = nullptr;
    bool loggedIn_ = false;
};

tarn::qt::InAppPopup* findPopup() {
    for (auto* widget : QApplication::allWidgets()) {
        if (widget->objectName() == "TarnInAppPopup" && widget->isVisible()) {
            return dynamic_cast<tarn::qt::InAppPopup*>(widget);
        }
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("tarn-qt-shop");
    QCommandLineParser parser;
    parser.setApplicationDescription("A small shop hosting the library, against `tarn serve`.");
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

    // The three calls of a Qt host: install, initialise, send events (see ShopWindow).
    tarn::qt::install(app);
    ShopWindow window;
    window.show();
    tarn::Tarn::shared().initialize(tarn::TarnInitConfig(
        tarn::Bundle(bundle), "TarnShop", std::nullopt, std::nullopt, std::nullopt, std::nullopt,
        std::nullopt, /*applicationLifecyleAuto=*/true,
        /*isSendActivityLifeCycleEventEnabled=*/true, /*forceInitialize=*/false));

    if (!parser.isSet(screenshot)) {
        return QApplication::exec();
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
            window.showProduct();
            window.addToCart();
            sent = true;
        }
        auto* popup = findPopup();
        bool imagesDone = popup && (!popup->slider() ||
                                    popup->slider()->settledCount() == popup->slider()->count());
        if (imagesDone || elapsed > std::chrono::seconds(20)) {
            if (popup) {
                status = window.grab().save(file) ? 0 : 1;
                qInfo("screenshot: %s", qPrintable(file));
            } else {
                qWarning("no popup was shown (is `tarn serve --inapp answer.json` running?)");
            }
            poll->stop();
            QTimer::singleShot(1500, &app, &QCoreApplication::quit);  // let the events go out
        }
    });
    poll->start(100);
    QApplication::exec();
    return status;
}
