// Speed and memory of the local store.
//
// Each timed operation is measured on its own (manual timing); the counters "median_us" and
// "p99_us" are the median and 99th percentile of the single-operation latencies. Log lines go to
// standard output as they do in the library; run as `store_bench | grep -v '^Tarn-'` to read the
// results.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "store/StoreSchema.h"
#include "support/TestSupport.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/store/ConversionManager.h"
#include "tarn/store/CoreDataManager.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Latencies {
    std::vector<double> us;
    void add(Clock::duration d) {
        us.push_back(std::chrono::duration<double, std::micro>(d).count());
    }
    void report(benchmark::State& state) {
        if (us.empty())
            return;
        std::sort(us.begin(), us.end());
        state.counters["median_us"] = us[us.size() / 2];
        state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
    }
};

void check(int rc, sqlite3* db) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        throw std::runtime_error(sqlite3_errmsg(db));
    }
}

/// Writes the store file of `folder` directly: `events` queued events of about 200 bytes and
/// `markers` conversion markers (100 actors × markers/100 names, on the arming scale).
void fillStore(const std::filesystem::path& folder, int events, int markers) {
    sqlite3* db = nullptr;
    auto file = folder / tarn::CoreDataManager::kDatabaseFileName;
    check(sqlite3_open(file.c_str(), &db), db);
    check(sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr), db);
    check(sqlite3_exec(db, tarn::store::kSchemaV1, nullptr, nullptr, nullptr), db);
    check(sqlite3_exec(db, "PRAGMA user_version = 1; BEGIN", nullptr, nullptr, nullptr), db);
    sqlite3_stmt* insert = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO EventQueue (event, timestamp) VALUES (?, ?)", -1,
                             &insert, nullptr),
          db);
    std::string padding(150, 'q');
    for (int i = 0; i < events; ++i) {
        std::string text =
            R"({"name":"queued","seq":)" + std::to_string(i) + R"(,"pad":")" + padding + "\"}";
        sqlite3_bind_text(insert, 1, text.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_double(insert, 2, 1.7e9 + i * 1e-3);
        check(sqlite3_step(insert), db);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    check(sqlite3_prepare_v2(db,
                             "INSERT INTO ConversionEntity (actorId, communicationCode, "
                             "convertionName, time) VALUES (?, ?, ?, ?)",
                             -1, &insert, nullptr),
          db);
    for (int i = 0; i < markers; ++i) {
        std::string actor = "actor-" + std::to_string(i % 100);
        std::string name = "event-" + std::to_string(i / 100);
        std::string code = "code-" + std::to_string(i);
        sqlite3_bind_text(insert, 1, actor.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, code.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 3, name.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_double(insert, 4, 1712345678901.0 + i);
        check(sqlite3_step(insert), db);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db);
    sqlite3_close(db);
}

/// A prefilled store folder per (events, markers), made once per run and removed at exit.
const std::filesystem::path& prefilled(int events, int markers) {
    static std::map<std::pair<int, int>, std::unique_ptr<tarn::test::TempDir>> folders;
    auto& slot = folders[{events, markers}];
    if (!slot) {
        slot = std::make_unique<tarn::test::TempDir>();
        fillStore(slot->path(), events, markers);
    }
    return slot->path();
}

/// Points the library at `folder` with fresh instances.
void useStore(const std::filesystem::path& folder) {
    tarn::resetSharedInstancesForTesting();
    tarn::setDataDirectory(folder);
}

void BM_SaveEventToQueue_1KB(benchmark::State& state) {
    tarn::test::TempDir folder;
    useStore(folder.path());
    nlohmann::json body = {{"name", "custom_event"}, {"padding", std::string(990, 'x')}};
    std::string text = body.dump();
    auto& store = tarn::CoreDataManager::shared();
    store.saveEventToQueue(text, tarn::Date::now(), body);  // opens the store
    Latencies latencies;
    for (auto _ : state) {
        auto start = Clock::now();
        store.saveEventToQueue(text, tarn::Date::now(), body);
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    state.SetLabel(std::to_string(text.size()) + " bytes");
    latencies.report(state);
    tarn::resetSharedInstancesForTesting();
}
BENCHMARK(BM_SaveEventToQueue_1KB)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// Pops with `range(0)` events queued; each popped event is saved again (untimed) at the end of
/// the queue, so the length stays put.
void BM_PopOldestEvent(benchmark::State& state) {
    useStore(prefilled(static_cast<int>(state.range(0)), 0));
    auto& store = tarn::CoreDataManager::shared();
    nlohmann::json body = {{"name", "queued"}};
    std::optional<std::string> handed;
    auto keep = [&](std::optional<std::string> text) { handed = std::move(text); };
    Latencies latencies;
    for (auto _ : state) {
        auto start = Clock::now();
        store.popOldestEvent(keep);
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        if (!handed) {
            state.SkipWithError("the queue ran dry");
            break;
        }
        store.saveEventToQueue(*handed, tarn::Date::now(), body);
    }
    latencies.report(state);
    tarn::resetSharedInstancesForTesting();
}
BENCHMARK(BM_PopOldestEvent)
    ->Arg(100)
    ->Arg(1'000'000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

/// Looks up and consumes one of 10,000 markers (100 actors × 100 names); the consumed marker is
/// armed again untimed, so the count stays at 10,000.
void BM_FindConversion_Hit(benchmark::State& state) {
    useStore(prefilled(0, 10'000));
    auto& store = tarn::CoreDataManager::shared();
    std::mt19937 random(42);
    std::uniform_int_distribution<int> pick(0, 9'999);
    Latencies latencies;
    for (auto _ : state) {
        int i = pick(random);
        std::string actor = "actor-" + std::to_string(i % 100);
        std::string name = "event-" + std::to_string(i / 100);
        std::optional<tarn::ConversionItem> found;
        auto start = Clock::now();
        store.findConversion(name, actor,
                             [&](std::optional<tarn::ConversionItem> item) { found = item; });
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        if (!found) {
            state.SkipWithError("no marker found");
            break;
        }
        tarn::Tarn::shared().actorId = actor;
        store.saveConversion(*found, "bench", nullptr);
    }
    latencies.report(state);
    tarn::resetSharedInstancesForTesting();
}
BENCHMARK(BM_FindConversion_Hit)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// Looks up an event name that none of the 10,000 markers is armed for.
void BM_FindConversion_Miss(benchmark::State& state) {
    useStore(prefilled(0, 10'000));
    auto& store = tarn::CoreDataManager::shared();
    Latencies latencies;
    for (auto _ : state) {
        auto start = Clock::now();
        store.findConversion("not-armed", "actor-7", [](std::optional<tarn::ConversionItem>) {});
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    latencies.report(state);
    tarn::resetSharedInstancesForTesting();
}
BENCHMARK(BM_FindConversion_Miss)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// The first operation of a process opens the store and checks every page of it once
/// (`PRAGMA quick_check`, skipped above 32 MiB: 1,000,000 events); with `range(0)` events queued.
void BM_OpenStore(benchmark::State& state) {
    const auto& folder = prefilled(static_cast<int>(state.range(0)), 0);
    Latencies latencies;
    for (auto _ : state) {
        useStore(folder);
        auto start = Clock::now();
        bool loaded = tarn::CoreDataManager::shared().isStoreLoaded();
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        if (!loaded) {
            state.SkipWithError("the store did not open");
            break;
        }
    }
    latencies.report(state);
    tarn::resetSharedInstancesForTesting();
}
BENCHMARK(BM_OpenStore)
    ->Arg(100)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// Resident memory of a fresh process (the test helper) that opens the store with 1,000,000
/// queued events and pops, saves and looks up 2,000 times: VmRSS at the end and its peak (VmHWM).
void BM_ResidentMemory_1MQueued(benchmark::State& state) {
    const auto& folder = prefilled(1'000'000, 0);
    for (auto _ : state) {
        std::string output;
        int rc = tarn::test::runHelper({"store_hold", folder.string(), "2000"}, &output);
        auto at = output.find("rss_kb=");
        if (rc != 0 || at == std::string::npos) {
            state.SkipWithError("the helper failed");
            return;
        }
        std::istringstream in(output.substr(at));
        std::string rss, hwm, popped;
        in >> rss >> hwm >> popped;
        state.counters["rss_MB"] = std::stod(rss.substr(7)) / 1024.0;
        state.counters["peak_rss_MB"] = std::stod(hwm.substr(7)) / 1024.0;
        state.counters["popped"] = std::stod(popped.substr(7));
    }
}
BENCHMARK(BM_ResidentMemory_1MQueued)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
