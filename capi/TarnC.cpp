// The C interface (tarn/tarn.h) over the C++ API. Every entry point runs its body inside
// `guarded`, which turns any exception into a status code and the thread's last-error message.

#include "tarn/tarn.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "PumpedQueue.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Log.h"
#include "tarn/core/Privacy.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/inapp/InAppModel.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/MainQueue.h"

namespace {

using tarn::capi::PumpedQueue;

thread_local std::string lastError;

/// A failed call: its status and message.
struct Failure {
    int status;
    std::string message;
};

int fail(int status, std::string message) {
    lastError = std::move(message);
    return status;
}

/// Runs one entry point's body: its status, or the status of what it threw.
template <class Body>
int guarded(Body&& body) noexcept {
    try {
        lastError.clear();
        return body();
    } catch (const Failure& failure) {
        return fail(failure.status, failure.message);
    } catch (const std::bad_alloc&) {
        try {
            return fail(TARN_ERR_INTERNAL, "out of memory");
        } catch (...) {
            return TARN_ERR_INTERNAL;
        }
    } catch (const std::exception& error) {
        try {
            return fail(TARN_ERR_INTERNAL, std::string("internal error: ") + error.what());
        } catch (...) {
            return TARN_ERR_INTERNAL;
        }
    } catch (...) {
        try {
            return fail(TARN_ERR_INTERNAL, "internal error");
        } catch (...) {
            return TARN_ERR_INTERNAL;
        }
    }
}

void require(const void* pointer, const char* name) {
    if (!pointer) {
        throw Failure{TARN_ERR_NULL_ARGUMENT, std::string(name) + " is NULL"};
    }
}

std::optional<std::string> optionalText(const char* text) {
    return text ? std::optional<std::string>(text) : std::nullopt;
}

tarn::ScreenRef screenNamed(const char* name) {
    return name ? std::make_shared<tarn::NamedScreen>(name) : nullptr;
}

/// A JSON object text, or none for NULL; anything else is refused with its own status.
std::optional<nlohmann::json> objectFrom(const char* text, const char* name) {
    if (!text) {
        return std::nullopt;
    }
    auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded()) {
        throw Failure{TARN_ERR_INVALID_JSON, std::string(name) + " is not valid JSON"};
    }
    if (!value.is_object()) {
        throw Failure{TARN_ERR_NOT_OBJECT,
                      std::string(name) + " is JSON but not an object (it is " +
                          value.type_name() + ")"};
    }
    return value;
}

/// Copies `text` into the caller's buffer (see the getters in tarn.h).
int copyOut(const std::string& text, char* buffer, std::size_t size, std::size_t* needed) {
    if (needed) {
        *needed = text.size() + 1;
    }
    if (!buffer) {
        if (size != 0) {
            throw Failure{TARN_ERR_NULL_ARGUMENT, "buffer is NULL but buffer_size is not 0"};
        }
        return TARN_OK;
    }
    if (size < text.size() + 1) {
        throw Failure{TARN_ERR_BUFFER_TOO_SMALL, "the buffer holds " + std::to_string(size) +
                                                     " bytes; the text needs " +
                                                     std::to_string(text.size() + 1)};
    }
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return TARN_OK;
}

// ---- Options ----

/// The host's options as this library knows them: `size` bytes of the host's struct, the rest
/// zero. A larger struct is accepted when the fields this library does not know are zero.
tarn_options readOptions(const tarn_options* given) {
    require(given, "options");
    const std::size_t size = given->size;
    if (size < sizeof(std::size_t)) {
        throw Failure{TARN_ERR_BAD_SIZE, "options->size is " + std::to_string(size) +
                                             "; set it to sizeof(tarn_options)"};
    }
    if (size > sizeof(tarn_options)) {
        const auto* tail = reinterpret_cast<const unsigned char*>(given) + sizeof(tarn_options);
        if (std::any_of(tail, tail + (size - sizeof(tarn_options)),
                        [](unsigned char byte) { return byte != 0; })) {
            throw Failure{TARN_ERR_BAD_SIZE,
                          "options->size is " + std::to_string(size) + ", larger than the " +
                              std::to_string(sizeof(tarn_options)) +
                              " this library knows, and fields it does not know are set"};
        }
    }
    tarn_options options{};
    std::memcpy(&options, given, std::min(size, sizeof(tarn_options)));
    options.size = sizeof(tarn_options);
    return options;
}

// ---- Main queue ----

std::mutex queueMutex;
int queueMode = -1;  // none chosen yet
std::shared_ptr<PumpedQueue> pumped;

