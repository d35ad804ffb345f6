#pragma once
// Values shared by the facade and the subsystems: the host's configuration and the base value
// types (`tarn/core/BaseTypes.h`).
//
// `TarnInitConfig` holds the platform's `Bundle`, so this header sits with the platform seams
// rather than with the base utilities; code of the base layer includes `BaseTypes.h`.

#include <optional>
#include <string>

#include "tarn/core/BaseTypes.h"
#include "tarn/platform/Bundle.h"

namespace tarn {

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

}  // namespace tarn
