#pragma once
// The library in a Qt 6 Quick (QML) application, without Qt Widgets.
//
// A host needs three steps:
//
//     QGuiApplication app(argc, argv);
//     tarn::quick::install(app);                  // 1. before initialising and before loading QML
//     tarn::Tarn::shared().initialize(config);    // 2. as on any platform
//     // 3. in QML:  import Tarn
//     //     Page { Tarn.pageName: "Cart"
//     //            Button { onClicked: Tarn.sendCustomEvent("add_to_cart", {sku: "A-42"}) } }
//
// `install` makes the library's main queue run on the GUI thread's event loop (its timers, the
// queue drain, the in-app fetch and every presentation run there), turns
// `QGuiApplication::applicationStateChanged` into the library's background / foreground
// notifications (and `aboutToQuit` into terminate), answers the key-window lookup from the focus
// window, registers the QML module `Tarn` and registers the Qt Quick popup as the library's in-app
// screen. HTTP answers keep arriving on the library's own threads; nothing here touches an item
// from there.
//
// The QML module `Tarn` (registered by `install`, so `install` must run before the QML engine
// loads a file that imports it) gives one attached type, `Tarn`:
//  - `Tarn.pageName: "Cart"` makes an item a tracked page. The page is "in" while it is the one
//    the user sees: the item and its window are visible, and in every StackView and every
//    SwipeView (any Qt Quick Controls container) above it, it is (inside) the current item. So a
//    StackView push sends page_out for the page below and page_in for the pushed one, a pop the
//    reverse; a SwipeView change, `visible` turning false or true, hiding the window and
//    destroying an item that is in all send the matching event. The screen's class name, the
//    page name of page, lifecycle and in-app events, is `pageName`.
//  - `Tarn.active` (read only): whether the page is in now.
//  - `Tarn.sendCustomEvent(name, parameters)`: a custom event raised on the nearest tracked page
//    at or above the calling item (else the window's current page); a popup it brings up goes
//    over that page's window. The action a user picks in that popup comes back as the signal
//    `Tarn.action(link, type)` of that page (of the calling item when no page was found; type
//    "deep", "url" or "unknown"), so `Tarn.onAction` sits next to `Tarn.pageName`, and then goes
//    to the install options' `actions` callback. The library opens no link itself.
//
// The popup is a Qt Quick item made on the GUI thread and parented to the window's content item
// (`QQuickWindow::contentItem()`), above everything in it, Qt Quick Controls' overlay layer
// included: it dims the whole window, the page stays visible behind it. Its rows, colours,
// slider, buttons and reports are those of the Widgets popup (tarn/qt/InAppPopup.h): title, image
// slider, body, at most three buttons, a close control, Escape, Left / Right for the slider, a
// card click reported as "self clicked", a dimmed area that ignores clicks, and the auto-dismiss
// timer from `inAppMaxShowDuration` in seconds. Images load off the GUI thread and never block it.
// Its root item has the object name "TarnInAppPopup"; each row item carries the property
// `tarnRow` ("title", "images", "body", "button").
//
// Everything here is called on the GUI thread.

#include <QUrl>
#include <chrono>
#include <functional>

#include "tarn/core/Export.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Screen.h"

class QGuiApplication;
class QObject;
class QQuickItem;

namespace tarn::quick {

/// Choices a host can make at install time.
struct TARN_API InstallOptions {
    /// How long the application must stay out of the active state before "app_background" is
    /// reported; shorter absences are not reported at all.
    std::chrono::milliseconds backgroundDelay{500};
    /// Opens a survey's page outside the application. Default: `QDesktopServices::openUrl`.
    std::function<bool(const QUrl&)> openExternalUrl;
    /// At most this many images of one popup are loaded and shown.
    int maxPopupImages = 10;
    /// Seconds an image request may take before its slot shows the placeholder.
    int imageTimeoutSeconds = 15;
    /// Receives the action a user picks in a popup brought up by `Tarn.sendCustomEvent` in QML,
    /// on the GUI thread, after the QML signal `Tarn.action`. The library opens no link itself.
    ActionCallback actions;
};

/// Installs the integration on `app` (see above). Call it once, on the GUI thread, before
/// `Tarn::shared().initialize` and before the QML engine loads the host's files. Calling it again
/// replaces the options.
TARN_API void install(QGuiApplication& app, InstallOptions options = {});

/// The library's screen for a QML item (or a window): the same object for the same item while it
/// lives. Its class name is the item's `Tarn.pageName` when set, else its object name, else its
/// QML type name. A popup raised with it goes over the item's window. nullptr for nullptr. GUI
/// thread only.
TARN_API ScreenRef screenFor(QObject* item);

/// The item (or window) behind a screen made by `screenFor`, or nullptr. GUI thread only.
TARN_API QObject* objectOf(const ScreenRef& screen);

}  // namespace tarn::quick
