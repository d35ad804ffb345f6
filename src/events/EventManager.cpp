#include "tarn/events/EventManager.h"

#include <cxxabi.h>

#include <cstdlib>
#include <mutex>
#include <typeinfo>

#include "base/LogLineBatch.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/Consent.h"
#include "tarn/config/Preferences.h"
#include "tarn/config/TarnState.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/device/LifeCycle.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/NotificationSettings.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/store/ConversionManager.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn {

namespace {

std::optional<std::string> pageNameOf(const ScreenRef& controller,
                                      const std::optional<std::string>& pageName) {
    if (pageName) {
        return pageName;
    }
    if (controller) {
        return controller->className();
    }
    return std::nullopt;
}

bool armsConversion(const EventRecord& record) {
    if (const auto* inApp = dynamic_cast<const InAppEvent*>(&record)) {
        return inApp->inAppEventType == InAppEventType::opened;
    }
    if (const auto* push = dynamic_cast<const PushNotificationEvent*>(&record)) {
        return push->eventType == PushNotificationEventType::onBodyClick;
    }
    return false;
}

bool eventsBlocked() {
    auto session = TarnSession::shared().appCommunication();
    return session && session->configuration &&
           session->configuration->blockAllEvents.value_or(false);
}

}  // namespace

EventManager& EventManager::shared() {
    return detail::SharedInstance<EventManager, 300>::get();
}

void EventManager::connectReporters() {
    // The routines are kept for the life of the process and reach the current manager when they
    // run, so a reset of the instances for tests leaves them valid.
    static std::once_flag connected;
    std::call_once(connected, [] {
        TarnState::setReportActorChange(
            [](const std::string& oldActorId, const std::string& newActorId) {
                EventManager::shared().sendActorChangeEvent(oldActorId, newActorId);
            });
        setLifeCycleReporter([](LifeCycleMoment moment, const ScreenRef& screen) {
            auto& events = EventManager::shared();
            switch (moment) {
                case LifeCycleMoment::appBackground:
                    events.sendAppBackgroundEvent(screen, std::nullopt);
                    break;
                case LifeCycleMoment::appForeground:
                    events.sendAppForegroundEvent(screen, std::nullopt);
                    break;
                case LifeCycleMoment::pageIn:
                    events.sendPageInEvent(screen, std::nullopt);
                    break;
                case LifeCycleMoment::pageOut:
                    events.sendPageOutEvent(screen, std::nullopt);
                    break;
            }
        });
        setInAppInteractionReporter(
            [](InAppEventType kind, const AppCommunicationItem& communication,
               const std::optional<std::string>& pageName, const ScreenRef& controller,
               const std::optional<AppCommunicationButton>& button) {
                EventManager::shared().sendInAppEvent(kind, communication, pageName, controller,
                                                      button);
            });
    });
}

template <class Record>
Record EventManager::makeRecord(const std::string& name) {
    // The handler pattern: build the record from the facade's state, then ask for the notification
    // permission without waiting for the answer.
    Record record;
    record.journeys = processSettings().journeys.get();
    record.actorId = TarnState::shared().actorId.get();
    record.name = name;
    NotificationManager::shared().refreshPermission();
    return record;
}

void EventManager::send(EventRecord& record) {
    detail::LogLineBatch lines;  // the event's lines in one write
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    if (eventsBlocked()) {
        log(record.name + " was not saved: the server configuration blocks all events.", logtag,
            LogLevel::warning);
        return;
    }
    // 0. A communication the user saw arms its conversion before anything else.
    if (auto reported = record.reportedCommunication();
        reported && reported->conversionEvent && armsConversion(record)) {
        ConversionManager::shared().armConversion(reported->code, reported->conversionEvent,
                                                  record.name);
    }
    // 1. Does this event complete an armed conversion? 2. Serialise and store. The look-up, the
    // marker's consumption and the insert share one transaction; the body is written in one pass.
    const auto ownCode = record.communucationCode;
    CoreDataManager::shared().saveEventCompletingConversion(
        record.name, TarnState::shared().actorId.get(),
        [&](const std::optional<std::string>& code) -> std::optional<std::string> {
            record.communucationCode = code ? code : ownCode;
            try {
                return record.serializedBody();
            } catch (const std::exception&) {
                return std::nullopt;  // not serialisable: dropped without a message
            }
        });
    // 3. Make sure the queue drains.
    auto& queue = EventQueueManager::shared();
    if (!queue.isTimerActive.load()) {
        queue.startTimer();
    }
    queue.isTimerActive = true;
}

void EventManager::sendInitializeEvent() {
    auto record = makeRecord<InitializeEvent>(rawValue(TarnEventType::sdkInitialize));
    send(record);
}

void EventManager::sendInstallEvent(const std::string& actorId) {
    auto record = makeRecord<InstallEvent>(rawValue(TarnEventType::install));
    record.actorId = actorId;
    auto configured = TarnState::shared().configuration.get();
    if (configured && configured->actorId && !configured->actorId->empty()) {
        record.configurationActorId = configured->actorId;
    }
    // An install without the host's own identifier runs under a generated guest identifier.
    record.anonymous = !record.configurationActorId.has_value();
    send(record);
}

