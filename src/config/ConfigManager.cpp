#include "tarn/config/ConfigManager.h"

#include <algorithm>
#include <cctype>

#include "tarn/config/Preferences.h"
#include "tarn/config/TarnState.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"

namespace tarn {

ConfigManager& ConfigManager::shared() {
    return detail::SharedInstance<ConfigManager, 300>::get();
}

InitializeStatusType ConfigManager::getInitializeStatus() const {
    return processSettings().initializeStatus.load();
}

bool ConfigManager::isInitialized() const {
    return std::string(rawValue(getInitializeStatus())) ==
           rawValue(InitializeStatusType::initialized);
}

void ConfigManager::checkInstallationStatus() {
    auto stored = PreferencesManager::shared().stringValue(PreferenceKey::actorId);
    installationStatus = (stored && !stored->empty()) ? InstallationStatus::alreadyInstalled
                                                      : InstallationStatus::firstTimeInstallation;
}

std::string ConfigManager::resolveActorId(const std::optional<std::string>& actorId) {
    checkInstallationStatus();
    const bool given = actorId && !actorId->empty();
    if (given) {
        return *actorId;
    }
    auto& prefs = PreferencesManager::shared();
    if (installationStatus.load() == InstallationStatus::alreadyInstalled) {
        return prefs.stringValue(PreferenceKey::actorId).value_or("");
    }
    auto guest = makeUuidString();
    if (!prefs.set(PreferenceKey::guestActorId, guest)) {
        identityNotSaved();
    }
    return guest;
}

void ConfigManager::updateActorId(const std::string& actorId) {
    auto isBlank = std::all_of(actorId.begin(), actorId.end(),
                               [](unsigned char c) { return std::isspace(c) != 0; });
    if (isBlank) {
        log("Tarn actorId cannot be updated with empty or only whitespace string!", logtag,
            LogLevel::warning);
        return;
    }
    auto& tarn = TarnState::shared();
    std::string current = tarn.actorId.get();
    if (actorId != current && !current.empty()) {
        tarn.reportActorChange(current, actorId);
        log("Tarn actorId successfully updated.", logtag, LogLevel::info);
    }
    tarn.actorId = actorId;
    if (!PreferencesManager::shared().set(PreferenceKey::actorId, actorId)) {
        identityNotSaved();
    }
}

void ConfigManager::identityNotSaved() {
    if (!identityNotSavedReported_.exchange(true)) {
        log("The actor identifier could not be saved in the preference store; it is kept in "
            "memory for this process and a later run may not know it.",
            logtag, LogLevel::warning);
    }
}

}  // namespace tarn