void chooseMainQueue(int mode) {
    if (mode != TARN_MAIN_QUEUE_THREAD && mode != TARN_MAIN_QUEUE_PUMPED) {
        throw Failure{TARN_ERR_INVALID_ARGUMENT,
                      "options->main_queue is " + std::to_string(mode) +
                          "; use TARN_MAIN_QUEUE_THREAD or TARN_MAIN_QUEUE_PUMPED"};
    }
    std::lock_guard lock(queueMutex);
    if (queueMode == -1) {
        if (mode == TARN_MAIN_QUEUE_PUMPED) {
            pumped = std::make_shared<PumpedQueue>();
            tarn::setMainQueue(pumped);
        }
        queueMode = mode;
    } else if (queueMode != mode) {
        throw Failure{TARN_ERR_STATE,
                      "the main queue was chosen by the first initialisation and cannot change"};
    }
}

// ---- Log ----

struct LogRoute {
    tarn_log_handler handler = nullptr;
    void* userData = nullptr;
};
std::mutex logMutex;
LogRoute logRoute;
std::atomic<int> logLevel{TARN_LOG_DEBUG};
bool logInstalled = false;

/// The C++ handler the C layer installs once a C handler or a level is set.
void routeLine(tarn::LogLevel level, std::string_view line) {
    const int value = static_cast<int>(level);
    if (value > logLevel.load()) {
        return;
    }
    LogRoute route;
    {
        std::lock_guard lock(logMutex);
        route = logRoute;
    }
    if (route.handler) {
        const std::string text(line);  // NUL-terminated for the host
        route.handler(value, text.c_str(), text.size(), route.userData);
    } else {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }
}

void installLogRoute() {
    // Called under logMutex.
    if (!logInstalled) {
        tarn::setLogHandler(routeLine);
        logInstalled = true;
    }
}

// ---- In-app screens ----

struct Presenter {
    tarn_inapp_present_callback present = nullptr;
    void* userData = nullptr;
};
std::mutex presenterMutex;
Presenter presenter;

std::string hexColor(const tarn::Color& color) {
    char text[8];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", color.red & 0xFF, color.green & 0xFF,
                  color.blue & 0xFF);
    return text;
}

class CInAppScreen;

}  // namespace

/// One presentation, as the host holds it.
struct tarn_inapp {
    std::shared_ptr<CInAppScreen> screen;
};

namespace {

class CInAppScreen final : public tarn::InAppViewController {
  public:
    std::weak_ptr<CInAppScreen> self;
    /// The buttons of the rows, in their order ("index" in the description).
    std::vector<tarn::AppCommunicationButton> buttons;

    void present(const tarn::ScreenRef& /*presenter*/) override {
        Presenter current;
        {
            std::lock_guard lock(presenterMutex);
            current = presenter;
        }
        if (!current.present || !inApp) {
            return;
        }
        const auto description = describe().dump();
        auto* handle = new tarn_inapp{self.lock()};
        current.present(handle, description.c_str(), current.userData);
    }

