#pragma once
// The event catalogue: wire names of the library's events and the companion kinds.

#include <optional>
#include <string>

#include "tarn/core/Export.h"

namespace tarn {

/// Events the library sends by itself. The raw value is the wire name ("push_notificition_denied"
/// is spelled that way on the wire).
enum class TarnEventType {
    pageIn,
    pageOut,
    appBackground,
    appForeground,
    actorChange,
    pushNotificationReceived,
    pushNotificationClicked,
    pushNotificationDenied,
    pushNotificationDismissed,
    install,
    applicationError,
    inAppOpened,
    pushTokenChange,
    inAppDismissed,
    inAppSelfClicked,
    inAppButtonClicked,
    sdkInitialize,
    login,
    logout,
};
TARN_API const char* rawValue(TarnEventType type);
TARN_API std::optional<TarnEventType> tarnEventTypeFromRaw(const std::string& raw);

enum class InAppEventType { opened, dismissed, selfClicked, buttonClicked };
/// The case name ("opened", ...).
TARN_API const char* rawValue(InAppEventType type);
/// The catalogue event an in-app interaction is sent as.
TARN_API TarnEventType eventType(InAppEventType type);

enum class PageInOutEventType { pageIn, pageOut };
/// "page_in", "page_out".
TARN_API const char* rawValue(PageInOutEventType type);

enum class PushNotificationEventType { onBodyClick, onDismiss, received, denied };
/// The case name ("onBodyClick", ...).
TARN_API const char* rawValue(PushNotificationEventType type);
/// "push_notification_clicked", "push_notification_dismissed", "push_notification_received",
/// "push_notificition_denied".
TARN_API TarnEventType eventType(PushNotificationEventType type);

enum class SendEventStatus { enabled, disabled };
TARN_API const char* rawValue(SendEventStatus status);
enum class NetworkStatus { online, offline };
TARN_API const char* rawValue(NetworkStatus status);

}  // namespace tarn
