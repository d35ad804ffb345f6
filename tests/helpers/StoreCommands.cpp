// Second-process commands for the local store's tests.
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "helpers/HelperMain.h"
#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/NotificationCenter.h"
#include "tarn/store/CoreDataManager.h"

// store_save <data folder> <events> <markers>: stores events {"name":"e<i>","seq":i} with
// timestamps 1000+i in reverse order, and markers of actor "alice" for "purchase" with codes
// "code-<i>" and times 1712345678901+i (the arming scale), then exits normally.
TARN_HELPER_COMMAND(store_save) {
    if (args.size() != 3)
        return 2;
    tarn::setDataDirectory(args[0]);
    int events = std::stoi(args[1]);
    int markers = std::stoi(args[2]);
    auto& store = tarn::CoreDataManager::shared();
    for (int i = events - 1; i >= 0; --i) {
        nlohmann::json body = {{"name", "e" + std::to_string(i)}, {"seq", i}};
        store.saveEventToQueue(body.dump(), tarn::Date{1000.0 + i}, body);
    }
    tarn::Tarn::shared().actorId = "alice";
    int saved = 0;
    for (int i = 0; i < markers; ++i) {
        store.saveConversion(
            {"code-" + std::to_string(i), "purchase", tarn::Date{1712345678901.0 + i}},
            "inapp_open", [&] { ++saved; });
    }
    return saved == markers ? 0 : 1;
}

// store_crash_loop <data folder> <fd> <round>: saves events {"name":"crash","round":r,"seq":i}
// for i = 1, 2, ... as fast as it can and, after each save has been confirmed by its log line,
// writes i (8 bytes) to file descriptor <fd>. Runs until it is killed.
TARN_HELPER_COMMAND(store_crash_loop) {
    if (args.size() != 3)
        return 2;
    tarn::setDataDirectory(args[0]);
    int fd = std::stoi(args[1]);
    int round = std::stoi(args[2]);
    std::atomic<std::int64_t> confirmed{0};
    tarn::NotificationCenter::defaultCenter().addObserver(
        tarn::kTarnLogNotification, [&](const tarn::Notification& n) {
            const auto* record = std::any_cast<tarn::TarnLog>(&n.object);
            if (record && record->logMessage == "crash has been saved to the queue.")
                ++confirmed;
        });
    auto& store = tarn::CoreDataManager::shared();
    for (std::int64_t i = 1;; ++i) {
        nlohmann::json body = {{"name", "crash"}, {"round", round}, {"seq", i}};
        store.saveEventToQueue(body.dump(), tarn::Date::now(), body);
        if (confirmed.load() != i)
            return 3;
        if (::write(fd, &i, sizeof i) != static_cast<ssize_t>(sizeof i))
            return 4;
    }
}

namespace {

std::string statusField(const std::string& field) {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f)
        return "0";
    char line[256];
    std::string value = "0";
    while (std::fgets(line, sizeof line, f)) {
        std::string text(line);
        if (text.rfind(field + ":", 0) == 0) {
            value = std::to_string(std::stoll(text.substr(field.size() + 1)));
            break;
        }
    }
    std::fclose(f);
    return value;
}

}  // namespace

// store_hold <data folder> <operations>: works on an existing (large) store: pops and saves
// <operations> events of about 1 KB and looks up as many conversions, then prints
// "rss_kb=<VmRSS> hwm_kb=<VmHWM> popped=<count>".
TARN_HELPER_COMMAND(store_hold) {
    if (args.size() != 2)
        return 2;
    tarn::setDataDirectory(args[0]);
    int operations = std::stoi(args[1]);
    auto& store = tarn::CoreDataManager::shared();
    int popped = 0;
    nlohmann::json body = {{"name", "hold"}, {"padding", std::string(1000, 'p')}};
    std::string text = body.dump();
    for (int i = 0; i < operations; ++i) {
        store.popOldestEvent([&](std::optional<std::string> event) { popped += event ? 1 : 0; });
        store.saveEventToQueue(text, tarn::Date::now(), body);
        store.findConversion("purchase", "nobody", [](std::optional<tarn::ConversionItem>) {});
    }
    std::printf("rss_kb=%s hwm_kb=%s popped=%d\n", statusField("VmRSS").c_str(),
                statusField("VmHWM").c_str(), popped);
    std::fflush(stdout);
    return 0;
}
