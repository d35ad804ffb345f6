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

    /// The host's main bundle, whose folder holds "TarnService-Info.plist".
    Bundle bundle;
    /// Automatic lifecycle events: background and foreground are reported from the application's
    /// notifications; when false the host reports them with the `TarnEvent` calls.
    bool applicationLifecyleAuto;
    /// The host's application name, sent with every event.
    std::string applicationName;
    /// Initialise again even when initialising or initialised.
    bool forceInitialize;
    /// Automatic page tracking: page events from the screens' page-in and page-out notifications
    /// (`TarnViewController`, the Qt page tracking); when false the host reports pages with the
    /// `TarnEvent` calls.
    bool isSendActivityLifeCycleEventEnabled;
    /// The host's actor identifier; none for the stored or a new guest identifier.
    std::optional<std::string> actorId;
    /// Replaced by the service file's "DOMAIN".
    std::optional<std::string> domainUrl;
    /// A ready-made "Authorization" header value; when set, no token is requested.
    std::optional<std::string> authorization;
    /// Replaced by the service file's "CLIENT_ID".
    std::optional<std::string> clientId;
    /// Replaced by the service file's "CLIENT_SECRET".
    std::optional<std::string> clientSecret;
};

}  // namespace tarn
