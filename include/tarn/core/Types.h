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

/// The host's configuration of the library, written by field name:
///
///     tarn::TarnInitConfig config(tarn::TarnInitOptions{
///         .applicationName = "MyApp",
///         .applicationLifecyleAuto = true,
///     });
///
/// Fields left out take the values below; designated initialisers must keep the order of the
/// fields as declared here.
struct TarnInitOptions {
    /// The folder whose "TarnService-Info.plist" and Info.plist the library reads.
    Bundle bundle = Bundle::main();
    /// The application's name as events carry it.
    std::string applicationName{};
    /// The host's actor identifier; without one the library makes and keeps a guest identifier.
    std::optional<std::string> actorId{};
    /// Always replaced by the service file's DOMAIN when the library initialises.
    std::optional<std::string> domainUrl{};
    /// A ready-made "Authorization" header value; when set no token is requested.
    std::optional<std::string> authorization{};
    /// Always replaced by the service file's CLIENT_ID.
    std::optional<std::string> clientId{};
    /// Always replaced by the service file's CLIENT_SECRET.
    std::optional<std::string> clientSecret{};
    /// true: the library sends "app_background" and "app_foreground" itself from the application
    /// notifications; false: the host calls `sendAppBackgroundEvent` and `sendAppForegroundEvent`.
    bool applicationLifecyleAuto = false;
    /// true: the library sends "page_in" and "page_out" itself for tracked screens; false: the
    /// host calls `sendPageInEvent` and `sendPageOutEvent`.
    bool isSendActivityLifeCycleEventEnabled = true;
    /// Initialise again even when an earlier initialisation completed or is running.
    bool forceInitialize = false;
};

/// The host's configuration of the library. `domainUrl`, `clientId` and `clientSecret` are always
/// replaced by the service configuration file's values when the library initialises.
struct TarnInitConfig {
    /// Every field, in this order, no defaults.
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
    /// The same configuration written by field name (see `TarnInitOptions`).
    TarnInitConfig(TarnInitOptions options)  // NOLINT(google-explicit-constructor)
        : TarnInitConfig(std::move(options.bundle), std::move(options.applicationName),
                         std::move(options.actorId), std::move(options.domainUrl),
                         std::move(options.authorization), std::move(options.clientId),
                         std::move(options.clientSecret), options.applicationLifecyleAuto,
                         options.isSendActivityLifeCycleEventEnabled, options.forceInitialize) {}

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
