#pragma once
// The records of the in-app endpoint's answer and of the item carried by a push notification.
// Decoding and encoding live in "tarn/inapp/AppCommunicationCoding.h".

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// Kind of presentation of a communication. Unlisted wire values decode as `unknown`.
enum class InAppType { popup, survey, unknown };
/// What an action's link means to the host. Unlisted wire values decode as `unknown`.
enum class TarnActionType { deep, url, unknown };

/// "POPUP", "SURVEY", "unknown".
const char* rawValue(InAppType type);
/// "deep", "url", "unknown".
const char* rawValue(TarnActionType type);

struct AppCommunicationAction {
    std::optional<std::string> link;
    std::optional<TarnActionType> type;
    bool operator==(const AppCommunicationAction&) const = default;
};

struct AppCommunicationButton {
    std::optional<std::string> id;  // wire key "_id"
    std::optional<std::string> text;
    std::optional<std::string> textColor;
    std::optional<std::string> color;
    std::optional<AppCommunicationAction> action;
    bool operator==(const AppCommunicationButton&) const = default;
};

struct AppCommunicationHeader {
    std::string text;
    std::string color;
    bool operator==(const AppCommunicationHeader&) const = default;
};

struct AppCommunicationImage {
    std::optional<std::string> url;
    bool operator==(const AppCommunicationImage&) const = default;
};

struct SubInAppCommunication {
    std::optional<InAppType> templateType;  // wire key "template"
    std::optional<std::string> surveyCode;
    std::optional<std::string> link;
    std::optional<std::vector<AppCommunicationButton>> buttons;
    std::optional<AppCommunicationAction> action;
    bool operator==(const SubInAppCommunication&) const = default;
};

struct AppCommunicationItem {
    std::string uuid;
    std::string code;
    std::optional<std::string> journey;
    std::string name;
    std::int64_t expireDate = 0;
    InAppType templateType = InAppType::unknown;  // wire key "template"
    std::string triggeringEventName;
    AppCommunicationHeader title;
    AppCommunicationHeader body;
    std::optional<std::vector<AppCommunicationImage>> images;
    std::int64_t maxShowCount = 0;
    std::string bgColor;
    SubInAppCommunication subInAppCommunication;
    std::optional<std::int64_t> journeyVersion;
    std::optional<std::string> conversionEvent;
    bool operator==(const AppCommunicationItem&) const = default;
};

/// The server configuration block; every member optional, consumers apply their defaults.
struct AppCommunicationConfiguration {
    std::optional<bool> blockAllEvents;
    std::optional<std::int64_t> offlineQueueSize;
    std::optional<std::int64_t> inAppMaxShowDuration;
    std::optional<bool> batteryEnabled;
    std::optional<bool> wifiStatusEnabled;
    std::optional<bool> diskCapacityEnabled;
    std::optional<bool> locationEnabled;
    std::optional<std::int64_t> apiRequestRetryCount;
    std::optional<std::int64_t> apiRequestTimeout;
    std::optional<double> eventQueueDelay;
    std::optional<std::int64_t> conversionTimeout;
    bool operator==(const AppCommunicationConfiguration&) const = default;
};

/// The in-app endpoint's answer.
struct AppCommunication {
    std::optional<std::vector<AppCommunicationItem>>
        model;  // wire key "inAppCommunicationCommands"
    std::optional<AppCommunicationConfiguration> configuration;
    bool operator==(const AppCommunication&) const = default;
};

/// The item carried by a push notification.
struct NotificationAppCommunicationItem {
    std::string uuid;
    std::optional<std::string> code;
    std::optional<std::string> actorId;
    std::optional<std::string> pushToken;
    std::optional<std::string> title;
    std::optional<std::string> message;
    std::optional<std::string> image;
    std::optional<std::vector<AppCommunicationButton>> buttons;
    std::optional<std::string> applicationName;
    std::optional<std::string> journey;
    std::optional<AppCommunicationAction> action;
    std::optional<std::vector<AppCommunicationImage>> images;
    std::optional<bool> sliderSupport;
    std::optional<std::string> category;
    std::optional<std::string> conversionEvent;
    bool operator==(const NotificationAppCommunicationItem&) const = default;
};

/// The host's callback for the action a user picks in an in-app communication. Runs on the thread
/// the host's in-app screen reports the action on.
using ActionCallback = std::function<void(const AppCommunicationAction&)>;

}  // namespace tarn
