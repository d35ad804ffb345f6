#include "LifecycleBridge.h"

#include <QTimer>
#include <algorithm>

#include "tarn/device/LifeCycle.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn::qt::detail {

namespace {

constexpr const char* kBridgeName = "_tarn_lifecycle";

/// A short absence (a dialog of another application, a quick focus change within the desktop)
/// stops the timer before it fires and is not reported at all.
class LifecycleBridge final : public QObject {
  public:
    LifecycleBridge(QGuiApplication& app, std::chrono::milliseconds delay) : QObject(&app) {
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
        connect(&app, &QCoreApplication::aboutToQuit, this, [this] {
            timer_->stop();
            NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
        });
    }

  private:
    void stateChanged(Qt::ApplicationState state) {
        if (state == Qt::ApplicationActive) {
            timer_->stop();
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

}  // namespace

QObject* installLifecycleBridge(QGuiApplication& app, std::chrono::milliseconds delay) {
    if (auto* old = app.findChild<QObject*>(kBridgeName, Qt::FindDirectChildrenOnly)) {
        delete old;
    }
    return new LifecycleBridge(app, delay);
}

}  // namespace tarn::qt::detail
