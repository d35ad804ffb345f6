// Cost of one custom event through the C interface (libtarn) against the same event through the
// C++ API, which is the floor: the C call adds the parsing of the parameters' JSON text and the
// wrapping of its arguments, and should stay within 1.1x of the C++ call.
//
// The two calls alternate in one loop, so both see the same machine; each goes to a library of
// its own (this program links the C++ library, and libtarn holds its own copy of it, with its own
// data folder). Neither is initialised, so nothing is sent: each event is built, serialised and
// stored in its library's queue. Counters: "cpp_median_us", "c_median_us" (single-call
// latencies), "c_over_cpp", the ratio of the medians, and "parse_median_us", the parsing of the
// parameters' text alone.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <vector>

#include "BenchEvents.h"
#include "support/TestSupport.h"
#include "tarn/core/Log.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/tarn.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double>& us) {
    std::sort(us.begin(), us.end());
    return us[us.size() / 2];
}

void quietC(int, const char*, size_t, void*) {}

void BM_CustomEventCAgainstCpp(benchmark::State& state) {
    tarn::test::TempDir cppData;
    tarn::test::TempDir cData;
    tarn::setDataDirectory(cppData.path());
    // libtarn's copy reads its folder from the environment at its first use.
    setenv("TARN_DATA_DIR", cData.path().c_str(), 1);
    tarn::setLogHandler([](tarn::LogLevel, std::string_view) {});
    tarn_set_log_handler(quietC, nullptr);

    const nlohmann::json parameters = tarn::bench::tenParameters();
    const std::string text = parameters.dump();
    auto& events = tarn::TarnEvent::shared();
    // One call of each first, so that both libraries have opened their stores.
    events.sendCustomEvent(nullptr, "Cart", "add_to_cart", parameters);
    if (tarn_send_custom_event(nullptr, "Cart", "add_to_cart", text.c_str(), nullptr, nullptr) !=
        TARN_OK) {
        state.SkipWithError(tarn_last_error());
        return;
    }

    std::vector<double> cpp;
    std::vector<double> cppInPlace;
    std::vector<double> c;
    std::vector<double> parse;
    bool cFirst = false;
    auto timeCpp = [&] {
        auto start = Clock::now();
        events.sendCustomEvent(nullptr, "Cart", "add_to_cart", parameters);
        cpp.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    };
    auto timeCppInPlace = [&] {
        auto start = Clock::now();
        events.sendCustomEvent(nullptr, "Cart", "add_to_cart", tarn::bench::tenParameters());
        cppInPlace.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    };
    auto timeC = [&] {
        auto start = Clock::now();
        int status =
            tarn_send_custom_event(nullptr, "Cart", "add_to_cart", text.c_str(), nullptr, nullptr);
        c.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        benchmark::DoNotOptimize(status);
    };
    for (auto _ : state) {
        // Each goes first every other time, so neither gains from the other's warm caches.
        if (cFirst) {
            timeC();
            timeCpp();
            timeCppInPlace();
        } else {
            timeCppInPlace();
            timeCpp();
            timeC();
        }
        cFirst = !cFirst;
        auto start = Clock::now();
        auto parsed = nlohmann::json::parse(text);
        benchmark::DoNotOptimize(parsed);
        parse.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    state.counters["parse_median_us"] = median(parse);
    const double cppMedian = median(cpp);
    const double cMedian = median(c);
    state.counters["cpp_median_us"] = cppMedian;
    state.counters["c_median_us"] = cMedian;
    state.counters["c_over_cpp"] = cMedian / cppMedian;
    const double inPlaceMedian = median(cppInPlace);
    state.counters["cpp_in_place_median_us"] = inPlaceMedian;
    state.counters["c_over_cpp_in_place"] = cMedian / inPlaceMedian;
    tarn::setLogHandler(nullptr);
    tarn_set_log_handler(nullptr, nullptr);
    tarn::setDataDirectory({});
}
BENCHMARK(BM_CustomEventCAgainstCpp)->Iterations(3000)->Unit(benchmark::kMicrosecond);

}  // namespace
