// The key-window seam, and the application-state bridge (LifecycleBridge.h) with the active
// window kept as the one the user was last in.
#include <QApplication>
#include <QTimer>
#include <QWindow>

#include "Internal.h"
#include "LifecycleBridge.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn::qt::detail {

namespace {

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
    QObject* bridge = installLifecycleBridge(app, currentOptions().backgroundDelay);
    QObject::connect(&app, &QGuiApplication::focusWindowChanged, bridge, [] {
        if (auto* active = QApplication::activeWindow()) {
            integration().lastActiveWindow = active;
        }
    });
    if (auto* active = QApplication::activeWindow()) {
        integration().lastActiveWindow = active;
    }
    setWindowSource(std::make_shared<QtWindowSource>());
}

}  // namespace tarn::qt::detail
