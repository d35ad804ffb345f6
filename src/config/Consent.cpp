#include "tarn/config/Consent.h"

#include <thread>

#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/PreferenceStore.h"

namespace tarn {

const char* rawValue(ConsentState state) {
    switch (state) {
        case ConsentState::notAsked:
            return "notAsked";
        case ConsentState::granted:
            return "granted";
        case ConsentState::denied:
            return "denied";
    }
    return "";
}

namespace {

/// Public calls under way in the process (kept outside the instance, which tests may replace).
std::atomic<int>& callsUnderWay() {
    static std::atomic<int> count{0};
    return count;
}

}  // namespace

ConsentManager::CallScope::CallScope() {
    callsUnderWay().fetch_add(1);
}

ConsentManager::CallScope::~CallScope() {
    callsUnderWay().fetch_sub(1);
}

bool ConsentManager::waitForCalls(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (callsUnderWay().load() > 0) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

ConsentManager& ConsentManager::shared() {
    return detail::SharedInstance<ConsentManager, 300>::get();
}

ConsentState ConsentManager::state() const {
    if (int known = cached_.load(); known >= 0) {
        return static_cast<ConsentState>(known);
    }
    auto stored = PreferenceStore::standard()->string(kPreferenceKey);
    auto answer = ConsentState::notAsked;
    if (stored == rawValue(ConsentState::granted)) {
        answer = ConsentState::granted;
    } else if (stored == rawValue(ConsentState::denied)) {
        answer = ConsentState::denied;
    }
    int expected = -1;
    cached_.compare_exchange_strong(expected, static_cast<int>(answer));
    return static_cast<ConsentState>(cached_.load());
}

bool ConsentManager::setState(ConsentState state) const {
    cached_ = static_cast<int>(state);
    auto store = PreferenceStore::standard();
    if (state == ConsentState::notAsked) {
        return store->remove(kPreferenceKey);
    }
    return store->set(kPreferenceKey, rawValue(state));
}

bool ConsentManager::allowsRequests() const {
    if (erased.load()) {
        return false;
    }
    int known = cached_.load();
    if (known < 0) {
        return !required.load();
    }
    auto answer = static_cast<ConsentState>(known);
    return answer != ConsentState::denied && (!required.load() || answer == ConsentState::granted);
}

bool ConsentManager::allowsTracking() const {
    if (erased.load()) {
        return false;
    }
    auto answer = state();
    if (answer == ConsentState::denied) {
        return false;
    }
    return !required.load() || answer == ConsentState::granted;
}

bool ConsentManager::checkTracking() {
    if (erased.load()) {
        if (!offLogged_.exchange(true)) {
            log("Tracking is off: the local data was erased; nothing is stored or sent until the "
                "next initialization.",
                logtag, LogLevel::info);
        }
        return false;
    }
    auto answer = state();
    if (answer != ConsentState::denied && (!required.load() || answer == ConsentState::granted)) {
        return true;
    }
    if (!offLogged_.exchange(true)) {
        log(answer == ConsentState::denied
                ? "Tracking is off: the user declined; nothing is stored or sent."
                : "Tracking is off until the user consents; nothing is stored or sent.",
            logtag, LogLevel::info);
    }
    return false;
}

}  // namespace tarn
