// Application state → the library's lifecycle notifications, and the key-window seam.
#include <QApplication>
#include <QTimer>
#include <QWindow>

#include "Internal.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn::qt::detail {

namespace {

constexpr const char* kBridgeName = "_tarn_lifecycle";

/// Posts did-enter-background once the application has been out of the active state for the
/// install options' `backgroundDelay`, will-enter-foreground when it comes back after that, and
/// will-terminate on aboutToQuit. A child of the application object.
class LifecycleBridge final : public QObject {
  public:
    explicit LifecycleBridge(QApplication& app, std::chrono::milliseconds delay) : QObject(&app) {
        setObjectName(kBridgeName);
        timer_ = new QTimer(this);
        timer_->setSingleShot(true);
        timer_->setInterval(static_cast<int>(std::max<long long>(0, delay.count())));
        connect(timer_, &QTimer::timeout, this, [this] {
            background_ = true;
            NotificationCenter::defaultCenter().post(kApplicationDidEnterBackgroundNotification);
        });
        connect(&app, &QGuiApplication::applicationStateChanged, this,
                [this](Qt::ApplicationState state) { stateChanged(state); });
        connect(&app, &QGuiApplication::focusWindowChanged, this, [] {
            if (auto* active = QApplication::activeWindow()) {
                integration().lastActiveWindow = active;
            }
        });
        connect(&app, &QCoreApplication::aboutToQuit, this, [this] {
            timer_->stop();
            NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
        });
        if (auto* active = QApplication::activeWindow()) {
            integration().lastActiveWindow = active;
        }
    }

  private:
    void stateChanged(Qt::ApplicationState state) {
        if (state == Qt::ApplicationActive) {
            timer_->stop();  // a short absence is not reported at all
            if (background_) {
                background_ = false;
                NotificationCenter::defaultCenter().post(
                    kApplicationWillEnterForegroundNotification);
            }
        } else if (!background_ && !timer_->isActive()) {
            timer_->start();
        }
    }

    QTimer* timer_ = nullptr;
    bool background_ = false;
};

/// The host's top-level widgets as windows. The key window is the active window, or while the
/// application is inactive (no active window) the one that was active last, so that the
/// background event names the screen the user left. Answers nothing off the GUI thread.
class QtWindowSource final : public WindowSource {
  public:
    std::vector<Window> windows() override {
        std::vector<Window> result;
        if (!onGuiThread() || !qobject_cast<QApplication*>(QCoreApplication::instance())) {
            return result;
        }
        QWidget* key = QApplication::activeWindow();
        if (!key) {
            key = integration().lastActiveWindow.data();
        }
        for (auto* widget : QApplication::topLevelWidgets()) {
            if (!widget->isWindow() || widget->windowFlags().testFlag(Qt::Popup) ||
                widget->windowFlags().testFlag(Qt::ToolTip)) {
                continue;
            }
            if (widget == key || widget->isVisible()) {
                result.push_back(Window{widget == key, screenFor(widget)});
            }
        }
        return result;
    }
};

}  // namespace

void installLifecycle(QApplication& app) {
    if (auto* old = app.findChild<QObject*>(kBridgeName, Qt::FindDirectChildrenOnly)) {
        delete old;
    }
    new LifecycleBridge(app, currentOptions().backgroundDelay);
    setWindowSource(std::make_shared<QtWindowSource>());
}

}  // namespace tarn::qt::detail
