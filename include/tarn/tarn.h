/** \file
 * The library's C interface: a stable ABI over the C++ API, for C hosts and for every language that
 * reaches native code through C (Python's ctypes, Rust, Go, C#, Electron).
 *
 * It lives in its own shared library, libtarn.so.1 (pkg-config "tarn", CMake target tarn::tarn),
 * which exports these functions and nothing else. It adds no behaviour: every call does what the
 * C++ call of the same name does, and every event it sends is the event the C++ call sends.
 *
 * Conventions.
 * - Every function returns a status (TARN_OK or a TARN_ERR_ code). On an error the calling thread's
 *   last-error message (tarn_last_error) says what was wrong; a failed call changes nothing and
 *   stores nothing. No C++ exception ever leaves a function of this header.
 * - A struct the host fills starts with its own size (`size`, set to sizeof the struct as the host
 *   knows it). Fields are only ever appended: a host compiled against an older header passes a
 *   smaller size and the fields it does not know take their defaults (zero, NULL); a host compiled
 *   against a newer header may pass a larger size as long as the fields this library does not know
 *   are all zero.
 * - Text is UTF-8 and NUL-terminated. Text the library receives is copied during the call. Text
 *   it hands to a callback is valid until the callback returns. Text a getter returns is copied
 *   into the caller's buffer (see tarn_get_actor_id); nothing the library returns is to be freed.
 * - Event parameters and push notifications are JSON text: NULL means none; a text that is not
 *   valid JSON gives TARN_ERR_INVALID_JSON and one that is not a JSON object TARN_ERR_NOT_OBJECT,
 *   and nothing is stored.
 * - A screen is named by its class name (`screen`, NULL for none), as the library reports it when
 *   an event gives no page name.
 *
 * Threads. Every call may be made from any thread and returns without waiting for the network.
 * The library's timers, the in-app fetch and in-app presentation run on its main queue, which
 * tarn_options.main_queue chooses at the first initialisation: a thread of the library's own
 * (TARN_MAIN_QUEUE_THREAD, the default) or the host's thread that calls tarn_run_pending
 * (TARN_MAIN_QUEUE_PUMPED, for hosts with no event loop of their own). Each callback type below
 * says on which thread it runs. */
#ifndef TARN_TARN_H
#define TARN_TARN_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__) || defined(__clang__)
/** Marks a function of the C interface (the only symbols libtarn exports). */
#define TARN_C_API __attribute__((visibility("default")))
#else
/** Marks a function of the C interface. */
#define TARN_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Status codes of every call. */
enum tarn_status_code {
    /** The call did what it says. */
    TARN_OK = 0,
    /** A required pointer argument is NULL. */
    TARN_ERR_NULL_ARGUMENT = 1,
    /** A struct's `size` is too small, or larger with fields this library does not know set. */
    TARN_ERR_BAD_SIZE = 2,
    /** A text that must be JSON does not parse. */
    TARN_ERR_INVALID_JSON = 3,
    /** A JSON text parses, but is not an object. */
    TARN_ERR_NOT_OBJECT = 4,
    /** An argument is out of its range (an unknown enumeration value, an empty name). */
    TARN_ERR_INVALID_ARGUMENT = 5,
    /** The caller's buffer is too small; the needed size (with the NUL) is reported. */
    TARN_ERR_BUFFER_TOO_SMALL = 6,
    /** The call does not fit the library's state (tarn_run_pending without a pumped main queue,
     * a different main queue at a later initialisation). */
    TARN_ERR_STATE = 7,
    /** Nothing to return (tarn_get_app_group_actor_id with no stored identifier). */
    TARN_ERR_NOT_FOUND = 8,
    /** The library failed inside (out of memory, an unexpected error); see tarn_last_error. */
    TARN_ERR_INTERNAL = 9
};

/** The calling thread's message about its last failed call ("" when none has failed). Valid until
 * the thread's next call of this interface. */
TARN_C_API const char* tarn_last_error(void);
/** The name of a status code ("TARN_OK", "TARN_ERR_NOT_OBJECT", ...); "unknown" for others. */
TARN_C_API const char* tarn_status_name(int status);
/** This interface's version: TARN_C_VERSION of the header the library was built with. */
TARN_C_API int tarn_version(void);
/** The version of this header. */
#define TARN_C_VERSION 1

