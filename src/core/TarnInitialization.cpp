// The token routine, and the part of initialisation that runs after it: start the trackers and the
// queue, fetch the in-app communications one second later on the main queue, and complete.
#include "tarn/config/Consent.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/events/EventManager.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/inapp/InAppRepository.h"
#include "tarn/network/Authorization.h"
#include "tarn/network/Endpoint.h"
#include "tarn/network/ServiceClient.h"
#include "tarn/platform/MainQueue.h"

namespace tarn {

void Tarn::requestAccessToken(std::function<void()> continuation) {
    // Without consent no token is asked for, and what waited for it does not go on.
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    auto finish = [&continuation] {
        if (continuation) {
            continuation();
        }
    };
    auto config = configuration.get();
    if (!config) {
        fatalError("No stored configuration", __FILE__, __LINE__);
    }
    // A ready-made header value from the host wins; nothing is sent and the flag is untouched.
    if (config->authorization) {
        tarnAuthToken = *config->authorization;
        finish();
        return;
    }
    if (!config->clientId || !config->clientSecret) {
        finish();
        return;
    }
    auto& repository = AuthorizationRepository::shared();
    AuthClient client{ServiceClient::shared().url(Endpoint::accessToken), *config->clientId,
                      *config->clientSecret};
    if (repository.tokenStatus() == AuthTokenStatus::notDetermined) {
        log("pending Authorization!", repository.logtag, LogLevel::info);
        finish();
        return;
    }
    repository.setTokenStatus(false);
    repository.requestAccessToken(client,
                                  [continuation = std::move(continuation)](bool /*stored*/) {
                                      if (continuation) {
                                          continuation();
                                      }
                                  });
}

void Tarn::continueInitialization() {
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    auto stored = configuration.get();
    if (!stored) {
        fatalError("No stored configuration", __FILE__, __LINE__);
    }
    if (stored->applicationLifecyleAuto) {
        AutoLifeCyle::shared().start();
    }
    if (stored->isSendActivityLifeCycleEventEnabled) {
        ActivityLifeCycle::shared().start();
    }
    log("checkAuthToken", logtag, LogLevel::debug);
    mainQueue()->asyncAfter(1.0, [] { Tarn::shared().requestInAppCommunications(); });
    // Start draining; marking the queue active keeps the first event's tick from starting a second
    // timer beside this one.
    auto& queue = EventQueueManager::shared();
    if (!queue.isTimerActive.exchange(true)) {
        queue.startTimer();
    }
}

void Tarn::requestInAppCommunications() {
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    AppCommunucationRequest request{actorId.get(), applicationName.get(), config.load()};
    InAppRepository::shared().fetchInAppCommunications(
        request.dictionary(), [](std::optional<AppCommunication> answer) {
            // Consent withdrawn while the fetch was under way: the answer is not installed.
            if (!ConsentManager::shared().checkTracking()) {
                return;
            }
            InAppManager::shared().installAppCommunications(
                std::move(answer),
                [](const AppCommunication&) { Tarn::shared().completeInitialization(); });
        });
}

void Tarn::completeInitialization() {
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    // An answer was installed: from now on its configuration block (or the fallbacks) rules.
    processSettings().configurationFetched = true;
    loadState();
    isInitializeCompleted = true;
    syncTokens();
    if (configManager.installationStatus.load() == InstallationStatus::firstTimeInstallation) {
        EventManager::shared().sendInstallEvent(actorId.get());
    }
    EventManager::shared().sendInitializeEvent();
}

}  // namespace tarn
