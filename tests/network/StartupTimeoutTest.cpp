// The request settings during a forced initialisation: the token request and the configuration
// fetch run under the long start-up time-out again, and the server's block rules only once its
// answer has been installed.
#include <gtest/gtest.h>

#include <atomic>

#include "support/PipelineFixture.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

class StartupTimeoutTest : public PipelineTest {};

TEST_F(StartupTimeoutTest, AForcedRunFetchesUnderTheStartUpValuesAgain) {
    auto& settings = processSettings();
    server_->on(kInAppPath,
                ScriptedAnswer::json(200, R"({"configuration":{"apiRequestTimeout":2}})"));
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    EXPECT_EQ(settings.requestTimeout.load(), 2);  // The installed block now rules.

    // The forced run's token answers after 4 s, which the block's 2 s would lose; meanwhile it
    // notes the settings in force. An answer without a block then gives the fallbacks.
    static std::atomic<std::int64_t> timeout{0}, retries{0};
    server_->onRequest(kTokenPath, [](const RecordedRequest&) {
        timeout = processSettings().requestTimeout.load();
        retries = processSettings().requestRetryCount.load();
        auto answer = ScriptedAnswer::json(200, tokenAnswer("SLOW"));
        answer.delay = 4s;
        return answer;
    });
    server_->on(kInAppPath, ScriptedAnswer::json(200, "{}"));
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1", true)), InitializeStatusType::initialized);
    EXPECT_EQ(timeout.load(), ProcessSettings::kStartupRequestTimeout);
    EXPECT_EQ(retries.load(), ProcessSettings::kStartupRequestRetryCount);
    auto inApp = server_->requests(kInAppPath);
    ASSERT_EQ(inApp.size(), 2u);
    EXPECT_EQ(inApp[1].header("Authorization"), "Bearer SLOW");
    EXPECT_EQ(settings.requestTimeout.load(), 3);
    EXPECT_EQ(settings.requestRetryCount.load(), 3);
}
