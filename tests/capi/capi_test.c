/* The C interface driven from C against `tarn serve`. One program, one mode per ctest entry:
 *   calls    every call on the library's own main queue, the events they send, the getters and
 *            the log handler and level; then every wrong argument (NULL pointers, wrong sizes,
 *            texts that are not JSON objects): its status, its message, and nothing stored
 *   oldhost  a host compiled against an older header (a shorter tarn_options) and one compiled
 *            against a newer header (a longer one)
 *   pumped   the host pumps the main queue; an in-app popup through a C presenter, its action
 *            to the event's callback on the pumping thread
 *   consent  consent required: nothing is sent until the grant, only later events arrive; a
 *            denial and an erasure through the C calls
 *   parity   the events a C++ host sends (tarn_capi_twin, run first) equal byte for byte those
 *            the same calls send through the C interface, apart from request id and time stamp */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "harness.h"
#include "tarn/tarn.h"

/* ---- Log capture ---- */

static pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
static char log_text[1 << 20];
static size_t log_length = 0;
static int log_levels_seen[4];

static void capture_line(int level, const char* line, size_t length, void* user_data) {
    CHECK(user_data == (void*)log_text);
    CHECK(strlen(line) == length);
    pthread_mutex_lock(&log_mutex);
    if (level >= 0 && level < 4) log_levels_seen[level]++;
    if (log_length + length + 2 < sizeof log_text) {
        memcpy(log_text + log_length, line, length);
        log_length += length;
        log_text[log_length++] = '\n';
        log_text[log_length] = 0;
    }
    pthread_mutex_unlock(&log_mutex);
}

static int logged(const char* text) {
    pthread_mutex_lock(&log_mutex);
    int found = strstr(log_text, text) != NULL;
    pthread_mutex_unlock(&log_mutex);
    return found;
}

static size_t log_size(void) {
    pthread_mutex_lock(&log_mutex);
    size_t size = log_length;
    pthread_mutex_unlock(&log_mutex);
    return size;
}

/* ---- Helpers ---- */

static tarn_options host_options(const char* actor, int main_queue) {
    tarn_options options;
    memset(&options, 0, sizeof options);
    options.size = sizeof options;
    options.application_name = "CHost";
    options.actor_id = actor;
    options.bundle_dir = harness_path("bundle");
    options.data_dir = harness_path("data");
    options.main_queue = main_queue;
    return options;
}

static int wait_status(int wanted, double seconds) {
    for (int i = 0; i < (int)(seconds * 20); ++i) {
        int status = -1;
        CHECK_STATUS(tarn_initialize_status(&status), TARN_OK);
        if (status == wanted) return 1;
        harness_sleep_ms(50);
    }
    return 0;
}

static const char* kPush =
    "{\"data\":\"{\\\"code\\\":\\\"PUSH-7\\\",\\\"communicationId\\\":\\\"push-uuid-7\\\"}\"}";

static void* other_thread_error(void* unused) {
    (void)unused;
    /* The last error is the calling thread's own. */
    const char* message = tarn_last_error();
    return (void*)(intptr_t)(message && message[0] == 0);
}

/* ---- calls ---- */

