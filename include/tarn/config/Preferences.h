#pragma once
// The library's persisted keys and the choice of preference store.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/PreferenceStore.h"

namespace tarn {

/// The fixed keys of the preference store; the raw value is the case name.
enum class PreferenceKey { apnsToken, pushToken, actorId, tokenStatus, guestActorId };
TARN_API const char* rawValue(PreferenceKey key);

/// Chooses the preference store: the app group's when one is configured and can be opened, else
/// the standard one. Safe from any thread.
class TARN_API PreferencesManager {
  public:
    /// The one instance, created on first use and never destroyed.
    static PreferencesManager& shared();

    /// The app group's suite name when `Tarn::initialize` was given one; its preference store is
    /// shared with the group's other processes.
    Locked<std::optional<std::string>> appGroupSuiteName;
    /// Whether values go to the app group's store rather than the standard one.
    std::atomic<bool> useAppGroup{false};

    /// The store to use now.
    std::shared_ptr<PreferenceStore> defaults() const;

    /// The stored boolean under `key`, or none.
    std::optional<bool> boolValue(PreferenceKey key) const;
    /// The stored integer under `key`, or none.
    std::optional<std::int64_t> intValue(const std::string& key) const;
    /// The stored string under `key`, or none.
    std::optional<std::string> stringValue(PreferenceKey key) const;
    /// The stored "actorId", else the stored "guestActorId", else "".
    std::string storedActorId() const;

    /// Stores `value` under `key`, bytes that are not UTF-8 replaced by U+FFFD (the store's file is
    /// JSON text, which cannot carry them); true when it
    /// reached the file, false when the store keeps it in memory for this process only (the file
    /// could not be written).
    bool set(PreferenceKey key, const std::string& value) const;
    /// Stores a boolean under `key`; false when it could not be written.
    bool set(PreferenceKey key, bool value) const { return defaults()->set(rawValue(key), value); }
};

}  // namespace tarn
