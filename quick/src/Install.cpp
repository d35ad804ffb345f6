// install, the screens of QML items and windows, the key-window seam and application state.
#include <QDesktopServices>
#include <QGuiApplication>
#include <QQmlEngine>
#include <QRegularExpression>
#include <QThread>

#include "Internal.h"
#include "LifecycleBridge.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/qt/QtMainQueue.h"

namespace tarn::quick {

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

QQuickWindow* windowOf(QObject* object) {
    if (auto* item = qobject_cast<QQuickItem*>(object)) {
        return item->window();
    }
    return qobject_cast<QQuickWindow*>(object);
}

QQuickWindow* hostWindow() {
    if (!onGuiThread() || !qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        return nullptr;
    }
    if (auto* focus = qobject_cast<QQuickWindow*>(QGuiApplication::focusWindow())) {
        return focus;
    }
    if (auto* last = integration().lastFocusWindow.data(); last && last->isVisible()) {
        return last;
    }
    for (auto* window : QGuiApplication::topLevelWindows()) {
        if (auto* quick = qobject_cast<QQuickWindow*>(window); quick && quick->isVisible()) {
            return quick;
        }
    }
    return nullptr;
}

}  // namespace detail

namespace {

constexpr const char* kHolderName = "_tarn_screen";

/// "CartPage_QMLTYPE_12" → "CartPage": the name a QML file gives its type.
QString typeName(const QObject* object) {
    static const QRegularExpression suffix("_QML(TYPE)?_[0-9]+$");
    return QString::fromLatin1(object->metaObject()->className()).remove(suffix);
}

/// An item or a window as the library's screen. The name is refreshed on the GUI thread each time
/// the screen is handed out, so other threads read a copy, never the object.
class ObjectScreen final : public Screen {
  public:
    explicit ObjectScreen(QObject* object) : object_(object) { refresh(); }
    std::string className() const override {
        std::lock_guard lock(mutex_);
        return name_;
    }
    void refresh() {
        if (!object_) {
            return;
        }
        QString name;
        if (auto* page = qobject_cast<detail::PageAttached*>(
                qmlAttachedPropertiesObject<detail::TarnQml>(object_, false))) {
            name = page->pageName();
        }
        if (name.isEmpty()) {
            name = object_->objectName();
        }
        if (name.isEmpty()) {
            name = typeName(object_);
        }
        std::lock_guard lock(mutex_);
        name_ = name.toStdString();
    }
    QObject* object() const { return object_.data(); }

  private:
    QPointer<QObject> object_;
    mutable std::mutex mutex_;
    std::string name_;
};

class ScreenHolder final : public QObject {
  public:
    ScreenHolder(QObject* object, std::shared_ptr<ObjectScreen> screen)
        : QObject(object), screen(std::move(screen)) {
        setObjectName(kHolderName);
    }
    std::shared_ptr<ObjectScreen> screen;
};

/// The Qt Quick windows. The key window is the focus window, or while the application is
/// inactive the one focused last; its root screen is its current page, else the window itself.
class QuickWindowSource final : public WindowSource {
  public:
    std::vector<Window> windows() override {
        std::vector<Window> result;
        if (!detail::onGuiThread() || !qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
            return result;
        }
        QQuickWindow* key = qobject_cast<QQuickWindow*>(QGuiApplication::focusWindow());
        if (!key) {
            key = detail::integration().lastFocusWindow.data();
        }
        for (auto* window : QGuiApplication::topLevelWindows()) {
            auto* quick = qobject_cast<QQuickWindow*>(window);
            if (!quick || (quick != key && !quick->isVisible())) {
                continue;
            }
            QQuickItem* page = detail::currentPage(quick);
            result.push_back(Window{quick == key, page ? screenFor(page) : screenFor(quick)});
        }
        return result;
    }
};

}  // namespace

void install(QGuiApplication& app, InstallOptions options) {
    std::chrono::milliseconds delay = options.backgroundDelay;
    {
        std::lock_guard lock(detail::integration().mutex);
        detail::integration().options = std::move(options);
    }
    setMainQueue(std::make_shared<qt::QtMainQueue>(app));
    QObject* bridge = qt::detail::installLifecycleBridge(app, delay);
    auto remember = [] {
        if (auto* focus = qobject_cast<QQuickWindow*>(QGuiApplication::focusWindow())) {
            detail::integration().lastFocusWindow = focus;
        }
    };
    QObject::connect(&app, &QGuiApplication::focusWindowChanged, bridge, remember);
    remember();
    setWindowSource(std::make_shared<QuickWindowSource>());
    detail::registerQmlTypes();
    detail::installInAppScreen();
}

ScreenRef screenFor(QObject* object) {
    if (!object) {
        return nullptr;
    }
    auto* holder = static_cast<ScreenHolder*>(
        object->findChild<QObject*>(kHolderName, Qt::FindDirectChildrenOnly));
    if (!holder) {
        holder = new ScreenHolder(object, std::make_shared<ObjectScreen>(object));
    }
    holder->screen->refresh();
    return holder->screen;
}

QObject* objectOf(const ScreenRef& screen) {
    if (auto* objectScreen = dynamic_cast<ObjectScreen*>(screen.get())) {
        return objectScreen->object();
    }
    return nullptr;
}

}  // namespace tarn::quick
