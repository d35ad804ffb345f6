#pragma once
// State shared by the integration's pieces. Lives for the process (never destroyed, so no
// destructor of ours runs after the QApplication is gone); read and written on the GUI thread,
// except `options`, which is guarded.

#include <QPointer>
#include <QWidget>
#include <mutex>

#include "tarn/qt/TarnQt.h"

namespace tarn::qt::detail {

inline constexpr const char* kViewTag = "Tarn-InappView:";
/// The popup card's widest width in pixels; the image loader scales to it while the picture has no
/// size yet.
inline constexpr int kCardMaxWidth = 400;

struct Integration {
    std::mutex mutex;
    InstallOptions options;
    /// The window that was active last; the key window while the application is inactive.
    QPointer<QWidget> lastActiveWindow;
};

Integration& integration();
InstallOptions currentOptions();
/// Opens `url` through the install options' opener.
bool openExternal(const QUrl& url);
/// The window a popup goes over when the event names no widget: the active window, else the one
/// active last, else the first visible top-level widget. May be nullptr.
QWidget* hostWindow();
/// Starts the application-state bridge and the key-window seam on `app`.
void installLifecycle(QApplication& app);
/// Registers the Qt in-app screen with the library.
void installInAppScreen();
/// True on the thread of the application object.
bool onGuiThread();

}  // namespace tarn::qt::detail
