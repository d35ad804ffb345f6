#include "tarn/core/Privacy.h"

#include "core/HeldStart.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn {

namespace {

struct HeldStart {
    bool held = false;
    std::optional<std::string> appGroupID;
};

Locked<HeldStart>& heldStart() {
    static detail::NeverDestroyed<Locked<HeldStart>> held;
    return *held;
}

/// Stops the queue's timer; a tick already scheduled finds tracking off and does nothing.
void stopQueue() {
    auto& queue = EventQueueManager::shared();
    queue.isTimerActive = false;
    queue.stopTimer();
}

/// Takes the library out of the initialised state, so that nothing is sent and a later start runs
/// the whole initialisation again. True when it was initialised or initialising.
bool leaveInitializedState() {
    auto& status = processSettings().initializeStatus;
    auto current = status.load();
    if (current == InitializeStatusType::initialized ||
        current == InitializeStatusType::initializing) {
        status = InitializeStatusType::notInitialized;
        return true;
    }
    return false;
}

}  // namespace

namespace detail {

void holdInitialization(const std::optional<std::string>& appGroupID) {
    heldStart().set(HeldStart{true, appGroupID});
}

void dropHeldInitialization() {
    heldStart().set(HeldStart{});
}

}  // namespace detail

void setConsentRequired(bool required) {
    ConsentManager::shared().required = required;
}

bool isConsentRequired() {
    return ConsentManager::shared().required.load();
}

ConsentState consentState() {
    return ConsentManager::shared().state();
}

void grantConsent() {
    auto& consent = ConsentManager::shared();
    consent.setState(ConsentState::granted);
    log("The user consented to tracking.", consent.logtag, LogLevel::info);
    auto held = heldStart().get();
    if (!held.held || !consent.allowsTracking()) {
        return;
    }
    auto config = Tarn::shared().configuration.get();
    if (!config) {
        return;
    }
    detail::dropHeldInitialization();
    config->forceInitialize = false;
    Tarn::shared().initialize(*config, held.appGroupID);
}

void denyConsent() {
    auto& consent = ConsentManager::shared();
    consent.setState(ConsentState::denied);
    log("The user declined tracking; the events waiting to be sent are deleted.", consent.logtag,
        LogLevel::info);
    stopQueue();
    if (leaveInitializedState()) {
        // A later grant starts again from the beginning.
        detail::holdInitialization(PreferencesManager::shared().appGroupSuiteName.get());
    }
    CoreDataManager::shared().deleteAllEvents();
}

bool eraseLocalData(EraseOption option) {
    auto& consent = ConsentManager::shared();
    // Close the gate first: calls racing the erasure return at once from here on.
    consent.erased = true;
    // Calls that passed the gate just before it closed may still write: let them end first.
    ConsentManager::waitForCalls(std::chrono::seconds(2));
    const auto answer = consent.state();
    stopQueue();
    leaveInitializedState();
    detail::dropHeldInitialization();
    bool gone = CoreDataManager::shared().eraseFiles();

    auto& prefs = PreferencesManager::shared();
    auto standard = PreferenceStore::standard();
    auto current = prefs.defaults();
    if (current != standard) {
        gone = current->removeAll() && gone;
    }
    gone = standard->removeAll() && gone;
    if (option == EraseOption::keepConsent && answer != ConsentState::notAsked) {
        consent.setState(answer);
    } else {
        consent.assumeState(ConsentState::notAsked);
    }

    auto& state = TarnState::shared();
    state.actorId = std::string();
    state.tarnPushToken = std::string();
    state.tarnApnsToken = std::string();
    state.tarnAuthToken = std::string();
    state.loggedIn = false;
    TarnSession::shared().setAppCommunication(std::nullopt);
    log(gone ? "The library's local data was erased."
             : "The library's local data was erased, but some files could not be deleted.",
        consent.logtag, gone ? LogLevel::info : LogLevel::error);
    return gone;
}

}  // namespace tarn
