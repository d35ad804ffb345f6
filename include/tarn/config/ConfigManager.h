#pragma once
// Actor identifier rules, installation status and the initialisation status.

#include <atomic>
#include <optional>
#include <string>

#include "tarn/core/Export.h"
#include "tarn/core/Types.h"

namespace tarn {

enum class InstallationStatus { firstTimeInstallation, alreadyInstalled };

/// Actor identifier rules, the installation status and the initialisation status. One process-wide
/// instance; every call is safe from any thread.
class TARN_API ConfigManager {
  public:
    /// The one instance, created on first use and never destroyed.
    static ConfigManager& shared();

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-ConfigManager:";
    /// Whether this run is the first one on this device (set by `checkInstallationStatus`).
    std::atomic<InstallationStatus> installationStatus{InstallationStatus::alreadyInstalled};

    /// The process-wide initialisation status (`ProcessSettings::initializeStatus`).
    InitializeStatusType getInitializeStatus() const;
    /// True exactly when the status is `initialized`.
    bool isInitialized() const;
    /// `alreadyInstalled` when a non-empty "actorId" is stored, else `firstTimeInstallation`.
    void checkInstallationStatus();
    /// The host's identifier when given (non-empty); else the stored one (already installed) or a
    /// new guest identifier, stored under "guestActorId" (first installation).
    std::string resolveActorId(const std::optional<std::string>& actorId);
    /// Refuses an empty or blank identifier with a log line; otherwise sends "actor_change" when
    /// the in-memory identifier changes from a non-empty one, then stores the identifier untrimmed.
    /// An identifier (host or guest) that cannot be written to the preference store is still kept
    /// for this process, and every event carries it; one line says so, once per process.
    /// The in-memory identifier keeps the bytes as given; only the stored copy has bytes that are
    /// not UTF-8 replaced by U+FFFD (see `PreferencesManager::set`).
    void updateActorId(const std::string& actorId);

  private:
    void identityNotSaved();
    std::atomic<bool> identityNotSavedReported_{false};
};

}  // namespace tarn