void EventManager::sendPushTokenChangeEvent(TokenProviderType tokenProvider) {
    auto record = makeRecord<PushTokenChangeEvent>(rawValue(TarnEventType::pushTokenChange));
    record.tokenProvider = tokenProvider;
    send(record);
}

void EventManager::sendActorChangeEvent(const std::string& oldActorId,
                                        const std::string& newActorId) {
    auto record = makeRecord<ActorChangeEvent>(rawValue(TarnEventType::actorChange));
    record.actorId = oldActorId;
    record.newActorId = newActorId;
    send(record);
}

void EventManager::sendCustomEvent(const ScreenRef& controller,
                                   const std::optional<std::string>& pageName,
                                   const std::string& eventName,
                                   const nlohmann::json* initialParameters,
                                   const ActionCallback& onActionRequired) {
    auto record = makeRecord<CustomEvent>(eventName);
    record.pageName = pageName;
    if (controller) {
        record.controller = controller->className();
    }
    record.borrowedParameters = initialParameters;
    detail::LogLineBatch lines;  // the event's and the in-app selection's lines in one write
    send(record);
    InAppManager::shared().handlePopupAction(eventName, controller, pageName, onActionRequired);
}

void EventManager::sendLoginEvent(const ScreenRef& controller,
                                  const std::optional<std::string>& pageName,
                                  std::optional<nlohmann::json> initialParameters) {
    auto record = makeRecord<LoginEvent>(rawValue(TarnEventType::login));
    record.pageName = pageName;
    if (controller) {
        record.controller = controller->className();
    }
    record.initialParameters = std::move(initialParameters);
    send(record);
}

void EventManager::sendLogoutEvent() {
    auto record = makeRecord<LogoutEvent>(rawValue(TarnEventType::logout));
    send(record);
}

void EventManager::sendPage(PageInOutEventType type, const ScreenRef& controller,
                            const std::optional<std::string>& pageName) {
    auto record = makeRecord<PageInOutEvent>(rawValue(
        type == PageInOutEventType::pageIn ? TarnEventType::pageIn : TarnEventType::pageOut));
    record.eventType = type;
    record.pageName = pageNameOf(controller, pageName);
    send(record);
}

void EventManager::sendPageInEvent(const ScreenRef& controller,
                                   const std::optional<std::string>& pageName) {
    sendPage(PageInOutEventType::pageIn, controller, pageName);
}

void EventManager::sendPageOutEvent(const ScreenRef& controller,
                                    const std::optional<std::string>& pageName) {
    sendPage(PageInOutEventType::pageOut, controller, pageName);
}

void EventManager::sendGround(TarnEventType type, const ScreenRef& controller,
                              const std::optional<std::string>& pageName) {
    auto record = makeRecord<AppGroundStatusEvent>(rawValue(type));
    record.pageName = pageNameOf(controller, pageName);
    send(record);
}

void EventManager::sendAppBackgroundEvent(const ScreenRef& controller,
                                          const std::optional<std::string>& pageName) {
    sendGround(TarnEventType::appBackground, controller, pageName);
}

void EventManager::sendAppForegroundEvent(const ScreenRef& controller,
                                          const std::optional<std::string>& pageName) {
    sendGround(TarnEventType::appForeground, controller, pageName);
}

void EventManager::sendApplicationErrorEvent(const std::string& errorMessage,
                                             const std::string& errorType) {
    auto record = makeRecord<ApplicationErrorEvent>(rawValue(TarnEventType::applicationError));
    record.errorMessage = errorMessage;
    record.errorType = errorType;
    send(record);
}

void EventManager::sendPushNotificationEvent(const nlohmann::json& userInfo,
                                             PushNotificationEventType kind) {
    auto record = makeRecord<PushNotificationEvent>(rawValue(eventType(kind)));
    record.eventType = kind;
    // The push item travels as JSON text under "data" (or, from some senders, as an object).
    std::optional<NotificationAppCommunicationItem> item;
    if (userInfo.is_object()) {
        auto data = userInfo.find("data");
        if (data != userInfo.end() && data->is_string()) {
            if (auto decoded = decodeNotificationAppCommunicationItem(data->get<std::string>())) {
                item = decoded.value();
            }
        } else if (data != userInfo.end() && data->is_object()) {
            if (auto decoded = decodeJson<NotificationAppCommunicationItem>(*data)) {
                item = decoded.value();
            }
        }
        auto text = [&](const char* key) -> std::optional<std::string> {
            auto it = userInfo.find(key);
            return it != userInfo.end() && it->is_string() ? std::optional(it->get<std::string>())
                                                           : std::nullopt;
        };
        record.buttonId = text("buttonId");
        record.buttonText = text("buttonText");
    }
    if (item) {
        record.code = item->code.value_or("");
        record.communicationId = item->uuid;
        record.customApplicationName = item->applicationName;
        record.conversionEvent = item->conversionEvent;
        record.pushTokenForNotification =
            item->pushToken.value_or(TarnState::shared().tarnPushToken.get());
        if (item->journey) {
            record.journeys = {*item->journey};
        }
    } else {
        record.pushTokenForNotification = TarnState::shared().tarnPushToken.get();
    }
    send(record);
}

