// The request settings during start-up: the token request and the configuration fetch run under
// the long start-up time-out, for a first and a forced initialisation alike, and the server's
// block rules only once its answer has been installed.
#include <gtest/gtest.h>

#include <atomic>

#include "support/PipelineFixture.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

class StartupTimeoutTest : public PipelineTest {};

TEST_F(StartupTimeoutTest, ASlowTokenAnswerDuringStartUpStillAuthorizesTheInAppRequest) {
    // The token answers after 4 s; meanwhile it notes the settings in force.
    static std::atomic<std::int64_t> timeout{0}, retries{0};
    auto slowToken = [this](std::string token) {
        server_->onRequest(kTokenPath, [token](const RecordedRequest&) {
            timeout = processSettings().requestTimeout.load();
            retries = processSettings().requestRetryCount.load();
            auto answer = ScriptedAnswer::json(200, tokenAnswer(token));
            answer.delay = 4s;
            return answer;
        });
    };
    auto& settings = processSettings();
    slowToken("SLOW");
    server_->on(kInAppPath,
                ScriptedAnswer::json(200, R"({"configuration":{"apiRequestTimeout":2}})"));
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    EXPECT_EQ(timeout.load(), ProcessSettings::kStartupRequestTimeout);
    EXPECT_EQ(retries.load(), ProcessSettings::kStartupRequestRetryCount);
    EXPECT_EQ(server_->requests(kInAppPath).at(0).header("Authorization"), "Bearer SLOW");
    EXPECT_EQ(settings.requestTimeout.load(), 2);  // The installed block now rules.

    // A forced run starts over under the start-up values: the earlier block's 2 s would lose this
    // token answer too. An answer without a block then gives the fallbacks.
    slowToken("AGAIN");
    server_->on(kInAppPath, ScriptedAnswer::json(200, "{}"));
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1", true)), InitializeStatusType::initialized);
    EXPECT_EQ(timeout.load(), ProcessSettings::kStartupRequestTimeout);
    auto inApp = server_->requests(kInAppPath);
    ASSERT_EQ(inApp.size(), 2u);
    EXPECT_EQ(inApp[1].header("Authorization"), "Bearer AGAIN");
    EXPECT_EQ(settings.requestTimeout.load(), 3);
    EXPECT_EQ(settings.requestRetryCount.load(), 3);
}