static int run_calls(void) {
    harness_start_server(harness_path("bundle"), NULL);
    CHECK(tarn_version() == TARN_C_VERSION);
    CHECK_STATUS(tarn_set_log_handler(capture_line, log_text), TARN_OK);

    int status = -1;
    CHECK_STATUS(tarn_initialize_status(&status), TARN_OK);
    CHECK(status == TARN_STATUS_NOT_INITIALIZED);
    /* Pumping needs a pumped main queue. */
    CHECK_STATUS(tarn_run_pending(0, NULL), TARN_ERR_STATE);

    tarn_options options = host_options("c-actor-1", TARN_MAIN_QUEUE_THREAD);
    CHECK_STATUS(tarn_initialize(&options), TARN_OK);
    CHECK(wait_status(TARN_STATUS_INITIALIZED, 20));
    CHECK(logged("Tarn: checkAuthToken;"));
    CHECK(harness_wait_event("sdk_initialize", 10) != NULL);
    CHECK(harness_count_events("install") == 1);
    /* The main queue stays the one chosen first. */
    options.main_queue = TARN_MAIN_QUEUE_PUMPED;
    options.force_initialize = 1;
    CHECK_STATUS(tarn_initialize(&options), TARN_ERR_STATE);
    CHECK(strstr(tarn_last_error(), "main queue") != NULL);

    char text[256];
    size_t needed = 0;
    CHECK_STATUS(tarn_get_actor_id(text, sizeof text, &needed), TARN_OK);
    CHECK(strcmp(text, "c-actor-1") == 0);
    CHECK(needed == strlen("c-actor-1") + 1);

    /* Every event call. */
    CHECK_STATUS(tarn_send_custom_event("CartScreen", "Cart", "add_to_cart",
                                        "{\"sku\":\"A-42\",\"qty\":2}", NULL, NULL),
                 TARN_OK);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "no_parameters", NULL, NULL, NULL), TARN_OK);
    CHECK_STATUS(tarn_send_login_event("LoginScreen", "Login", "c-actor-2", "{\"method\":\"pw\"}"),
                 TARN_OK);
    CHECK_STATUS(tarn_send_page_in_event("HomeScreen", "Home"), TARN_OK);
    CHECK_STATUS(tarn_send_page_out_event("HomeScreen", NULL), TARN_OK);
    CHECK_STATUS(tarn_send_page_in_event(NULL, "NoScreen"), TARN_OK); /* no screen: ignored */
    CHECK_STATUS(tarn_send_app_background_event("HomeScreen", "Home"), TARN_OK);
    CHECK_STATUS(tarn_send_app_foreground_event("HomeScreen", "Home"), TARN_OK);
    CHECK_STATUS(tarn_send_application_error_event("disk full", "std::runtime_error"), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_clicked_event(kPush), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_dismissed_event(kPush), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_received_event(kPush), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_denied_event("{}"), TARN_OK);

    /* Tokens: a first token is stored silently, a changed one sends its change event. */
    CHECK_STATUS(tarn_set_push_token("push-1"), TARN_OK);
    CHECK_STATUS(tarn_set_push_token("push-2"), TARN_OK);
    CHECK_STATUS(tarn_get_push_token(text, sizeof text, NULL), TARN_OK);
    CHECK(strcmp(text, "push-2") == 0);
    const uint8_t apns1[] = {0x0A, 0xFF};
    const uint8_t apns2[] = {0x01, 0x02, 0x03};
    CHECK_STATUS(tarn_set_apns_token(apns1, sizeof apns1), TARN_OK);
    CHECK_STATUS(tarn_get_apns_token(text, sizeof text, NULL), TARN_OK);
    CHECK(strcmp(text, "0aff") == 0);
    CHECK_STATUS(tarn_set_apns_token(apns2, sizeof apns2), TARN_OK);
    CHECK_STATUS(tarn_get_apns_token(text, sizeof text, NULL), TARN_OK);
    CHECK(strcmp(text, "010203") == 0);
    CHECK_STATUS(tarn_get_actor_id(text, sizeof text, NULL), TARN_OK);
    CHECK(strcmp(text, "c-actor-2") == 0);
    CHECK_STATUS(tarn_send_logout_event(), TARN_OK);

    const char* body = harness_wait_event("logout", 15);
    CHECK(body && strstr(body, "\"actorId\":\"c-actor-2\""));
    body = harness_wait_event("add_to_cart", 1);
    CHECK(body && strstr(body, "\"sku\":\"A-42\"") && strstr(body, "\"qty\":2") &&
          strstr(body, "\"pageName\":\"Cart\"") && strstr(body, "\"applicationName\":\"CHost\""));
    body = harness_wait_event("login", 1);
    CHECK(body && strstr(body, "\"method\":\"pw\"") && strstr(body, "\"actorId\":\"c-actor-2\""));
    body = harness_wait_event("page_in", 1);
    CHECK(body && strstr(body, "\"pageName\":\"Home\""));
    body = harness_wait_event("page_out", 1);
    CHECK(body && strstr(body, "\"pageName\":\"HomeScreen\"")); /* the screen's name */
    CHECK(harness_count_events("page_in") == 1);
    CHECK(harness_wait_event("no_parameters", 1) != NULL);
    CHECK(harness_wait_event("app_background", 1) != NULL);
    CHECK(harness_wait_event("app_foreground", 1) != NULL);
    body = harness_wait_event("application_error", 1);
    CHECK(body && strstr(body, "disk full") && strstr(body, "std::runtime_error"));
    CHECK(harness_wait_event("push_notification_clicked", 1) != NULL);
    CHECK(harness_wait_event("push_notification_dismissed", 1) != NULL);
    CHECK(harness_wait_event("push_notification_received", 1) != NULL);
    CHECK(harness_wait_event("push_notificition_denied", 1) != NULL);
    CHECK(harness_count_events("push_token_change") == 2);
    CHECK(harness_wait_event("actor_change", 1) != NULL);

    /* The app group's stored actor (none was stored in this group). */
    needed = 99;
    CHECK_STATUS(tarn_get_app_group_actor_id("group.none", text, sizeof text, &needed),
                 TARN_ERR_NOT_FOUND);
    CHECK(needed == 0);
    CHECK(logged("Actor ID bulunamad"));

    /* The level switch: off keeps every line away, debug lets every line through again. */
    CHECK(log_levels_seen[2] > 0);
    CHECK_STATUS(tarn_set_log_level(TARN_LOG_OFF), TARN_OK);
    size_t before = log_size();
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "quiet_event", NULL, NULL, NULL), TARN_OK);
    CHECK(log_size() == before);
    CHECK_STATUS(tarn_set_log_level(TARN_LOG_DEBUG), TARN_OK);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "loud_event", NULL, NULL, NULL), TARN_OK);
    CHECK(logged("loud_event has been saved to the queue."));
    CHECK(!logged("quiet_event has been saved"));
    CHECK_STATUS(tarn_set_log_level(7), TARN_ERR_INVALID_ARGUMENT);
    CHECK_STATUS(tarn_set_log_level(-2), TARN_ERR_INVALID_ARGUMENT);

    /* ---- Wrong arguments: a status, a message, nothing stored ---- */
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "bad_event", "[1,2]", NULL, NULL),
                 TARN_ERR_NOT_OBJECT);
    CHECK(strstr(tarn_last_error(), "parameters_json") != NULL);
    CHECK(strstr(tarn_last_error(), "array") != NULL);
    pthread_t thread;
    void* clean = NULL;
    pthread_create(&thread, NULL, other_thread_error, NULL);
    pthread_join(thread, &clean);
    CHECK(clean == (void*)(intptr_t)1);
    CHECK(tarn_last_error()[0] != 0); /* still this thread's */
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "bad_event", "\"text\"", NULL, NULL),
                 TARN_ERR_NOT_OBJECT);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "bad_event", "42", NULL, NULL),
                 TARN_ERR_NOT_OBJECT);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "bad_event", "null", NULL, NULL),
                 TARN_ERR_NOT_OBJECT);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "bad_event", "{\"a\":", NULL, NULL),
                 TARN_ERR_INVALID_JSON);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "bad_event", "", NULL, NULL),
                 TARN_ERR_INVALID_JSON);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, NULL, "{}", NULL, NULL),
                 TARN_ERR_NULL_ARGUMENT);
    CHECK(strstr(tarn_last_error(), "event_name") != NULL);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "", "{}", NULL, NULL),
                 TARN_ERR_INVALID_ARGUMENT);
    CHECK_STATUS(tarn_send_login_event(NULL, NULL, "bad-login-actor", "[]"), TARN_ERR_NOT_OBJECT);
    CHECK_STATUS(tarn_send_login_event(NULL, NULL, NULL, NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_send_application_error_event(NULL, "t"), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_send_application_error_event("m", NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_send_push_notification_clicked_event("[\"x\"]"), TARN_ERR_NOT_OBJECT);
    CHECK_STATUS(tarn_send_push_notification_dismissed_event("nope"), TARN_ERR_INVALID_JSON);
    CHECK_STATUS(tarn_send_push_notification_received_event("true"), TARN_ERR_NOT_OBJECT);
    CHECK_STATUS(tarn_send_push_notification_denied_event(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_set_push_token(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_set_apns_token(NULL, 3), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_initialize(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_initialize_status(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_get_app_group_actor_id(NULL, text, sizeof text, NULL),
                 TARN_ERR_NULL_ARGUMENT);
    tarn_options bad = host_options("bad-size-actor", TARN_MAIN_QUEUE_THREAD);
    bad.force_initialize = 1;
    bad.size = 0;
    CHECK_STATUS(tarn_initialize(&bad), TARN_ERR_BAD_SIZE);
    bad.size = 4;
    CHECK_STATUS(tarn_initialize(&bad), TARN_ERR_BAD_SIZE);
    bad.size = sizeof bad;
    bad.main_queue = 5;
    CHECK_STATUS(tarn_initialize(&bad), TARN_ERR_INVALID_ARGUMENT);
    /* Getters: too small a buffer says how much is needed; a NULL buffer of size 0 only asks. */
    char tiny[4];
    needed = 0;
    CHECK_STATUS(tarn_get_actor_id(tiny, sizeof tiny, &needed), TARN_ERR_BUFFER_TOO_SMALL);
    CHECK(needed > sizeof tiny);
    needed = 0;
    CHECK_STATUS(tarn_get_actor_id(NULL, 0, &needed), TARN_OK);
    CHECK(needed > 1);
    CHECK_STATUS(tarn_get_push_token(NULL, 10, NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_get_apns_token(tiny, 2, NULL), TARN_ERR_BUFFER_TOO_SMALL);
    /* In-app handles. */
    CHECK_STATUS(tarn_inapp_report_opened(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_inapp_report_dismissed(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_inapp_report_self_clicked(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_inapp_report_button_clicked(NULL, 0), TARN_ERR_NULL_ARGUMENT);
    tarn_inapp_release(NULL);
    CHECK(strcmp(tarn_status_name(TARN_ERR_NOT_OBJECT), "TARN_ERR_NOT_OBJECT") == 0);
    CHECK(strcmp(tarn_status_name(1234), "unknown") == 0);

    /* Nothing of the refused calls was stored: the queue is first in, first out, so once a
       later event has arrived every stored earlier one has too. */
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "after_errors", NULL, NULL, NULL), TARN_OK);
    CHECK(tarn_last_error()[0] == 0);
    CHECK(harness_wait_event("after_errors", 10) != NULL);
    CHECK(harness_count_events("bad_event") == 0);
    CHECK(harness_count_events("login") == 1);
    CHECK(harness_count_events("push_notification_clicked") == 1);
    CHECK(harness_count_events("push_notification_dismissed") == 1);
    CHECK(harness_count_events("push_notification_received") == 1);
    CHECK(harness_count_events("push_notificition_denied") == 1);
    CHECK(harness_count_events("application_error") == 1);
    CHECK(harness_count_events("install") == 1);
    CHECK_STATUS(tarn_get_actor_id(text, sizeof text, NULL), TARN_OK);
    CHECK(strcmp(text, "bad-login-actor") != 0 && strcmp(text, "bad-size-actor") != 0);

    /* Back to standard output; the handler sees nothing more. */
    CHECK_STATUS(tarn_set_log_handler(NULL, NULL), TARN_OK);
    before = log_size();
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "to_stdout", NULL, NULL, NULL), TARN_OK);
    CHECK(log_size() == before);
    return harness_finish();
}

/* ---- oldhost ---- */

/* tarn_options as a host compiled against a header that ended at `app_group` declares it. */
struct old_tarn_options {
    size_t size;
    const char* application_name;
    const char* actor_id;
    const char* domain_url;
    const char* authorization;
    const char* client_id;
    const char* client_secret;
    int application_lifecycle_auto;
    int send_activity_lifecycle_events;
    int force_initialize;
    const char* app_group;
};

/* tarn_options as a host compiled against a newer header declares it: one field more. */
struct newer_tarn_options {
    tarn_options current;
    const char* field_of_a_later_release;
};

static int run_oldhost(void) {
    /* The old host knows no bundle_dir or data_dir fields: they come from the environment, as
       the defaults do. */
    setenv("TARN_MAIN_BUNDLE", harness_path("bundle"), 1);
    setenv("TARN_DATA_DIR", harness_path("data"), 1);
    harness_start_server(harness_path("bundle"), NULL);

    struct newer_tarn_options newer;
    memset(&newer, 0, sizeof newer);
    newer.current = host_options("newer-actor", TARN_MAIN_QUEUE_THREAD);
    newer.current.bundle_dir = NULL;
    newer.current.data_dir = NULL;
    newer.current.size = sizeof newer;
    newer.field_of_a_later_release = "set";
    CHECK_STATUS(tarn_initialize((const tarn_options*)&newer), TARN_ERR_BAD_SIZE);
    int status = -1;
    CHECK_STATUS(tarn_initialize_status(&status), TARN_OK);
    CHECK(status == TARN_STATUS_NOT_INITIALIZED);

    struct old_tarn_options old;
    memset(&old, 0xA5, sizeof old); /* the bytes past the old struct are none of its business */
    old.size = sizeof old;
    old.application_name = "OldHost";
    old.actor_id = "old-actor";
    old.domain_url = NULL;
    old.authorization = NULL;
    old.client_id = NULL;
    old.client_secret = NULL;
    old.application_lifecycle_auto = 0;
    old.send_activity_lifecycle_events = 0;
    old.force_initialize = 0;
    old.app_group = NULL;
    /* Copy it into a larger block whose tail is garbage: the library must read only `size`. */
    unsigned char block[sizeof(tarn_options) + 64];
    memset(block, 0x5A, sizeof block);
    memcpy(block, &old, sizeof old);
    CHECK(sizeof old < sizeof(tarn_options));
    CHECK_STATUS(tarn_initialize((const tarn_options*)block), TARN_OK);
    CHECK(wait_status(TARN_STATUS_INITIALIZED, 20));
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "old_host_event", "{\"v\":1}", NULL, NULL),
                 TARN_OK);
    const char* body = harness_wait_event("old_host_event", 15);
    CHECK(body && strstr(body, "\"applicationName\":\"OldHost\"") &&
          strstr(body, "\"actorId\":\"old-actor\""));

    /* A newer host whose extra fields are zero is accepted. */
    memset(&newer, 0, sizeof newer);
    newer.current = host_options("newer-actor", TARN_MAIN_QUEUE_THREAD);
    newer.current.bundle_dir = NULL;
    newer.current.data_dir = NULL;
    newer.current.size = sizeof newer;
    newer.current.force_initialize = 1;
    CHECK_STATUS(tarn_initialize((const tarn_options*)&newer), TARN_OK);
    CHECK(wait_status(TARN_STATUS_INITIALIZED, 20));
    char text[64];
    CHECK_STATUS(tarn_get_actor_id(text, sizeof text, NULL), TARN_OK);
    CHECK(strcmp(text, "newer-actor") == 0);
    return harness_finish();
}

/* ---- pumped ---- */

static pthread_t pump_thread;
static int presented = 0;
static int presented_on_pump = 0;
static tarn_inapp* shown = NULL;
static char shown_json[8192];
static char action_json[512];
static int action_on_pump = 0;
static int action_user_data_ok = 0;

static void present(tarn_inapp* inapp, const char* inapp_json, void* user_data) {
    presented++;
    presented_on_pump = pthread_equal(pthread_self(), pump_thread) && user_data == &presented;
    shown = inapp;
    snprintf(shown_json, sizeof shown_json, "%s", inapp_json);
}

static void on_action(const char* json, void* user_data) {
    snprintf(action_json, sizeof action_json, "%s", json);
    action_on_pump = pthread_equal(pthread_self(), pump_thread);
    action_user_data_ok = user_data == (void*)action_json;
}

static int pump_until(int* flag, double seconds) {
    for (int i = 0; i < (int)(seconds * 10); ++i) {
        size_t ran = 0;
        CHECK_STATUS(tarn_run_pending(100, &ran), TARN_OK);
        if (*flag) return 1;
    }
    return 0;
}

static int status_is_initialized(void) {
    static int value;
    int status = -1;
    tarn_initialize_status(&status);
    value = status == TARN_STATUS_INITIALIZED;
    return value;
}

static int run_pumped(void) {
    const char* answer = harness_path("answer.json");
    harness_write_file(
        answer,
        "{\"inAppCommunicationCommands\":[{\"uuid\":\"c-popup-1\",\"code\":\"C-POP\","
        "\"name\":\"C popup\",\"expireDate\":4102444800000,\"template\":\"POPUP\","
        "\"triggeringEventName\":\"show_popup\",\"title\":{\"text\":\"Hello C\",\"color\":"
        "\"#112233\"},\"body\":{\"text\":\"Body\",\"color\":\"#445566\"},\"maxShowCount\":5,"
        "\"bgColor\":\"#FFFFFF\",\"subInAppCommunication\":{\"template\":\"POPUP\",\"buttons\":[{\"_id\":\"b1\","
        "\"text\":\"Open\",\"action\":{\"link\":\"chost://cart\",\"type\":\"deep\"}}]}}],"
        "\"configuration\":{\"eventQueueDelay\":0.05}}");
    harness_start_server(harness_path("bundle"), answer);
    pump_thread = pthread_self();
    CHECK_STATUS(tarn_set_inapp_presenter(present, &presented), TARN_OK);
    tarn_options options = host_options("pump-actor", TARN_MAIN_QUEUE_PUMPED);
    CHECK_STATUS(tarn_initialize(&options), TARN_OK);
    /* Nothing of the main queue runs while the host does not pump: the in-app fetch waits. */
    harness_sleep_ms(1500);
    int status = -1;
    CHECK_STATUS(tarn_initialize_status(&status), TARN_OK);
    CHECK(status == TARN_STATUS_INITIALIZING);
    for (int i = 0; i < 100 && !status_is_initialized(); ++i) {
        CHECK_STATUS(tarn_run_pending(100, NULL), TARN_OK);
    }
    CHECK(status_is_initialized());

    CHECK_STATUS(tarn_send_custom_event("ShopScreen", "Shop", "show_popup", "{}", on_action,
                                        action_json),
                 TARN_OK);
    CHECK(pump_until(&presented, 5));
    CHECK(presented == 1 && presented_on_pump);
    CHECK(strstr(shown_json, "\"code\":\"C-POP\"") && strstr(shown_json, "\"template\":\"POPUP\"") &&
          strstr(shown_json, "\"kind\":\"title\"") && strstr(shown_json, "\"#112233\"") &&
          strstr(shown_json, "\"kind\":\"button\"") && strstr(shown_json, "\"pageName\":\"Shop\""));
    if (shown) {
        CHECK_STATUS(tarn_inapp_report_opened(shown), TARN_OK);
        CHECK_STATUS(tarn_inapp_report_button_clicked(shown, 1), TARN_ERR_INVALID_ARGUMENT);
        CHECK_STATUS(tarn_inapp_report_button_clicked(shown, 0), TARN_OK);
        CHECK(strcmp(action_json, "{\"link\":\"chost://cart\",\"type\":\"deep\"}") == 0);
        CHECK(action_on_pump && action_user_data_ok);
        CHECK_STATUS(tarn_inapp_report_dismissed(shown), TARN_OK);
        tarn_inapp_release(shown);
    }
    /* The queue's timer runs only while pumped, too. */
    int arrived = 0;
    for (int i = 0; i < 100 && !arrived; ++i) {
        CHECK_STATUS(tarn_run_pending(100, NULL), TARN_OK);
        arrived = harness_count_events("in_app_dismissed") == 1;
    }
    CHECK(arrived);
    const char* body = harness_wait_event("in_app_button_clicked", 1);
    CHECK(body && strstr(body, "\"buttonId\":\"b1\"") && strstr(body, "\"communicationCode\":\"C-POP\""));
    CHECK(harness_wait_event("in_app_opened", 1) != NULL);
    CHECK(harness_wait_event("show_popup", 1) != NULL);
    CHECK_STATUS(tarn_set_inapp_presenter(NULL, NULL), TARN_OK);
    return harness_finish();
}

/* ---- parity ---- */

/* The calls of the comparison, through the C interface; tarn_capi_twin makes the same ones
   through the C++ API. */
static void parity_calls(void) {
    CHECK_STATUS(tarn_send_custom_event("CartScreen", "Cart", "add_to_cart",
                                        "{\"sku\":\"A-42\",\"qty\":2,\"tags\":[\"x\",\"y\"],"
                                        "\"price\":9.5,\"gift\":false,\"note\":null}",
                                        NULL, NULL),
                 TARN_OK);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "no_parameters", NULL, NULL, NULL), TARN_OK);
    CHECK_STATUS(tarn_send_login_event("LoginScreen", "Login", "parity-user", "{\"method\":\"pw\"}"),
                 TARN_OK);
    CHECK_STATUS(tarn_send_page_in_event("HomeScreen", "Home"), TARN_OK);
    CHECK_STATUS(tarn_send_page_out_event("HomeScreen", NULL), TARN_OK);
    CHECK_STATUS(tarn_send_app_background_event("HomeScreen", "Home"), TARN_OK);
    CHECK_STATUS(tarn_send_app_foreground_event("HomeScreen", NULL), TARN_OK);
    CHECK_STATUS(tarn_send_application_error_event("disk full", "std::runtime_error"), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_clicked_event(kPush), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_dismissed_event(kPush), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_received_event(kPush), TARN_OK);
    CHECK_STATUS(tarn_send_push_notification_denied_event("{}"), TARN_OK);
    CHECK_STATUS(tarn_set_push_token("push-1"), TARN_OK);
    CHECK_STATUS(tarn_set_push_token("push-2"), TARN_OK);
    const uint8_t apns1[] = {0x0A, 0xFF};
    const uint8_t apns2[] = {0x01, 0x02};
    CHECK_STATUS(tarn_set_apns_token(apns1, sizeof apns1), TARN_OK);
    CHECK_STATUS(tarn_set_apns_token(apns2, sizeof apns2), TARN_OK);
    CHECK_STATUS(tarn_send_logout_event(), TARN_OK);
}

/* Blanks the value of `"key":` (a quoted text or a number) in `body`. */
static void blank(char* body, const char* key) {
    char pattern[64];
    snprintf(pattern, sizeof pattern, "\"%s\":", key);
    for (char* at = strstr(body, pattern); at; at = strstr(at + 1, pattern)) {
        char* value = at + strlen(pattern);
        if (*value == '"') {
            for (++value; *value && *value != '"'; ++value) *value = '#';
        } else {
            for (; *value >= '0' && *value <= '9'; ++value) *value = '#';
        }
    }
}

static int run_parity(const char* twin) {
    harness_start_server(harness_path("bundle"), NULL);
    /* The C++ host first, in its own data folder, until its queue has sent everything. */
    char bundle_env[800], data_env[800];
    snprintf(bundle_env, sizeof bundle_env, "TARN_MAIN_BUNDLE=%s", harness_path("bundle"));
    snprintf(data_env, sizeof data_env, "TARN_DATA_DIR=%s", harness_path("data-cpp"));
    char* argv[] = {(char*)twin, NULL};
    char* env[] = {bundle_env, data_env, NULL};
    CHECK(harness_run(argv, env) == 0);
    char** bodies;
    size_t cpp_count = harness_events(&bodies);
    CHECK(cpp_count >= 18);
    char** cpp = calloc(cpp_count + 1, sizeof *cpp);
    for (size_t i = 0; i < cpp_count; ++i) cpp[i] = strdup(bodies[i]);

    /* The same host through the C interface. */
    tarn_options options = host_options("parity-actor", TARN_MAIN_QUEUE_THREAD);
    options.data_dir = harness_path("data-c");
    CHECK_STATUS(tarn_initialize(&options), TARN_OK);
    CHECK(wait_status(TARN_STATUS_INITIALIZED, 20));
    CHECK(harness_wait_count(cpp_count + 2, 10)); /* install, sdk_initialize */
    parity_calls();
    CHECK(harness_wait_count(2 * cpp_count, 20));
    size_t total = harness_events(&bodies);
    CHECK(total == 2 * cpp_count);
    for (size_t i = 0; i < cpp_count && cpp_count + i < total; ++i) {
        char* from_c = strdup(bodies[cpp_count + i]);
        char* from_cpp = cpp[i];
        blank(from_c, "requestId");
        blank(from_c, "timestamp");
        blank(from_cpp, "requestId");
        blank(from_cpp, "timestamp");
        if (strcmp(from_c, from_cpp) != 0) {
            harness_failures++;
            fprintf(stderr, "event %zu differs:\n  C++: %s\n  C:   %s\n", i, from_cpp, from_c);
        }
        free(from_c);
    }
    for (size_t i = 0; i < cpp_count; ++i) free(cpp[i]);
    free(cpp);
    return harness_finish();
}

/* ---- consent ---- */

static int run_consent(void) {
    harness_start_server(harness_path("bundle"), NULL);
    CHECK_STATUS(tarn_set_log_handler(capture_line, log_text), TARN_OK);
    CHECK_STATUS(tarn_consent_state(NULL), TARN_ERR_NULL_ARGUMENT);
    CHECK_STATUS(tarn_set_consent_required(1), TARN_OK);
    int state = -1;
    CHECK_STATUS(tarn_consent_state(&state), TARN_OK);
    CHECK(state == TARN_CONSENT_NOT_ASKED);

    /* Not asked yet: initialisation waits, events are dropped, nothing reaches the server. */
    tarn_options options = host_options("consent-actor", TARN_MAIN_QUEUE_THREAD);
    CHECK_STATUS(tarn_initialize(&options), TARN_OK);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "before_grant", "{\"n\":1}", NULL, NULL),
                 TARN_OK);
    harness_sleep_ms(1500);
    int status = -1;
    CHECK_STATUS(tarn_initialize_status(&status), TARN_OK);
    CHECK(status == TARN_STATUS_NOT_INITIALIZED);
    CHECK(harness_wait_count(1, 0.1) == 0);

    /* The grant resumes the start-up; only what comes after it is sent. */
    CHECK_STATUS(tarn_grant_consent(), TARN_OK);
    CHECK_STATUS(tarn_consent_state(&state), TARN_OK);
    CHECK(state == TARN_CONSENT_GRANTED);
    CHECK(wait_status(TARN_STATUS_INITIALIZED, 20));
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "after_grant", "{\"n\":2}", NULL, NULL),
                 TARN_OK);
    CHECK(harness_wait_event("after_grant", 15) != NULL);
    CHECK(harness_count_events("before_grant") == 0);

    /* A denial, then an erasure that keeps the answer: the database is gone. */
    CHECK_STATUS(tarn_deny_consent(), TARN_OK);
    CHECK_STATUS(tarn_consent_state(&state), TARN_OK);
    CHECK(state == TARN_CONSENT_DENIED);
    CHECK_STATUS(tarn_send_custom_event(NULL, NULL, "after_denial", NULL, NULL, NULL), TARN_OK);
    CHECK_STATUS(tarn_erase_local_data(1), TARN_OK);
    char database[4096];
    snprintf(database, sizeof database, "%s/TarnDatabase.sqlite", harness_path("data"));
    FILE* left = fopen(database, "rb");
    CHECK(left == NULL);
    if (left) fclose(left);
    CHECK_STATUS(tarn_consent_state(&state), TARN_OK);
    CHECK(state == TARN_CONSENT_DENIED);
    harness_sleep_ms(500);
    CHECK(harness_count_events("after_denial") == 0);
    return harness_finish();
}

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "";
    if (strcmp(mode, "calls") == 0) return run_calls();
    if (strcmp(mode, "oldhost") == 0) return run_oldhost();
    if (strcmp(mode, "pumped") == 0) return run_pumped();
    if (strcmp(mode, "consent") == 0) return run_consent();
    if (strcmp(mode, "parity") == 0 && argc > 2) return run_parity(argv[2]);
    fprintf(stderr, "usage: %s calls|oldhost|pumped|consent|parity <twin>\n", argv[0]);
    return 2;
}
