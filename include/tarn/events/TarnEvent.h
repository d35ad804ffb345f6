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

#include "tarn/core/Export.h"
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
    /// Parameters the call takes over (a temporary).
    EventParameters(nlohmann::json&& parameters)  // NOLINT(google-explicit-constructor)
        : owned_(std::move(parameters)), value_(&*owned_) {}
    /// The parameters the optional holds, or none; read during the call.
    EventParameters(const std::optional<nlohmann::json>& parameters)  // NOLINT
        : value_(parameters ? &*parameters : nullptr) {}
    /// The parameters a temporary optional holds, or none.
    EventParameters(std::optional<nlohmann::json>&& parameters)  // NOLINT
        : owned_(std::move(parameters)), value_(owned_ ? &*owned_ : nullptr) {}
    /// An object (or array) written in place, with nlohmann::json's own rules.
    EventParameters(nlohmann::json::initializer_list_t init)  // NOLINT
        : owned_(nlohmann::json(init)), value_(&*owned_) {}

    EventParameters(const EventParameters&) = delete;             ///< Not copied: it may borrow.
    EventParameters& operator=(const EventParameters&) = delete;  ///< Not copied: it may borrow.

    /// The parameters, or nullptr for none.
    const nlohmann::json* get() const { return value_; }

  private:
    std::optional<nlohmann::json> owned_;
    const nlohmann::json* value_ = nullptr;
};

/// The host's event calls (see above). One process-wide instance; every call may be made from any
/// thread.
class TARN_API TarnEvent {
  public:
    /// The one instance, created on first use and never destroyed.
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
    /// Sends "page_out" for the screen; see `sendPageInEvent`.
    void sendPageOutEvent(ScreenRef controller, std::optional<std::string> pageName = std::nullopt);
    /// Manual lifecycle tracking; ignored while automatic lifecycle tracking is on or without a
    /// screen.
    void sendAppBackgroundEvent(ScreenRef controller,
                                std::optional<std::string> pageName = std::nullopt);
    /// Sends "app_foreground"; see `sendAppBackgroundEvent`.
    void sendAppForegroundEvent(ScreenRef controller,
                                std::optional<std::string> pageName = std::nullopt);
    /// "application_error" with the error's message and type name.
    void sendApplicationErrorEvent(const std::exception& error);
    /// "application_error" with the error code's message and category name.
    void sendApplicationErrorEvent(const std::error_code& error);
    /// Push interactions; `notification` is the notification's user-info dictionary, whose "data"
    /// member holds the push item's JSON text.
    void sendPushNotificationClickedEvent(const nlohmann::json& notification);
    /// The push notification was dismissed.
    void sendPushNotificationDismissedEvent(const nlohmann::json& notification);
    /// The push notification was received.
    void sendPushNotificationReceivedEvent(const nlohmann::json& notification);
    /// The user denied notifications.
    void sendPushNotificationDeniedEvent(const nlohmann::json& notification);
};

}  // namespace tarn
