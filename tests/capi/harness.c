#define _GNU_SOURCE
#include "harness.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#ifndef TARN_CLI_PATH
#error "TARN_CLI_PATH names the tarn command"
#endif

extern char** environ;

int harness_failures = 0;

static char temp_dir[512];
static pid_t server_pid = 0;
static char server_url[128];
static char events_path[600];

static void stop_server(void) {
    if (server_pid > 0) {
        kill(server_pid, SIGTERM);
        waitpid(server_pid, NULL, 0);
        server_pid = 0;
    }
}

static void remove_temp(void) {
    if (temp_dir[0] && !getenv("TARN_CAPI_KEEP")) {
        char* argv[] = {"rm", "-rf", temp_dir, NULL};
        harness_run(argv, NULL);
    }
}

static void fatal(const char* what) {
    fprintf(stderr, "harness: %s\n", what);
    stop_server();
    remove_temp();
    _exit(2);
}

const char* harness_temp_dir(void) {
    if (!temp_dir[0]) {
        const char* base = getenv("TMPDIR");
        snprintf(temp_dir, sizeof temp_dir, "%s/tarn-capi-XXXXXX", base && *base ? base : "/tmp");
        if (!mkdtemp(temp_dir)) {
            temp_dir[0] = 0;
            fatal("mkdtemp failed");
        }
        atexit(remove_temp);
    }
    return temp_dir;
}

const char* harness_path(const char* name) {
    static char ring[8][700];
    static int next = 0;
    char* out = ring[next++ % 8];
    snprintf(out, sizeof ring[0], "%s/%s", harness_temp_dir(), name);
    return out;
}

void harness_write_file(const char* path, const char* text) {
    FILE* file = fopen(path, "wb");
    if (!file) {
        fatal("cannot write a file");
    }
    fputs(text, file);
    fclose(file);
}

static char* read_file(const char* path) {
    FILE* file = fopen(path, "rb");
    if (!file) {
        return NULL;
    }
    size_t cap = 4096, len = 0;
    char* data = malloc(cap);
    size_t got;
    while (data && (got = fread(data + len, 1, cap - len - 1, file)) > 0) {
        len += got;
        if (cap - len < 2) {
            cap *= 2;
            data = realloc(data, cap);
        }
    }
    fclose(file);
    if (data) {
        data[len] = 0;
    }
    return data;
}

void harness_sleep_ms(int ms) {
    struct timespec t = {ms / 1000, (long)(ms % 1000) * 1000000L};
    nanosleep(&t, NULL);
}

