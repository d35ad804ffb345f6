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

#include "tarn/core/Export.h"
#include "tarn/core/Types.h"
#include "tarn/events/TarnEventType.h"
#include "tarn/inapp/AppCommunication.h"

namespace tarn {

/// What a record that reports a communication hands to conversion tracking.
struct TARN_API ReportedCommunication {
    /// The communication's code.
    std::string code;
    /// The event name that completes its conversion, when it has one.
    std::optional<std::string> conversionEvent;
};

struct EventRecord;

/// The values of a body's shared sections, read once for one body: what the device, the facade
/// and the notification settings report at that moment, with a fresh request identifier. The
/// device facts that are kept until the system announces a change (battery, network status, time
/// zone) are those of the moment the body's reading starts: announcements made while it reads
/// are seen by the next body.
struct TARN_API BodySections {
    /// Whether an actor is logged in ("loggedIn").
    bool loggedIn = false;
    /// The body's fresh upper-case "requestId".
    std::string requestId;
    /// Battery level, when required.
    std::optional<std::string> battery;
    /// Network status, when required.
    std::optional<std::string> networkStatus;
    /// Free and total disk space, when required.
    std::optional<std::pair<std::string, std::string>> disk;  // free, total
    /// The device identifier.
    std::string deviceId;
    /// The device's model name.
    std::string phoneModel;
    /// The time zone's identifier.
    std::string timeZone;
    /// The system's version.
    std::string osVersion;
    /// The body's "timestamp".
    std::int64_t timestamp = 0;
    /// The notification permission status, when known.
    std::optional<std::string> notificationPermission;
    /// Longitude and latitude, when required and known.
    std::optional<std::pair<std::string, std::string>> location;  // longitude, latitude
    /// The application name the body carries.
    std::string applicationName;
    /// The push provider's token.
    std::string pushToken;  // left out when empty
    /// The platform device token.
    std::string apnsToken;  // left out when empty

    /// Reads every value for `record` now.
    static BodySections read(const EventRecord& record);
};

/// One own field of a record whose value is a plain string.
struct TARN_API TextField {
    /// The field's name.
    std::string_view key;
    /// The field's value.
    std::string_view value;
};

/// The fields every record has, and the body building they share.
struct TARN_API EventRecord {
    /// The journeys list ("journeys").
    std::vector<std::string> journeys;
    /// The actor the event is about ("actorId").
    std::string actorId;
    /// The event name ("name").
    std::string name;
    /// The code of a communication whose conversion this event completes.
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
    /// The body built from sections already read, as JSON text in one pass.
    std::string serializedBody(const BodySections& sections) const;
};

/// "sdk_initialize".
struct TARN_API InitializeEvent : EventRecord {
    bool appendTextFields(std::vector<TextField>& /*fields*/) const override { return true; }
};

/// "page_in" or "page_out".
struct TARN_API PageInOutEvent : EventRecord {
    /// The page name.
    std::optional<std::string> pageName;
    /// The host's parameters.
    std::optional<nlohmann::json> initialParameters;
    /// Page in or page out.
    PageInOutEventType eventType = PageInOutEventType::pageIn;
    bool appendTextFields(std::vector<TextField>& fields) const override;
    const nlohmann::json* initialParameterObject() const override {
        return initialParameters && initialParameters->is_object() ? &*initialParameters : nullptr;
    }
};

/// "app_background" or "app_foreground".
struct TARN_API AppGroundStatusEvent : EventRecord {
    /// The page name.
    std::optional<std::string> pageName;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

/// A custom event of the host.
struct TARN_API CustomEvent : EventRecord {
    /// The page name.
    std::optional<std::string> pageName;
    /// The class name of the screen the event was raised on.
    std::optional<std::string> controller;
    /// The host's parameters, when the record owns them.
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

/// "login": a custom event that logs the actor in.
struct TARN_API LoginEvent : CustomEvent {};

/// "logout".
struct TARN_API LogoutEvent : EventRecord {
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

/// "actor_change".
struct TARN_API ActorChangeEvent : EventRecord {
    /// The new actor identifier.
    std::string newActorId;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

/// "install".
struct TARN_API InstallEvent : EventRecord {
    /// The actor identifier the host configured, when it gave one.
    std::optional<std::string> configurationActorId;
    /// True when the host configured no actor identifier (the install runs under a guest one).
    bool anonymous = false;
    nlohmann::json ownFields() const override;
};

/// "application_error".
struct TARN_API ApplicationErrorEvent : EventRecord {
    /// The error's message.
    std::string errorMessage;
    /// The error's type name.
    std::string errorType;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

/// A push token change.
struct TARN_API PushTokenChangeEvent : EventRecord {
    /// Which provider's token changed.
    TokenProviderType tokenProvider = TokenProviderType::firebase;
    bool appendTextFields(std::vector<TextField>& fields) const override;
};

/// The four in-app interactions. Their dictionary holds "communicationCode",
/// "communicationTemplate" ("POPUP", "SURVEY" or "unknown"), "communicationName",
/// "communicationId", the button's "buttonId"/"buttonText" when present, "pageName" and
/// "conversionEvent" when present.
struct TARN_API InAppEvent : EventRecord {
    /// The page name.
    std::optional<std::string> pageName;
    /// The communication the interaction is about.
    AppCommunicationItem communication;
    /// Which interaction.
    InAppEventType inAppEventType = InAppEventType::opened;
    /// The event name that completes its conversion, when it has one.
    std::optional<std::string> conversionEvent;
    nlohmann::json ownFields() const override;
    std::optional<ReportedCommunication> reportedCommunication() const override;
};
/// The communication was shown.
struct TARN_API InAppOpenedEvent : InAppEvent {};
/// The communication was dismissed.
struct TARN_API InAppDismissedEvent : InAppEvent {};
/// The communication itself was tapped.
struct TARN_API InAppSelfClickedEvent : InAppEvent {};
/// A button of the communication was tapped.
struct TARN_API InAppButtonClickedEvent : InAppEvent {
    /// The button.
    AppCommunicationButton button;
    nlohmann::json ownFields() const override;
};

/// A push interaction: received, clicked, dismissed or denied.
struct TARN_API PushNotificationEvent : EventRecord {
    /// Which interaction.
    PushNotificationEventType eventType = PushNotificationEventType::received;
    /// The tapped button's identifier.
    std::optional<std::string> buttonId;
    /// The tapped button's text.
    std::optional<std::string> buttonText;
    /// The push item's application name, which replaces the host's.
    std::optional<std::string> customApplicationName;
    /// The event name that completes its conversion, when it has one.
    std::optional<std::string> conversionEvent;
    /// The communication's code.
    std::string code;
    /// The communication's identifier.
    std::string communicationId;
    /// The push item's token, else the host's push token.
    std::string pushTokenForNotification;
    nlohmann::json ownFields() const override;
    std::optional<ReportedCommunication> reportedCommunication() const override;
    std::optional<std::string> applicationNameOverride() const override {
        return customApplicationName;
    }
};

/// The shortest decimal text that reads back as the same double (41.0082 gives "41.0082").
TARN_API std::string shortestDecimalText(double value);

}  // namespace tarn