/* ---- Initialisation ---- */

/** Main queue choices (tarn_options.main_queue). */
enum tarn_main_queue {
    /** The library runs its main queue on a thread of its own. */
    TARN_MAIN_QUEUE_THREAD = 0,
    /** The host runs the main queue by calling tarn_run_pending on a thread of its choice. */
    TARN_MAIN_QUEUE_PUMPED = 1
};

/** The host's configuration. Set `size` to sizeof(tarn_options); fields left zero or NULL take the
 * defaults given. */
typedef struct tarn_options {
    /** sizeof(tarn_options) as the host was compiled. */
    size_t size;
    /** The application's name as events carry it (NULL: ""). */
    const char* application_name;
    /** The host's actor identifier; NULL for the stored or a new guest identifier. */
    const char* actor_id;
    /** Always replaced by the service file's DOMAIN. */
    const char* domain_url;
    /** A ready-made "Authorization" header value; when set, no token is requested. */
    const char* authorization;
    /** Always replaced by the service file's CLIENT_ID. */
    const char* client_id;
    /** Always replaced by the service file's CLIENT_SECRET. */
    const char* client_secret;
    /** Non-zero: the library sends "app_background" and "app_foreground" itself. */
    int application_lifecycle_auto;
    /** Non-zero: automatic page tracking (the tarn_send_page_*_event calls are then ignored). */
    int send_activity_lifecycle_events;
    /** Non-zero: initialise again even when initialising or initialised. */
    int force_initialize;
    /** The app group whose preference store is shared with the host's other processes; NULL for
     * none. */
    const char* app_group;
    /** The folder holding "TarnService-Info.plist" and Info.plist; NULL for the default
     * ($TARN_MAIN_BUNDLE, else the executable's folder). */
    const char* bundle_dir;
    /** The folder where the library keeps its data; NULL for the default ($TARN_DATA_DIR, else
     * the per-user data folder). Only the first initialisation of a process sets it. */
    const char* data_dir;
    /** TARN_MAIN_QUEUE_THREAD (0) or TARN_MAIN_QUEUE_PUMPED; chosen by the first initialisation,
     * a later one must name the same. */
    int main_queue;
} tarn_options;

/** Initialises the library (Tarn::initialize): reads the service file, resolves the actor, loads
 * the stored state, obtains a token and, on the main queue one second later, fetches the in-app
 * communications. Returns at once; see tarn_initialize_status. Any thread. */
TARN_C_API int tarn_initialize(const tarn_options* options);

/** Initialisation status values. */
enum tarn_initialize_status_value {
    /** Initialisation is under way. */
    TARN_STATUS_INITIALIZING = 0,
    /** Initialised: events are being sent. */
    TARN_STATUS_INITIALIZED = 1,
    /** Not initialised yet. */
    TARN_STATUS_NOT_INITIALIZED = 2,
    /** The last initialisation failed; it may be tried again. */
    TARN_STATUS_INITIALIZE_FAILED = 3
};
/** Stores the initialisation status (a tarn_initialize_status_value) in `*status`. */
TARN_C_API int tarn_initialize_status(int* status);

/* ---- Identity and push tokens ----
 * Getters copy text into `buffer` of `buffer_size` bytes, NUL included. When `needed` is not NULL
 * it receives the size the text needs (NUL included), also on TARN_ERR_BUFFER_TOO_SMALL; a NULL
 * buffer with size 0 only asks for that size (and returns TARN_OK). */

/** The current actor identifier (the host's or a guest identifier). */
TARN_C_API int tarn_get_actor_id(char* buffer, size_t buffer_size, size_t* needed);
/** For a second process of an app group: the actor identifier stored in the group's preference
 * store (Tarn::getActorID); TARN_ERR_NOT_FOUND when there is none. Prints "Actor ID: <id>" or
 * "Actor ID bulunamadı." as the C++ call does. */
TARN_C_API int tarn_get_app_group_actor_id(const char* app_group, char* buffer,
                                           size_t buffer_size, size_t* needed);
/** Stores the push provider's token; a changed token sends "push_token_change". */
TARN_C_API int tarn_set_push_token(const char* token);
/** The push provider's token as stored ("" when none). */
TARN_C_API int tarn_get_push_token(char* buffer, size_t buffer_size, size_t* needed);
/** Stores the platform device token (`length` bytes) as lower-case hex text; a changed token
 * sends "push_token_change". `bytes` may be NULL only when `length` is 0. */
