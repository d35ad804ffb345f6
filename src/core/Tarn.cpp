#include "tarn/core/Tarn.h"

#include <algorithm>
#include <cstdio>

#include "base/InputSafety.h"
#include "core/HeldStart.h"
#include "tarn/config/Consent.h"
#include "tarn/config/ConfigurationManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/events/EventManager.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/network/Authorization.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn {

namespace {

// Bounds of the tuning values that the server's configuration block sets.
constexpr std::int64_t kMinRequestTimeoutSeconds = 1;
constexpr double kMinQueueDelaySeconds = 0.001;
constexpr double kMaxQueueDelaySeconds = 86400;
constexpr std::int64_t kMaxConversionOffsetSeconds = 10LL * 366 * 86400;

}  // namespace

Tarn& Tarn::shared() {
    return detail::SharedInstance<Tarn, 400>::get();
}

Tarn::Tarn() {
    // A 401 answer in the network layer runs the token routine through this; it reaches the
    // current instance when it runs, so a reset of the instances for tests leaves it valid.
    TarnState::setRefreshAccessToken([] { Tarn::shared().requestAccessToken(); });
    EventManager::connectReporters();
}

void Tarn::initialize(const TarnInitConfig& config, const std::optional<std::string>& appGroupID) {
    ConsentManager::CallScope call;  // an erasure waits for it
    auto& settings = processSettings();
    // 1. Guard against a second run.
    auto status = settings.initializeStatus.load();
    if ((status == InitializeStatusType::initialized ||
         status == InitializeStatusType::initializing) &&
        !config.forceInitialize) {
        log(std::string("SDK is already Initialized. If you changed the configuration, send the "
                        "forceInitialize value to true. Initialize status: ") +
                rawValue(status),
            logtag, LogLevel::warning);
        return;
    }
    // 2.-4.
    settings.initializeStatus = InitializeStatusType::initializing;
    // The host's strings are kept as given. One that is not UTF-8 makes the requests and events
    // that carry it fail the way any unwritable value does (no App-Info header, a request body
    // that is not serialisable, a dropped event); only the preference store replaces such bytes.
    // Until this run's configuration fetch answers, requests run under the start-up settings.
    settings.configurationFetched = false;
    configuration = config;
    tarnBundle = config.bundle.bundleIdentifier().value_or("");
    // 5.-6. The service file's address and credentials.
    if (!readClientKnowledge()) {
        log("SDK not fetched client knowledge!", logtag, LogLevel::error);
        settings.initializeStatus = InitializeStatusType::initializeFailed;
        return;
    }
    // 7. The preference store: the app group's when named, else the standard one.
    auto& prefs = PreferencesManager::shared();
    prefs.appGroupSuiteName = appGroupID;
    prefs.useAppGroup = true;
    // Consent: an erasure's stop ends with this initialisation; while the user's consent is
    // required and not given, or refused, the rest waits for `grantConsent`.
    auto& consent = ConsentManager::shared();
    if (consent.erased.exchange(false)) {
        CoreDataManager::shared().reopenAfterErase();
    }
    if (!consent.checkTracking()) {
        detail::holdInitialization(appGroupID);
        settings.initializeStatus = InitializeStatusType::notInitialized;
        return;
    }
    // 8. Purge conversion markers older than a day.
    CoreDataManager::shared().deleteExpiredConversions();
    // 9. The actor.
    configManager.updateActorId(configManager.resolveActorId(config.actorId));
    // 10.
    loadState();
    // 11. The token routine; initialisation goes on when it has ended.
    requestAccessToken([] { Tarn::shared().continueInitialization(); });
}

bool Tarn::readClientKnowledge() {
    const auto& file = ConfigurationManager::shared().settings();
    auto stored = configuration.get();
    if (!stored) {
        fatalError("No stored configuration", __FILE__, __LINE__);
    }
    std::string values[3];
    const char* keys[3] = {"DOMAIN", "CLIENT_ID", "CLIENT_SECRET"};
    for (int i = 0; i < 3; ++i) {
        auto it = file.find(keys[i]);
        if (it == file.end() || !it->is_string()) {
            printLine("Configuration error: Missing required information", LogLevel::error);
            return false;
        }
        values[i] = it->get<std::string>();
    }
    stored->domainUrl = values[0];
    stored->clientId = values[1];
    stored->clientSecret = values[2];
    configuration = std::move(stored);
    return true;
}

