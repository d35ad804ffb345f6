// Speed of the event road on the host's thread.
//
// Each timed operation is measured on its own (manual timing); the counters "median_us" and
// "p99_us" are the median and 99th percentile of the single-operation latencies. The setting is a
// test's: a temporary data folder, a manual main queue (the queue timer never fires, so queued
// events stay in the store), the facade's actor set. The library writes a log line per event to
// standard output; run as `events_bench | grep -v '^Tarn'`, or with standard output sent to
// /dev/null and `--benchmark_out=<file>` for the figures.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "BenchEvents.h"
#include "store/StoreSchema.h"
#include "support/TestSupport.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Tarn.h"
#include "tarn/device/DeviceInfo.h"
#include "tarn/events/EventRecords.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/MainQueue.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/store/ConversionItem.h"
#include "tarn/store/CoreDataManager.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kActor = "bench-actor";
constexpr const char* kCommunicationCount = "communications";

struct Latencies {
    std::vector<double> us;
    void add(Clock::duration d) {
        us.push_back(std::chrono::duration<double, std::micro>(d).count());
    }
    /// Median, 99th percentile and longest single operation, as "<prefix>median_us" and so on.
    void report(benchmark::State& state, const std::string& prefix = "") {
        if (us.empty())
            return;
        std::sort(us.begin(), us.end());
        state.counters[prefix + "median_us"] = median();
        state.counters[prefix + "p99_us"] = p99();
        state.counters[prefix + "max_us"] = us.back();
        state.counters[prefix + "over_1ms"] =
            static_cast<double>(us.end() - std::upper_bound(us.begin(), us.end(), 1000.0));
    }
    double median() const { return us[us.size() / 2]; }
    double p99() const { return us[std::min(us.size() - 1, us.size() * 99 / 100)]; }
};

void check(int rc, sqlite3* db) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        throw std::runtime_error(sqlite3_errmsg(db));
    }
}

/// The physical floor of storing one event: a plain insert of its JSON text into a table of a
/// SQLite file of its own, in the store's mode (write-ahead log, synchronous NORMAL, SQLite's own
/// automatic checkpoint), through a prepared statement.
class PlainInsert {
  public:
    explicit PlainInsert(const std::filesystem::path& file) {
        check(sqlite3_open(file.c_str(), &db_), db_);
        check(
            sqlite3_exec(db_,
                         "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
                         "CREATE TABLE Floor (id INTEGER PRIMARY KEY, event TEXT, timestamp REAL);"
                         "CREATE INDEX Floor_timestamp ON Floor (timestamp)",
                         nullptr, nullptr, nullptr),
            db_);
        check(sqlite3_prepare_v2(db_, "INSERT INTO Floor (event, timestamp) VALUES (?, ?)", -1,
                                 &insert_, nullptr),
              db_);
    }
    ~PlainInsert() {
        sqlite3_finalize(insert_);
        sqlite3_close(db_);
    }
    PlainInsert(const PlainInsert&) = delete;
    PlainInsert& operator=(const PlainInsert&) = delete;

