// The library's in-app screen seam, filled with the Qt popup (and the survey).
#include <QApplication>
#include <QPointer>
#include <QUrl>

#include "Internal.h"
#include "tarn/core/Log.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/qt/InAppPopup.h"

#ifdef TARN_QT_HAS_WEBENGINE
#include <QWebEnginePage>
#include <QWebEngineView>
#include <algorithm>
#endif

namespace tarn::qt::detail {

namespace {

/// One presentation. The library makes it, fills `inApp` and `actionItem` and calls `present` on
/// the main queue (the GUI thread once `install` ran). The popup then holds it, so its reports
/// keep working for as long as the popup is up.
class QtInAppScreen final : public InAppViewController,
                            public std::enable_shared_from_this<QtInAppScreen> {
  public:
    void present(const ScreenRef& presenter) override {
        if (!onGuiThread()) {
            // A host that kept the default main queue: hop to the GUI thread first.
            if (auto* app = QCoreApplication::instance()) {
                QMetaObject::invokeMethod(
                    app, [self = shared_from_this(), presenter] { self->present(presenter); },
                    Qt::QueuedConnection);
            }
            return;
        }
        if (!inApp) {
            return;
        }
        QWidget* host = widgetOf(presenter);
        host = host ? host->window() : hostWindow();
        if (inApp->appCommunucation.templateType == InAppType::survey) {
            presentSurvey(host);
            return;
        }
        auto options = currentOptions();
        auto* popup = new InAppPopup(host, shared_from_this(), options.maxPopupImages,
                                     options.imageTimeoutSeconds);
        popup->open();
    }

  private:
    void presentSurvey(QWidget* host) {
        const auto& link = inApp->appCommunucation.subInAppCommunication.link;
        QUrl url(QString::fromStdString(link.value_or("")), QUrl::StrictMode);
        if (!link || !url.isValid() || (url.scheme() != "http" && url.scheme() != "https")) {
            log("survey has no web address to show", kViewTag, LogLevel::error);
            return;
        }
#ifdef TARN_QT_HAS_WEBENGINE
        auto* view = new QWebEngineView(host);
        view->setAttribute(Qt::WA_DeleteOnClose);
        view->setWindowFlag(Qt::Dialog);
        view->resize(480, 360);
        QObject::connect(view->page(), &QWebEnginePage::contentsSizeChanged, view,
                         [view](const QSizeF& size) {
                             view->resize(std::clamp(int(size.width()), 320, 800),
                                          std::clamp(int(size.height()), 200, 700));
                         });
        QObject::connect(view, &QObject::destroyed,
                         [self = shared_from_this()] { self->reportDismissed(); });
        view->load(url);
        view->show();
        reportOpened();
#else
        (void)host;
        log("survey shown in the system browser: this build has no Qt WebEngine", kViewTag,
            LogLevel::warning);
        if (openExternal(url)) {
            reportOpened();
        } else {
            log("could not open the survey page", kViewTag, LogLevel::error);
        }
#endif
    }
};

}  // namespace

void installInAppScreen() {
    InAppManager::shared().registerInAppScreen(
        []() -> std::shared_ptr<InAppViewController> { return std::make_shared<QtInAppScreen>(); });
}

}  // namespace tarn::qt::detail
