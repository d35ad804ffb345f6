// Delivery rate of the offline queue: stored events posted to a loopback server at the shortest
// queue delay (one event per tick), next to what one keep-alive client makes against the same
// server in the same process (a libcurl easy handle reused for every POST of the same framed
// request, accepting the same encodings as the library's transport). The counters are
// "events_per_s" and "requests_per_s"; the first benchmark also gives "of_keepalive", its rate over
// the one measured before it by the second (run both, in order). The library logs a line per event:
// send standard output to /dev/null.
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <chrono>
#include <cstdio>

#include "BenchEvents.h"
#include "support/LoopbackServer.h"
#include "support/TestSupport.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/EventRecords.h"
#include "tarn/network/Endpoint.h"
#include "tarn/network/ServiceClient.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/MainQueue.h"
#include "tarn/store/CoreDataManager.h"

namespace {

using Clock = std::chrono::steady_clock;
using tarn::test::LoopbackServer;

constexpr int kEvents = 2000;

double keepAliveRate = 0;

/// A custom event body with ten parameters, as the pipeline stores it.
std::string eventText() {
    tarn::CustomEvent event;
    event.name = "add_to_cart";
    event.actorId = "bench-actor";
    event.pageName = "product";
    event.controller = "ProductViewController";
    event.initialParameters = tarn::bench::tenParameters();
    return event.serializedBody();
}

/// Fresh instances, a data folder, a host bundle, a server answering 200 on the event endpoint,
/// the library initialised as far as the queue cares, the default main queue.
struct Setting {
    tarn::test::TempDir folder;
    std::unique_ptr<LoopbackServer> server;
    Setting() {
        tarn::resetSharedInstancesForTesting();
        tarn::setMainQueue(nullptr);
        tarn::setDataDirectory(folder.path());
        tarn::test::writeInfoPlist(folder.path(), "com.example.bench");
        tarn::Bundle::setMain(folder.path());
        server = std::make_unique<LoopbackServer>();
        server->on(tarn::Endpoint::event,
                   tarn::test::ScriptedAnswer::json(200, R"({"status":"ok"})"));
        tarn::processSettings().baseUrl = server->baseUrl();
        tarn::Tarn::shared().applicationName = std::string("BenchApp");
        tarn::Tarn::shared().tarnAuthToken = std::string("Bearer bench-token");
    }
    ~Setting() {
        server->stop();
        tarn::resetSharedInstancesForTesting();
        tarn::Bundle::setMain({});
        tarn::setDataDirectory({});
    }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;
};

void BM_KeepAliveClient(benchmark::State& state) {
    Setting setting;
    auto& client = tarn::ServiceClient::shared();
    auto framed = client.buildRequest(client.url(tarn::Endpoint::event), true);
    auto body = eventText();
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    for (const auto& [field, value] : framed.headers.fields()) {
        headers = curl_slist_append(headers, (field + ": " + value).c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, framed.url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");  // as the library's transport asks
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION,
        +[](char*, size_t size, size_t count, void*) { return size * count; });
    double seconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        for (int i = 0; i < kEvents; ++i) {
            long status = 0;
            if (curl_easy_perform(curl) != CURLE_OK ||
                curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK ||
                status != 200) {
                state.SkipWithError("a POST failed");
                break;
            }
        }
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    keepAliveRate = static_cast<double>(state.iterations()) * kEvents / seconds;
    state.counters["requests_per_s"] = keepAliveRate;
}
BENCHMARK(BM_KeepAliveClient)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_QueueDelivery(benchmark::State& state) {
    Setting setting;
    auto& settings = tarn::processSettings();
    settings.queueDelay = 0.001;
    settings.initializeStatus = tarn::InitializeStatusType::initialized;
    auto body = eventText();
    auto& store = tarn::CoreDataManager::shared();
    auto& queue = tarn::EventQueueManager::shared();
    double seconds = 0;
    std::size_t delivered = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < kEvents; ++i) {
            store.saveEventToQueue(body, tarn::Date::now(),
                                   nlohmann::json{{"name", "add_to_cart"}});
        }
        auto before = setting.server->count(tarn::Endpoint::event);
        state.ResumeTiming();
        auto start = Clock::now();
        queue.isTimerActive = true;
        queue.startTimer();
        if (!setting.server->waitForCount(tarn::Endpoint::event, before + kEvents,
                                          std::chrono::seconds(60))) {
            std::fprintf(stderr, "arrived %zu, timer %d, active %d\n",
                         setting.server->count(tarn::Endpoint::event) - before,
                         queue.hasTimer() ? 1 : 0, queue.isTimerActive.load() ? 1 : 0);
            state.SkipWithError("not every event arrived");
            break;
        }
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
        delivered += setting.server->count(tarn::Endpoint::event) - before;
        state.PauseTiming();
        queue.stopTimer();
        queue.isTimerActive = false;
        state.ResumeTiming();
    }
    double rate = static_cast<double>(delivered) / seconds;
    state.counters["events_per_s"] = rate;
    if (keepAliveRate > 0) {
        state.counters["of_keepalive"] = rate / keepAliveRate;
    }
}
BENCHMARK(BM_QueueDelivery)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