static double now_seconds(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

void harness_start_server(const char* bundle, const char* inapp_file) {
    snprintf(events_path, sizeof events_path, "%s", harness_path("events.jsonl"));
    const char* log_path = harness_path("serve.log");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log_path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    char* argv[16];
    int n = 0;
    argv[n++] = TARN_CLI_PATH;
    argv[n++] = "serve";
    argv[n++] = "--port";
    argv[n++] = "0";
    argv[n++] = "--client-id";
    argv[n++] = "c-host";
    argv[n++] = "--client-secret";
    argv[n++] = "c-host-secret";
    argv[n++] = "--events-file";
    argv[n++] = events_path;
    if (!inapp_file) {
        /* No communications, and a short queue delay so that the events arrive quickly. */
        inapp_file = harness_path("empty-answer.json");
        harness_write_file(inapp_file, "{\"inAppCommunicationCommands\":[],"
                                       "\"configuration\":{\"eventQueueDelay\":0.05}}");
    }
    argv[n++] = "--inapp";
    argv[n++] = (char*)inapp_file;
    argv[n] = NULL;
    if (posix_spawn(&server_pid, TARN_CLI_PATH, &actions, NULL, argv, environ) != 0) {
        fatal("cannot start tarn serve");
    }
    posix_spawn_file_actions_destroy(&actions);
    atexit(stop_server);
    for (int i = 0; i < 200 && !server_url[0]; ++i) {
        char* log = read_file(log_path);
        const char* at = log ? strstr(log, "listening on http://") : NULL;
        if (at) {
            at += strlen("listening on ");
            size_t len = strspn(at, "htp:/0123456789.");
            snprintf(server_url, sizeof server_url, "%.*s", (int)len, at);
        }
        free(log);
        if (!server_url[0]) {
            harness_sleep_ms(50);
        }
    }
    if (!server_url[0]) {
        fatal("tarn serve did not say where it listens");
    }
    mkdir(bundle, 0700);
    char path[800], text[2048];
    snprintf(path, sizeof path, "%s/TarnService-Info.plist", bundle);
    snprintf(text, sizeof text,
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
             "<plist version=\"1.0\"><dict>\n"
             "<key>DOMAIN</key><string>%s</string>\n"
             "<key>CLIENT_ID</key><string>c-host</string>\n"
             "<key>CLIENT_SECRET</key><string>c-host-secret</string>\n"
             "</dict></plist>\n",
             server_url);
    harness_write_file(path, text);
    snprintf(path, sizeof path, "%s/Info.plist", bundle);
    harness_write_file(path,
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<plist version=\"1.0\"><dict>\n"
                       "<key>CFBundleIdentifier</key><string>com.example.chost</string>\n"
                       "</dict></plist>\n");
}

const char* harness_server_url(void) {
    return server_url;
}

size_t harness_events(char*** bodies) {
    static char* text = NULL;
    static char** lines = NULL;
    free(text);
    free(lines);
    text = read_file(events_path);
    lines = NULL;
    size_t count = 0, cap = 0;
    for (char* line = text ? strtok(text, "\n") : NULL; line; line = strtok(NULL, "\n")) {
        if (count + 1 >= cap) {
            cap = cap ? cap * 2 : 64;
            lines = realloc(lines, cap * sizeof *lines);
        }
        lines[count++] = line;
    }
    *bodies = lines;
    return count;
}

static int named(const char* body, const char* name) {
    char key[300];
    snprintf(key, sizeof key, "\"name\":\"%s\"", name);
    /* The server writes the keys sorted: the top-level "name" comes before "parameters", so the
       first occurrence is the event's own name. */
    const char* at = strstr(body, key);
    const char* parameters = strstr(body, "\"parameters\":");
    return at != NULL && (parameters == NULL || at < parameters);
}

const char* harness_wait_event(const char* name, double seconds) {
    double end = now_seconds() + seconds;
    do {
        char** bodies;
        size_t count = harness_events(&bodies);
        for (size_t i = 0; i < count; ++i) {
            if (named(bodies[i], name)) {
                return bodies[i];
            }
        }
        harness_sleep_ms(50);
    } while (now_seconds() < end);
    return NULL;
}

size_t harness_count_events(const char* name) {
    char** bodies;
    size_t count = harness_events(&bodies), found = 0;
    for (size_t i = 0; i < count; ++i) {
        found += named(bodies[i], name) ? 1 : 0;
    }
    return found;
}

int harness_wait_count(size_t count, double seconds) {
    double end = now_seconds() + seconds;
    do {
        char** bodies;
        if (harness_events(&bodies) >= count) {
            return 1;
        }
        harness_sleep_ms(50);
    } while (now_seconds() < end);
    return 0;
}

int harness_run(char* const argv[], char* const env[]) {
    size_t base = 0, extra = 0;
    while (environ[base]) base++;
    while (env && env[extra]) extra++;
    char** all = calloc(base + extra + 1, sizeof *all);
    /* The added variables first: they win over the inherited ones of the same name. */
    if (extra) memcpy(all, env, extra * sizeof *all);
    memcpy(all + extra, environ, base * sizeof *all);
    pid_t pid;
    int status = -1;
    if (posix_spawnp(&pid, argv[0], NULL, NULL, argv, all) == 0) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    free(all);
    return status;
}

int harness_finish(void) {
    if (harness_failures) {
        fprintf(stderr, "%d check(s) failed (server log: %s)\n", harness_failures,
                harness_path("serve.log"));
    }
    return harness_failures ? 1 : 0;
}