  private:
    nlohmann::json describe() {
        const auto& item = inApp->appCommunucation;
        nlohmann::json rows = nlohmann::json::array();
        for (const auto& row : inApp->presentations) {
            if (const auto* title = std::get_if<tarn::TitleTableViewCellPresentation>(&row)) {
                rows.push_back(
                    {{"kind", "title"}, {"text", title->title}, {"color", hexColor(title->color)}});
            } else if (const auto* images =
                           std::get_if<tarn::ImageTableViewCellPresentation>(&row)) {
                rows.push_back({{"kind", "images"}, {"urls", images->imageUrls}});
            } else if (const auto* body =
                           std::get_if<tarn::BodyTextTableViewCellPresentation>(&row)) {
                rows.push_back(
                    {{"kind", "body"}, {"text", body->text}, {"color", hexColor(body->color)}});
            } else if (const auto* button =
                           std::get_if<tarn::ButtonTableViewCellPresentation>(&row)) {
                nlohmann::json entry = {{"kind", "button"}, {"index", buttons.size()}};
                entry["text"] = button->button.text ? nlohmann::json(*button->button.text)
                                                    : nlohmann::json(nullptr);
                entry["id"] = button->button.id ? nlohmann::json(*button->button.id)
                                                : nlohmann::json(nullptr);
                entry["action"] = button->button.action ? nlohmann::json(*button->button.action)
                                                        : nlohmann::json(nullptr);
                rows.push_back(std::move(entry));
                buttons.push_back(button->button);
            }
        }
        return {{"uuid", item.uuid},
                {"code", item.code},
                {"name", item.name},
                {"template", tarn::rawValue(item.templateType)},
                {"pageName", inApp->pageName.pageName ? nlohmann::json(*inApp->pageName.pageName)
                                                      : nlohmann::json(nullptr)},
                {"rows", std::move(rows)},
                {"communication", tarn::toJson(item)}};
    }
};

CInAppScreen& screenOf(tarn_inapp* inapp) {
    require(inapp, "inapp");
    require(inapp->screen.get(), "inapp's screen");
    return *inapp->screen;
}

/// The host's action callback as the C++ API takes it.
tarn::ActionCallback actionCallback(tarn_action_callback callback, void* userData) {
    if (!callback) {
        return nullptr;
    }
    return [callback, userData](const tarn::AppCommunicationAction& action) {
        const auto text = nlohmann::json(action).dump();
        callback(text.c_str(), userData);
    };
}

int statusValue(tarn::InitializeStatusType status) {
    switch (status) {
        case tarn::InitializeStatusType::initializing:
            return TARN_STATUS_INITIALIZING;
        case tarn::InitializeStatusType::initialized:
            return TARN_STATUS_INITIALIZED;
        case tarn::InitializeStatusType::notInitialized:
            return TARN_STATUS_NOT_INITIALIZED;
        case tarn::InitializeStatusType::initializeFailed:
            return TARN_STATUS_INITIALIZE_FAILED;
    }
    return TARN_STATUS_NOT_INITIALIZED;
}

void requireName(const char* text, const char* name) {
    require(text, name);
    if (*text == '\0') {
        throw Failure{TARN_ERR_INVALID_ARGUMENT, std::string(name) + " is empty"};
    }
}

int sendPush(const char* notificationJson, tarn::PushNotificationEventType kind) {
    return guarded([&] {
        require(notificationJson, "notification_json");
        auto notification = objectFrom(notificationJson, "notification_json");
        tarn::EventManager::shared().sendPushNotificationEvent(*notification, kind);
        return TARN_OK;
    });
}

}  // namespace

