#pragma once
// Event records and the one JSON body each becomes.
//
// A record carries its own fields; `dictionary()` builds the body in layers: the record's own
// dictionary (its initial parameters, then its fields under their field names, absent optionals
// left out), wrapped as "parameters" with "loggedIn"; then the primary keys ("actorId", "channel",
// "sync", "journeys", a fresh upper-case "requestId", "name", "isActive"); then, inside
// "parameters", the conversion code, the device facts, the location and the SDK keys. A key written
// by a later layer replaces the host's key of the same name.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tarn/core/Types.h"
#include "tarn/events/TarnEventType.h"
#include "tarn/inapp/AppCommunication.h"

namespace tarn {

/// What a record that reports a communication hands to conversion tracking.
struct ReportedCommunication {
    std::string code;
    std::optional<std::string> conversionEvent;
};

/// The fields every record has, and the body building they share.
struct EventRecord {
    std::vector<std::string> journeys;
    std::string actorId;
    std::string name;
    std::optional<std::string> communucationCode;

    virtual ~EventRecord() = default;
    /// The record's own dictionary: the first layer of the body.
    virtual nlohmann::json ownDictionary() const = 0;
    /// For the in-app and push records: the communication they report.
    virtual std::optional<ReportedCommunication> reportedCommunication() const {
        return std::nullopt;
    }
    /// The application name given with the event, when it carries one.
    virtual std::optional<std::string> applicationNameOverride() const { return std::nullopt; }
    /// The complete body as a JSON object. Every call makes a new "requestId" and "timestamp".
    nlohmann::json dictionary() const;
};

struct InitializeEvent : EventRecord {
    nlohmann::json ownDictionary() const override;
};

struct PageInOutEvent : EventRecord {
    std::optional<std::string> pageName;
    std::optional<nlohmann::json> initialParameters;
    PageInOutEventType eventType = PageInOutEventType::pageIn;
    nlohmann::json ownDictionary() const override;
};

struct AppGroundStatusEvent : EventRecord {
    std::optional<std::string> pageName;
    nlohmann::json ownDictionary() const override;
};

struct CustomEvent : EventRecord {
    std::optional<std::string> pageName;
    /// The class name of the screen the event was raised on.
    std::optional<std::string> controller;
    std::optional<nlohmann::json> initialParameters;
    nlohmann::json ownDictionary() const override;
};

struct LoginEvent : CustomEvent {};

struct LogoutEvent : EventRecord {
    nlohmann::json ownDictionary() const override;
};

struct ActorChangeEvent : EventRecord {
    std::string newActorId;
    nlohmann::json ownDictionary() const override;
};

struct InstallEvent : EventRecord {
    std::optional<std::string> configurationActorId;
    bool anonymous = false;
    nlohmann::json ownDictionary() const override;
};

struct ApplicationErrorEvent : EventRecord {
    std::string errorMessage;
    std::string errorType;
    nlohmann::json ownDictionary() const override;
};

struct PushTokenChangeEvent : EventRecord {
    TokenProviderType tokenProvider = TokenProviderType::firebase;
    nlohmann::json ownDictionary() const override;
};

/// The four in-app interactions. Their dictionary holds "communicationCode",
/// "communicationTemplate" ("POPUP", "SURVEY" or "unknown"), "communicationName",
/// "communicationId", the button's "buttonId"/"buttonText" when present, "pageName" and
/// "conversionEvent" when present.
struct InAppEvent : EventRecord {
    std::optional<std::string> pageName;
    AppCommunicationItem communication;
    InAppEventType inAppEventType = InAppEventType::opened;
    std::optional<std::string> conversionEvent;
    nlohmann::json ownDictionary() const override;
    std::optional<ReportedCommunication> reportedCommunication() const override;
};
struct InAppOpenedEvent : InAppEvent {};
struct InAppDismissedEvent : InAppEvent {};
struct InAppSelfClickedEvent : InAppEvent {};
struct InAppButtonClickedEvent : InAppEvent {
    AppCommunicationButton button;
    nlohmann::json ownDictionary() const override;
};

struct PushNotificationEvent : EventRecord {
    PushNotificationEventType eventType = PushNotificationEventType::received;
    std::optional<std::string> buttonId;
    std::optional<std::string> buttonText;
    std::optional<std::string> customApplicationName;
    std::optional<std::string> conversionEvent;
    std::string code;
    std::string communicationId;
    std::string pushTokenForNotification;
    nlohmann::json ownDictionary() const override;
    std::optional<ReportedCommunication> reportedCommunication() const override;
    std::optional<std::string> applicationNameOverride() const override {
        return customApplicationName;
    }
};

/// The shortest decimal text that reads back as the same double (41.0082 gives "41.0082").
std::string shortestDecimalText(double value);

}  // namespace tarn
