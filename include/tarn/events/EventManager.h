#pragma once
// The one road of every event: build the record, refresh the notification permission, arm and
// check conversions, store the body in the offline queue and make sure the queue's timer runs.

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/core/Types.h"
#include "tarn/events/EventRecords.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Screen.h"

namespace tarn {

/// Sends one record down the pipeline.
class TARN_API EventSendable {
  public:
    virtual ~EventSendable() = default;
    /// Builds the record's body and stores it in the offline queue.
    virtual void send(EventRecord& record) = 0;
};

/// The handlers of every event kind. Each builds its record from the arguments and the facade's
/// state and runs `send`. Handlers run on the caller's thread.
///
/// Decisions of this library: a record arms a conversion marker when it reports a communication
/// with a `conversionEvent` and is an in-app "opened" or a push "clicked" event (the user saw the
/// communication), so one showing arms one marker. While the server's configuration block says
/// `blockAllEvents`, `send` drops every event (logged, not stored). The journeys list of every
/// record is `processSettings().journeys`, empty unless the host fills it.
class TARN_API EventManager : public EventSendable {
  public:
    /// The one instance, created on first use and never destroyed.
    static EventManager& shared();
    /// Connects the layers below to the shared manager: a new actor identifier, a lifecycle or
    /// page moment and a tap on an in-app screen become events. Runs when the manager, the event
    /// API or the facade is created; calling it again changes nothing.
    static void connectReporters();
    EventManager() { connectReporters(); }
    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-EventManager";

    /// Stores the record's body in the offline queue (completing a pending conversion when the
    /// event is one) and makes sure the queue drains. Runs on the caller's thread.
    void send(EventRecord& record) override;

    /// Sends "sdk_initialize".
    void sendInitializeEvent();
    /// Sends "install" for `actorId`.
    void sendInstallEvent(const std::string& actorId);
    /// Sends the push token change for `tokenProvider` with the token it holds.
    void sendPushTokenChangeEvent(TokenProviderType tokenProvider);
    /// Sends "actor_change" from `oldActorId` to `newActorId`.
    void sendActorChangeEvent(const std::string& oldActorId, const std::string& newActorId);
    /// `initialParameters` (none: null) is read during the call only.
    void sendCustomEvent(const ScreenRef& controller, const std::optional<std::string>& pageName,
                         const std::string& eventName, const nlohmann::json* initialParameters,
                         const ActionCallback& onActionRequired);
    /// Marks the session logged in and sends "login" (see `TarnEvent::sendLoginEvent`).
    void sendLoginEvent(const ScreenRef& controller, const std::optional<std::string>& pageName,
                        std::optional<nlohmann::json> initialParameters);
    /// Sends "logout" (see `TarnEvent::sendLogoutEvent`).
    void sendLogoutEvent();
    /// Page events: the page name given, else the screen's class name.
    void sendPageInEvent(const ScreenRef& controller, const std::optional<std::string>& pageName);
    /// Sends "page_out" for the screen (see `sendPageInEvent`).
    void sendPageOutEvent(const ScreenRef& controller, const std::optional<std::string>& pageName);
    /// Sends "app_background" on the screen.
    void sendAppBackgroundEvent(const ScreenRef& controller,
                                const std::optional<std::string>& pageName);
    /// Sends "app_foreground" on the screen.
    void sendAppForegroundEvent(const ScreenRef& controller,
                                const std::optional<std::string>& pageName);
    /// Sends "application_error" with the message and type name.
    void sendApplicationErrorEvent(const std::string& errorMessage, const std::string& errorType);
    /// Sends the push interaction `kind` for the notification's user-info dictionary.
    void sendPushNotificationEvent(const nlohmann::json& userInfo, PushNotificationEventType kind);
    /// The in-app screen's report of an interaction with `communication`. `pageName` falls back to
    /// the presenting screen's class name.
    void sendInAppEvent(InAppEventType kind, const AppCommunicationItem& communication,
                        const std::optional<std::string>& pageName, const ScreenRef& controller,
                        const std::optional<AppCommunicationButton>& button = std::nullopt);

  private:
    template <class Record>
    Record makeRecord(const std::string& name);
    void sendPage(PageInOutEventType type, const ScreenRef& controller,
                  const std::optional<std::string>& pageName);
    void sendGround(TarnEventType type, const ScreenRef& controller,
                    const std::optional<std::string>& pageName);
};

}  // namespace tarn
