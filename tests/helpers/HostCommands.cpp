// Second-process commands that act as a host application: identity, start-up and ending the
// process while the library is busy. The first argument is the data folder.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "helpers/HelperMain.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/network/ServiceClient.h"

namespace {

/// Sends custom events without pause until the process ends.
void sendEventsForever(long from) {
    for (long i = from;; ++i)
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt,
                                                  "exit-load-" + std::to_string(i % 100));
}

}  // namespace

// get_actor <data folder> <app group>: exit 0 when getActorID finds an actor, 1 when not.
TARN_HELPER_COMMAND(get_actor, 2) {
    return tarn::Tarn::shared().getActorID(args[1]) ? 0 : 1;
}

// store_and_die <data folder> <n>: stores n custom events without initialising, then SIGKILLs
// itself.
TARN_HELPER_COMMAND(store_and_die, 2) {
    for (int i = 0; i < std::stoi(args[1]); ++i)
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt,
                                                  "killed-" + std::to_string(i));
    ::raise(SIGKILL);
    return 0;
}

// init_and_drain <data folder> <bundle folder>: initialises as a host would (real main queue);
// exit 0 once "sdk_initialize" was sent, 1 when that does not happen within 20 seconds.
TARN_HELPER_COMMAND(init_and_drain, 2) {
    tarn::Bundle::setMain(args[1]);
    std::atomic<bool> sent{false};
    tarn::test::onLogMessage([&](const std::string& message) {
        if (message.find("name: sdk_initialize") != std::string::npos)
            sent = true;
    });
    tarn::Tarn::shared().initialize(tarn::test::hostConfig(std::nullopt));
    return tarn::test::waitUntil([&] { return sent.load(); }, std::chrono::seconds(20)) ? 0 : 1;
}

// exit_while_busy <data folder> <bundle folder> <return|exit|quick_exit> <requests> <wait>:
// initialises against the bundle's server (real main queue; with <wait> "1" until initialised, so
// the drain runs), starts a host thread sending events without pause, sends <requests> requests to
// "/hold", prints "ready" and waits for a line on standard input. Then ends the process the given
// way while all of that is still going on ("exit": exit() on a new thread while the main thread
// keeps sending). Exit code 0 when all went well.
TARN_HELPER_COMMAND(exit_while_busy, 5) {
    tarn::Bundle::setMain(args[1]);
    tarn::Tarn::shared().initialize(tarn::test::hostConfig("exit-actor"));
    if (args[4] == "1" &&
        !tarn::test::waitUntil([] { return tarn::ConfigManager::shared().isInitialized(); },
                               std::chrono::seconds(30)))
        return 3;
    std::thread(sendEventsForever, 0).detach();
    auto& client = tarn::ServiceClient::shared();
    for (int i = 0; i < std::stoi(args[3]); ++i)
        client.request(client.url("/hold"), {{"i", i}}, true,
                       [](auto, auto, auto) { tarn::test::say("completion"); });
    tarn::test::say("ready");
    for (char c = 0; ::read(STDIN_FILENO, &c, 1) == 1 && c != '\n';) {
    }
    if (args[2] == "return")
        return 0;
    if (args[2] == "quick_exit")
        std::quick_exit(0);
    if (args[2] == "exit") {
        std::thread([] { std::exit(0); }).detach();
        sendEventsForever(1000);
    }
    return 4;
}
