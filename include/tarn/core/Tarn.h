#pragma once
// The facade through which a host drives the library.
//
// Layers: the facade and its initialisation (src/core/) sit on top of every subsystem. Below them,
// each layer including only itself and those beneath: events; inapp and push; network; store,
// config and device; platform (the seams to the system); and the base utilities (src/base/:
// logging, shared instances, dates, settings). The Qt integration (qt/) and the tools sit above
// the facade. The subsystems still read the identity, token and switch fields of `Tarn::shared()`;
// scripts/check-layers.sh lists those includes and fails on any new upward one.
//
// Threads: `initialize` and the other calls run on the caller's thread and never block on the
// network. The token answer arrives on the HTTP transport's callback thread; the in-app fetch and
// the rest of initialisation run on the main queue (`tarn/platform/MainQueue.h`).
//
// Exit: the host may end its process at any time and in any way (returning from `main`, `exit()`
// on any thread, `quick_exit`), also while events are being sent, the queue drains or an answer is
// being decoded. Nothing of the library is torn down at exit and nothing holds it: requests in
// flight are abandoned and their completions never run. Calls made while the process exits, on
// any thread, are accepted and return at once, but what they send may never reach the server;
// events already stored in the local queue are sent by the next run. There is no shutdown call.

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Types.h"

namespace tarn {

class TarnEvent;

class Tarn {
  public:
    /// The one instance, created on first use and never destroyed (usable until the process ends).
    static Tarn& shared();
    /// The shared event API.
    static TarnEvent& event();

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
    const std::string logtag = "Tarn:";
    std::atomic<bool> isInstall{false};
    std::atomic<bool> isInitializeCompleted{false};
    /// The configuration of the latest accepted `initialize`, with the service file's values.
    Locked<std::optional<TarnInitConfig>> configuration;
    ConfigManager& configManager = ConfigManager::shared();

    /// Initialises the library: reads "TarnService-Info", resolves the actor, loads the persisted
    /// state, obtains a token and, on the main queue one second later, fetches the in-app
    /// communications and the server configuration. Returns at once; the status
    /// (`ConfigManager::getInitializeStatus()`) becomes `initialized` or `initializeFailed` later.
    /// A second call while initialising or initialised is ignored unless `forceInitialize` is set.
    void initialize(const TarnInitConfig& configuration,
                    const std::optional<std::string>& appGroupID = std::nullopt);

    /// Stores the push provider's token and sends a token-change event when it changed.
    void setPushToken(const std::string& pushToken);
    std::string getPushToken() const { return tarnPushToken.get(); }
    /// Stores the platform device token as lower-case hex text.
    void setApnsToken(const std::vector<std::uint8_t>& deviceToken);
    /// For a second process of an app group: the actor identifier the group's store holds. Prints
    /// "Actor ID: <id>" or "Actor ID bulunamadı." to standard output.
    std::optional<std::string> getActorID(const std::string& appGroupID);

    // Steps of initialisation, public for the subsystems that continue it.
    bool readClientKnowledge();
    void loadState();
    void syncTokens();
    void storeTokensIfAbsent();
    /// Obtains the authorization value: the host's own, or a token from "/core/auth/token".
    /// `continuation` runs when the routine ends (at once when nothing is sent, else from the
    /// token answer on the transport's thread).
    void requestAccessToken(std::function<void()> continuation = nullptr);
    void continueInitialization();
    void requestInAppCommunications();
    void completeInitialization();

    /// Sends "actor_change" with the old and new identifiers.
    void sendActorChangeEvent(const std::string& oldActorId, const std::string& newActorId);

  private:
    void sendPushTokenChange(TokenProviderType provider);
};

}  // namespace tarn
