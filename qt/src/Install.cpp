#include <QApplication>
#include <QDesktopServices>
#include <QThread>

#include "Internal.h"
#include "tarn/core/Log.h"
#include "tarn/qt/QtMainQueue.h"

namespace tarn::qt {

namespace detail {

Integration& integration() {
    static auto* state = new Integration;  // never destroyed, see Internal.h
    return *state;
}

InstallOptions currentOptions() {
    std::lock_guard lock(integration().mutex);
    return integration().options;
}

bool openExternal(const QUrl& url) {
    auto opener = currentOptions().openExternalUrl;
    try {
        return opener ? opener(url) : QDesktopServices::openUrl(url);
    } catch (...) {
        return false;
    }
}

bool onGuiThread() {
    auto* app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

QWidget* hostWindow() {
    if (!onGuiThread() || !qobject_cast<QApplication*>(QCoreApplication::instance())) {
        return nullptr;
    }
    if (auto* active = QApplication::activeWindow()) {
        return active;
    }
    if (auto* last = integration().lastActiveWindow.data()) {
        return last;
    }
    for (auto* widget : QApplication::topLevelWidgets()) {
        if (widget->isVisible() && widget->isWindow() &&
            !widget->windowFlags().testFlag(Qt::Popup)) {
            return widget;
        }
    }
    return nullptr;
}

}  // namespace detail

namespace {

constexpr const char* kHolderName = "_tarn_screen";

/// A widget as the library's screen. The name is refreshed on the GUI thread each time the screen
/// is handed out, so other threads read a copy, never the widget.
class WidgetScreen final : public Screen {
  public:
    explicit WidgetScreen(QWidget* widget) : widget_(widget) { refresh(); }
    std::string className() const override {
        std::lock_guard lock(mutex_);
        return name_;
    }
    void refresh() {
        if (!widget_) {
            return;
        }
        std::string name = widget_->objectName().isEmpty()
                               ? std::string(widget_->metaObject()->className())
                               : widget_->objectName().toStdString();
        std::lock_guard lock(mutex_);
        name_ = std::move(name);
    }
    QWidget* widget() const { return widget_.data(); }

  private:
    QPointer<QWidget> widget_;
    mutable std::mutex mutex_;
    std::string name_;
};

/// Keeps a widget's screen alive as long as the widget (a child of it).
class ScreenHolder final : public QObject {
  public:
    ScreenHolder(QWidget* widget, std::shared_ptr<WidgetScreen> screen)
        : QObject(widget), screen(std::move(screen)) {
        setObjectName(kHolderName);
    }
    std::shared_ptr<WidgetScreen> screen;
};

}  // namespace

void install(QApplication& app, InstallOptions options) {
    {
        std::lock_guard lock(detail::integration().mutex);
        detail::integration().options = std::move(options);
    }
    setMainQueue(std::make_shared<QtMainQueue>(app));
    detail::installLifecycle(app);
    detail::installInAppScreen();
}

ScreenRef screenFor(QWidget* widget) {
    if (!widget) {
        return nullptr;
    }
    auto* holder = static_cast<ScreenHolder*>(
        widget->findChild<QObject*>(kHolderName, Qt::FindDirectChildrenOnly));
    if (!holder) {
        holder = new ScreenHolder(widget, std::make_shared<WidgetScreen>(widget));
    }
    holder->screen->refresh();
    return holder->screen;
}

QWidget* widgetOf(const ScreenRef& screen) {
    if (auto* widgetScreen = dynamic_cast<WidgetScreen*>(screen.get())) {
        return widgetScreen->widget();
    }
    return nullptr;
}

ActionCallback openUrlActions(ActionCallback next) {
    return [next = std::move(next)](const AppCommunicationAction& action) {
        if (action.type == TarnActionType::url && action.link) {
            QUrl url(QString::fromStdString(*action.link), QUrl::StrictMode);
            if (url.isValid() && (url.scheme() == "http" || url.scheme() == "https")) {
                if (!detail::openExternal(url)) {
                    log("could not open " + *action.link, detail::kViewTag, LogLevel::error);
                }
            } else {
                log("not a web address: " + *action.link, detail::kViewTag, LogLevel::error);
            }
        }
        if (next) {
            next(action);
        }
    };
}

}  // namespace tarn::qt
