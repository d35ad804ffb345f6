#include <chrono>
#include <functional>
#include <iostream>
#include <thread>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"

// Waits up to `limit` for `done`.
static bool waitFor(const std::function<bool()>& done, std::chrono::seconds limit) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

int main() {
    // The main bundle (the executable's folder, $TARN_MAIN_BUNDLE or tarn::Bundle::setMain)
    // holds "TarnService-Info.plist" with DOMAIN, CLIENT_ID and CLIENT_SECRET, which win over
    // the matching fields here.
    tarn::TarnInitConfig config(tarn::Bundle::main(), "MyApp", /*actorId=*/std::nullopt,
                                /*domainUrl=*/std::nullopt, /*authorization=*/std::nullopt,
                                /*clientId=*/std::nullopt, /*clientSecret=*/std::nullopt,
                                /*applicationLifecyleAuto=*/false,
                                /*isSendActivityLifeCycleEventEnabled=*/true,
                                /*forceInitialize=*/false);
    tarn::Tarn::shared().initialize(config);

    // One event: stored at once, sent by the queue once initialisation has completed.
    tarn::TarnEvent::shared().sendCustomEvent(/*controller=*/nullptr, /*pageName=*/"Home",
                                              "add_to_cart", nlohmann::json{{"sku", "A-42"}});

    // A real host keeps running; this one ends once the queue has sent what it holds.
    if (!waitFor([] { return tarn::ConfigManager::shared().isInitialized(); },
                 std::chrono::seconds(30))) {
        std::cerr << "not initialised\n";
        return 1;
    }
    waitFor([] { return !tarn::EventQueueManager::shared().isTimerActive; },
            std::chrono::seconds(30));
    return 0;
}
