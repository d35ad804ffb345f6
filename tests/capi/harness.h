/* Test support for the C interface's tests, in C: checks that count failures, a temporary
 * folder, the host's bundle, and `tarn serve` as a child process with its events file. */
#ifndef TARN_CAPI_HARNESS_H
#define TARN_CAPI_HARNESS_H

#include <stddef.h>

extern int harness_failures;

#define CHECK(cond)                                                                   \
    do {                                                                              \
        if (!(cond)) {                                                                \
            harness_failures++;                                                       \
            fprintf(stderr, "%s:%d: CHECK failed: %s\n", __FILE__, __LINE__, #cond); \
        }                                                                             \
    } while (0)

/* A call's status must be `expected`. */
#define CHECK_STATUS(call, expected)                                                          \
    do {                                                                                      \
        int status_ = (call);                                                                 \
        if (status_ != (expected)) {                                                          \
            harness_failures++;                                                               \
            fprintf(stderr, "%s:%d: %s gave %s (%s), expected %s\n", __FILE__, __LINE__,     \
                    #call, tarn_status_name(status_), tarn_last_error(), #expected);          \
        }                                                                                     \
    } while (0)

/* A fresh folder under $TMPDIR (or /tmp), removed at exit. */
const char* harness_temp_dir(void);
/* `harness_temp_dir()` + "/" + name, in a static ring of buffers. */
const char* harness_path(const char* name);

/* Starts `tarn serve` with the given in-app answer file (NULL: no communications and a queue
 * delay of 0.05 s) and
 * writes the bundle folder `bundle` with a service file naming it. The server is stopped at exit. */
void harness_start_server(const char* bundle, const char* inapp_file);
/* "http://127.0.0.1:<port>". */
const char* harness_server_url(void);
/* Writes `text` to the file `path`. */
void harness_write_file(const char* path, const char* text);

/* The server's accepted events so far, one compact JSON body per entry (static storage, valid
 * until the next call). */
size_t harness_events(char*** bodies);
/* Waits up to `seconds` until an accepted event named `name` is there; its body or NULL. */
const char* harness_wait_event(const char* name, double seconds);
/* How many accepted events are named `name`. */
size_t harness_count_events(const char* name);
/* Waits up to `seconds` for at least `count` accepted events. */
int harness_wait_count(size_t count, double seconds);

/* Sleeps `ms` milliseconds. */
void harness_sleep_ms(int ms);
/* Runs `argv` as a child process with `env` added (NULL-terminated "K=V" list) and waits for it;
 * its exit status, or -1. */
int harness_run(char* const argv[], char* const env[]);

/* The test's verdict: 0 when no check failed. */
int harness_finish(void);

#endif
