// Second-process commands for several processes sharing one store: an application instance that
// stores events while the others send, and a process that holds the store's file locked. The first
// argument is the data folder.
#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "helpers/HelperMain.h"
#include "store/StoreSchema.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/store/CoreDataManager.h"

// queue_instance <data folder> <bundle folder> <instance> <count>: an instance of the host
// application: initialises against the bundle's server (real main queue), then stores <count>
// custom events "shared_queue" with the parameters {"instance": <instance>, "seq": 0..count-1},
// one every two milliseconds, while its queue (and every other instance's) sends at the server's delay. Prints
// "queue_instance: stored" and keeps sending until a line arrives on standard input. Exit 0; 3 when
// it was not initialised within 20 seconds.
TARN_HELPER_COMMAND(queue_instance, 4) {
    tarn::Bundle::setMain(args[1]);
    tarn::Tarn::shared().initialize(tarn::test::hostConfig("shared-actor"));
    // Every instance initialises, even one started while another's token request is in flight.
    auto& config = tarn::ConfigManager::shared();
    if (!tarn::test::waitUntil(
            [&] { return config.getInitializeStatus() == tarn::InitializeStatusType::initialized; },
            std::chrono::seconds(20)))
        return 3;
    // The timer that initialisation started runs at the default delay until it is started again:
    // the application goes to the background and comes back, so that it runs at the server's.
    auto& center = tarn::NotificationCenter::defaultCenter();
    center.post(tarn::kApplicationDidEnterBackgroundNotification);
    center.post(tarn::kApplicationWillEnterForegroundNotification);
    const int instance = std::stoi(args[2]);
    for (int seq = 0; seq < std::stoi(args[3]); ++seq) {
        tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "shared_queue",
                                                  nlohmann::json{{"instance", instance},
                                                                 {"seq", seq}});
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    tarn::test::say("queue_instance: stored");
    for (char c = 0; ::read(STDIN_FILENO, &c, 1) == 1 && c != '\n';) {
    }
    return 0;
}

// store_lock <data folder> <milliseconds>: creates the store's file as a new database would be
// (rollback journal, the tables being written), holds it with BEGIN EXCLUSIVE, prints "locked",
// and commits after <milliseconds>. No other connection can read the file meanwhile. Exit 0; 3
// when the file could not be locked.
TARN_HELPER_COMMAND(store_lock, 2) {
    sqlite3* db = nullptr;
    if (sqlite3_open(tarn::CoreDataManager::databasePath().c_str(), &db) != SQLITE_OK ||
        sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(db, tarn::store::kSchemaV1, nullptr, nullptr, nullptr) != SQLITE_OK)
        return 3;
    tarn::test::say("locked");
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(args[1])));
    int rc = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return rc == SQLITE_OK ? 0 : 3;
}

// store_fill <data folder> <writer> <count> <idle ms>: saves <count> events of about 1 KB,
// {"name":"fill","writer":<writer>,"seq":i}, prints "stored", then measures the CPU time the process
// uses over <idle ms> without calling the library (its checkpoint thread may still work), prints
// "idle_cpu_ms=<milliseconds>" and waits for a line on standard input.
TARN_HELPER_COMMAND(store_fill, 4) {
    auto& store = tarn::CoreDataManager::shared();
    const std::string padding(900, 'p');
    for (int i = 0; i < std::stoi(args[2]); ++i) {
        nlohmann::json body = {{"name", "fill"}, {"writer", args[1]}, {"seq", i}, {"pad", padding}};
        store.saveEventToQueue(body.dump(), tarn::Date::now(), nlohmann::json::object());
    }
    tarn::test::say("stored");
    auto cpuMs = [] {
        timespec t{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
    };
    const double before = cpuMs();
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(args[3])));
    tarn::test::say("idle_cpu_ms=" + std::to_string(static_cast<long>(cpuMs() - before)));
    for (char c = 0; ::read(STDIN_FILENO, &c, 1) == 1 && c != '\n';) {
    }
    return 0;
}
