#pragma once
// Event records and the one JSON body each becomes.
//
// A record carries its own fields; `dictionary()` builds the body in layers: the record's own
// dictionary (its initial parameters, then its fields under their field names, absent optionals
// left out), wrapped as "parameters" with "loggedIn"; then the primary keys ("actorId", "channel",
// "sync", "journeys", a fresh upper-case "requestId", "name", "isActive"); then, inside
// "parameters", the conversion code, the device facts, the location and the SDK keys. A key written
// by a later layer replaces the host's key of the same name. `serializedBody()` writes the same
// JSON text in one pass, without building the tree: keys in the same (byte-wise) order, strings
// escaped the same way; a host string that is not UTF-8 fails it as it fails the dump.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
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

struct EventRecord;

/// The values of a body's shared sections, read once for one body: what the device, the facade
/// and the notification settings report at that moment, with a fresh request identifier. The
/// device facts that are kept until the system announces a change (battery, network status, time
/// zone) are those of the moment the body's reading starts: announcements made while it reads
/// are seen by the next body.
struct BodySections {
    bool loggedIn = false;
    std::string requestId;
    std::optional<std::string> battery;
    std::optional<std::string> networkStatus;
    std::optional<std::pair<std::string, std::string>> disk;  // free, total
    std::string deviceId;
    std::string phoneModel;
    std::string timeZone;
    std::string osVersion;
    std::int64_t timestamp = 0;
    std::optional<std::string> notificationPermission;
    std::optional<std::pair<std::string, std::string>> location;  // longitude, latitude
    std::string applicationName;
    std::string pushToken;  // left out when empty
    std::string apnsToken;  // left out when empty

    /// Reads every value for `record` now.
    static BodySections read(const EventRecord& record);
};

/// One own field of a record whose value is a plain string.
struct TextField {
    std::string_view key;
    std::string_view value;
};

/// The fields every record has, and the body building they share.
struct EventRecord {
    std::vector<std::string> journeys;
    std::string actorId;
    std::string name;
    std::optional<std::string> communucationCode;

    virtual ~EventRecord() = default;
    /// The record's own fields under their field names, absent optionals left out.
    /// By default the text fields (`appendTextFields`) as an object; records with other values
    /// override it.
    virtual nlohmann::json ownFields() const;
    /// The own fields when every one is a string: appends them to `fields` and answers true (the
    /// one-pass body writes them as they stand); false, appending nothing, when the record
    /// overrides `ownFields` instead.
    virtual bool appendTextFields(std::vector<TextField>& /*fields*/) const { return false; }
    /// The host's initial parameters when they form an object; they come first in the record's
    /// own dictionary.
    virtual const nlohmann::json* initialParameterObject() const { return nullptr; }
    /// The record's own dictionary: the initial parameters, then the own fields over them.
    nlohmann::json ownDictionary() const;
    /// For the in-app and push records: the communication they report.
    virtual std::optional<ReportedCommunication> reportedCommunication() const {
        return std::nullopt;
    }
    /// The application name given with the event, when it carries one.
    virtual std::optional<std::string> applicationNameOverride() const { return std::nullopt; }
    /// The complete body as a JSON object. Every call makes a new "requestId" and "timestamp".
    nlohmann::json dictionary() const;
    /// The body built from sections already read.
    nlohmann::json dictionary(const BodySections& sections) const;
    /// The body as JSON text, written in one pass; the same bytes as the dump of `dictionary`
    /// for the same sections. Throws `nlohmann::json::type_error`, as that dump does, when a
    /// string is not UTF-8; nothing else from the host makes it throw.
    std::string serializedBody() const;
    std::string serializedBody(const BodySections& sections) const;
};

struct InitializeEvent : EventRecord {
    bool appendTextFields(std::vector<TextField>& /*fields*/) const override { return true; }
};

struct PageInOutEvent : EventRecord {
    std::optional<std::string> pageName;
    std::optional<nlohmann::json> initialParameters;
    PageInOutEventType eventType = PageInOutEventType::pageIn;
    bool appendTextFields(std::vector<TextField>& fields) const override;
    const nlohmann::json* initialParameterObject() const override {
        return initialParameters && initialParameters->is_object() ? &*initialParameters : nullptr;
    }
};

struct AppGroundStatusEvent : EventRecord {
    std::optional<std::string> pageName;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

struct CustomEvent : EventRecord {
    std::optional<std::string> pageName;
    /// The class name of the screen the event was raised on.
    std::optional<std::string> controller;
    std::optional<nlohmann::json> initialParameters;
    /// Parameters the caller keeps alive while the record is in use; they win over
    /// `initialParameters` and are never copied.
    const nlohmann::json* borrowedParameters = nullptr;
    bool appendTextFields(std::vector<TextField>& fields) const override;
    const nlohmann::json* initialParameterObject() const override {
        const auto* parameters = borrowedParameters
                                     ? borrowedParameters
                                     : (initialParameters ? &*initialParameters : nullptr);
        return parameters && parameters->is_object() ? parameters : nullptr;
    }
};

struct LoginEvent : CustomEvent {};

struct LogoutEvent : EventRecord {
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

struct ActorChangeEvent : EventRecord {
    std::string newActorId;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

struct InstallEvent : EventRecord {
    std::optional<std::string> configurationActorId;
    bool anonymous = false;
    nlohmann::json ownFields() const override;
};

struct ApplicationErrorEvent : EventRecord {
    std::string errorMessage;
    std::string errorType;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

struct PushTokenChangeEvent : EventRecord {
    TokenProviderType tokenProvider = TokenProviderType::firebase;
    bool appendTextFields(std::vector<TextField>& fields) const override;
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
    nlohmann::json ownFields() const override;
    std::optional<ReportedCommunication> reportedCommunication() const override;
};
struct InAppOpenedEvent : InAppEvent {};
struct InAppDismissedEvent : InAppEvent {};
struct InAppSelfClickedEvent : InAppEvent {};
struct InAppButtonClickedEvent : InAppEvent {
    AppCommunicationButton button;
    nlohmann::json ownFields() const override;
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
    nlohmann::json ownFields() const override;
    std::optional<ReportedCommunication> reportedCommunication() const override;
    std::optional<std::string> applicationNameOverride() const override {
        return customApplicationName;
    }
};

/// The shortest decimal text that reads back as the same double (41.0082 gives "41.0082").
std::string shortestDecimalText(double value);

}  // namespace tarn
