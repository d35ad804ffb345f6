// Cost of one log line on the calling thread, with nobody observing the log: written straight to
// standard output, and held in an open batch (written when the batch ends, one write per 16
// lines). Run with standard output sent to /dev/null (`log_bench >/dev/null
// --benchmark_out=<file>`), so the figures measure the library rather than a terminal.
#include <benchmark/benchmark.h>

#include <string>

#include "base/LogLineBatch.h"
#include "tarn/core/Log.h"

namespace {

const std::string kTag = "Tarn-QueueManager:";
const std::string kMessage =
    "Sent event, request id :8F0C2A8E-5B6D-4C11-9E0A-3D2B7A1F6C55 name: add_to_cart";

void BM_LogLine(benchmark::State& state) {
    for (auto _ : state) {
        tarn::log(kMessage, kTag);
    }
}
BENCHMARK(BM_LogLine);

void BM_LogLineInBatch(benchmark::State& state) {
    for (auto _ : state) {
        tarn::detail::LogLineBatch batch;
        for (int i = 0; i < 16; ++i) {
            tarn::log(kMessage, kTag);
        }
    }
    state.SetItemsProcessed(state.iterations() * 16);
}
BENCHMARK(BM_LogLineInBatch);

}  // namespace
