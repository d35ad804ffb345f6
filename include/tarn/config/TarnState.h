#pragma once
// The identity, tokens and switches that the facade's `Tarn::shared()` exposes to the host and
// that the subsystems read while they work.
//
// The subsystems sit below the facade and never include it; they reach this state here instead.
// `Tarn` refers to each field under the same name, so `Tarn::shared().actorId` and
// `TarnState::shared().actorId` are one value. The facade also installs the two routines that
// lower layers trigger but the facade owns: obtaining a new access token after a 401 answer, and
// reporting a new actor identifier.

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "tarn/core/Shared.h"
#include "tarn/core/Types.h"

namespace tarn {

class TarnState {
  public:
    /// The one instance, created on first use and never destroyed.
    static TarnState& shared();

    // Switches and state; each is safe to read from any thread.
    std::atomic<bool> isWifiStatusRequired{true};
    std::atomic<bool> isBatteryStatusRequired{true};
    std::atomic<bool> isDiskCapacityRequired{true};
    std::atomic<bool> isLocationRequired{true};
    std::atomic<bool> isSendActivityLifeCycleEventEnabled{true};
    Locked<std::string> applicationName;
    Locked<std::string> actorId;
    /// Sent as the in-app request's "configuration" member; never changed by the library.
    std::atomic<bool> config{true};
    std::atomic<bool> applicationLifecyleAuto{false};
    Locked<std::string> tarnPushToken;
    Locked<std::string> tarnApnsToken;
    /// The "Authorization" header value, exactly as the server or the host gave it.
    Locked<std::string> tarnAuthToken;
    Locked<std::string> tarnBundle;
    std::atomic<bool> loggedIn{false};
    std::atomic<bool> isInstall{false};
    std::atomic<bool> isInitializeCompleted{false};
    /// The configuration of the latest accepted `initialize`, with the service file's values.
    Locked<std::optional<TarnInitConfig>> configuration;

    /// Runs the facade's token routine (after a 401 answer). Any thread; does nothing until the
    /// facade has installed it.
    void refreshAccessToken() const;
    /// Reports that the actor identifier changed from `oldActorId` to `newActorId` (the facade
    /// sends "actor_change"). Any thread; does nothing until the facade has installed it.
    void reportActorChange(const std::string& oldActorId, const std::string& newActorId) const;

    /// Installed by the facade when it is first created; kept for the life of the process (a
    /// reset of the instances for tests keeps them).
    static void setRefreshAccessToken(std::function<void()> routine);
    static void setReportActorChange(
        std::function<void(const std::string&, const std::string&)> routine);
};

}  // namespace tarn