TARN_C_API int tarn_set_apns_token(const uint8_t* bytes, size_t length);
/** The platform device token as stored, lower-case hex ("" when none). */
TARN_C_API int tarn_get_apns_token(char* buffer, size_t buffer_size, size_t* needed);

/* ---- Events ---- */

/** Receives the action a user picked in an in-app communication, as JSON text such as
 * {"link":"shop://cart","type":"deep"} ("type" is "deep", "url" or "unknown"; absent members are
 * left out). The text is valid during the call. Runs on the thread on which the in-app screen
 * reports the tap (the thread that calls tarn_inapp_report_button_clicked for a C presenter). */
typedef void (*tarn_action_callback)(const char* action_json, void* user_data);

/** A custom event; it may show the in-app communication that names it. `on_action` (may be NULL)
 * and `user_data` are kept for as long as a communication shown for this event may report an
 * action: keep `user_data` valid that long (in practice, for the life of the process). */
TARN_C_API int tarn_send_custom_event(const char* screen, const char* page_name,
                                      const char* event_name, const char* parameters_json,
                                      tarn_action_callback on_action, void* user_data);
/** Logs `actor_id` in (blank identifiers are refused by the library with a log line) and sends
 * "login". */
TARN_C_API int tarn_send_login_event(const char* screen, const char* page_name,
                                     const char* actor_id, const char* parameters_json);
/** Sends "logout" for the current actor, then switches to the stored guest identifier. */
TARN_C_API int tarn_send_logout_event(void);
/** Manual page tracking; ignored while automatic page tracking is on or without a screen. */
TARN_C_API int tarn_send_page_in_event(const char* screen, const char* page_name);
/** Sends "page_out"; see tarn_send_page_in_event. */
TARN_C_API int tarn_send_page_out_event(const char* screen, const char* page_name);
/** Manual lifecycle tracking; ignored while automatic lifecycle tracking is on or without a
 * screen. */
TARN_C_API int tarn_send_app_background_event(const char* screen, const char* page_name);
/** Sends "app_foreground"; see tarn_send_app_background_event. */
TARN_C_API int tarn_send_app_foreground_event(const char* screen, const char* page_name);
/** "application_error" with the error's message and type name (what the C++ call takes from an
 * exception: its what() and its type, e.g. "std::runtime_error"). */
TARN_C_API int tarn_send_application_error_event(const char* message, const char* type);
/** Push interactions; `notification_json` is the notification's user-info dictionary, whose
 * "data" member holds the push item's JSON text. */
TARN_C_API int tarn_send_push_notification_clicked_event(const char* notification_json);
/** The push notification was dismissed. */
TARN_C_API int tarn_send_push_notification_dismissed_event(const char* notification_json);
/** The push notification was received. */
TARN_C_API int tarn_send_push_notification_received_event(const char* notification_json);
/** The user denied notifications. */
TARN_C_API int tarn_send_push_notification_denied_event(const char* notification_json);

/* ---- In-app screens of a C host ---- */

/** One presentation of an in-app communication, owned by the host from the moment the present
 * callback receives it until it calls tarn_inapp_release. */
typedef struct tarn_inapp tarn_inapp;

/** Shows a communication. `inapp_json` describes it, valid during the call:
 * {"uuid","code","name","template" ("POPUP", "SURVEY", "unknown"), "pageName" (or null),
 *  "rows": [{"kind":"title","text","color":"#RRGGBB"}, {"kind":"images","urls":[...]},
 *           {"kind":"body","text","color"}, {"kind":"button","index","text","id","action"}...],
 *  "communication": the communication as the server sent it}.
 * Runs on the main queue (the library's thread, or inside tarn_run_pending). */
typedef void (*tarn_inapp_present_callback)(tarn_inapp* inapp, const char* inapp_json,
                                            void* user_data);
/** Registers the host's in-app presenter (NULL removes it; without one a chosen communication logs
 * "In app view not found"). `user_data` is kept until the presenter is replaced. */
