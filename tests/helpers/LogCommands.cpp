// Second-process commands about where the library's lines go. The first argument is the data
// folder.
#include <atomic>
#include <cstdio>

#include "helpers/HelperMain.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"

// log_host <data folder> <bundle folder>: a host that writes nothing itself. Initialises against
// the bundle's server (real main queue), sends the events "log_probe" and "log_fail", waits
// (through "TarnLogNotification") until both were answered, looks its actor up, and returns. Exit 0
// when all of that happened within 20 seconds; reasons for anything else go to standard error.
TARN_HELPER_COMMAND(log_host, 2) {
    tarn::Bundle::setMain(args[1]);
    std::atomic<int> initialised{0}, probed{0}, failed{0};
    tarn::test::onLogMessage([&](const std::string& message) {
        if (message.find("name: sdk_initialize") != std::string::npos)
            ++initialised;
        if (message.find("name: log_probe") != std::string::npos)
            ++probed;
        if (message.find("the log_fail event was called") != std::string::npos)
            ++failed;
    });
    tarn::Tarn::shared().initialize(tarn::test::hostConfig("log-actor"));
    if (!tarn::test::waitUntil([&] { return initialised > 0; }, std::chrono::seconds(20))) {
        std::fprintf(stderr, "not initialised\n");
        return 1;
    }
    tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "log_probe");
    tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "log_fail");
    if (!tarn::test::waitUntil([&] { return probed > 0 && failed > 0; },
                               std::chrono::seconds(20))) {
        std::fprintf(stderr, "events not answered\n");
        return 1;
    }
    tarn::Tarn::shared().getActorID("");
    return 0;
}
