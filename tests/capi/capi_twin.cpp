// The C++ host whose events the C interface's must equal: the calls of `parity_calls` in
// capi_test.c, through the C++ API. Reads its bundle and data folder from TARN_MAIN_BUNDLE and
// TARN_DATA_DIR; ends once its queue has sent everything (exit status 0) or after 30 s (1).

#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <thread>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Screen.h"

namespace {

bool waitFor(const std::function<bool()>& done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

tarn::ScreenRef screen(const char* name) {
    return std::make_shared<tarn::NamedScreen>(name);
}

}  // namespace

int main() {
    using namespace tarn;
    Tarn::shared().initialize(TarnInitConfig(TarnInitOptions{
        .bundle = Bundle::main(),
        .applicationName = "CHost",
        .actorId = "parity-actor",
        .isSendActivityLifeCycleEventEnabled = false,
    }));
    if (!waitFor([] { return ConfigManager::shared().isInitialized(); })) {
        std::fprintf(stderr, "twin: not initialised\n");
        return 1;
    }
    const nlohmann::json push = {{"data", R"({"code":"PUSH-7","communicationId":"push-uuid-7"})"}};
    auto& events = TarnEvent::shared();
    events.sendCustomEvent(screen("CartScreen"), "Cart", "add_to_cart",
                           {{"sku", "A-42"},
                            {"qty", 2},
                            {"tags", {"x", "y"}},
                            {"price", 9.5},
                            {"gift", false},
                            {"note", nullptr}});
    events.sendCustomEvent(nullptr, std::nullopt, "no_parameters");
    events.sendLoginEvent(screen("LoginScreen"), "Login", "parity-user", {{"method", "pw"}});
    events.sendPageInEvent(screen("HomeScreen"), "Home");
    events.sendPageOutEvent(screen("HomeScreen"));
    events.sendAppBackgroundEvent(screen("HomeScreen"), "Home");
    events.sendAppForegroundEvent(screen("HomeScreen"));
    events.sendApplicationErrorEvent(std::runtime_error("disk full"));
    events.sendPushNotificationClickedEvent(push);
    events.sendPushNotificationDismissedEvent(push);
    events.sendPushNotificationReceivedEvent(push);
    events.sendPushNotificationDeniedEvent(nlohmann::json::object());
    Tarn::shared().setPushToken("push-1");
    Tarn::shared().setPushToken("push-2");
    Tarn::shared().setApnsToken({0x0A, 0xFF});
    Tarn::shared().setApnsToken({0x01, 0x02});
    events.sendLogoutEvent();
    if (!waitFor([] { return !EventQueueManager::shared().isTimerActive.load(); })) {
        std::fprintf(stderr, "twin: the queue did not drain\n");
        return 1;
    }
    return 0;
}
