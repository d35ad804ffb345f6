#include "tarn/config/Preferences.h"

#include "base/InputSafety.h"

namespace tarn {

const char* rawValue(PreferenceKey key) {
    switch (key) {
        case PreferenceKey::apnsToken:
            return "apnsToken";
        case PreferenceKey::pushToken:
            return "pushToken";
        case PreferenceKey::actorId:
            return "actorId";
        case PreferenceKey::tokenStatus:
            return "tokenStatus";
        case PreferenceKey::guestActorId:
            return "guestActorId";
    }
    return "";
}

PreferencesManager& PreferencesManager::shared() {
    return detail::SharedInstance<PreferencesManager, 300>::get();
}

std::shared_ptr<PreferenceStore> PreferencesManager::defaults() const {
    if (useAppGroup.load()) {
        if (auto name = appGroupSuiteName.get()) {
            if (auto suite = PreferenceStore::suite(*name)) {
                return suite;
            }
        }
    }
    return PreferenceStore::standard();
}

std::optional<bool> PreferencesManager::boolValue(PreferenceKey key) const {
    return defaults()->boolean(rawValue(key));
}

std::optional<std::int64_t> PreferencesManager::intValue(const std::string& key) const {
    return defaults()->integer(key);
}

std::optional<std::string> PreferencesManager::stringValue(PreferenceKey key) const {
    return defaults()->string(rawValue(key));
}

bool PreferencesManager::set(PreferenceKey key, const std::string& value) const {
    return defaults()->set(rawValue(key), validUtf8(value));
}

std::string PreferencesManager::storedActorId() const {
    auto store = defaults();
    if (auto actor = store->string(rawValue(PreferenceKey::actorId))) {
        return *actor;
    }
    if (auto guest = store->string(rawValue(PreferenceKey::guestActorId))) {
        return *guest;
    }
    return "";
}

}  // namespace tarn
