// The token routine and its answer handling end to end against the loopback server.
#include <gtest/gtest.h>

#include <atomic>

#include "network/NetworkFixture.h"
#include "tarn/network/Authorization.h"
#include "tarn/network/Endpoint.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

const std::string kNotFetched = "Tarn-AuthorizationRepository: Access token could not fetched!;";
const std::string kPending = "Tarn-AuthorizationRepository: pending Authorization!;";
const std::string kBearer = std::string("bearer ") + kServerToken;

std::optional<bool> tokenFlag() {
    return PreferencesManager::shared().boolValue(PreferenceKey::tokenStatus);
}

}  // namespace

using AuthorizationTest = NetworkTest;

TEST_F(AuthorizationTest, HostValueOrNoCredentialsSendNothingAndOnlyAGoodAnswerReplacesTheToken) {
    // A ready-made value wins over credentials: stored verbatim, continuation run at once.
    configureCredentials("Custom stored-token-value");
    auto hostValue = requestToken();
    ASSERT_EQ(hostValue.calls(), 1);
    EXPECT_EQ(hostValue.wait()->thread, std::this_thread::get_id());
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Custom stored-token-value");
    // No credentials: ends silently and keeps the value held.
    configureCredentials(std::nullopt, false);
    EXPECT_EQ(requestToken().calls(), 1);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Custom stored-token-value");
    EXPECT_EQ(server_->totalCount(), 0u);

    // With credentials the server's answer replaces it, spelled as the server spells it.
    auto answer = ScriptedAnswer::json(200, kTokenAnswer);
    answer.delay = 300ms;
    server_->on(Endpoint::accessToken, answer);
    configureCredentials();
    auto done = requestToken();
    ASSERT_TRUE(server_->waitForCount(Endpoint::accessToken, 1));
    EXPECT_EQ(tokenFlag(), false);  // In flight.
    EXPECT_EQ(done.calls(), 0);
    ASSERT_TRUE(done.wait());
    EXPECT_NE(done.wait()->thread, std::this_thread::get_id());
    EXPECT_EQ(tokenFlag(), true);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), kBearer);
    // Framed like every request of the client (checked there), without an authorization.
    auto request = server_->requests(Endpoint::accessToken).at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_FALSE(request.header("Authorization"));
    EXPECT_EQ(nlohmann::json::parse(request.body),
              nlohmann::json({{"clientId", "client-id-1"}, {"clientSecret", kClientSecret}}));

    // Undecodable or failed answers keep that value, each with its own lines.
    auto withoutPolicy = nlohmann::json::parse(kTokenAnswer);
    withoutPolicy.erase("not-before-policy");
    for (const auto& [answer, lines] :
         std::vector<std::pair<ScriptedAnswer, std::vector<std::string>>>{
             {ScriptedAnswer::json(200, withoutPolicy.dump()),
              {"Tarn-Repository The data couldn’t be read because it is missing.;", kNotFetched}},
             // An empty body is no JSON: the token decoder's own error describes it.
             {ScriptedAnswer::json(200, ""),
              {"Tarn-Repository The data couldn’t be read because it isn’t in the correct format.;",
               kNotFetched}},
             {ScriptedAnswer::json(400, R"({"error":"invalid_client"})"), {kNotFetched}}}) {
        SCOPED_TRACE(lines.front());
        LogCapture logs;
        server_->on(Endpoint::accessToken, answer);
        ASSERT_TRUE(requestToken().wait());
        ASSERT_TRUE(logs.waitFor(lines.back()));
        EXPECT_EQ(logs.lines(), lines);
        EXPECT_EQ(tokenFlag(), true);
        EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), kBearer);
    }
}

TEST_F(AuthorizationTest, UnauthorizedAnswersCompleteThenFetchOneNewTokenAtATime) {
    configureCredentials();
    server_->on(Endpoint::event, ScriptedAnswer::json(401, R"({"error":"expired"})"));
    auto slowToken = ScriptedAnswer::json(200, kTokenAnswer);
    slowToken.delay = 600ms;
    server_->on(Endpoint::accessToken, slowToken);

    // The caller's completion comes first, then the token request.
    std::atomic<std::size_t> tokenRequestsAtCompletion{99};
    Pending pending;
    auto& client = ServiceClient::shared();
    client.request(client.url(Endpoint::event), {{"k", "v"}}, std::nullopt,
                   [&, collect = pending.completion()](auto data, auto error, auto status) {
                       tokenRequestsAtCompletion = server_->count(Endpoint::accessToken);
                       collect(std::move(data), std::move(error), status);
                   });
    auto outcome = pending.wait();
    ASSERT_TRUE(outcome && outcome->networkError());
    EXPECT_FALSE(outcome->data);
    EXPECT_EQ(outcome->status, 401);
    EXPECT_EQ(*outcome->networkError(), NetworkError::httpError(401, "Unauthorized"));
    EXPECT_EQ(tokenRequestsAtCompletion.load(), 0u);
    ASSERT_TRUE(server_->waitForCount(Endpoint::accessToken, 1));
    EXPECT_FALSE(logs_->contains(kPending));

    // A second 401 while the token request is out only says so. The token is then stored on the
    // transport's thread while this one reads it.
    EXPECT_EQ(post(Endpoint::event).wait()->status, 401);
    ASSERT_TRUE(logs_->waitFor(kPending));
    ASSERT_TRUE(pumpUntil([] { return !Tarn::shared().tarnAuthToken.get().empty(); }));
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), kBearer);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(server_->count(Endpoint::accessToken), 1u);
    EXPECT_EQ(server_->count(Endpoint::event), 2u);  // A failed request is not repeated.
    EXPECT_EQ(logs_->count(kPending), 1u);

    // A 401 later, carrying the new value exactly as stored, triggers another token request.
    ASSERT_TRUE(post(Endpoint::event).wait());
    EXPECT_EQ(server_->requests(Endpoint::event).at(2).header("Authorization"), kBearer);
    EXPECT_TRUE(server_->waitForCount(Endpoint::accessToken, 2));
}

TEST_F(AuthorizationTest, RefusedCredentialsRepeatTheTokenRequestUntilTheServerGoes) {
    configureCredentials();
    server_->on(Endpoint::accessToken, ScriptedAnswer::json(401, R"({"error":"invalid_client"})"));
    auto done = requestToken();
    ASSERT_TRUE(done.wait());
    // Each refusal: the handler releases the flag, then the 401 rule asks again at once.
    ASSERT_TRUE(server_->waitForCount(Endpoint::accessToken, 5));
    server_->stop();
    // The loop ends with a transport failure once nobody answers.
    ASSERT_TRUE(logs_->waitFor(line("Tarn-ServiceClient:", "Could not connect to the server.")) ||
                logs_->waitFor(line("Tarn-ServiceClient:", "The network connection was lost.")));
    auto sent = server_->count(Endpoint::accessToken);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(server_->count(Endpoint::accessToken), sent);
    EXPECT_EQ(done.calls(), 1);  // The continuation belongs to the first round only.
    EXPECT_FALSE(logs_->contains(kPending));
    EXPECT_GE(logs_->count(kNotFetched), sent);
    for (const auto& r : server_->requests(Endpoint::accessToken))
        EXPECT_FALSE(r.header("Authorization"));
    EXPECT_TRUE(Tarn::shared().tarnAuthToken.get().empty());
}
