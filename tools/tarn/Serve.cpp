// `tarn serve`: the development server for host developers.
//
// SIGINT and SIGTERM are blocked in every thread and taken synchronously by the main thread with
// sigtimedwait, which also polls the --max-requests and --duration bounds; nothing runs in a
// signal handler.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "Commands.h"
#include "Output.h"
#include "devserver/DevServer.h"

namespace tarn::cli {

namespace {

bool isLoopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

std::string clock() {
    auto now = std::chrono::system_clock::now();
    std::time_t t = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&t, &local);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%H:%M:%S", &local);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
    char full[48];
    std::snprintf(full, sizeof full, "%s.%03d", buffer, static_cast<int>(ms.count()));
    return full;
}

std::string shareText(double share) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%g%%", share * 100);
    return buffer;
}

}  // namespace

int runServe(const ServeOptions& options) {
    if (!isLoopback(options.host) && !options.allowRemote) {
        emit(stderr, "tarn serve: refusing to bind " + options.host +
                         ", which is not a loopback address: the server hands out tokens to "
                         "anyone who knows the dev credentials. Pass --allow-remote to do it "
                         "anyway.\n");
        return 2;
    }

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    // Blocked before the server's threads start, so that they inherit the mask.
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    devserver::DevServerOptions serverOptions;
    serverOptions.host = options.host;
    serverOptions.port = options.port;
    serverOptions.clientId = options.clientId;
    serverOptions.clientSecret = options.clientSecret;
    serverOptions.expiresIn = options.expiresIn;
    serverOptions.acceptAnyToken = options.acceptAnyToken;
    serverOptions.compress = options.compress;
    serverOptions.inappFile = options.inappFile;
    serverOptions.eventsFile = options.eventsFile;
    serverOptions.keepRecent = options.keepRecent;
    serverOptions.faults.status = options.faultStatus;
    serverOptions.faults.share = options.faultShare;
    serverOptions.faults.delayMs = options.delayMs;
    serverOptions.faults.delayShare = options.delayShare;
    serverOptions.faults.paths = options.faultPaths;
    // Beyond the loopback address the page shows nothing until it is given the client secret.
    serverOptions.pageNeedsSecret = !isLoopback(options.host);
    serverOptions.inappCheck = [](const std::string& text) {
        InappReport report = inspectInapp(text);
        return devserver::InAppVerdict{report.errors, report.warnings};
    };

    devserver::DevServer server(serverOptions);
    // Every human line goes to standard error in --json mode, so that standard output carries
    // only JSON lines: the address, then one line per event.
    std::FILE* console = options.json ? stderr : stdout;
    server.setNoticeObserver(
        [console](const std::string& text) { emit(console, clock() + " " + text + "\n"); });
    server.setRequestObserver([console](const devserver::ReceivedRequest& request) {
        emit(console, clock() + " " + request.summary + "\n");
    });
    if (options.json) {
        server.setEventObserver(
            [](const devserver::ReceivedEvent& event) { emit(stdout, event.body + "\n"); });
    }
    std::string error;
    if (!server.start(&error)) {
        emit(stderr, "tarn serve: " + error + "\n");
        return 1;
    }
    // With --json, standard output carries JSON lines only: the address is the first of them.
    if (options.json) {
        emit(stdout, nlohmann::json{{"listening", server.baseUrl()}}.dump() + "\n");
    }
    emit(console, "tarn serve: listening on " + server.baseUrl() + "\n");
    emit(console, "tarn serve: live page at " + server.baseUrl() + "/" +
                      (isLoopback(options.host) ? "" : " (it asks for the client secret)") +
                      "\n");
    std::string setup =
        "tarn serve: token endpoint accepts client \"" + options.clientId + "\"" +
        (options.acceptAnyToken ? "; any token accepted" : "") + "; in-app answer: " +
        (options.inappFile.empty() ? "built in (no communications)" : options.inappFile);
    if (!options.eventsFile.empty()) {
        setup += "; events appended to " + options.eventsFile;
    }
    if (options.faultShare > 0) {
        setup += "; " + shareText(options.faultShare) + " answered " +
                 std::to_string(options.faultStatus);
    }
    if (options.delayMs > 0 && options.delayShare > 0) {
        setup += "; " + shareText(options.delayShare) + " held " + std::to_string(options.delayMs) +
                 " ms";
    }
    emit(console, setup + "\n");
    server.loadInAppFile();

    auto started = std::chrono::steady_clock::now();
    std::string reason;
    while (reason.empty()) {
        timespec wait{0, 50 * 1000 * 1000};
        int signal = sigtimedwait(&stopSignals, nullptr, &wait);
        if (signal == SIGINT || signal == SIGTERM) {
            reason = signal == SIGINT ? "SIGINT" : "SIGTERM";
        } else if (options.maxRequests > 0 && server.requestCount() >= options.maxRequests) {
            reason = std::to_string(options.maxRequests) + " requests answered";
        } else if (options.duration > 0 && std::chrono::steady_clock::now() - started >=
                                               std::chrono::duration<double>(options.duration)) {
            reason = "duration reached";
        }
    }
    server.stop();
    auto requests = server.requestCount();
    auto events = server.eventCount();
    emit(console, "tarn serve: stopped (" + reason + ") after " + std::to_string(requests) +
                      (requests == 1 ? " request, " : " requests, ") + std::to_string(events) +
                      (events == 1 ? " event\n" : " events\n"));
    return 0;
}

}  // namespace tarn::cli
