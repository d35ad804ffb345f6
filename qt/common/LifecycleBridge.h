#pragma once
// Application state → the library's lifecycle notifications, shared by the Widgets and the Qt Quick
// integrations (neither needs the other's windows for it).

#include <QGuiApplication>
#include <chrono>

namespace tarn::qt::detail {

/// Replaces the bridge on `app` (a child of the application object, found by name) with a new
/// one: did-enter-background once the application has been out of the active state for `delay`,
/// will-enter-foreground when it comes back after that, will-terminate on aboutToQuit. Returns the
/// bridge, so that a caller can hang its own window bookkeeping on it. GUI thread only.
QObject* installLifecycleBridge(QGuiApplication& app, std::chrono::milliseconds delay);

}  // namespace tarn::qt::detail
