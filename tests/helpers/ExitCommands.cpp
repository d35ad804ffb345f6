// Second-process commands for the exit tests: a host that ends its process while the library is
// busy.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "helpers/HelperMain.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/network/ServiceClient.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"

namespace {

/// One write per line: the library's log lines from other threads go to the same stream.
void say(const std::string& line) {
    std::string text = line + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

/// Sends custom events without pause until the process ends.
void sendEventsForever(int from) {
    for (long i = from;; ++i) {
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt,
                                                  "exit-load-" + std::to_string(i % 100));
    }
}

/// Blocks until the parent writes a line (or closes the pipe).
void waitForGo() {
    char c = 0;
    while (::read(STDIN_FILENO, &c, 1) == 1 && c != '\n') {
    }
}

}  // namespace

// exit_while_busy <data folder> <bundle folder> <return|exit|quick_exit> <requests> <wait>:
// initialises the library against the bundle's server with the real main queue; with <wait> "1"
// waits until it is initialised (the drain then runs). Starts a host thread that sends custom
// events without pause, sends <requests> requests to "/hold" through the service client, prints
// "ready" and waits for a line on standard input. Then ends the process the given way while all of
// that is still going on: "return" returns from main, "exit" calls exit() on a new thread while
// the main thread keeps sending events, "quick_exit" calls quick_exit(). Exit code 0 when all went
// well.
TARN_HELPER_COMMAND(exit_while_busy) {
    if (args.size() != 5)
        return 2;
    tarn::setDataDirectory(args[0]);
    tarn::Bundle::setMain(args[1]);
    const std::string kind = args[2];
    const int requests = std::stoi(args[3]);
    const bool waitInitialized = args[4] == "1";

    tarn::TarnInitConfig config(tarn::Bundle::main(), "HostApp", std::string("exit-actor"),
                                std::nullopt, std::nullopt, std::nullopt, std::nullopt, false,
                                false, false);
    tarn::Tarn::shared().initialize(config);
    if (waitInitialized) {
        for (int i = 0; i < 3000 && !tarn::ConfigManager::shared().isInitialized(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!tarn::ConfigManager::shared().isInitialized())
            return 3;
    }

    std::thread(sendEventsForever, 0).detach();
    auto& client = tarn::ServiceClient::shared();
    for (int i = 0; i < requests; ++i) {
        client.request(client.url("/hold"), {{"i", i}}, true,
                       [](auto, auto, auto) { say("completion"); });
    }
    say("ready");
    waitForGo();

    if (kind == "return")
        return 0;
    if (kind == "quick_exit")
        std::quick_exit(0);
    if (kind == "exit") {
        std::thread([] { std::exit(0); }).detach();
        sendEventsForever(1000);
    }
    return 4;
}