void Tarn::loadState() {
    auto& prefs = PreferencesManager::shared();
    tarnPushToken = prefs.stringValue(PreferenceKey::pushToken).value_or("");
    tarnApnsToken = prefs.stringValue(PreferenceKey::apnsToken).value_or("");
    actorId = prefs.stringValue(PreferenceKey::actorId).value_or("");

    auto session = TarnSession::shared().appCommunication();
    std::optional<AppCommunicationConfiguration> block;
    if (session) {
        block = session->configuration;
    }
    auto flag = [&](std::optional<bool> AppCommunicationConfiguration::*member) {
        return block && (*block).*member && *((*block).*member);
    };
    isWifiStatusRequired = flag(&AppCommunicationConfiguration::wifiStatusEnabled);
    isBatteryStatusRequired = flag(&AppCommunicationConfiguration::batteryEnabled);
    isDiskCapacityRequired = flag(&AppCommunicationConfiguration::diskCapacityEnabled);
    isLocationRequired = flag(&AppCommunicationConfiguration::locationEnabled);

    auto stored = configuration.get();
    if (!stored) {
        fatalError("No stored configuration", __FILE__, __LINE__);
    }
    isSendActivityLifeCycleEventEnabled = stored->isSendActivityLifeCycleEventEnabled;
    applicationName = stored->applicationName;
    applicationLifecyleAuto = stored->applicationLifecyleAuto;

    AuthorizationRepository::shared().setTokenStatus(true);

    auto& settings = processSettings();
    settings.baseUrl = stored->domainUrl;
    if (settings.configurationFetched) {
        settings.requestRetryCount =
            block && block->apiRequestRetryCount ? *block->apiRequestRetryCount : 3;
        // A time-out of zero or below would reach the transport as no time-out at all, so that a
        // request the server never answers waits for ever: it counts as one second.
        settings.requestTimeout =
            block && block->apiRequestTimeout
                ? std::max<std::int64_t>(*block->apiRequestTimeout, kMinRequestTimeoutSeconds)
                : 3;
    } else {
        // The token request and the configuration fetch wait long on purpose: a block left from
        // an earlier run does not shorten them, and the fallback of 3 applies only once an
        // answer has come.
        settings.requestRetryCount = ProcessSettings::kStartupRequestRetryCount;
        settings.requestTimeout = ProcessSettings::kStartupRequestTimeout;
    }
    // A queue delay out of all proportion (or NaN, or infinite) would turn the timer into a busy
    // loop or overflow its arithmetic: it is clamped to 0.001...86400 s.
    settings.queueDelay = block && block->eventQueueDelay
                              ? clampNumber(*block->eventQueueDelay, kMinQueueDelaySeconds,
                                            kMaxQueueDelaySeconds, 0.5)
                              : 0.5;
    // The offset is minus the period in whole seconds, the division truncating toward zero, so a
    // negative period gives a positive offset (-1999 ms gives +1 s). Only its size is bounded, to
    // ten years either way, so that the cut-off date stays far from the limits of its arithmetic.
    const std::int64_t timeoutMs =
        block && block->conversionTimeout ? *block->conversionTimeout : 86400000;
    settings.conversionOffset = static_cast<double>(std::clamp<std::int64_t>(
        -(timeoutMs / 1000), -kMaxConversionOffsetSeconds, kMaxConversionOffsetSeconds));
}

void Tarn::syncTokens() {
    auto& prefs = PreferencesManager::shared();
    struct TokenSlot {
        PreferenceKey key;
        std::string current;
        TokenProviderType provider;
    } slots[2] = {{PreferenceKey::apnsToken, tarnApnsToken.get(), TokenProviderType::apns},
                  {PreferenceKey::pushToken, tarnPushToken.get(), TokenProviderType::firebase}};
    for (const auto& slot : slots) {
        auto persisted = prefs.stringValue(slot.key);
        if (persisted && *persisted == slot.current) {
            continue;
        }
        if (!slot.current.empty() && persisted) {
            sendPushTokenChange(slot.provider);
            prefs.set(slot.key, slot.current);
        }
    }
    storeTokensIfAbsent();
}

void Tarn::storeTokensIfAbsent() {
    auto& prefs = PreferencesManager::shared();
    std::pair<PreferenceKey, std::string> slots[2] = {
        {PreferenceKey::pushToken, tarnPushToken.get()},
        {PreferenceKey::apnsToken, tarnApnsToken.get()}};
    for (const auto& [key, value] : slots) {
        if (!prefs.stringValue(key) && !value.empty()) {
            prefs.set(key, value);
        }
    }
}

void Tarn::setPushToken(const std::string& pushToken) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    log("Push token set complete", logtag, LogLevel::info);
    tarnPushToken = pushToken;
    syncTokens();
}

void Tarn::setApnsToken(const std::vector<std::uint8_t>& deviceToken) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    std::string hex;
    hex.reserve(deviceToken.size() * 2);
    char pair[3];
    for (auto byte : deviceToken) {
        // The platform's own spelling of "two lower-case hex digits"; the flag is redundant there.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
        std::snprintf(pair, sizeof pair, "%02.2hhx", byte);
#pragma GCC diagnostic pop
        hex += pair;
    }
    log("Tarn apns token set complete", logtag, LogLevel::info);
    tarnApnsToken = hex;
    syncTokens();
}

std::optional<std::string> Tarn::getActorID(const std::string& appGroupID) {
    auto& prefs = PreferencesManager::shared();
    prefs.appGroupSuiteName = appGroupID;
    prefs.useAppGroup = true;
    auto actor = prefs.stringValue(PreferenceKey::actorId);
    if (actor) {
        printLine("Actor ID: " + *actor, LogLevel::info);
        return actor;
    }
    printLine("Actor ID bulunamadı.", LogLevel::warning);
    return std::nullopt;
}

void Tarn::sendPushTokenChange(TokenProviderType provider) {
    EventManager::shared().sendPushTokenChangeEvent(provider);
}

void Tarn::sendActorChangeEvent(const std::string& oldActorId, const std::string& newActorId) {
    EventManager::shared().sendActorChangeEvent(oldActorId, newActorId);
}

TarnEvent& Tarn::event() {
    return TarnEvent::shared();
}

}  // namespace tarn
