#pragma once
// Values shared by the facade and the subsystems.
//
// One of the base utilities under every subsystem (sources in src/base/). Its one include above
// that layer is the platform's `Bundle`, which `TarnInitConfig` holds (see
// scripts/check-layers.sh).

#include <optional>
#include <string>

#include "tarn/platform/Bundle.h"

namespace tarn {

/// The process-wide initialisation status.
enum class InitializeStatusType { initializing, initialized, notInitialized, initializeFailed };
/// "initializing", "initialized", "notInitialized", "initializeFailed".
const char* rawValue(InitializeStatusType status);

/// Which push token changed: `apns` the platform device token, `firebase` the provider's token.
enum class TokenProviderType { apns, firebase };
/// "apns", "firebase".
const char* rawValue(TokenProviderType provider);

/// The host's configuration of the library. `domainUrl`, `clientId` and `clientSecret` are always
/// replaced by the service configuration file's values when the library initialises.
struct TarnInitConfig {
    /// The only constructor: every field, in this order, no defaults.
    TarnInitConfig(Bundle bundle, std::string applicationName, std::optional<std::string> actorId,
                   std::optional<std::string> domainUrl, std::optional<std::string> authorization,
                   std::optional<std::string> clientId, std::optional<std::string> clientSecret,
                   bool applicationLifecyleAuto, bool isSendActivityLifeCycleEventEnabled,
                   bool forceInitialize)
        : bundle(std::move(bundle)),
          applicationLifecyleAuto(applicationLifecyleAuto),
          applicationName(std::move(applicationName)),
          forceInitialize(forceInitialize),
          isSendActivityLifeCycleEventEnabled(isSendActivityLifeCycleEventEnabled),
          actorId(std::move(actorId)),
          domainUrl(std::move(domainUrl)),
          authorization(std::move(authorization)),
          clientId(std::move(clientId)),
          clientSecret(std::move(clientSecret)) {}

    Bundle bundle;
    bool applicationLifecyleAuto;
    std::string applicationName;
    bool forceInitialize;
    bool isSendActivityLifeCycleEventEnabled;
    std::optional<std::string> actorId;
    std::optional<std::string> domainUrl;
    std::optional<std::string> authorization;
    std::optional<std::string> clientId;
    std::optional<std::string> clientSecret;
};

/// A new random UUID in canonical upper-case text (8-4-4-4-12).
std::string makeUuidString();

}  // namespace tarn
