#pragma once
// The host's event API.
//
// Every call runs on the caller's thread (the host's UI thread in practice), stores the event in
// the offline queue and returns without waiting for the network; the queue's timer on the main
// queue sends it later. No call reports failure to the host.

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <system_error>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunication.h"
#include "tarn/platform/Screen.h"

namespace tarn {

class TarnEvent {
  public:
    static TarnEvent& shared();

    /// A custom event; it may show the in-app communication that names it.
    void sendCustomEvent(ScreenRef controller, std::optional<std::string> pageName,
                         const std::string& eventName,
                         std::optional<nlohmann::json> initialParameters = std::nullopt,
                         ActionCallback onActionRequired = nullptr);
    /// As above, with parameters the host keeps: they are read during the call, never copied.
    void sendCustomEvent(ScreenRef controller, std::optional<std::string> pageName,
                         const std::string& eventName, const nlohmann::json& initialParameters,
                         ActionCallback onActionRequired = nullptr);
    /// Logs the actor in: marks the session logged in, switches the actor to `actorID` (blank
    /// identifiers are refused) and sends "login".
    void sendLoginEvent(ScreenRef controller, std::optional<std::string> pageName,
                        const std::string& actorID,
                        std::optional<nlohmann::json> initialParameters = std::nullopt);
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
