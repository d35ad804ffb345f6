#include "tarn/events/EventQueueManager.h"

#include "core/InputSafety.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/events/EventRepository.h"
#include "tarn/platform/NotificationCenter.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn {

namespace {

/// The text of a JSON value as the queue's log lines show it: strings bare, others as JSON, a
/// missing value as empty text.
std::string describe(const nlohmann::json& dict, const char* key) {
    auto it = dict.find(key);
    if (it == dict.end() || it->is_null()) {
        return "";
    }
    return it->is_string() ? it->get<std::string>() : it->dump();
}

}  // namespace

EventQueueManager& EventQueueManager::shared() {
    return detail::SharedInstance<EventQueueManager, 350>::get();
}

EventQueueManager::EventQueueManager() {
    auto& center = NotificationCenter::defaultCenter();
    center.addObserver(this, kApplicationDidEnterBackgroundNotification, [](const Notification&) {
        EventQueueManager::shared().appDidEnterBackground();
    });
    center.addObserver(this, kApplicationWillEnterForegroundNotification, [](const Notification&) {
        EventQueueManager::shared().willEnterForeground();
    });
    center.addObserver(this, kApplicationWillTerminateNotification,
                       [](const Notification&) { EventQueueManager::shared().willTerminate(); });
}

EventQueueManager::~EventQueueManager() {
    NotificationCenter::defaultCenter().removeObserver(this);
    if (auto timer = timer_.get()) {
        timer->invalidate();
    }
}

void EventQueueManager::startTimer() {
    mainQueue()->async([] {
        auto& self = EventQueueManager::shared();
        double delay = processSettings().queueDelay.load();
        self.timer_ = RepeatingTimer::scheduled(
            delay, [] { EventQueueManager::shared().timerAction(); }, mainQueue());
    });
}

void EventQueueManager::stopTimer() {
    mainQueue()->async([] { EventQueueManager::shared().timerAction(); });
    if (auto timer = timer_.get()) {
        timer->invalidate();
    }
    timer_ = nullptr;
}

void EventQueueManager::timerAction() {
    if (!ConfigManager::shared().isInitialized()) {
        return;
    }
    CoreDataManager::shared().popOldestEvent([this](std::optional<std::string> text) {
        nlohmann::json event;
        // A stored record nested deeper than any event reads as unreadable: sending it would
        // recurse through it.
        if (text) {
            event = parseJsonBounded(*text);
        }
        auto name = event.is_object() ? event.find("name") : event.end();
        if (text && event.is_object() && name != event.end() && name->is_string()) {
            sendEvent(event);
            if (!isTimerActive.load()) {
                startTimer();
            }
            isTimerActive = true;
        } else {
            if (isTimerActive.load()) {
                stopTimer();
            }
            isTimerActive = false;
        }
    });
}

void EventQueueManager::sendEvent(const nlohmann::json& event) {
    std::string requestId = describe(event, "requestId");
    std::string name = describe(event, "name");
    EventRepository::shared().sendEvent(
        event, [requestId, name, tag = logtag](const std::optional<ServiceError>& error,
                                               std::optional<int> statusCode, bool failed) {
            if (!error && !failed && statusCode == 200) {
                log("Sent event, request id :" + requestId + " name: " + name +
                        ", response code : " + "200",
                    tag);
            } else {
                log("An error occurred when the " + name + " event was called. " +
                        tarn::describe(error),
                    tag);
            }
        });
}

void EventQueueManager::appDidEnterBackground() {
    stopTimer();
}

void EventQueueManager::willEnterForeground() {
    if (ConfigManager::shared().isInitialized() && !hasTimer()) {
        startTimer();
    }
}

void EventQueueManager::willTerminate() {
    auto& center = NotificationCenter::defaultCenter();
    center.removeObserver(this, kApplicationDidEnterBackgroundNotification);
    center.removeObserver(this, kApplicationWillEnterForegroundNotification);
    center.removeObserver(this, kApplicationWillTerminateNotification);
}

}  // namespace tarn
