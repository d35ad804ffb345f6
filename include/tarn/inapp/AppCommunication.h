#pragma once
// The records of the in-app endpoint's answer and of the item carried by a push notification.
// Decoding and encoding live in "tarn/inapp/AppCommunicationCoding.h".

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tarn/core/Export.h"

namespace tarn {

/// Kind of presentation of a communication. Unlisted wire values decode as `unknown`.
enum class InAppType { popup, survey, unknown };
/// What an action's link means to the host. Unlisted wire values decode as `unknown`.
enum class TarnActionType { deep, url, unknown };

/// "POPUP", "SURVEY", "unknown".
TARN_API const char* rawValue(InAppType type);
/// "deep", "url", "unknown".
TARN_API const char* rawValue(TarnActionType type);

/// What a button or a communication does when picked: a link and how the host should treat it.
struct TARN_API AppCommunicationAction {
    /// The "link" member: a deep link or a URL.
    std::optional<std::string> link;
    /// The "type" member: "deep" or "url".
    std::optional<TarnActionType> type;
    /// Equal when every member is.
    bool operator==(const AppCommunicationAction&) const = default;
};

/// One button of a communication.
struct TARN_API AppCommunicationButton {
    /// The button's identifier (wire key "_id").
    std::optional<std::string> id;  // wire key "_id"
    /// The "text" member: the label.
    std::optional<std::string> text;
    /// The "textColor" member: the label's colour code.
    std::optional<std::string> textColor;
    /// The "color" member: the button's colour code.
    std::optional<std::string> color;
    /// The "action" member: what picking the button does.
    std::optional<AppCommunicationAction> action;
    /// Equal when every member is.
    bool operator==(const AppCommunicationButton&) const = default;
};

/// A text with its colour (a communication's title or body).
struct TARN_API AppCommunicationHeader {
    /// The "text" member.
    std::string text;
    /// The "color" member: a colour code.
    std::string color;
    /// Equal when every member is.
    bool operator==(const AppCommunicationHeader&) const = default;
};

/// One image of a communication.
struct TARN_API AppCommunicationImage {
    /// The "url" member: the image's address.
    std::optional<std::string> url;
    /// Equal when every member is.
    bool operator==(const AppCommunicationImage&) const = default;
};

/// The template-specific part of a communication: the survey, the buttons and the action.
struct TARN_API SubInAppCommunication {
    /// The template (wire key "template").
    std::optional<InAppType> templateType;  // wire key "template"
    /// The "surveyCode" member.
    std::optional<std::string> surveyCode;
    /// The "link" member: the survey's address.
    std::optional<std::string> link;
    /// The "buttons" member.
    std::optional<std::vector<AppCommunicationButton>> buttons;
    /// The "action" member: what tapping the communication itself does.
    std::optional<AppCommunicationAction> action;
    /// Equal when every member is.
    bool operator==(const SubInAppCommunication&) const = default;
};

/// One in-app communication of the answer.
struct TARN_API AppCommunicationItem {
    /// The "uuid" member: the communication's identifier.
    std::string uuid;
    /// The "code" member: the code its events and conversions carry.
    std::string code;
    /// The "journey" member.
    std::optional<std::string> journey;
    /// The "name" member.
    std::string name;
    /// The "expireDate" member.
    std::int64_t expireDate = 0;
    /// The template (wire key "template").
    InAppType templateType = InAppType::unknown;  // wire key "template"
    /// The "triggeringEventName" member: the custom event that shows it.
    std::string triggeringEventName;
    /// The "title" member.
    AppCommunicationHeader title;
    /// The "body" member.
    AppCommunicationHeader body;
    /// The "images" member.
    std::optional<std::vector<AppCommunicationImage>> images;
    /// The "maxShowCount" member: how often it may be shown.
    std::int64_t maxShowCount = 0;
    /// The "bgColor" member: the background's colour code.
    std::string bgColor;
    /// The "subInAppCommunication" member.
    SubInAppCommunication subInAppCommunication;
    /// The "journeyVersion" member.
    std::optional<std::int64_t> journeyVersion;
    /// The "conversionEvent" member: the event name that completes its conversion.
    std::optional<std::string> conversionEvent;
    /// Equal when every member is.
    bool operator==(const AppCommunicationItem&) const = default;
};

/// The server configuration block; every member optional, consumers apply their defaults.
struct TARN_API AppCommunicationConfiguration {
    /// The "blockAllEvents" member.
    std::optional<bool> blockAllEvents;
    /// The "offlineQueueSize" member.
    std::optional<std::int64_t> offlineQueueSize;
    /// The "inAppMaxShowDuration" member.
    std::optional<std::int64_t> inAppMaxShowDuration;
    /// The "batteryEnabled" member: whether event bodies carry the battery level.
    std::optional<bool> batteryEnabled;
    /// The "wifiStatusEnabled" member: whether event bodies carry the network status.
    std::optional<bool> wifiStatusEnabled;
    /// The "diskCapacityEnabled" member: whether event bodies carry the disk space.
    std::optional<bool> diskCapacityEnabled;
    /// The "locationEnabled" member: whether event bodies carry the location.
    std::optional<bool> locationEnabled;
    /// The "apiRequestRetryCount" member: the retry budget for 5xx answers.
    std::optional<std::int64_t> apiRequestRetryCount;
    /// The "apiRequestTimeout" member: the request time-out in seconds.
    std::optional<std::int64_t> apiRequestTimeout;
    /// The "eventQueueDelay" member: seconds between two event sends.
    std::optional<double> eventQueueDelay;
    /// The "conversionTimeout" member: the conversion period.
    std::optional<std::int64_t> conversionTimeout;
    /// Equal when every member is.
    bool operator==(const AppCommunicationConfiguration&) const = default;
};

/// The in-app endpoint's answer.
struct TARN_API AppCommunication {
    /// The communications (wire key "inAppCommunicationCommands").
    std::optional<std::vector<AppCommunicationItem>>
        model;  // wire key "inAppCommunicationCommands"
    /// The "configuration" member.
    std::optional<AppCommunicationConfiguration> configuration;
    /// Equal when every member is.
    bool operator==(const AppCommunication&) const = default;
};

/// The item carried by a push notification.
struct TARN_API NotificationAppCommunicationItem {
    /// The "uuid" member: the communication's identifier.
    std::string uuid;
    /// The "code" member: the code its events and conversions carry.
    std::optional<std::string> code;
    /// The "actorId" member.
    std::optional<std::string> actorId;
    /// The "pushToken" member: the token the notification was sent to.
    std::optional<std::string> pushToken;
    /// The "title" member.
    std::optional<std::string> title;
    /// The "message" member.
    std::optional<std::string> message;
    /// The "image" member: an image address.
    std::optional<std::string> image;
    /// The "buttons" member.
    std::optional<std::vector<AppCommunicationButton>> buttons;
    /// The "applicationName" member: sent with the push events in place of the host's.
    std::optional<std::string> applicationName;
    /// The "journey" member.
    std::optional<std::string> journey;
    /// The "action" member.
    std::optional<AppCommunicationAction> action;
    /// The "images" member: the slider's images.
    std::optional<std::vector<AppCommunicationImage>> images;
    /// The "sliderSupport" member: whether the images show as a slider.
    std::optional<bool> sliderSupport;
    /// The "category" member.
    std::optional<std::string> category;
    /// The "conversionEvent" member: the event name that completes its conversion.
    std::optional<std::string> conversionEvent;
    /// Equal when every member is.
    bool operator==(const NotificationAppCommunicationItem&) const = default;
};

/// The host's callback for the action a user picks in an in-app communication. Runs on the thread
/// the host's in-app screen reports the action on.
using ActionCallback = std::function<void(const AppCommunicationAction&)>;

}  // namespace tarn
