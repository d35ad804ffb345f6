// Second-process commands for consent and erasure: a host that runs a script of calls.
#include <atomic>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "helpers/HelperMain.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Privacy.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"

namespace {

using namespace std::chrono_literals;

void sendCustom(const std::string& name) {
    tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, name);
}

/// Four host threads send events without pause while this thread erases the local data; the
/// threads go on sending for a while after it. Says "erased 1" when every file was gone.
void eraseUnderLoad() {
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([t, &stop] {
            for (int i = 0; !stop.load(); ++i) {
                sendCustom("load-" + std::to_string(t) + "-" + std::to_string(i % 50));
                if (i % 7 == 0) {
                    tarn::Tarn::shared().setPushToken("load-token-" + std::to_string(i));
                }
            }
        });
    }
    std::this_thread::sleep_for(300ms);
    bool gone = tarn::eraseLocalData();
    std::this_thread::sleep_for(300ms);
    stop = true;
    for (auto& sender : senders) {
        sender.join();
    }
    tarn::test::say(std::string("erased ") + (gone ? "1" : "0"));
}

}  // namespace

// consent_host <data folder> <bundle folder> <script>: runs the comma-separated steps of the
// script as a host would (real main queue), then exits 0; 4 when a wait times out. Steps:
// require, init, grant, deny, erase, erase-keep, send:NAME (custom event), token:VALUE (push
// token), wait-init, wait-sent:NAME (until the event was sent), sleep:MS, say-consent, say-actor,
// erase-under-load.
TARN_HELPER_COMMAND(consent_host, 3) {
    tarn::Bundle::setMain(args[1]);
    std::mutex mutex;
    std::set<std::string> sent;
    tarn::test::onLogMessage([&](const std::string& message) {
        auto at = message.find(" name: ");
        if (message.rfind("Sent event", 0) != 0 || at == std::string::npos)
            return;
        auto name = message.substr(at + 7);
        name = name.substr(0, name.find(','));
        std::lock_guard lock(mutex);
        sent.insert(name);
    });
    std::stringstream script(args[2]);
    for (std::string step; std::getline(script, step, ',');) {
        auto colon = step.find(':');
        std::string verb = step.substr(0, colon);
        std::string value = colon == std::string::npos ? "" : step.substr(colon + 1);
        if (verb == "require") {
            tarn::setConsentRequired(true);
        } else if (verb == "init") {
            tarn::Tarn::shared().initialize(tarn::test::hostConfig(std::nullopt));
        } else if (verb == "grant") {
            tarn::grantConsent();
        } else if (verb == "deny") {
            tarn::denyConsent();
        } else if (verb == "erase" || verb == "erase-keep") {
            bool gone = tarn::eraseLocalData(verb == "erase" ? tarn::EraseOption::everything
                                                             : tarn::EraseOption::keepConsent);
            tarn::test::say(std::string("erased ") + (gone ? "1" : "0"));
        } else if (verb == "erase-under-load") {
            eraseUnderLoad();
        } else if (verb == "send") {
            sendCustom(value);
        } else if (verb == "token") {
            tarn::Tarn::shared().setPushToken(value);
        } else if (verb == "wait-init") {
            if (!tarn::test::waitUntil([] { return tarn::ConfigManager::shared().isInitialized(); },
                                       std::chrono::seconds(20)))
                return 4;
        } else if (verb == "wait-sent") {
            if (!tarn::test::waitUntil(
                    [&] {
                        std::lock_guard lock(mutex);
                        return sent.count(value) > 0;
                    },
                    std::chrono::seconds(20)))
                return 4;
        } else if (verb == "sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(value)));
        } else if (verb == "say-consent") {
            tarn::test::say(std::string("consent ") + tarn::rawValue(tarn::consentState()));
        } else if (verb == "say-actor") {
            tarn::test::say("actor " + tarn::Tarn::shared().actorId.get());
        } else {
            tarn::test::say("unknown step " + step);
            return 2;
        }
    }
    return 0;
}
