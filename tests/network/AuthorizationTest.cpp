// The token routine and its answer handling end to end against the loopback server.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "network/NetworkFixture.h"
#include "tarn/network/Authorization.h"
#include "tarn/network/Endpoint.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

const std::string kRepoTag = "Tarn-AuthorizationRepository:";
const std::string kNotFetched = "Access token could not fetched!";

/// Runs the facade's token routine and reports when (and on which thread) its continuation ran.
class Continuation {
  public:
    std::function<void()> function() {
        auto self = state_;
        return [self] {
            std::lock_guard lock(self->mutex);
            self->thread = std::this_thread::get_id();
            ++self->calls;
            self->changed.notify_all();
        };
    }
    bool wait(std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(state_->mutex);
        return state_->changed.wait_for(lock, timeout, [&] { return state_->calls > 0; });
    }
    int calls() const {
        std::lock_guard lock(state_->mutex);
        return state_->calls;
    }
    std::thread::id thread() const {
        std::lock_guard lock(state_->mutex);
        return state_->thread;
    }

  private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        int calls = 0;
        std::thread::id thread;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

std::optional<bool> tokenFlag() {
    return PreferencesManager::shared().boolValue(PreferenceKey::tokenStatus);
}

}  // namespace

class AuthorizationTest : public NetworkTest {};

TEST_F(AuthorizationTest, HostValueOrMissingCredentialsSendNothing) {
    server_->on(Endpoint::accessToken, ScriptedAnswer::json(200, kTokenAnswer));

    // A ready-made value wins over credentials: stored verbatim, flag untouched.
    configureCredentials("Custom stored-token-value");
    PreferencesManager::shared().set(PreferenceKey::tokenStatus, false);
    Continuation first;
    Tarn::shared().requestAccessToken(first.function());
    EXPECT_EQ(first.calls(), 1);
    EXPECT_EQ(first.thread(), std::this_thread::get_id());
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Custom stored-token-value");
    EXPECT_EQ(tokenFlag(), false);

    // No credentials: ends silently and keeps whatever value was held.
    configureCredentials(std::nullopt, false);
    Continuation second;
    Tarn::shared().requestAccessToken(second.function());
    EXPECT_EQ(second.calls(), 1);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Custom stored-token-value");

    // A token request in flight: "pending Authorization!" and nothing sent.
    configureCredentials();
    PreferencesManager::shared().set(PreferenceKey::tokenStatus, false);
    Continuation third;
    Tarn::shared().requestAccessToken(third.function());
    EXPECT_EQ(third.calls(), 1);
    EXPECT_EQ(logs_->lines(), std::vector<std::string>{line(kRepoTag, "pending Authorization!")});

    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(server_->totalCount(), 0u);
}

TEST_F(AuthorizationTest, TokenRequestStoresTheServersSpelling) {
    auto answer = ScriptedAnswer::json(200, kTokenAnswer);
    answer.delay = 300ms;
    server_->on(Endpoint::accessToken, answer);
    configureCredentials();
    Tarn::shared().tarnAuthToken = "Bearer stored-token-value";

    Continuation done;
    Tarn::shared().requestAccessToken(done.function());
    ASSERT_TRUE(server_->waitForCount(Endpoint::accessToken, 1));
    EXPECT_EQ(tokenFlag(), false);  // In flight.
    EXPECT_EQ(done.calls(), 0);
    ASSERT_TRUE(done.wait());
    EXPECT_NE(done.thread(), std::this_thread::get_id());
    EXPECT_EQ(tokenFlag(), true);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), std::string("bearer ") + kServerToken);

    auto request = server_->requests(Endpoint::accessToken).at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_FALSE(request.header("Authorization"));
    EXPECT_EQ(request.header("cache-control"), "no-cache");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_TRUE(request.header("App-Info"));
    EXPECT_EQ(nlohmann::json::parse(request.body),
              nlohmann::json({{"clientId", "client-id-1"}, {"clientSecret", kClientSecret}}));

    // Later requests carry the new value exactly as stored.
    server_->on(Endpoint::event, ScriptedAnswer::json(200, "{}"));
    ASSERT_TRUE(post(Endpoint::event).wait());
    EXPECT_EQ(server_->requests(Endpoint::event).at(0).header("Authorization"),
              std::string("bearer ") + kServerToken);
}