void EventManager::sendInAppEvent(InAppEventType kind, const AppCommunicationItem& communication,
                                  const std::optional<std::string>& pageName,
                                  const ScreenRef& controller,
                                  const std::optional<AppCommunicationButton>& button) {
    auto fill = [&](InAppEvent& record) {
        record.journeys = {communication.journey.value_or("ALL")};
        record.pageName = pageNameOf(controller, pageName);
        record.communication = communication;
        record.inAppEventType = kind;
        record.conversionEvent = communication.conversionEvent;
    };
    const std::string name = rawValue(eventType(kind));
    if (kind == InAppEventType::buttonClicked) {
        auto record = makeRecord<InAppButtonClickedEvent>(name);
        fill(record);
        record.button = button.value_or(AppCommunicationButton{});
        send(record);
    } else {
        auto record = makeRecord<InAppEvent>(name);
        fill(record);
        send(record);
    }
}

// ---- TarnEvent: the public calls and their gates

TarnEvent& TarnEvent::shared() {
    return detail::SharedInstance<TarnEvent, 300>::get();
}

TarnEvent::TarnEvent() {
    EventManager::connectReporters();
}

void TarnEvent::sendCustomEvent(ScreenRef controller, std::optional<std::string> pageName,
                                const std::string& eventName,
                                const EventParameters& initialParameters,
                                ActionCallback onActionRequired) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendCustomEvent(controller, pageName, eventName, initialParameters.get(),
                                           onActionRequired);
}

void TarnEvent::sendLoginEvent(ScreenRef controller, std::optional<std::string> pageName,
                               const std::string& actorID,
                               const EventParameters& initialParameters) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    auto& tarn = TarnState::shared();
    tarn.loggedIn = true;
    ConfigManager::shared().updateActorId(actorID);
    std::optional<nlohmann::json> parameters;
    if (const auto* given = initialParameters.get()) {
        parameters = *given;
    }
    EventManager::shared().sendLoginEvent(controller, pageName, std::move(parameters));
}

void TarnEvent::sendLogoutEvent() {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    auto& tarn = TarnState::shared();
    tarn.loggedIn = false;
    EventManager::shared().sendLogoutEvent();
    auto guest = PreferencesManager::shared().stringValue(PreferenceKey::guestActorId).value_or("");
    ConfigManager::shared().updateActorId(guest);
}

void TarnEvent::sendPageInEvent(ScreenRef controller, std::optional<std::string> pageName) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    if (!TarnState::shared().isSendActivityLifeCycleEventEnabled.load() && controller) {
        EventManager::shared().sendPageInEvent(controller, pageName);
    }
}

void TarnEvent::sendPageOutEvent(ScreenRef controller, std::optional<std::string> pageName) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    if (!TarnState::shared().isSendActivityLifeCycleEventEnabled.load() && controller) {
        EventManager::shared().sendPageOutEvent(controller, pageName);
    }
}

void TarnEvent::sendAppBackgroundEvent(ScreenRef controller, std::optional<std::string> pageName) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    if (!TarnState::shared().applicationLifecyleAuto.load() && controller) {
        EventManager::shared().sendAppBackgroundEvent(controller, pageName);
    }
}

void TarnEvent::sendAppForegroundEvent(ScreenRef controller, std::optional<std::string> pageName) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    if (!TarnState::shared().applicationLifecyleAuto.load() && controller) {
        EventManager::shared().sendAppForegroundEvent(controller, pageName);
    }
}

namespace {

std::string demangledTypeName(const std::type_info& type) {
    int status = 0;
    char* name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string result = status == 0 && name ? name : type.name();
    std::free(name);
    return result;
}

}  // namespace

void TarnEvent::sendApplicationErrorEvent(const std::exception& error) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendApplicationErrorEvent(error.what(),
                                                     demangledTypeName(typeid(error)));
}

void TarnEvent::sendApplicationErrorEvent(const std::error_code& error) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendApplicationErrorEvent(
        error.message(),
        std::string(error.category().name()) + ":" + std::to_string(error.value()));
}

void TarnEvent::sendPushNotificationClickedEvent(const nlohmann::json& notification) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendPushNotificationEvent(notification,
                                                     PushNotificationEventType::onBodyClick);
}

void TarnEvent::sendPushNotificationDismissedEvent(const nlohmann::json& notification) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendPushNotificationEvent(notification,
                                                     PushNotificationEventType::onDismiss);
}

void TarnEvent::sendPushNotificationReceivedEvent(const nlohmann::json& notification) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendPushNotificationEvent(notification,
                                                     PushNotificationEventType::received);
}

void TarnEvent::sendPushNotificationDeniedEvent(const nlohmann::json& notification) {
    ConsentManager::CallScope call;
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    EventManager::shared().sendPushNotificationEvent(notification,
                                                     PushNotificationEventType::denied);
}

}  // namespace tarn
