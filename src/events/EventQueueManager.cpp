#include "tarn/events/EventQueueManager.h"

#include "base/InputSafety.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/Consent.h"
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

/// Reads a stored record without building its tree: checks that the whole text is JSON whose top
/// level is an object, and picks out the top-level "name" and "requestId" (the last of each, as a
/// parse would keep).
class StoredEventCheck final : public nlohmann::json_sax<nlohmann::json> {
  public:
    enum class Found { missing, null, string, other };
    bool topLevelObject = false;
    Found name = Found::missing;
    Found requestId = Found::missing;
    std::string nameText;
    std::string requestIdText;

    bool null() override { return scalar(Found::null, nullptr); }
    bool boolean(bool) override { return scalar(Found::other, nullptr); }
    bool number_integer(number_integer_t) override { return scalar(Found::other, nullptr); }
    bool number_unsigned(number_unsigned_t) override { return scalar(Found::other, nullptr); }
    bool number_float(number_float_t, const string_t&) override {
        return scalar(Found::other, nullptr);
    }
    bool string(string_t& value) override { return scalar(Found::string, &value); }
    bool binary(binary_t&) override { return scalar(Found::other, nullptr); }
    bool start_object(std::size_t) override { return open(true); }
    bool start_array(std::size_t) override { return open(false); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& key) override {
        if (depth_ == 1) {
            field_ = key == "name"        ? Field::name
                     : key == "requestId" ? Field::requestId
                                          : Field::none;
        }
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

  private:
    enum class Field { none, name, requestId };

    bool scalar(Found kind, string_t* text) {
        if (depth_ == 1) {
            note(kind, text);
        }
        return true;
    }
    bool open(bool object) {
        if (depth_ == 0) {
            topLevelObject = object;
        } else if (depth_ == 1) {
            note(Found::other, nullptr);
        }
        // Nothing the library stores nests this deep: such a record is unreadable.
        return ++depth_ <= static_cast<int>(kMaxNestingDepth);
    }
    bool close() {
        --depth_;
        return true;
    }
    void note(Found kind, string_t* text) {
        if (field_ == Field::name) {
            name = kind;
            if (text) {
                nameText = std::move(*text);
            }
        } else if (field_ == Field::requestId) {
            requestId = kind;
            if (text) {
                requestIdText = std::move(*text);
            }
        }
        field_ = Field::none;
    }

    int depth_ = 0;
    Field field_ = Field::none;
};

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
    if (auto timer = timer_.exchange(nullptr)) {
        timer->invalidate();
    }
}

void EventQueueManager::startTimer() {
    mainQueue()->async([] {
        auto& self = EventQueueManager::shared();
        // A timer already held is invalidated as it is replaced: a scheduled timer keeps firing
        // while its executor holds it, so a replaced one would poll the store on every tick for the
        // rest of the process. Two starts meet whenever an event is stored while the last tick finds
        // the queue empty. The swap is one step, so a stop on another thread cannot clear the new
        // timer's handle and leave it running unheld.
        double delay = processSettings().queueDelay.load();
        auto fresh = RepeatingTimer::scheduled(
            delay, [] { EventQueueManager::shared().timerAction(); }, mainQueue());
        if (auto replaced = self.timer_.exchange(std::move(fresh))) {
            replaced->invalidate();
        }
    });
}

void EventQueueManager::stopTimer() {
    mainQueue()->async([] { EventQueueManager::shared().timerAction(); });
    if (auto timer = timer_.exchange(nullptr)) {
        timer->invalidate();
    }
}

void EventQueueManager::timerAction() {
    if (!ConfigManager::shared().isInitialized() || !ConsentManager::shared().checkTracking()) {
        return;
    }
    CoreDataManager::shared().popOldestEvent([this](std::optional<std::string> text) {
        // The stored text is sent as it stands once it is known to be a JSON object with a string
        // "name" and nests no deeper than any event; anything else is discarded (the pop has
        // deleted it) and stops the timer.
        StoredEventCheck check;
        bool usable = text && nlohmann::json::sax_parse(*text, &check) && check.topLevelObject &&
                      check.name == StoredEventCheck::Found::string;
        if (usable) {
            std::string requestId;
            if (check.requestId == StoredEventCheck::Found::string) {
                requestId = std::move(check.requestIdText);
            } else if (check.requestId == StoredEventCheck::Found::other) {
                requestId = describe(parseJsonBounded(*text), "requestId");
            }
            sendEvent(*text, requestId, check.nameText);
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

void EventQueueManager::sendEvent(const std::string& text, const std::string& requestId,
                                  const std::string& name) {
    EventRepository::shared().sendEvent(
        text, [requestId, name, tag = logtag](const std::optional<ServiceError>& error,
                                              std::optional<int> statusCode, bool failed) {
            if (!error && !failed && statusCode == 200) {
                log("Sent event, request id :" + requestId + " name: " + name +
                        ", response code : " + "200",
                    tag, LogLevel::debug);
            } else {
                log("An error occurred when the " + name + " event was called. " +
                        tarn::describe(error),
                    tag, LogLevel::error);
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
