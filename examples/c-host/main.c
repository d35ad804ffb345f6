/* A C host: initialises the library with its main queue pumped on this thread, sends one custom
 * event and runs the queue for a few seconds, so that the event reaches the server.
 * The bundle folder ($TARN_MAIN_BUNDLE, else this program's folder) holds TarnService-Info.plist. */
#include <stdio.h>
#include <tarn/tarn.h>

static void print_line(int level, const char* line, size_t length, void* user_data) {
    (void)user_data;
    fprintf(stderr, "[%d] %.*s\n", level, (int)length, line);
}

static void on_action(const char* action_json, void* user_data) {
    (void)user_data;
    printf("in-app action: %s\n", action_json); /* e.g. {"link":"shop://cart","type":"deep"} */
}

int main(void) {
    tarn_set_log_handler(print_line, NULL);
    tarn_set_log_level(TARN_LOG_INFO);

    tarn_options options = {.size = sizeof(tarn_options)}; /* the rest zero: the defaults */
    options.application_name = "CHost";
    options.main_queue = TARN_MAIN_QUEUE_PUMPED; /* no event loop here: this thread runs it */
    if (tarn_initialize(&options) != TARN_OK) {
        fprintf(stderr, "tarn_initialize: %s\n", tarn_last_error());
        return 1;
    }

    int rc = tarn_send_custom_event(NULL, "Home", "add_to_cart", "{\"sku\":\"A-42\",\"qty\":2}",
                                    on_action, NULL);
    if (rc != TARN_OK) {
        fprintf(stderr, "%s: %s\n", tarn_status_name(rc), tarn_last_error());
        return 1;
    }

    for (int i = 0; i < 50; ++i) { /* 5 s of main queue: initialisation, then the queue's timer */
        tarn_run_pending(100, NULL);
    }
    int status = TARN_STATUS_NOT_INITIALIZED;
    tarn_initialize_status(&status);
    return status == TARN_STATUS_INITIALIZED ? 0 : 1;
}