TEST_F(AuthorizationTest, UndecodableOrFailedAnswersKeepTheOldValue) {
    configureCredentials();
    Tarn::shared().tarnAuthToken = "Bearer stored-token-value";
    auto withoutPolicy = nlohmann::json::parse(kTokenAnswer);
    withoutPolicy.erase("not-before-policy");
    auto mistyped = nlohmann::json::parse(kTokenAnswer);
    mistyped["expires_in"] = "300";
    auto fractional = nlohmann::json::parse(kTokenAnswer);
    fractional["expires_in"] = 2.5;

    struct Case {
        std::string name;
        ScriptedAnswer answer;
        std::vector<std::string> lines;
    };
    const auto missing =
        line("Tarn-Repository", "The data couldn’t be read because it is missing.");
    const auto format = line("Tarn-Repository",
                             "The data couldn’t be read because it isn’t in the correct format.");
    std::vector<Case> cases = {
        {"no not-before-policy",
         ScriptedAnswer::json(200, withoutPolicy.dump()),
         {missing, line(kRepoTag, kNotFetched)}},
        {"string for integer",
         ScriptedAnswer::json(200, mistyped.dump()),
         {format, line(kRepoTag, kNotFetched)}},
        {"fractional integer",
         ScriptedAnswer::json(200, fractional.dump()),
         {format, line(kRepoTag, kNotFetched)}},
        {"not JSON", ScriptedAnswer::json(200, "<html>"), {format, line(kRepoTag, kNotFetched)}},
        {"server error",
         ScriptedAnswer::json(400, R"({"error":"invalid_client"})"),
         {line(kRepoTag, kNotFetched)}},
        {"dropped",
         ScriptedAnswer::close(),
         {line(kRepoTag, kNotFetched),
          line("Tarn-ServiceClient:", "The network connection was lost.")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        logs_ = std::make_unique<LogCapture>();
        server_->on(Endpoint::accessToken, c.answer);
        Continuation done;
        Tarn::shared().requestAccessToken(done.function());
        ASSERT_TRUE(done.wait());
        ASSERT_TRUE(logs_->waitFor(c.lines.back()));
        EXPECT_EQ(logs_->lines(), c.lines);
        EXPECT_EQ(tokenFlag(), true);
        EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Bearer stored-token-value");
    }

    // A secret that cannot be written as JSON: nothing is sent, the flag is released.
    logs_ = std::make_unique<LogCapture>();
    auto config = *Tarn::shared().configuration.get();
    config.clientSecret = std::string(kClientSecret) + "\xff";
    Tarn::shared().configuration = config;
    auto before = server_->totalCount();
    Continuation done;
    Tarn::shared().requestAccessToken(done.function());
    EXPECT_EQ(done.calls(), 1);
    EXPECT_EQ(tokenFlag(), true);
    EXPECT_EQ(logs_->lines(),
              (std::vector<std::string>{
                  line(kRepoTag, kNotFetched),
                  line("Tarn-ServiceClient:", "Invalid string value (not UTF-8) in JSON write")}));
    EXPECT_EQ(server_->totalCount(), before);
}

TEST_F(AuthorizationTest, UnauthorizedAnswerCompletesThenFetchesOneNewToken) {
    configureCredentials();
    server_->on(Endpoint::event, ScriptedAnswer::json(401, R"({"error":"expired"})"));
    server_->on(Endpoint::accessToken, ScriptedAnswer::json(200, kTokenAnswer));

    std::atomic<std::size_t> tokenRequestsAtCompletion{99};
    Pending pending;
    auto collect = pending.completion();
    auto& client = ServiceClient::shared();
    client.request(client.url(Endpoint::event), {{"k", "v"}}, std::nullopt,
                   [&, collect](auto data, auto error, auto status) {
                       tokenRequestsAtCompletion = server_->count(Endpoint::accessToken);
                       collect(std::move(data), std::move(error), status);
                   });
    auto outcome = pending.wait();
    ASSERT_TRUE(outcome);
    EXPECT_FALSE(outcome->data);
    EXPECT_EQ(outcome->status, 401);
    ASSERT_TRUE(outcome->error && outcome->error->networkError());
    EXPECT_EQ(*outcome->error->networkError(), NetworkError::httpError(401, "Unauthorized"));
    EXPECT_EQ(tokenRequestsAtCompletion.load(), 0u);  // The completion came first.

    ASSERT_TRUE(server_->waitForCount(Endpoint::accessToken, 1));
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (Tarn::shared().tarnAuthToken.get().empty() &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), std::string("bearer ") + kServerToken);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(server_->count(Endpoint::accessToken), 1u);
    EXPECT_EQ(server_->count(Endpoint::event), 1u);  // The failed request is not repeated.
    EXPECT_FALSE(logs_->contains(line(kRepoTag, "pending Authorization!")));
}

TEST_F(AuthorizationTest, TwoQuickUnauthorizedAnswersSendOneTokenRequest) {
    configureCredentials();
    server_->on(Endpoint::event, ScriptedAnswer::json(401, "{}"));
    auto slowToken = ScriptedAnswer::json(200, kTokenAnswer);
    slowToken.delay = 600ms;
    server_->on(Endpoint::accessToken, slowToken);

    auto first = post(Endpoint::event);
    auto second = post(Endpoint::event);
    ASSERT_TRUE(first.wait());
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(first.wait()->status, 401);
    EXPECT_EQ(second.wait()->status, 401);
    ASSERT_TRUE(logs_->waitFor(line(kRepoTag, "pending Authorization!")));
    ASSERT_TRUE(server_->waitForCount(Endpoint::accessToken, 1));
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (Tarn::shared().tarnAuthToken.get().empty() &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), std::string("bearer ") + kServerToken);
    EXPECT_EQ(server_->count(Endpoint::accessToken), 1u);
    EXPECT_EQ(logs_->count(line(kRepoTag, "pending Authorization!")), 1u);

    // A second 401 later, with no token request in flight, triggers another.
    auto third = post(Endpoint::event);
    ASSERT_TRUE(third.wait());
    EXPECT_TRUE(server_->waitForCount(Endpoint::accessToken, 2));
}

