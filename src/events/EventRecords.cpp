#include "tarn/events/EventRecords.h"

#include <charconv>
#include <chrono>
#include <cmath>

#include "tarn/core/Fatal.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/device/DeviceInfo.h"
#include "tarn/events/NotificationSettings.h"
#include "tarn/store/ConversionManager.h"

namespace tarn {

namespace {

void putOptional(nlohmann::json& dict, const char* key, const std::optional<std::string>& value) {
    if (value) {
        dict[key] = *value;
    }
}

nlohmann::json startFrom(const std::optional<nlohmann::json>& initialParameters) {
    if (initialParameters && initialParameters->is_object()) {
        return *initialParameters;
    }
    return nlohmann::json::object();
}

std::int64_t currentMilliseconds() {
    double seconds =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    double product = seconds * 1000.0;
    if (!std::isfinite(product) || product >= 9.2233720368547758e18 ||
        product < -9.2233720368547758e18) {
        TARN_FATAL("The current time in milliseconds does not fit a 64-bit integer");
    }
    return static_cast<std::int64_t>(product);
}

}  // namespace

std::string shortestDecimalText(double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

nlohmann::json EventRecord::dictionary() const {
    auto& tarn = Tarn::shared();
    // 1.-2. Own dictionary, wrapped with "loggedIn".
    nlohmann::json parameters = ownDictionary();
    parameters["loggedIn"] = tarn.loggedIn.load();
    nlohmann::json body = nlohmann::json::object();
    body["parameters"] = std::move(parameters);
    // 3. Primary section.
    body["actorId"] = actorId;
    body["channel"] = "MOBILE";
    body["sync"] = "a";
    body["journeys"] = journeys;
    body["requestId"] = makeUuidString();
    body["name"] = name;
    body["isActive"] = true;
    // 4. Conversion section.
    ConversionManager::applyConversionCode(body, communucationCode);
    auto& params = body["parameters"];
    // 5. Device section.
    auto device = deviceInfoProvider();
    if (tarn.isBatteryStatusRequired) {
        params["battery"] = device->batteryLevel();
    }
    if (tarn.isWifiStatusRequired) {
        if (auto network = device->networkStatus()) {
            params["networkStatus"] = *network;
        }
    }
    if (tarn.isDiskCapacityRequired) {
        auto [available, total] = device->diskCapacities();
        params["freeDisk"] = std::move(available);
        params["totalDisk"] = std::move(total);
    }
    params["deviceId"] = device->deviceId();
    params["deviceOs"] = "IOS";
    params["phoneBrand"] = "Apple";
    params["phoneModel"] = device->modelName();
    params["timeZone"] = device->timeZone();
    params["deviceOsVersion"] = device->osVersion();
    params["timestamp"] = currentMilliseconds();
    if (auto permission = NotificationManager::shared().permissionStatus()) {
        params[NotificationManager::kEventKey] = *permission;
    }
    // 6. Location section.
    if (tarn.isLocationRequired) {
        if (auto location = device->location()) {
            params["longitude"] = shortestDecimalText(location->second);
            params["latitude"] = shortestDecimalText(location->first);
        }
    }
    // 7. SDK section.
    params["sdkVersion"] = "0.0.1";
    params["applicationName"] = applicationNameOverride().value_or(tarn.applicationName.get());
    if (auto push = tarn.tarnPushToken.get(); !push.empty()) {
        params["pushToken"] = push;
    }
    if (auto apns = tarn.tarnApnsToken.get(); !apns.empty()) {
        params["apnsToken"] = apns;
    }
    return body;
}

nlohmann::json InitializeEvent::ownDictionary() const {
    return nlohmann::json::object();
}

nlohmann::json PageInOutEvent::ownDictionary() const {
    auto dict = startFrom(initialParameters);
    putOptional(dict, "pageName", pageName);
    dict["eventType"] = rawValue(eventType);
    return dict;
}

nlohmann::json AppGroundStatusEvent::ownDictionary() const {
    auto dict = nlohmann::json::object();
    putOptional(dict, "pageName", pageName);
    return dict;
}

nlohmann::json CustomEvent::ownDictionary() const {
    auto dict = startFrom(initialParameters);
    putOptional(dict, "pageName", pageName);
    putOptional(dict, "controller", controller);
    return dict;
}

nlohmann::json LogoutEvent::ownDictionary() const {
    return nlohmann::json::object();
}

nlohmann::json ActorChangeEvent::ownDictionary() const {
    return {{"newActorId", newActorId}};
}

nlohmann::json InstallEvent::ownDictionary() const {
    auto dict = nlohmann::json{{"anonymous", anonymous}};
    putOptional(dict, "configurationActorId", configurationActorId);
    return dict;
}

nlohmann::json ApplicationErrorEvent::ownDictionary() const {
    return {{"errorMessage", errorMessage}, {"errorType", errorType}};
}

nlohmann::json PushTokenChangeEvent::ownDictionary() const {
    return {{"tokenProvider", rawValue(tokenProvider)}};
}

nlohmann::json InAppEvent::ownDictionary() const {
    auto dict = nlohmann::json::object();
    dict["communicationCode"] = communication.code;
    dict["communicationTemplate"] = rawValue(communication.templateType);
    dict["communicationName"] = communication.name;
    dict["communicationId"] = communication.uuid;
    putOptional(dict, "pageName", pageName);
    putOptional(dict, "conversionEvent", conversionEvent);
    return dict;
}

std::optional<ReportedCommunication> InAppEvent::reportedCommunication() const {
    return ReportedCommunication{communication.code, conversionEvent};
}

nlohmann::json InAppButtonClickedEvent::ownDictionary() const {
    auto dict = InAppEvent::ownDictionary();
    putOptional(dict, "buttonId", button.id);
    putOptional(dict, "buttonText", button.text);
    return dict;
}

nlohmann::json PushNotificationEvent::ownDictionary() const {
    auto dict = nlohmann::json::object();
    dict["eventType"] = rawValue(eventType);
    putOptional(dict, "buttonId", buttonId);
    putOptional(dict, "buttonText", buttonText);
    putOptional(dict, "customApplicationName", customApplicationName);
    putOptional(dict, "conversionEvent", conversionEvent);
    dict["code"] = code;
    dict["communicationId"] = communicationId;
    dict["pushTokenForNotification"] = pushTokenForNotification;
    return dict;
}

std::optional<ReportedCommunication> PushNotificationEvent::reportedCommunication() const {
    return ReportedCommunication{code, conversionEvent};
}

}  // namespace tarn