TARN_C_API int tarn_set_inapp_presenter(tarn_inapp_present_callback present, void* user_data);
/** Sends "in_app_opened" for the presentation. Any thread. */
TARN_C_API int tarn_inapp_report_opened(tarn_inapp* inapp);
/** Sends "in_app_dismissed". */
TARN_C_API int tarn_inapp_report_dismissed(tarn_inapp* inapp);
/** Sends "in_app_self_clicked" (the communication's own body was tapped). */
TARN_C_API int tarn_inapp_report_self_clicked(tarn_inapp* inapp);
/** Sends "in_app_button_clicked" for the button row `button_index` ("index" in the rows), then
 * hands the button's action, if any, to the event's tarn_action_callback on this thread. */
TARN_C_API int tarn_inapp_report_button_clicked(tarn_inapp* inapp, size_t button_index);
/** Ends the host's ownership of a presentation; NULL is ignored. */
TARN_C_API void tarn_inapp_release(tarn_inapp* inapp);

/* ---- Log ---- */

/** Levels of log lines, most important first; TARN_LOG_OFF switches every line off. */
enum tarn_log_level {
    /** No line at all (tarn_set_log_level only). */
    TARN_LOG_OFF = -1,
    /** A failure. */
    TARN_LOG_ERROR = 0,
    /** Something went wrong but was coped with, or will be tried again. */
    TARN_LOG_WARNING = 1,
    /** The normal course of things. */
    TARN_LOG_INFO = 2,
    /** Detail for looking into a problem. */
    TARN_LOG_DEBUG = 3
};
/** Receives one line ("<tag> <message>;", without a line end) and its level; `line` is valid
 * during the call and `length` is its length without the NUL. Runs synchronously on the thread
 * that logs (the host's thread, the main queue, an HTTP transfer thread): it must be
 * thread-safe. It may call this interface. */
typedef void (*tarn_log_handler)(int level, const char* line, size_t length, void* user_data);
/** Hands every later line to `handler` instead of standard output; NULL goes back to standard
 * output. */
TARN_C_API int tarn_set_log_handler(tarn_log_handler handler, void* user_data);
/** Keeps only lines at or above `level` (TARN_LOG_OFF: none), on standard output as for the
 * handler; the default is TARN_LOG_DEBUG (every line that TARN_LOG lets through). */
TARN_C_API int tarn_set_log_level(int level);

/* ---- Privacy ----
 * The user's consent to tracking and erasing what the library keeps, as the C++ calls of
 * tarn/core/Privacy.h do. Any thread; none has a callback. */

/** The user's stored answer (tarn_consent_state). */
enum tarn_consent_state_value {
    /** Not asked yet. */
    TARN_CONSENT_NOT_ASKED = 0,
    /** The user agreed. */
    TARN_CONSENT_GRANTED = 1,
    /** The user declined. */
    TARN_CONSENT_DENIED = 2
};
/** Non-zero: nothing is stored or sent until tarn_grant_consent. Call it before tarn_initialize,
 * at every launch (the switch is not kept; the answer is). */
TARN_C_API int tarn_set_consent_required(int required);
/** Stores the user's answer (a tarn_consent_state_value) in `*state`. */
TARN_C_API int tarn_consent_state(int* state);
/** Stores that the user agrees; an initialisation waiting for it runs now, on the calling thread. */
TARN_C_API int tarn_grant_consent(void);
/** Stores that the user declines: tracking stops and every event still queued is deleted. */
TARN_C_API int tarn_deny_consent(void);
/** Deletes everything the library keeps on the device (the consent answer too unless
 * `keep_consent` is non-zero); tracking stays off until the next tarn_initialize. TARN_ERR_INTERNAL
 * when a file could not be deleted. */
TARN_C_API int tarn_erase_local_data(int keep_consent);

/* ---- Main queue ---- */

/** For TARN_MAIN_QUEUE_PUMPED: runs the main queue's due tasks on the calling thread, waiting up to
 * `timeout_ms` milliseconds for one to become due when none is. `ran` (may be NULL) receives the
 * number of tasks run. TARN_ERR_STATE with another main queue, before the first initialisation,
 * or when called from a task of the queue. Call it from one thread at a time. */
TARN_C_API int tarn_run_pending(uint32_t timeout_ms, size_t* ran);

#ifdef __cplusplus
}
#endif

#endif /* TARN_TARN_H */