    void insert(const std::string& text) {
        sqlite3_bind_text(insert_, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
        sqlite3_bind_double(insert_, 2, tarn::Date::now().secondsSince1970);
        check(sqlite3_step(insert_), db_);
        sqlite3_reset(insert_);
    }

  private:
    sqlite3* db_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
};

/// Writes 10,000 conversion markers into the store file of `folder`: 100 other actors × 100 names,
/// none of them for the benchmark's actor, on the stored (milliseconds read as seconds) scale.
void fillMarkers(const std::filesystem::path& folder) {
    sqlite3* db = nullptr;
    auto file = folder / tarn::CoreDataManager::kDatabaseFileName;
    check(sqlite3_open(file.c_str(), &db), db);
    check(sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr), db);
    check(sqlite3_exec(db, tarn::store::kSchemaV1, nullptr, nullptr, nullptr), db);
    check(sqlite3_exec(db, "PRAGMA user_version = 1; BEGIN", nullptr, nullptr, nullptr), db);
    sqlite3_stmt* insert = nullptr;
    check(sqlite3_prepare_v2(db,
                             "INSERT INTO ConversionEntity (actorId, communicationCode, "
                             "convertionName, time) VALUES (?, ?, ?, ?)",
                             -1, &insert, nullptr),
          db);
    for (int i = 0; i < 10'000; ++i) {
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

/// `count` popups on the scale of a real answer (three images, three buttons each). Item `n`
/// triggers on "trigger_<n>"; the last one triggers on `lastTrigger` when given.
tarn::AppCommunication makeCommunications(int count, const std::string& lastTrigger) {
    tarn::AppCommunication answer;
    answer.model.emplace();
    for (int n = 0; n < count; ++n) {
        auto id = std::to_string(n);
        tarn::AppCommunicationItem item;
        item.uuid = "6f1c2a4e-0000-4000-8000-" + std::to_string(100000000000 + n);
        item.code = "CAMPAIGN-" + id;
        item.journey = "journey-" + std::to_string(n % 7);
        item.name = "Spring campaign " + id;
        item.expireDate = 1767225600000 + n;
        item.templateType = tarn::InAppType::popup;
        item.triggeringEventName =
            n + 1 == count && !lastTrigger.empty() ? lastTrigger : "trigger_" + id;
        item.title = {"Spring offers are here " + id, "#222"};
        item.body = {"Save on everything in the spring collection this week.", "#444444"};
        item.images.emplace();
        for (int i = 0; i < 3; ++i) {
            item.images->push_back(
                {"https://cdn.example.com/campaigns/" + id + "/" + std::to_string(i) + ".jpg"});
        }
        item.maxShowCount = 3;
        item.bgColor = "#FFFFFFFF";
        item.subInAppCommunication.templateType = tarn::InAppType::popup;
        item.subInAppCommunication.buttons.emplace();
        for (int b = 0; b < 3; ++b) {
            item.subInAppCommunication.buttons->push_back(
                {"button-" + id + "-" + std::to_string(b), "Button " + std::to_string(b), "#FFFFFF",
                 "#3366CC",
                 tarn::AppCommunicationAction{"https://example.com/offer/" + id,
                                              tarn::TarnActionType::url}});
        }
        item.conversionEvent = "purchase";
        answer.model->push_back(std::move(item));
    }
    answer.configuration = tarn::AppCommunicationConfiguration{};
    answer.configuration->apiRequestTimeout = 5;
    answer.configuration->eventQueueDelay = 0.5;
    answer.configuration->conversionTimeout = 86'400'000;
    return answer;
}

using tarn::bench::tenParameters;

/// A test's setting: fresh instances, a temporary data folder (holding the 10,000 markers), a
/// manual main queue, the facade's actor and the session's communications.
class Setting {
  public:
    explicit Setting(int communications, const std::string& lastTrigger = "") {
        tarn::resetSharedInstancesForTesting();
        tarn::setDataDirectory(folder_.path());
        queue_ = std::make_shared<tarn::ManualExecutor>();
        tarn::setMainQueue(queue_);
        fillMarkers(folder_.path());
        tarn::Tarn::shared().actorId = std::string(kActor);
        tarn::Tarn::shared().applicationName = std::string("BenchApp");
        tarn::TarnSession::shared().setAppCommunication(
            makeCommunications(communications, lastTrigger));
    }
    ~Setting() {
        tarn::resetSharedInstancesForTesting();
        tarn::setMainQueue(nullptr);
        tarn::setDataDirectory({});
    }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

  private:
    tarn::test::TempDir folder_;
    std::shared_ptr<tarn::ManualExecutor> queue_;
};

/// One custom event with ten parameters; no marker for this actor and name, and no communication
/// triggers on it. Arg: communications in the session. Each event is followed by the floor, a
/// plain insert of the same body text (`PlainInsert`), timed apart, so that both see the same
/// moment of a shared machine: "floor_*" counters, and the event's median and p99 over the
/// floor's as "x_floor_median" and "x_floor_p99". The run of 100,000 events gives the longest
/// single call ("max_us"), the automatic checkpoints of the floor's file included in its own.
void BM_SendCustomEvent(benchmark::State& state) {
    Setting setting(static_cast<int>(state.range(0)));
    auto screen = std::make_shared<tarn::NamedScreen>("ProductViewController");
    auto parameters = tenParameters();
    auto& events = tarn::TarnEvent::shared();
    events.sendCustomEvent(screen, "product", "add_to_cart", parameters);  // opens the store
    std::string body;
    tarn::CoreDataManager::shared().popOldestEvent(
        [&](std::optional<std::string> text) { body = text.value_or(""); });
    tarn::test::TempDir floorFolder;
    PlainInsert floor(floorFolder.path() / "floor.sqlite");
    Latencies latencies;
    Latencies floorLatencies;
    for (auto _ : state) {
        auto start = Clock::now();
        events.sendCustomEvent(screen, "product", "add_to_cart", parameters);
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        auto floorStart = Clock::now();
        floor.insert(body);
        floorLatencies.add(Clock::now() - floorStart);
    }
    state.counters[kCommunicationCount] = static_cast<double>(state.range(0));
    state.counters["body_bytes"] = static_cast<double>(body.size());
    latencies.report(state);
    floorLatencies.report(state, "floor_");
    state.counters["x_floor_median"] = latencies.median() / floorLatencies.median();
    state.counters["x_floor_p99"] = latencies.p99() / floorLatencies.p99();
}
BENCHMARK(BM_SendCustomEvent)->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SendCustomEvent)
    ->Arg(1000)
    ->Iterations(100'000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

/// As above, but the event completes a marker armed for this actor: it is found, consumed and its
/// code written into the body. The marker is armed again untimed after each event.
void BM_SendCustomEvent_ConversionHit(benchmark::State& state) {
    Setting setting(1000);
    auto screen = std::make_shared<tarn::NamedScreen>("ProductViewController");
    auto parameters = tenParameters();
    auto& events = tarn::TarnEvent::shared();
    auto& store = tarn::CoreDataManager::shared();
    auto arm = [&] {
        tarn::ConversionItem marker{"CAMPAIGN-7", "purchase",
                                    tarn::Date::fromSecondsSince1970(1712345678901.0)};
        store.saveConversion(marker, "in_app_opened", nullptr);
    };
    arm();
    events.sendCustomEvent(screen, "checkout", "purchase", parameters);  // opens the store
    Latencies latencies;
    for (auto _ : state) {
        arm();
        auto start = Clock::now();
        events.sendCustomEvent(screen, "checkout", "purchase", parameters);
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    std::optional<tarn::ConversionItem> left;
    store.findConversion("purchase", kActor, [&](std::optional<tarn::ConversionItem> found) {
        left = std::move(found);
    });
    if (left) {
        state.SkipWithError("a marker was not consumed");
    }
    latencies.report(state);
}
BENCHMARK(BM_SendCustomEvent_ConversionHit)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// Building and serialising one body: a custom event with ten parameters.
void CustomEventBody(benchmark::State& state, bool onePass) {
    Setting setting(0);
    tarn::CustomEvent record;
    record.actorId = kActor;
    record.name = "add_to_cart";
    record.pageName = "product";
    record.controller = "ProductViewController";
    record.initialParameters = tenParameters();
    Latencies latencies;
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        auto text = onePass ? record.serializedBody() : record.dictionary().dump();
        auto elapsed = Clock::now() - start;
        bytes = text.size();
        benchmark::DoNotOptimize(text);
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    state.SetLabel(std::to_string(bytes) + " bytes");
    latencies.report(state);
}

/// The body as a tree printed by the JSON library: the figure before the one-pass writer.
void BM_CustomEventBody(benchmark::State& state) {
    CustomEventBody(state, false);
}
BENCHMARK(BM_CustomEventBody)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// The same body from the one-pass writer that the library stores.
void BM_CustomEventBody_OnePass(benchmark::State& state) {
    CustomEventBody(state, true);
}
BENCHMARK(BM_CustomEventBody_OnePass)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// Device facts that cost nothing: what a body costs without the system's device readings.
class FixedDeviceInfo final : public tarn::DeviceInfoProvider {
  public:
    std::string batteryLevel() override { return "87"; }
    std::optional<std::string> networkStatus() override { return "WIFI"; }
    std::string availableDiskCapacity() override { return "51234567890"; }
    std::string totalDiskCapacity() override { return "256000000000"; }
    std::string deviceId() override { return "5D3C6E1A-9B7F-5C2D-8E4A-1F0B3A6C9D2E"; }
    std::string modelName() override { return "x86_64"; }
    std::string osVersion() override { return "6.1.0"; }
    std::string timeZone() override { return "Europe/Istanbul"; }
    std::optional<std::pair<double, double>> location() override { return std::nullopt; }
};

/// The same body with the device facts from `FixedDeviceInfo`: the share of building and
/// serialising alone.
void BM_CustomEventBody_FixedDeviceFacts(benchmark::State& state) {
    tarn::setDeviceInfoProvider(std::make_shared<FixedDeviceInfo>());
    CustomEventBody(state, state.range(0) != 0);
    tarn::setDeviceInfoProvider(nullptr);
}
BENCHMARK(BM_CustomEventBody_FixedDeviceFacts)
    ->ArgName("one_pass")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

/// Selecting the communication for an event among 1,000: the last item matches, its show count is
/// used up, so nothing is presented ("popup reached max show count!").
void BM_HandlePopupAction_LastOf1000(benchmark::State& state) {
    Setting setting(1000, "checkout_done");
    auto session = tarn::TarnSession::shared().appCommunication();
    tarn::PreferencesManager::shared().defaults()->set(session->model->back().uuid,
                                                       std::int64_t{0});
    auto screen = std::make_shared<tarn::NamedScreen>("ProductViewController");
    auto& manager = tarn::InAppManager::shared();
    std::optional<std::string> page = "checkout";
    Latencies latencies;
    for (auto _ : state) {
        auto start = Clock::now();
        manager.handlePopupAction("checkout_done", screen, page, nullptr);
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    latencies.report(state);
}
BENCHMARK(BM_HandlePopupAction_LastOf1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

namespace {

/// The device facts every body reads, one call each, through the library's own provider.
/// Arg: 0 battery, 1 network status, 2 free disk, 3 total disk, 4 time zone, 5 model, 6 OS version,
/// 7 device identifier.
void BM_DeviceFact(benchmark::State& state) {
    auto device = tarn::deviceInfoProvider();
    static const char* const kNames[] = {"battery",         "networkStatus", "freeDisk",
                                         "totalDisk",       "timeZone",      "phoneModel",
                                         "deviceOsVersion", "deviceId"};
    auto which = state.range(0);
    Latencies latencies;
    for (auto _ : state) {
        auto start = Clock::now();
        switch (which) {
            case 0:
                benchmark::DoNotOptimize(device->batteryLevel());
                break;
            case 1:
                benchmark::DoNotOptimize(device->networkStatus());
                break;
            case 2:
                benchmark::DoNotOptimize(device->availableDiskCapacity());
                break;
            case 3:
                benchmark::DoNotOptimize(device->totalDiskCapacity());
                break;
            case 4:
                benchmark::DoNotOptimize(device->timeZone());
                break;
            case 5:
                benchmark::DoNotOptimize(device->modelName());
                break;
            case 6:
                benchmark::DoNotOptimize(device->osVersion());
                break;
            default:
                benchmark::DoNotOptimize(device->deviceId());
                break;
        }
        auto elapsed = Clock::now() - start;
        latencies.add(elapsed);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    state.SetLabel(kNames[which]);
    latencies.report(state);
}
BENCHMARK(BM_DeviceFact)->DenseRange(0, 7)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
