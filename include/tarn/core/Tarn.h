#pragma once
// The facade through which a host drives the library.
//
// Layers: the facade and its initialisation (src/core/) sit on top of every subsystem. Below them,
// each layer including only itself and those beneath: events; inapp and push; network; store,
// config and device; platform (the seams to the system); and the base utilities (src/base/:
// logging, shared instances, dates, settings). The Qt integration (qt/) and the tools sit above
// the facade. The subsystems read the identity, token and switch fields through `TarnState`, and
// reach the facade's token and actor-change routines, the event manager's lifecycle and in-app
// events through routines the facade installs when it is created; scripts/check-layers.sh fails on
// any include that runs upward.
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
#include "tarn/config/TarnState.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Types.h"

namespace tarn {

class TarnEvent;

class Tarn {
  public:
    /// The one instance, created on first use and never destroyed (usable until the process ends).
    static Tarn& shared();
    /// Use `shared()`. Creating the facade connects the layers below it: the token routine after
    /// a 401 answer, the actor-change event, and the lifecycle and in-app events.
    Tarn();
    /// The shared event API.
    static TarnEvent& event();

    // Switches and state; each is safe to read from any thread. They live in `TarnState`, where
    // the subsystems below the facade read them; these are the same values under the same names.
    TarnState& state = TarnState::shared();
    std::atomic<bool>& isWifiStatusRequired = state.isWifiStatusRequired;
    std::atomic<bool>& isBatteryStatusRequired = state.isBatteryStatusRequired;
    std::atomic<bool>& isDiskCapacityRequired = state.isDiskCapacityRequired;
    std::atomic<bool>& isLocationRequired = state.isLocationRequired;
    std::atomic<bool>& isSendActivityLifeCycleEventEnabled =
        state.isSendActivityLifeCycleEventEnabled;
    Locked<std::string>& applicationName = state.applicationName;
    Locked<std::string>& actorId = state.actorId;
    /// Sent as the in-app request's "configuration" member; never changed by the library.
    std::atomic<bool>& config = state.config;
    std::atomic<bool>& applicationLifecyleAuto = state.applicationLifecyleAuto;
    Locked<std::string>& tarnPushToken = state.tarnPushToken;
    Locked<std::string>& tarnApnsToken = state.tarnApnsToken;
    /// The "Authorization" header value, exactly as the server or the host gave it.
    Locked<std::string>& tarnAuthToken = state.tarnAuthToken;
    Locked<std::string>& tarnBundle = state.tarnBundle;
    std::atomic<bool>& loggedIn = state.loggedIn;
    const std::string logtag = "Tarn:";
    std::atomic<bool>& isInstall = state.isInstall;
    std::atomic<bool>& isInitializeCompleted = state.isInitializeCompleted;
    /// The configuration of the latest accepted `initialize`, with the service file's values.
    Locked<std::optional<TarnInitConfig>>& configuration = state.configuration;
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
