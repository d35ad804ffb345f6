#pragma once
// The library's persisted keys and the choice of preference store.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tarn/core/Shared.h"
#include "tarn/platform/PreferenceStore.h"

namespace tarn {

/// The fixed keys of the preference store; the raw value is the case name.
enum class PreferenceKey { apnsToken, pushToken, actorId, tokenStatus, guestActorId };
const char* rawValue(PreferenceKey key);

/// Chooses the preference store: the app group's when one is configured and can be opened, else
/// the standard one. Safe from any thread.
class PreferencesManager {
  public:
    static PreferencesManager& shared();

    Locked<std::optional<std::string>> appGroupSuiteName;
    std::atomic<bool> useAppGroup{false};

    /// The store to use now.
    std::shared_ptr<PreferenceStore> defaults() const;

    std::optional<bool> boolValue(PreferenceKey key) const;
    std::optional<std::int64_t> intValue(const std::string& key) const;
    std::optional<std::string> stringValue(PreferenceKey key) const;
    /// The stored "actorId", else the stored "guestActorId", else "".
    std::string storedActorId() const;

    /// Stores `value` under `key`, bytes that are not UTF-8 replaced by U+FFFD (the store's file is
    /// JSON text, which cannot carry them); true when it
    /// reached the file, false when the store keeps it in memory for this process only (the file
    /// could not be written).
    bool set(PreferenceKey key, const std::string& value) const;
    bool set(PreferenceKey key, bool value) const { return defaults()->set(rawValue(key), value); }
};

}  // namespace tarn
