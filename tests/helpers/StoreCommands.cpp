// Second-process commands for the local store's tests. The first argument is the data folder.
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <fstream>

#include "helpers/HelperMain.h"
#include "tarn/store/CoreDataManager.h"

// store_crash_loop <data folder> <fd> <round>: saves events {"name":"crash","round":r,"seq":i}
// for i = 1, 2, ... as fast as it can and, after each save has been confirmed by its log line,
// writes i (8 bytes) to file descriptor <fd>. Runs until it is killed.
TARN_HELPER_COMMAND(store_crash_loop, 3) {
    int fd = std::stoi(args[1]);
    std::atomic<std::int64_t> confirmed{0};
    tarn::test::onLogMessage([&](const std::string& message) {
        if (message == "crash has been saved to the queue.")
            ++confirmed;
    });
    auto& store = tarn::CoreDataManager::shared();
    for (std::int64_t i = 1;; ++i) {
        nlohmann::json body = {{"name", "crash"}, {"round", std::stoi(args[2])}, {"seq", i}};
        store.saveEventToQueue(body.dump(), tarn::Date::now(), body);
        if (confirmed.load() != i)
            return 3;
        if (::write(fd, &i, sizeof i) != static_cast<ssize_t>(sizeof i))
            return 4;
    }
}

// store_hold <data folder> <operations>: works on an existing (large) store: pops and saves
// <operations> events of about 1 KB and looks up as many conversions, then prints
// "rss_kb=<VmRSS> hwm_kb=<VmHWM> popped=<count>".
TARN_HELPER_COMMAND(store_hold, 2) {
    auto& store = tarn::CoreDataManager::shared();
    int popped = 0;
    nlohmann::json body = {{"name", "hold"}, {"padding", std::string(1000, 'p')}};
    const std::string text = body.dump();
    for (int i = 0; i < std::stoi(args[1]); ++i) {
        store.popOldestEvent([&](std::optional<std::string> event) { popped += event ? 1 : 0; });
        store.saveEventToQueue(text, tarn::Date::now(), body);
        store.findConversion("purchase", "nobody", [](std::optional<tarn::ConversionItem>) {});
    }
    std::string status[2] = {"0", "0"}, line;  // VmRSS and VmHWM, in kB
    for (std::ifstream in("/proc/self/status"); std::getline(in, line);) {
        for (int k = 0; k < 2; ++k) {
            if (line.starts_with(k ? "VmHWM:" : "VmRSS:"))
                status[k] = std::to_string(std::stoll(line.substr(6)));
        }
    }
    tarn::test::say("rss_kb=" + status[0] + " hwm_kb=" + status[1] +
                    " popped=" + std::to_string(popped));
    return 0;
}
