#pragma once
// The Qt Quick integration's pieces: state shared for the process, the attached `Tarn` type of
// the QML module, the popup's controller and its picture item.

#include <QColor>
#include <QImage>
#include <QPointer>
#include <QQuickItem>
#include <QQuickPaintedItem>
#include <QQuickWindow>
#include <QTimer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <memory>
#include <mutex>
#include <vector>

#include "tarn/inapp/InAppModel.h"
#include "tarn/quick/TarnQuick.h"

class QQmlEngine;

namespace tarn::quick::detail {

inline constexpr const char* kViewTag = "Tarn-InappView:";
/// The popup card's widest width in pixels.
inline constexpr int kCardMaxWidth = 400;

/// Lives for the process (never destroyed, so no destructor of ours runs after the application
/// object is gone); GUI thread only, except `options`, which is guarded.
struct Integration {
    std::mutex mutex;
    InstallOptions options;
    /// The window that had the focus last: the key window while the application is inactive.
    QPointer<QQuickWindow> lastFocusWindow;
    /// The engine that builds popups (a child of the application object, made on first use).
    QPointer<QQmlEngine> engine;
};

Integration& integration();
InstallOptions currentOptions();
bool openExternal(const QUrl& url);
bool onGuiThread();
/// The window a popup goes over when the event names none: the focus window, else the one
/// focused last, else the first visible Qt Quick window. May be nullptr.
QQuickWindow* hostWindow();
/// The window of an item or a window; nullptr for anything else.
QQuickWindow* windowOf(QObject* object);
/// The page of `window` that came in last and is still in, or nullptr.
QQuickItem* currentPage(QQuickWindow* window);
void registerQmlTypes();
void installInAppScreen();

class PageAttached;

/// The type behind `Tarn` in QML; only its attached object is used.
class TarnQml : public QObject {
    Q_OBJECT
    QML_ATTACHED(PageAttached)
  public:
    static PageAttached* qmlAttachedProperties(QObject* object);
};

/// `Tarn.*` on one item (see tarn/quick/TarnQuick.h).
class PageAttached : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString pageName READ pageName WRITE setPageName NOTIFY pageNameChanged)
    Q_PROPERTY(bool active READ active NOTIFY activeChanged)
  public:
    explicit PageAttached(QObject* object);
    ~PageAttached() override;
    QString pageName() const { return pageName_; }
    void setPageName(const QString& name);
    bool active() const { return active_; }
    /// The order in which pages came in, for `currentPage`.
    quint64 activeSince() const { return activeSince_; }
    Q_INVOKABLE void sendCustomEvent(const QString& name, const QVariantMap& parameters = {});

  signals:
    void pageNameChanged();
    void activeChanged();
    /// The action a user picked in a popup raised on this page (or by this item, off any page).
    void action(const QString& link, const QString& type);

  private Q_SLOTS:
    void evaluateSlot() { evaluate(); }

  private:
    void rehook();
    void evaluate();
    bool computeActive() const;

    QPointer<QQuickItem> item_;
    QString pageName_;
    bool active_ = false;
    bool inPending_ = false;
    quint64 activeSince_ = 0;
    std::vector<QMetaObject::Connection> hooks_;
    ScreenRef screen_;  // kept, so that a page destroyed while in still reports its page_out
};

/// The popup's state for its QML component: rows, colours, slider, and what the user does.
class PopupController : public QObject {
    Q_OBJECT
    Q_PROPERTY(QVariantList rows READ rows CONSTANT)
    Q_PROPERTY(QColor background READ background CONSTANT)
    Q_PROPERTY(int imageCount READ imageCount CONSTANT)
    Q_PROPERTY(int currentImage READ currentImage NOTIFY imageChanged)
    Q_PROPERTY(int settledCount READ settledCount NOTIFY imageChanged)
    Q_PROPERTY(QString imageState READ imageState NOTIFY imageChanged)
    Q_PROPERTY(int autoDismissMs READ autoDismissMs CONSTANT)
  public:
    PopupController(std::shared_ptr<InAppViewController> screen, int maxImages,
                    int imageTimeoutSeconds);
    QVariantList rows() const { return rows_; }
    QColor background() const { return background_; }
    int imageCount() const { return static_cast<int>(images_.size()); }
    int currentImage() const { return index_; }
    int settledCount() const;
    QString imageState() const;
    int autoDismissMs() const { return autoDismissMs_; }
    /// The current image (null while loading or failed); read by the picture item.
    QImage currentPicture() const;

    /// Puts the popup item in place: reports it opened, starts the timer, takes the focus.
    void open(QQuickItem* popup);
    Q_INVOKABLE void dismiss();
    Q_INVOKABLE void clickButton(int index);
    Q_INVOKABLE void clickSelf();
    Q_INVOKABLE int nextImage();
    Q_INVOKABLE int previousImage();
    Q_INVOKABLE void showImage(int index);

  signals:
    void imageChanged();

  private:
    struct Image {
        std::string url;
        int state = 0;  // 0 loading, 1 loaded, 2 failed
        QImage image;
    };
    void finish();

    std::shared_ptr<InAppViewController> screen_;
    QVariantList rows_;
    std::vector<AppCommunicationButton> buttons_;
    QColor background_;
    std::vector<Image> images_;
    int index_ = 0;
    int autoDismissMs_ = 0;
    QTimer* autoDismiss_ = nullptr;
    bool finished_ = false;
    QPointer<QQuickItem> popup_;
    QPointer<QQuickItem> focusBefore_;
};

/// The slider's picture: paints the controller's current image, or a placeholder.
class PictureItem : public QQuickPaintedItem {
    Q_OBJECT
    Q_PROPERTY(QObject* controller READ controller WRITE setController NOTIFY controllerChanged)
  public:
    explicit PictureItem(QQuickItem* parent = nullptr);
    QObject* controller() const { return controller_; }
    void setController(QObject* controller);
    void paint(QPainter* painter) override;

  signals:
    void controllerChanged();

  private:
    QPointer<PopupController> controller_;
};

}  // namespace tarn::quick::detail
