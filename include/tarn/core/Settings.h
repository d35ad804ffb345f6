#pragma once
// Process-wide settings that initialisation fills from the service file and the server's
// configuration block, and that the subsystems read on every use.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library above that layer. The latest in-app answer is held by `TarnSession`
// (`tarn/inapp/TarnSession.h`).

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarn/core/BaseTypes.h"
#include "tarn/core/Shared.h"

namespace tarn {

struct ProcessSettings {
    /// The request settings in force until the configuration fetch of an initialisation has
    /// answered. The token request and that fetch run under them, so they may take long; the
    /// fallback once an answer without these members arrived is 3 for both.
    static constexpr std::int64_t kStartupRequestRetryCount = 3;
    static constexpr std::int64_t kStartupRequestTimeout = 3000;

    /// The server's base address; unset until initialisation reads the service file.
    Locked<std::optional<std::string>> baseUrl;
    /// Retry budget of the service client for 5xx answers.
    std::atomic<std::int64_t> requestRetryCount{kStartupRequestRetryCount};
    /// Request time-out in seconds: 3000 until the configuration fetch has answered, then the
    /// server's value (one second when it is zero or below) or 3.
    std::atomic<std::int64_t> requestTimeout{kStartupRequestTimeout};
    /// Whether the configuration fetch of the current initialisation has answered. Every
    /// initialisation, a forced one included, clears it before its first `loadState`, so the
    /// token request and the fetch run under the start-up values whatever an earlier answer
    /// said; `completeInitialization` sets it once an answer is installed, and its `loadState`
    /// then applies the block (or the fallbacks of 3).
    std::atomic<bool> configurationFetched{false};
    /// Period of the offline queue's timer, in seconds; a server value is clamped to
    /// 0.001...86400 (NaN reads as the default 0.5).
    std::atomic<double> queueDelay{0.5};
    /// Conversion offset in seconds: minus the conversion period in whole seconds (truncated
    /// toward zero, so a negative period gives a positive offset), bounded to ten years either way.
    std::atomic<double> conversionOffset{-86400.0};
    /// The journeys list that every event record carries. The library has no source of journeys
    /// of its own, so it stays empty unless the host sets it.
    Locked<std::vector<std::string>> journeys;
    /// The process-wide initialisation status.
    std::atomic<InitializeStatusType> initializeStatus{InitializeStatusType::notInitialized};
};

/// The one set of process-wide settings.
ProcessSettings& processSettings();

/// The base URL; ends the process (a programming error) when it was never set.
std::string requireBaseUrl();

}  // namespace tarn
