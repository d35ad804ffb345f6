// Second-process commands for the event pipeline tests.
#include <signal.h>

#include <atomic>
#include <string>
#include <thread>

#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/NotificationCenter.h"

#include "helpers/HelperMain.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/DataDirectory.h"

// store_and_die <data folder> <n>: stores n custom events without initialising, then SIGKILLs
// itself.
TARN_HELPER_COMMAND(store_and_die) {
    if (args.size() != 2)
        return 2;
    tarn::setDataDirectory(args[0]);
    int n = std::stoi(args[1]);
    for (int i = 0; i < n; ++i) {
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt,
                                                  "killed-" + std::to_string(i));
    }
    ::raise(SIGKILL);
    return 0;
}

// init_and_drain <data folder> <bundle folder>: initialises as a host would (real main queue),
// waits until "sdk_initialize" was sent, exits 0; 1 when that does not happen within 20 seconds.
TARN_HELPER_COMMAND(init_and_drain) {
    if (args.size() != 2)
        return 2;
    tarn::setDataDirectory(args[0]);
    tarn::Bundle::setMain(args[1]);
    std::atomic<bool> sent{false};
    tarn::NotificationCenter::defaultCenter().addObserver(
        tarn::kTarnLogNotification, [&](const tarn::Notification& n) {
            const auto* record = std::any_cast<tarn::TarnLog>(&n.object);
            if (record && record->logMessage.find("name: sdk_initialize") != std::string::npos)
                sent = true;
        });
    tarn::TarnInitConfig config(tarn::Bundle::main(), "HostApp", std::nullopt, std::nullopt,
                                std::nullopt, std::nullopt, std::nullopt, false, false, false);
    tarn::Tarn::shared().initialize(config);
    for (int i = 0; i < 2000 && !sent; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return sent ? 0 : 1;
}
