#include "tarn/events/TarnEventType.h"

#include <array>
#include <utility>

namespace tarn {

namespace {

constexpr std::array<std::pair<TarnEventType, const char*>, 19> kNames{{
    {TarnEventType::pageIn, "page_in"},
    {TarnEventType::pageOut, "page_out"},
    {TarnEventType::appBackground, "app_background"},
    {TarnEventType::appForeground, "app_foreground"},
    {TarnEventType::actorChange, "actor_change"},
    {TarnEventType::pushNotificationReceived, "push_notification_received"},
    {TarnEventType::pushNotificationClicked, "push_notification_clicked"},
    {TarnEventType::pushNotificationDenied, "push_notificition_denied"},
    {TarnEventType::pushNotificationDismissed, "push_notification_dismissed"},
    {TarnEventType::install, "install"},
    {TarnEventType::applicationError, "application_error"},
    {TarnEventType::inAppOpened, "in_app_opened"},
    {TarnEventType::pushTokenChange, "push_token_change"},
    {TarnEventType::inAppDismissed, "in_app_dismissed"},
    {TarnEventType::inAppSelfClicked, "in_app_self_clicked"},
    {TarnEventType::inAppButtonClicked, "in_app_button_clicked"},
    {TarnEventType::sdkInitialize, "sdk_initialize"},
    {TarnEventType::login, "login"},
    {TarnEventType::logout, "logout"},
}};

}  // namespace

const char* rawValue(TarnEventType type) {
    for (const auto& [t, name] : kNames) {
        if (t == type)
            return name;
    }
    return "";
}

std::optional<TarnEventType> tarnEventTypeFromRaw(const std::string& raw) {
    for (const auto& [t, name] : kNames) {
        if (raw == name)
            return t;
    }
    return std::nullopt;
}

const char* rawValue(InAppEventType type) {
    switch (type) {
        case InAppEventType::opened:
            return "opened";
        case InAppEventType::dismissed:
            return "dismissed";
        case InAppEventType::selfClicked:
            return "selfClicked";
        case InAppEventType::buttonClicked:
            return "buttonClicked";
    }
    return "";
}

TarnEventType eventType(InAppEventType type) {
    switch (type) {
        case InAppEventType::opened:
            return TarnEventType::inAppOpened;
        case InAppEventType::dismissed:
            return TarnEventType::inAppDismissed;
        case InAppEventType::selfClicked:
            return TarnEventType::inAppSelfClicked;
        case InAppEventType::buttonClicked:
            return TarnEventType::inAppButtonClicked;
    }
    return TarnEventType::inAppOpened;
}

const char* rawValue(PageInOutEventType type) {
    return type == PageInOutEventType::pageIn ? "page_in" : "page_out";
}

const char* rawValue(PushNotificationEventType type) {
    switch (type) {
        case PushNotificationEventType::onBodyClick:
            return "onBodyClick";
        case PushNotificationEventType::onDismiss:
            return "onDismiss";
        case PushNotificationEventType::received:
            return "received";
        case PushNotificationEventType::denied:
            return "denied";
    }
    return "";
}

TarnEventType eventType(PushNotificationEventType type) {
    switch (type) {
        case PushNotificationEventType::onBodyClick:
            return TarnEventType::pushNotificationClicked;
        case PushNotificationEventType::onDismiss:
            return TarnEventType::pushNotificationDismissed;
        case PushNotificationEventType::received:
            return TarnEventType::pushNotificationReceived;
        case PushNotificationEventType::denied:
            return TarnEventType::pushNotificationDenied;
    }
    return TarnEventType::pushNotificationReceived;
}

const char* rawValue(SendEventStatus status) {
    return status == SendEventStatus::enabled ? "enabled" : "disabled";
}

const char* rawValue(NetworkStatus status) {
    return status == NetworkStatus::online ? "online" : "offline";
}

}  // namespace tarn
