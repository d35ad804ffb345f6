// Second-process commands that run as a host application of its own, in the default data folders:
// the first argument is "-", the second the process's environment changes as "NAME=value" pairs
// separated by ';' (an empty value unsets NAME), applied before the library is used.
#include <atomic>
#include <cstdlib>

#include "helpers/HelperMain.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Date.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/store/CoreDataManager.h"

namespace {

void applyEnvironment(const std::string& changes) {
    std::size_t start = 0;
    while (start < changes.size()) {
        auto end = changes.find(';', start);
        auto pair = changes.substr(start, end == std::string::npos ? end : end - start);
        start = end == std::string::npos ? changes.size() : end + 1;
        auto equals = pair.find('=');
        if (equals == std::string::npos)
            continue;
        auto name = pair.substr(0, equals), value = pair.substr(equals + 1);
        if (value.empty())
            ::unsetenv(name.c_str());
        else
            ::setenv(name.c_str(), value.c_str(), 1);
    }
}

}  // namespace

// app_run - <environment> <bundle folder> <app group, or "-"> <n>: initialises as the bundle's
// host (real main queue, guest actor), waits until it is initialised, sends n custom events
// "sent-<i>" and then "last", and waits until "last" was sent. Prints "actor <id>", "install
// first|already" and "data <folder>"; exit 0, or 1 when "last" was not sent within 30 seconds.
TARN_HELPER_COMMAND(app_run, 5) {
    applyEnvironment(args[1]);
    tarn::Bundle::setMain(args[2]);
    std::atomic<bool> sent{false};
    tarn::test::onLogMessage([&](const std::string& message) {
        if (message.find("name: last, response code : 200") != std::string::npos)
            sent = true;
    });
    std::optional<std::string> group;
    if (args[3] != "-")
        group = args[3];
    tarn::Tarn::shared().initialize(tarn::test::hostConfig(std::nullopt), group);
    // Once initialised the install event (if any) is queued, so "last" goes out after it.
    tarn::test::waitUntil([] { return tarn::ConfigManager::shared().isInitialized(); },
                          std::chrono::seconds(30));
    for (int i = 0; i < std::stoi(args[4]); ++i)
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt,
                                                  "sent-" + std::to_string(i));
    tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "last");
    bool done = tarn::test::waitUntil([&] { return sent.load(); }, std::chrono::seconds(30));
    tarn::test::say("actor " + tarn::Tarn::shared().actorId.get());
    tarn::test::say(std::string("install ") +
                    (tarn::ConfigManager::shared().installationStatus.load() ==
                             tarn::InstallationStatus::firstTimeInstallation
                         ? "first"
                         : "already"));
    tarn::test::say("data " + tarn::dataDirectory().string());
    return done ? 0 : 1;
}

// store_pending - <environment> <bundle folder> <n>: stores n custom events "pending-<i>" without
// initialising, and prints "data <folder>".
TARN_HELPER_COMMAND(store_pending, 4) {
    applyEnvironment(args[1]);
    tarn::Bundle::setMain(args[2]);
    for (int i = 0; i < std::stoi(args[3]); ++i)
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt,
                                                  "pending-" + std::to_string(i));
    tarn::test::say("data " + tarn::dataDirectory().string());
    return 0;
}

// probe - <environment> <bundle folder>: tries to keep a preference in the standard store and in
// the store of the group "group.probe", and an event in the queue. Prints "app <id>",
// "data <folder>", "group <folder>", "read <the standard store's "probe" value before, or ->", and
// "pref", "group-pref", "event" each followed by 1 when it was kept on disk (read back from the
// queue for the event), else 0.
TARN_HELPER_COMMAND(probe, 3) {
    applyEnvironment(args[1]);
    tarn::Bundle::setMain(args[2]);
    tarn::test::say("app " + tarn::applicationIdentifier());
    tarn::test::say("data " + tarn::dataDirectory().string());
    tarn::test::say("group " + tarn::appGroupDirectory("group.probe").string());
    // What the standard store holds before the probe writes: "-" for nothing.
    tarn::test::say("read " + tarn::PreferenceStore::standard()->string("probe").value_or("-"));
    bool pref = tarn::PreferenceStore::standard()->set("probe", "value");
    auto suite = tarn::PreferenceStore::suite("group.probe");
    bool groupPref = suite && suite->set("probe", "value");
    auto& store = tarn::CoreDataManager::shared();
    store.saveEventToQueue(R"({"name":"probe"})", tarn::Date::now(), nullptr);
    bool event = false;
    store.popOldestEvent([&](std::optional<std::string> text) { event = text.has_value(); });
    tarn::test::say(std::string("pref ") + (pref ? "1" : "0"));
    tarn::test::say(std::string("group-pref ") + (groupPref ? "1" : "0"));
    tarn::test::say(std::string("event ") + (event ? "1" : "0"));
    return 0;
}
