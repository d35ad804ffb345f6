#pragma once
// The host's event API.
//
// Every call runs on the caller's thread (the host's UI thread in practice), stores the event in
// the offline queue and returns without waiting for the network; the queue's timer on the main
// queue sends it later. No call reports failure to the host.

#include <exception>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <system_error>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunication.h"
#include "tarn/platform/Screen.h"

namespace tarn {

/// The parameters of an event, as a call site writes them:
/// - `{}`: empty parameters (an empty object);
/// - `{{"sku", "A-42"}, {"qty", 2}}`: an object written in place;
/// - a `nlohmann::json` value the host keeps: read during the call, never copied;
/// - a temporary `nlohmann::json` or a `std::optional<nlohmann::json>`;
/// - `std::nullopt`: no parameters.
/// A value of this type only lives for the call it is passed to; never keep one.
class EventParameters {
  public:
    /// Empty parameters (`{}`).
    EventParameters() : owned_(nlohmann::json::object()), value_(&*owned_) {}
    /// No parameters.
    EventParameters(std::nullopt_t) {}  // NOLINT(google-explicit-constructor)
    /// Parameters the caller keeps until the call returns.
    EventParameters(const nlohmann::json& parameters)  // NOLINT(google-explicit-constructor)
        : value_(&parameters) {}
    EventParameters(nlohmann::json&& parameters)  // NOLINT(google-explicit-constructor)
        : owned_(std::move(parameters)), value_(&*owned_) {}
    EventParameters(const std::optional<nlohmann::json>& parameters)  // NOLINT
        : value_(parameters ? &*parameters : nullptr) {}
    EventParameters(std::optional<nlohmann::json>&& parameters)  // NOLINT
        : owned_(std::move(parameters)), value_(owned_ ? &*owned_ : nullptr) {}
    /// An object (or array) written in place, with nlohmann::json's own rules.
    EventParameters(nlohmann::json::initializer_list_t init)  // NOLINT
        : owned_(nlohmann::json(init)), value_(&*owned_) {}

    EventParameters(const EventParameters&) = delete;
    EventParameters& operator=(const EventParameters&) = delete;

    /// The parameters, or nullptr for none.
    const nlohmann::json* get() const { return value_; }

  private:
    std::optional<nlohmann::json> owned_;
    const nlohmann::json* value_ = nullptr;
};

class TarnEvent {
  public:
    static TarnEvent& shared();
    /// Use `shared()`.
    TarnEvent();

    /// A custom event; it may show the in-app communication that names it. `initialParameters`
    /// takes any of the forms `EventParameters` lists (`{}`, `{{"sku", "A-42"}}`, a json value,
    /// `std::nullopt`). `onActionRequired` gets the action a user picks in that communication, on
    /// the thread the in-app screen reports it (the GUI thread with the Qt integration).
    void sendCustomEvent(ScreenRef controller, std::optional<std::string> pageName,
                         const std::string& eventName,
                         const EventParameters& initialParameters = std::nullopt,
                         ActionCallback onActionRequired = nullptr);
    /// Logs the actor in: marks the session logged in, switches the actor to `actorID` (blank
    /// identifiers are refused) and sends "login".
    void sendLoginEvent(ScreenRef controller, std::optional<std::string> pageName,
                        const std::string& actorID,
                        const EventParameters& initialParameters = std::nullopt);
    /// Sends "logout" for the current actor, then switches to the stored guest identifier.
    void sendLogoutEvent();
    /// Manual page tracking; ignored while automatic page tracking is on or without a screen.
    void sendPageInEvent(ScreenRef controller, std::optional<std::string> pageName = std::nullopt);
    void sendPageOutEvent(ScreenRef controller, std::optional<std::string> pageName = std::nullopt);
    /// Manual lifecycle tracking; ignored while automatic lifecycle tracking is on or without a
    /// screen.
    void sendAppBackgroundEvent(ScreenRef controller,
                                std::optional<std::string> pageName = std::nullopt);
    void sendAppForegroundEvent(ScreenRef controller,
                                std::optional<std::string> pageName = std::nullopt);
    /// "application_error" with the error's message and type name.
    void sendApplicationErrorEvent(const std::exception& error);
    void sendApplicationErrorEvent(const std::error_code& error);
    /// Push interactions; `notification` is the notification's user-info dictionary, whose "data"
    /// member holds the push item's JSON text.
    void sendPushNotificationClickedEvent(const nlohmann::json& notification);
    void sendPushNotificationDismissedEvent(const nlohmann::json& notification);
    void sendPushNotificationReceivedEvent(const nlohmann::json& notification);
    void sendPushNotificationDeniedEvent(const nlohmann::json& notification);
};

}  // namespace tarn
