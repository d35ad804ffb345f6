#pragma once
// The identity, tokens and switches that the facade's `Tarn::shared()` exposes to the host and
// that the subsystems read while they work.
//
// The subsystems sit below the facade and never include it; they reach this state here instead.
// `Tarn` refers to each field under the same name, so `Tarn::shared().actorId` and
// `TarnState::shared().actorId` are one value. It also holds two routines that lower layers
// trigger but higher ones own: obtaining a new access token after a 401 answer (installed by the
// facade) and reporting a new actor identifier (installed by the event manager).

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Types.h"

namespace tarn {

/// The identity, token and switch values of the process, which `Tarn` exposes under the same names
/// and the subsystems read. Every field is safe to read and write from any thread.
class TARN_API TarnState {
  public:
    /// The one instance, created on first use and never destroyed.
    static TarnState& shared();

    // Switches and state; each is safe to read from any thread.
    /// Whether event bodies carry the network status.
    std::atomic<bool> isWifiStatusRequired{true};
    /// Whether event bodies carry the battery level.
    std::atomic<bool> isBatteryStatusRequired{true};
    /// Whether event bodies carry the free and total disk space.
    std::atomic<bool> isDiskCapacityRequired{true};
    /// Whether event bodies carry the location.
    std::atomic<bool> isLocationRequired{true};
    /// Automatic page tracking (see `TarnInitConfig::isSendActivityLifeCycleEventEnabled`).
    std::atomic<bool> isSendActivityLifeCycleEventEnabled{true};
    /// The host's application name, from `TarnInitConfig`.
    Locked<std::string> applicationName;
    /// The current actor identifier (the host's or a guest identifier).
    Locked<std::string> actorId;
    /// Sent as the in-app request's "configuration" member; never changed by the library.
    std::atomic<bool> config{true};
    /// Automatic lifecycle events (see `TarnInitConfig::applicationLifecyleAuto`).
    std::atomic<bool> applicationLifecyleAuto{false};
    /// The push provider's token, as stored.
    Locked<std::string> tarnPushToken;
    /// The platform device token as lower-case hex text, as stored.
    Locked<std::string> tarnApnsToken;
    /// The "Authorization" header value, exactly as the server or the host gave it.
    Locked<std::string> tarnAuthToken;
    /// The bundle identifier of the host's main bundle.
    Locked<std::string> tarnBundle;
    /// Whether an actor is logged in (set by login, cleared by logout).
    std::atomic<bool> loggedIn{false};
    /// Kept for hosts; the library neither sets nor reads it.
    std::atomic<bool> isInstall{false};
    /// Set once an initialisation has completed.
    std::atomic<bool> isInitializeCompleted{false};
    /// The configuration of the latest accepted `initialize`, with the service file's values.
    Locked<std::optional<TarnInitConfig>> configuration;

    /// Runs the facade's token routine (after a 401 answer). Any thread; does nothing until the
    /// facade has been created.
    void refreshAccessToken() const;
    /// Reports that the actor identifier changed from `oldActorId` to `newActorId` ("actor_change"
    /// is sent). Any thread; does nothing until the event manager has installed the routine.
    void reportActorChange(const std::string& oldActorId, const std::string& newActorId) const;

    /// Installed once by the facade and the event manager; kept for the life of the process (a
    /// reset of the instances for tests keeps them).
    static void setRefreshAccessToken(std::function<void()> routine);
    /// Installed by the facade when it is first created; kept for the life of the process.
    static void setReportActorChange(
        std::function<void(const std::string&, const std::string&)> routine);
};

}  // namespace tarn