TEST_F(AuthorizationTest, RefusedCredentialsRepeatTheTokenRequestUntilTheServerGoes) {
    configureCredentials();
    server_->on(Endpoint::accessToken, ScriptedAnswer::json(401, R"({"error":"invalid_client"})"));

    Continuation done;
    Tarn::shared().requestAccessToken(done.function());
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
    EXPECT_FALSE(logs_->contains(line(kRepoTag, "pending Authorization!")));
    EXPECT_GE(logs_->count(line(kRepoTag, kNotFetched)), sent);
    for (const auto& r : server_->requests(Endpoint::accessToken)) {
        EXPECT_FALSE(r.header("Authorization"));
    }
    EXPECT_TRUE(Tarn::shared().tarnAuthToken.get().empty());
}

TEST_F(AuthorizationTest, TokenWrittenOnTheTransportThreadIsReadCleanlyElsewhere) {
    configureCredentials();
    std::atomic<int> issued{0};
    server_->onRequest(Endpoint::accessToken, [&](const RecordedRequest&) {
        auto token = nlohmann::json::parse(kTokenAnswer);
        token["access_token"] = "t" + std::to_string(++issued);
        return ScriptedAnswer::json(200, token.dump());
    });

    std::atomic<bool> stop{false};
    std::vector<std::thread> framers;
    std::vector<std::set<std::string>> seen(3);
    for (int i = 0; i < 3; ++i) {
        framers.emplace_back([&, i] {
            auto& client = ServiceClient::shared();
            auto url = client.url(Endpoint::event);
            // Frames until the rounds are over and the last value has been seen here.
            while (true) {
                auto value = *client.buildRequest(url, true).headers.value("Authorization");
                seen[i].insert(value);
                if (stop && value == "bearer t10") {
                    break;
                }
            }
        });
    }
    for (int round = 0; round < 10; ++round) {
        Continuation done;
        Tarn::shared().requestAccessToken(done.function());
        ASSERT_TRUE(done.wait());
    }
    stop = true;
    for (auto& t : framers)
        t.join();

    EXPECT_EQ(issued.load(), 10);
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "bearer t10");
    for (const auto& values : seen) {
        EXPECT_TRUE(values.count("bearer t10"));
        for (const auto& v : values) {
            EXPECT_TRUE(v.empty() || v.rfind("bearer t", 0) == 0) << v;
        }
    }
}
