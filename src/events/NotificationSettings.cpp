#include "tarn/events/NotificationSettings.h"

namespace tarn {

const char* rawValue(NotificationPermissionStatus status) {
    switch (status) {
        case NotificationPermissionStatus::denied:
            return "DENIED";
        case NotificationPermissionStatus::notDetermined:
            return "NOT_DETERMINED";
        case NotificationPermissionStatus::authorized:
            return "AUTHORIZED";
        case NotificationPermissionStatus::provisional:
            return "PROVISIONAL";
        case NotificationPermissionStatus::ephemeral:
            return "EPHEMERAL";
        case NotificationPermissionStatus::unknown:
            return "UNKNOWN";
    }
    return "UNKNOWN";
}

NotificationManager& NotificationManager::shared() {
    return detail::SharedInstance<NotificationManager, 300>::get();
}

void NotificationManager::refreshPermission() {
    auto provider = provider_.get();
    if (!provider) {
        return;
    }
    // The answer may outlive a test's reset of this instance, so it goes to whichever instance is
    // current when it arrives.
    provider->getNotificationSettings([](NotificationPermissionStatus status) {
        NotificationManager::shared().status_.set(std::string(rawValue(status)));
    });
}

}  // namespace tarn
