// Decoding and encoding of an in-app answer of 1,000 communications, each with three images and
// three buttons. Run with the default repetitions to get the medians.

#include <benchmark/benchmark.h>

#include <string>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunicationCoding.h"

namespace {

using nlohmann::json;

std::string makeAnswer(int count) {
    json items = json::array();
    for (int n = 0; n < count; ++n) {
        auto id = std::to_string(n);
        json buttons = json::array();
        for (int b = 0; b < 3; ++b) {
            buttons.push_back({{"_id", "button-" + id + "-" + std::to_string(b)},
                               {"text", "Button " + std::to_string(b)},
                               {"textColor", "#FFFFFF"},
                               {"color", "#3366CC"},
                               {"action",
                                {{"link", "https://example.com/offer/" + id},
                                 {"type", b == 0 ? "deep" : "url"}}}});
        }
        json images = json::array();
        for (int i = 0; i < 3; ++i) {
            images.push_back({{"url", "https://cdn.example.com/campaigns/" + id + "/" +
                                          std::to_string(i) + ".jpg"}});
        }
        items.push_back({{"uuid", "6f1c2a4e-0000-4000-8000-" + std::to_string(100000000000 + n)},
                         {"code", "CAMPAIGN-" + id},
                         {"journey", "journey-" + std::to_string(n % 7)},
                         {"name", "Spring campaign " + id},
                         {"expireDate", 1767225600000 + n},
                         {"template", n % 5 == 0 ? "SURVEY" : "POPUP"},
                         {"triggeringEventName", "event_" + std::to_string(n % 50)},
                         {"title", {{"text", "Spring offers are here " + id}, {"color", "#222"}}},
                         {"body",
                          {{"text", "Save on everything in the spring collection this week."},
                           {"color", "#444444"}}},
                         {"images", images},
                         {"maxShowCount", 3},
                         {"bgColor", "#FFFFFFFF"},
                         {"subInAppCommunication",
                          {{"template", "POPUP"},
                           {"surveyCode", "SURVEY-" + id},
                           {"link", "https://example.com/survey/" + id},
                           {"buttons", buttons},
                           {"action", {{"link", "app://offers"}, {"type", "deep"}}}}},
                         {"journeyVersion", 2},
                         {"conversionEvent", "purchase"}});
    }
    json answer = {{"inAppCommunicationCommands", items},
                   {"configuration",
                    {{"batteryEnabled", true},
                     {"apiRequestTimeout", 5},
                     {"eventQueueDelay", 0.5},
                     {"conversionTimeout", 86400000}}}};
    return answer.dump();
}

const std::string& answerText() {
    static const std::string text = makeAnswer(1000);
    return text;
}

void BM_DecodeAnswer1000(benchmark::State& state) {
    const auto& text = answerText();
    for (auto _ : state) {
        auto result = tarn::decodeAppCommunication(text);
        if (!result.ok()) {
            state.SkipWithError(result.error().localizedDescription().c_str());
            break;
        }
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_DecodeAnswer1000)->Unit(benchmark::kMillisecond)->Repetitions(9);

void BM_EncodeAnswer1000(benchmark::State& state) {
    auto answer = tarn::decodeAppCommunication(answerText()).value();
    for (auto _ : state) {
        auto text = tarn::encode(answer);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * answerText().size()));
}
BENCHMARK(BM_EncodeAnswer1000)->Unit(benchmark::kMillisecond)->Repetitions(9);

}  // namespace
