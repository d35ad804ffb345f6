#pragma once
// The notification permission that event bodies report, refreshed through a host-filled seam.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"

namespace tarn {

/// Notification permission as the platform reports it.
enum class NotificationPermissionStatus {
    denied,
    notDetermined,
    authorized,
    provisional,
    ephemeral,
    unknown
};
/// "DENIED", "NOT_DETERMINED", "AUTHORIZED", "PROVISIONAL", "EPHEMERAL", "UNKNOWN".
TARN_API const char* rawValue(NotificationPermissionStatus status);

/// Asks the platform for the current notification settings. The answer may arrive later, on any
/// thread; the library never waits for it.
class TARN_API NotificationSettingsProvider {
  public:
    virtual ~NotificationSettingsProvider() = default;
    /// Calls `completion` with the current permission status, on any thread.
    virtual void getNotificationSettings(
        std::function<void(NotificationPermissionStatus)> completion) = 0;
};

/// Keeps the latest notification permission. Every event handler asks for a refresh; every event
/// body built after an answer carries it under "notificationPermissionStatus" inside "parameters".
/// With no provider installed (the default off the phone, where no permission exists) nothing is
/// stored and the key is left out.
class TARN_API NotificationManager {
  public:
    /// The one instance, created on first use and never destroyed.
    static NotificationManager& shared();
    /// The key of the permission status in event bodies.
    static constexpr const char* kEventKey = "notificationPermissionStatus";
    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-NotificationManager:";

    /// Installs the platform's settings provider (nullptr removes it).
    void setProvider(std::shared_ptr<NotificationSettingsProvider> provider) {
        provider_.set(std::move(provider));
    }
    /// Asks the provider for the settings without waiting; the answer is stored when it arrives.
    void refreshPermission();
    /// The last stored status text, or none.
    std::optional<std::string> permissionStatus() const { return status_.get(); }

  private:
    Locked<std::shared_ptr<NotificationSettingsProvider>> provider_;
    Locked<std::optional<std::string>> status_;
};

}  // namespace tarn