extern "C" {

const char* tarn_last_error(void) {
    return lastError.c_str();
}

const char* tarn_status_name(int status) {
    switch (status) {
        case TARN_OK:
            return "TARN_OK";
        case TARN_ERR_NULL_ARGUMENT:
            return "TARN_ERR_NULL_ARGUMENT";
        case TARN_ERR_BAD_SIZE:
            return "TARN_ERR_BAD_SIZE";
        case TARN_ERR_INVALID_JSON:
            return "TARN_ERR_INVALID_JSON";
        case TARN_ERR_NOT_OBJECT:
            return "TARN_ERR_NOT_OBJECT";
        case TARN_ERR_INVALID_ARGUMENT:
            return "TARN_ERR_INVALID_ARGUMENT";
        case TARN_ERR_BUFFER_TOO_SMALL:
            return "TARN_ERR_BUFFER_TOO_SMALL";
        case TARN_ERR_STATE:
            return "TARN_ERR_STATE";
        case TARN_ERR_NOT_FOUND:
            return "TARN_ERR_NOT_FOUND";
        case TARN_ERR_INTERNAL:
            return "TARN_ERR_INTERNAL";
        default:
            return "unknown";
    }
}

int tarn_version(void) {
    return TARN_C_VERSION;
}

int tarn_initialize(const tarn_options* given) {
    return guarded([&] {
        const auto options = readOptions(given);
        chooseMainQueue(options.main_queue);
        static std::once_flag dataFolder;
        if (options.data_dir) {
            const std::string folder = options.data_dir;
            std::call_once(dataFolder, [&] { tarn::setDataDirectory(folder); });
        }
        if (options.bundle_dir) {
            tarn::Bundle::setMain(options.bundle_dir);
        }
        tarn::TarnInitConfig config(
            tarn::Bundle::main(), options.application_name ? options.application_name : "",
            optionalText(options.actor_id), optionalText(options.domain_url),
            optionalText(options.authorization), optionalText(options.client_id),
            optionalText(options.client_secret), options.application_lifecycle_auto != 0,
            options.send_activity_lifecycle_events != 0, options.force_initialize != 0);
        tarn::Tarn::shared().initialize(config, optionalText(options.app_group));
        return TARN_OK;
    });
}

int tarn_initialize_status(int* status) {
    return guarded([&] {
        require(status, "status");
        *status = statusValue(tarn::ConfigManager::shared().getInitializeStatus());
        return TARN_OK;
    });
}

int tarn_get_actor_id(char* buffer, size_t buffer_size, size_t* needed) {
    return guarded([&] {
        return copyOut(tarn::Tarn::shared().actorId.get(), buffer, buffer_size, needed);
    });
}

int tarn_get_app_group_actor_id(const char* app_group, char* buffer, size_t buffer_size,
                                size_t* needed) {
    return guarded([&] {
        requireName(app_group, "app_group");
        auto actor = tarn::Tarn::shared().getActorID(app_group);
        if (!actor) {
            if (needed) {
                *needed = 0;
            }
            throw Failure{TARN_ERR_NOT_FOUND,
                          std::string("no actor identifier stored for app group ") + app_group};
        }
        return copyOut(*actor, buffer, buffer_size, needed);
    });
}

int tarn_set_push_token(const char* token) {
    return guarded([&] {
        require(token, "token");
        tarn::Tarn::shared().setPushToken(token);
        return TARN_OK;
    });
}

int tarn_set_consent_required(int required) {
    return guarded([&] {
        tarn::setConsentRequired(required != 0);
        return TARN_OK;
    });
}

int tarn_consent_state(int* state) {
    return guarded([&] {
        require(state, "state");
        switch (tarn::consentState()) {
            case tarn::ConsentState::granted:
                *state = TARN_CONSENT_GRANTED;
                break;
            case tarn::ConsentState::denied:
                *state = TARN_CONSENT_DENIED;
                break;
            case tarn::ConsentState::notAsked:
                *state = TARN_CONSENT_NOT_ASKED;
                break;
        }
        return TARN_OK;
    });
}

int tarn_grant_consent(void) {
    return guarded([&] {
        tarn::grantConsent();
        return TARN_OK;
    });
}

int tarn_deny_consent(void) {
    return guarded([&] {
        tarn::denyConsent();
        return TARN_OK;
    });
}

int tarn_erase_local_data(int keep_consent) {
    return guarded([&] {
        if (!tarn::eraseLocalData(keep_consent ? tarn::EraseOption::keepConsent
                                               : tarn::EraseOption::everything)) {
            throw Failure{TARN_ERR_INTERNAL, "some of the library's files could not be deleted"};
        }
        return TARN_OK;
    });
}

int tarn_get_push_token(char* buffer, size_t buffer_size, size_t* needed) {
    return guarded(
        [&] { return copyOut(tarn::Tarn::shared().getPushToken(), buffer, buffer_size, needed); });
}

int tarn_set_apns_token(const uint8_t* bytes, size_t length) {
    return guarded([&] {
        if (length != 0) {
            require(bytes, "bytes");
        }
        tarn::Tarn::shared().setApnsToken(
            length ? std::vector<std::uint8_t>(bytes, bytes + length) : std::vector<std::uint8_t>{});
        return TARN_OK;
    });
}

int tarn_get_apns_token(char* buffer, size_t buffer_size, size_t* needed) {
    return guarded([&] {
        return copyOut(tarn::Tarn::shared().tarnApnsToken.get(), buffer, buffer_size, needed);
    });
}

int tarn_send_custom_event(const char* screen, const char* page_name, const char* event_name,
                           const char* parameters_json, tarn_action_callback on_action,
                           void* user_data) {
    return guarded([&] {
        requireName(event_name, "event_name");
        auto parameters = objectFrom(parameters_json, "parameters_json");
        tarn::TarnEvent::shared().sendCustomEvent(screenNamed(screen), optionalText(page_name),
                                                  event_name, std::move(parameters),
                                                  actionCallback(on_action, user_data));
        return TARN_OK;
    });
}

int tarn_send_login_event(const char* screen, const char* page_name, const char* actor_id,
                          const char* parameters_json) {
    return guarded([&] {
        require(actor_id, "actor_id");
        auto parameters = objectFrom(parameters_json, "parameters_json");
        tarn::TarnEvent::shared().sendLoginEvent(screenNamed(screen), optionalText(page_name),
                                                 actor_id, std::move(parameters));
        return TARN_OK;
    });
}

int tarn_send_logout_event(void) {
    return guarded([&] {
        tarn::TarnEvent::shared().sendLogoutEvent();
        return TARN_OK;
    });
}

int tarn_send_page_in_event(const char* screen, const char* page_name) {
    return guarded([&] {
        tarn::TarnEvent::shared().sendPageInEvent(screenNamed(screen), optionalText(page_name));
        return TARN_OK;
    });
}

int tarn_send_page_out_event(const char* screen, const char* page_name) {
    return guarded([&] {
        tarn::TarnEvent::shared().sendPageOutEvent(screenNamed(screen), optionalText(page_name));
        return TARN_OK;
    });
}

int tarn_send_app_background_event(const char* screen, const char* page_name) {
    return guarded([&] {
        tarn::TarnEvent::shared().sendAppBackgroundEvent(screenNamed(screen),
                                                         optionalText(page_name));
        return TARN_OK;
    });
}

int tarn_send_app_foreground_event(const char* screen, const char* page_name) {
    return guarded([&] {
        tarn::TarnEvent::shared().sendAppForegroundEvent(screenNamed(screen),
                                                         optionalText(page_name));
        return TARN_OK;
    });
}

int tarn_send_application_error_event(const char* message, const char* type) {
    return guarded([&] {
        require(message, "message");
        require(type, "type");
        tarn::EventManager::shared().sendApplicationErrorEvent(message, type);
        return TARN_OK;
    });
}

int tarn_send_push_notification_clicked_event(const char* notification_json) {
    return sendPush(notification_json, tarn::PushNotificationEventType::onBodyClick);
}

int tarn_send_push_notification_dismissed_event(const char* notification_json) {
    return sendPush(notification_json, tarn::PushNotificationEventType::onDismiss);
}

int tarn_send_push_notification_received_event(const char* notification_json) {
    return sendPush(notification_json, tarn::PushNotificationEventType::received);
}

int tarn_send_push_notification_denied_event(const char* notification_json) {
    return sendPush(notification_json, tarn::PushNotificationEventType::denied);
}

int tarn_set_inapp_presenter(tarn_inapp_present_callback present, void* user_data) {
    return guarded([&] {
        {
            std::lock_guard lock(presenterMutex);
            presenter = {present, user_data};
        }
        if (present) {
            tarn::InAppManager::shared().registerInAppScreen([] {
                auto screen = std::make_shared<CInAppScreen>();
                screen->self = screen;
                return screen;
            });
        } else {
            tarn::InAppManager::shared().registerInAppScreen(nullptr);
        }
        return TARN_OK;
    });
}

int tarn_inapp_report_opened(tarn_inapp* inapp) {
    return guarded([&] {
        screenOf(inapp).reportOpened();
        return TARN_OK;
    });
}

int tarn_inapp_report_dismissed(tarn_inapp* inapp) {
    return guarded([&] {
        screenOf(inapp).reportDismissed();
        return TARN_OK;
    });
}

int tarn_inapp_report_self_clicked(tarn_inapp* inapp) {
    return guarded([&] {
        screenOf(inapp).reportSelfClicked();
        return TARN_OK;
    });
}

int tarn_inapp_report_button_clicked(tarn_inapp* inapp, size_t button_index) {
    return guarded([&] {
        auto& screen = screenOf(inapp);
        if (button_index >= screen.buttons.size()) {
            throw Failure{TARN_ERR_INVALID_ARGUMENT,
                          "button_index " + std::to_string(button_index) + " is past the " +
                              std::to_string(screen.buttons.size()) + " buttons shown"};
        }
        screen.reportButtonClicked(screen.buttons[button_index]);
        return TARN_OK;
    });
}

void tarn_inapp_release(tarn_inapp* inapp) {
    guarded([&] {
        delete inapp;
        return TARN_OK;
    });
}

int tarn_set_log_handler(tarn_log_handler handler, void* user_data) {
    return guarded([&] {
        std::lock_guard lock(logMutex);
        logRoute = {handler, user_data};
        installLogRoute();
        return TARN_OK;
    });
}

int tarn_set_log_level(int level) {
    return guarded([&] {
        if (level < TARN_LOG_OFF || level > TARN_LOG_DEBUG) {
            throw Failure{TARN_ERR_INVALID_ARGUMENT,
                          "level " + std::to_string(level) + " is not a tarn_log_level"};
        }
        logLevel = level;
        std::lock_guard lock(logMutex);
        installLogRoute();
        return TARN_OK;
    });
}

int tarn_run_pending(uint32_t timeout_ms, size_t* ran) {
    return guarded([&] {
        std::shared_ptr<PumpedQueue> queue;
        {
            std::lock_guard lock(queueMutex);
            queue = pumped;
        }
        if (!queue) {
            throw Failure{TARN_ERR_STATE,
                          "the main queue is not pumped by the host (initialise with "
                          "main_queue = TARN_MAIN_QUEUE_PUMPED first)"};
        }
        if (queue->isCurrent()) {
            throw Failure{TARN_ERR_STATE, "tarn_run_pending was called from a task of the queue"};
        }
        const auto count = queue->runPending(std::chrono::milliseconds(timeout_ms));
        if (ran) {
            *ran = count;
        }
        return TARN_OK;
    });
}

}  // extern "C"
