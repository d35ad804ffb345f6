#pragma once
// The library in a Qt 6 Widgets application.
//
// A host needs three calls:
//
//     QApplication app(argc, argv);
//     tarn::qt::install(app);                                   // 1. before initialising
//     tarn::Tarn::shared().initialize(config);                  // 2. as on any platform
//     tarn::TarnEvent::shared().sendCustomEvent(                // 3. from a screen of the host
//         tarn::qt::screenFor(this), std::nullopt, "add_to_cart", {}, onAction);
//
// `install` makes the library's main queue run on the GUI thread's event loop (its timers, the
// queue drain, the in-app fetch and every presentation run on the GUI thread), turns the
// application's state changes into the library's background / foreground / terminate
// notifications, answers the key-window lookup from the active window and registers the Qt in-app
// popup as the library's in-app screen. HTTP answers keep arriving on the library's own threads;
// nothing of this integration touches a widget from there.
//
// Consent and erasure need nothing of Qt: the core calls of tarn/core/Privacy.h apply as they are
// (`setConsentRequired` before initialising, `grantConsent`, `denyConsent`, `eraseLocalData`). Make
// them on the GUI thread like `initialize`, since `grantConsent` runs a waiting initialisation on
// the calling thread; while tracking is off no popup is shown.
//
// Everything here is called on the GUI thread. Every Qt object it creates is a child of the
// application object, of the host's window or of the popup, so Qt's parent tree owns it; nothing
// of it is a static whose destructor runs after the QApplication is gone.

#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "tarn/core/Export.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Screen.h"

class QApplication;
class QWidget;

namespace tarn::qt {

/// Choices a host can make at install time.
struct TARN_API InstallOptions {
    /// How long the application must stay out of the active state before "app_background" is
    /// reported. A dialog of another application or a quick focus change within the desktop
    /// makes Qt flip the application state for a moment; such flips shorter than this are not
    /// reported at all, so a returning user does not produce a background/foreground pair.
    std::chrono::milliseconds backgroundDelay{500};
    /// Opens a link outside the application (the system browser). Used for a survey when Qt
    /// WebEngine is missing and by `openUrlActions`. Default: `QDesktopServices::openUrl`.
    std::function<bool(const QUrl&)> openExternalUrl;
    /// At most this many images of one popup are loaded and shown; further addresses are ignored
    /// (with a log line). Keeps a payload with hundreds of images from flooding the network and
    /// memory.
    int maxPopupImages = 10;
    /// Seconds an image request may take before the slot shows its placeholder.
    int imageTimeoutSeconds = 15;
};

/// Installs the integration on `app` (see above). Call it once, on the GUI thread, before
/// `Tarn::shared().initialize`. Calling it again replaces the options.
TARN_API void install(QApplication& app, InstallOptions options = {});

/// The library's screen for `widget`: the same object for the same widget while it lives. Its
/// class name (the page name of page, lifecycle and in-app events) is the widget's object name
/// when set, else its meta-object class name (declare `Q_OBJECT` in the host's class to get its
/// own name). The in-app popup is presented over this widget's window. nullptr for nullptr. GUI
/// thread only.
TARN_API ScreenRef screenFor(QWidget* widget);

/// The widget behind a screen made by `screenFor`, or nullptr (other screen types, widget gone).
/// GUI thread only.
TARN_API QWidget* widgetOf(const ScreenRef& screen);

/// An action callback for `sendCustomEvent` that opens `url` actions with the install options'
/// `openExternalUrl` (the system browser by default) and hands every action, opened or not, to
/// `next` when given. The library never opens links by itself; a host that wants this passes it.
/// Runs on the GUI thread (the popup's button handler).
TARN_API ActionCallback openUrlActions(ActionCallback next = nullptr);

}  // namespace tarn::qt
