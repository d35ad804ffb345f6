// The request settings during start-up: the token request and the configuration fetch run under
// the long start-up time-out, for a first and a forced initialisation alike, and the server's
// block rules only once its answer has been installed.
#include <gtest/gtest.h>

#include "support/PipelineFixture.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

class StartupTimeoutTest : public PipelineTest {};

TEST_F(StartupTimeoutTest, ASlowTokenAnswerDuringStartUpStillAuthorizesTheInAppRequest) {
    auto& settings = processSettings();
    ScriptedAnswer slowToken = ScriptedAnswer::json(200, tokenAnswer("SLOW"));
    slowToken.delay = 4s;
    server_->on(kTokenPath, slowToken);
    server_->on(kInAppPath,
                ScriptedAnswer::json(200, R"({"configuration":{"apiRequestTimeout":2}})"));

    Tarn::shared().initialize(hostConfig("actor-1"));
    // While the token request is out, the start-up values are in force.
    EXPECT_EQ(settings.requestTimeout.load(), ProcessSettings::kStartupRequestTimeout);
    EXPECT_EQ(settings.requestRetryCount.load(), ProcessSettings::kStartupRequestRetryCount);
    ASSERT_TRUE(pumpUntil(
        [] {
            return processSettings().initializeStatus.load() != InitializeStatusType::initializing;
        },
        0.05, 15s));
    EXPECT_EQ(settings.initializeStatus.load(), InitializeStatusType::initialized);
    auto inApp = server_->requests(kInAppPath);
    ASSERT_EQ(inApp.size(), 1u);
    EXPECT_EQ(inApp[0].header("Authorization"), "Bearer SLOW");
    // The installed block now rules.
    EXPECT_EQ(settings.requestTimeout.load(), 2);

    // A forced run starts over under the start-up values: the earlier block's 2 s would lose this
    // token answer too.
    server_->on(kTokenPath, [&] {
        auto again = slowToken;
        again.body = tokenAnswer("AGAIN");
        return again;
    }());
    server_->on(kInAppPath, ScriptedAnswer::json(200, "{}"));
    Tarn::shared().initialize(hostConfig("actor-1", true));
    EXPECT_EQ(settings.requestTimeout.load(), ProcessSettings::kStartupRequestTimeout);
    ASSERT_TRUE(pumpUntil(
        [] {
            return processSettings().initializeStatus.load() != InitializeStatusType::initializing;
        },
        0.05, 15s));
    EXPECT_EQ(settings.initializeStatus.load(), InitializeStatusType::initialized);
    inApp = server_->requests(kInAppPath);
    ASSERT_EQ(inApp.size(), 2u);
    EXPECT_EQ(inApp[1].header("Authorization"), "Bearer AGAIN");
    // An answer without a block gives the fallbacks.
    EXPECT_EQ(settings.requestTimeout.load(), 3);
    EXPECT_EQ(settings.requestRetryCount.load(), 3);
}
