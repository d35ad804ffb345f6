// The service client end to end against the loopback server: framing, status classification,
// the retry rule, transport failures and programming errors.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "network/NetworkFixture.h"
#include "tarn/network/Endpoint.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

std::string base64Decode(const std::string& text) {
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z')
            return c - 'A';
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 26;
        if (c >= '0' && c <= '9')
            return c - '0' + 52;
        if (c == '+')
            return 62;
        if (c == '/')
            return 63;
        return -1;
    };
    std::string out;
    int bits = 0, buffer = 0;
    for (char c : text) {
        if (c == '=')
            break;
        int v = value(c);
        if (v < 0)
            return "<not base64>";
        buffer = (buffer << 6) | v;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((buffer >> bits) & 0xFF);
        }
    }
    return out;
}

std::string text(const std::optional<Data>& data) {
    return data ? std::string(data->begin(), data->end()) : "<none>";
}

const std::string kTag = "Tarn-ServiceClient:";

}  // namespace

class ServiceClientTest : public NetworkTest {};

TEST_F(ServiceClientTest, FramesEveryRequestWithItsHeadersBodyAndTimeout) {
    server_->on(Endpoint::event, ScriptedAnswer::json(200, "{}"));
    Tarn::shared().tarnAuthToken = "Bearer stored-token-value";
    Tarn::shared().applicationName = "Host/App";

    ASSERT_TRUE(post(Endpoint::event, {{"eventName", "page_in"}, {"count", 2}}).wait());
    ASSERT_TRUE(post(Endpoint::event, {{"n", 1}}, true).wait());
    std::filesystem::remove(bundleDir() / "Info.plist");
    ASSERT_TRUE(post(Endpoint::event, {{"n", 2}}, false).wait());

    auto seen = server_->requests(Endpoint::event);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].method, "POST");
    EXPECT_EQ(nlohmann::json::parse(seen[0].body),
              nlohmann::json({{"eventName", "page_in"}, {"count", 2}}));
    EXPECT_EQ(seen[0].header("Authorization"), "Bearer stored-token-value");
    EXPECT_EQ(seen[0].header("cache-control"), "no-cache");
    EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
    ASSERT_TRUE(seen[0].header("App-Info"));
    EXPECT_EQ(base64Decode(*seen[0].header("App-Info")),
              R"({"platform":"ios","bundleId":"com.example.host","application":"Host\/App"})");
    // skipAuthorization: no header at all, even with a token stored.
    EXPECT_FALSE(seen[1].header("Authorization"));
    EXPECT_EQ(seen[1].header("cache-control"), "no-cache");
    EXPECT_EQ(seen[2].header("Authorization"), "Bearer stored-token-value");
    // A host without a bundle identifier.
    auto appInfo = nlohmann::json::parse(base64Decode(*seen[2].header("App-Info")));
    EXPECT_EQ(appInfo["bundleId"], "com.unknown");
    EXPECT_EQ(appInfo["platform"], "ios");

    // The time-out in force: 3000 s before any configuration, the configured value after.
    auto& client = ServiceClient::shared();
    EXPECT_EQ(client.buildRequest(client.url("/a"), true).timeoutInterval, 3000.0);
    processSettings().requestTimeout = 3;
    EXPECT_EQ(client.buildRequest(client.url("/a"), false).timeoutInterval, 3.0);
    EXPECT_EQ(client.buildRequest(client.url("/a"), false).method, "GET");

    // An application name that is not UTF-8 cannot be encoded: the request goes without App-Info.
    Tarn::shared().applicationName = std::string("Bad\xff");
    auto framed = client.buildRequest(client.url("/a"), true);
    EXPECT_FALSE(framed.headers.value("App-Info"));
    EXPECT_TRUE(framed.headers.value("Content-Type"));
    EXPECT_TRUE(
        logs_->contains(line(kTag, "Failed to encode app info: a field is not valid UTF-8")));
}

TEST_F(ServiceClientTest, UrlsAreConcatenatedVerbatim) {
    processSettings().baseUrl = server_->baseUrl() + "/";
    server_->on("//" + std::string(Endpoint::event + 1), ScriptedAnswer::json(200, "{}"));
    auto& client = ServiceClient::shared();
    EXPECT_EQ(client.url(Endpoint::event).absoluteString(),
              server_->baseUrl() + "//orbital-harbor/sdk-public/event/mobile");
    auto outcome = post(Endpoint::event).wait();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->status, 200);
    EXPECT_EQ(server_->requests().at(0).path, "//orbital-harbor/sdk-public/event/mobile");
}

using ServiceClientDeathTest = ServiceClientTest;

TEST_F(ServiceClientDeathTest, UnparsableOrMissingBaseUrlEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    processSettings().baseUrl = std::string("http://exa mple.com");
    EXPECT_DEATH(ServiceClient::shared().url(Endpoint::event),
                 "TarniOSCommonKit/Endpoint:23: Fatal error: Invalid url");
    processSettings().baseUrl = std::string("example.com");
    EXPECT_DEATH(ServiceClient::shared().url(""), "Invalid url");
    processSettings().baseUrl = std::nullopt;
    EXPECT_DEATH(ServiceClient::shared().url(Endpoint::event), "TarniOSCommonKit/Endpoint");
}

TEST_F(ServiceClientTest, OnlyStatus200IsSuccess) {
    server_->on("/ok", ScriptedAnswer::json(200, R"({"a":1})"));
    server_->on("/created", ScriptedAnswer::json(201, R"({"a":1})"));
    server_->on("/empty", ScriptedAnswer::json(204, ""));
    server_->on("/missing", ScriptedAnswer::json(404, R"({"error":"x"})"));
    processSettings().requestRetryCount = 0;
    server_->on("/unavailable", ScriptedAnswer::json(503, ""));

    auto ok = post("/ok").wait();
    ASSERT_TRUE(ok);
    EXPECT_EQ(text(ok->data), R"({"a":1})");
    EXPECT_FALSE(ok->error);
    EXPECT_EQ(ok->status, 200);
    // Completions run on the transport's thread: not the caller's, not the main queue.
    EXPECT_NE(ok->thread, std::this_thread::get_id());
    EXPECT_EQ(queue().pendingCount(), 0u);

    struct Case {
        std::string path;
        int status;
        std::string phrase;
    };
    for (const auto& c : std::vector<Case>{{"/created", 201, "Created"},
                                           {"/empty", 204, "No Content"},
                                           {"/missing", 404, "Not Found"},
                                           {"/unavailable", 503, "Service Unavailable"}}) {
        SCOPED_TRACE(c.path);
        auto outcome = post(c.path).wait();
        ASSERT_TRUE(outcome);
        EXPECT_FALSE(outcome->data);
        EXPECT_EQ(outcome->status, c.status);
        ASSERT_TRUE(outcome->error && outcome->error->networkError());
        EXPECT_EQ(*outcome->error->networkError(), NetworkError::httpError(c.status, c.phrase));
        EXPECT_EQ(outcome->error->localizedDescription(),
                  c.phrase + " (HTTP " + std::to_string(c.status) + ")");
    }
    // Status answers are not logged by the client.
    for (const auto& l : logs_->lines()) {
        EXPECT_NE(l.rfind(kTag, 0), 0u) << l;
    }
}

TEST_F(ServiceClientTest, ServerErrorWithBudgetLeftNeverCompletes) {
    server_->on(Endpoint::event, ScriptedAnswer::json(503, R"({"error":"busy"})"));
    ASSERT_EQ(processSettings().requestRetryCount.load(), 3);
    auto pending = post(Endpoint::event);
    ASSERT_TRUE(server_->waitForCount(Endpoint::event, 1));
    EXPECT_FALSE(pending.wait(700ms));
    EXPECT_EQ(pending.calls(), 0);
    // The retry task was created on the shared session and never sent.
    EXPECT_EQ(ServiceClient::shared().retryTaskCount(), 1u);
    EXPECT_EQ(server_->totalCount(), 1u);
    EXPECT_TRUE(logs_->lines().empty());
}

TEST_F(ServiceClientTest, TransportFailuresGiveThePlatformErrorAndALogLine) {
    // Connection refused: a port that was bound a moment ago and is closed now.
    std::string closedBase;
    {
        LoopbackServer gone;
        closedBase = gone.baseUrl();
    }
    processSettings().baseUrl = closedBase;
    auto refused = post(Endpoint::event).wait();
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->data);
    EXPECT_FALSE(refused->status);
    ASSERT_TRUE(refused->error && refused->error->transportError());
    EXPECT_EQ(refused->error->transportError()->code, TransportError::cannotConnectToHost);
    EXPECT_TRUE(logs_->waitFor(line(kTag, "Could not connect to the server.")));

    // A server that never answers, with the shortest time-out.
    processSettings().baseUrl = server_->baseUrl();
    processSettings().requestTimeout = 1;
    server_->on("/silent", ScriptedAnswer::never());
    auto started = std::chrono::steady_clock::now();
    auto silent = post("/silent").wait(10s);
    auto elapsed = std::chrono::steady_clock::now() - started;
    ASSERT_TRUE(silent);
    ASSERT_TRUE(silent->error && silent->error->transportError());
    EXPECT_EQ(silent->error->transportError()->code, TransportError::timedOut);
    EXPECT_EQ(silent->error->localizedDescription(), "The request timed out.");
    EXPECT_GE(elapsed, 900ms);
    EXPECT_LT(elapsed, 5s);
    EXPECT_TRUE(logs_->waitFor(line(kTag, "The request timed out.")));

    // A connection closed without an answer.
    server_->on("/dropped", ScriptedAnswer::close());
    auto dropped = post("/dropped").wait();
    ASSERT_TRUE(dropped);
    ASSERT_TRUE(dropped->error && dropped->error->transportError());
    EXPECT_EQ(dropped->error->transportError()->code, TransportError::networkConnectionLost);
    EXPECT_TRUE(logs_->waitFor(line(kTag, "The network connection was lost.")));

    // The client carries on.
    server_->on("/ok", ScriptedAnswer::json(200, "[]"));
    auto ok = post("/ok").wait();
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->status, 200);
    EXPECT_EQ(text(ok->data), "[]");
}

TEST_F(ServiceClientTest, UnserialisableBodiesCompleteAtOnceWithoutSending) {
    struct Case {
        std::string name;
        nlohmann::json parameters;
        std::string message;
    };
    std::vector<Case> cases = {
        {"not UTF-8",
         {{"name", std::string("a\xC3(b")}},
         "Invalid string value (not UTF-8) in JSON write"},
        {"NaN",
         {{"nested", {{"x", std::nan("")}}}},
         "Invalid number value (infinite or NaN) in JSON write"},
        {"infinity",
         {{"list", {1, std::numeric_limits<double>::infinity()}}},
         "Invalid number value (infinite or NaN) in JSON write"},
        {"array on top", nlohmann::json::array({1, 2}), "Invalid top-level type in JSON write"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto pending = post(Endpoint::event, c.parameters);
        ASSERT_EQ(pending.calls(), 1);  // Already called, before request() returned.
        auto outcome = pending.wait(0ms);
        EXPECT_EQ(outcome->thread, std::this_thread::get_id());
        ASSERT_TRUE(outcome->error && outcome->error->networkError());
        EXPECT_EQ(*outcome->error->networkError(), NetworkError::serializationError(c.message));
        EXPECT_FALSE(outcome->status);
        EXPECT_TRUE(logs_->contains(line(kTag, c.message)));
    }
    EXPECT_EQ(server_->totalCount(), 0u);
}

TEST(ReasonPhraseTest, KnownCodesAndClasses) {
    EXPECT_EQ(reasonPhrase(204), "No Content");
    EXPECT_EQ(reasonPhrase(418), "I'm a teapot");
    EXPECT_EQ(reasonPhrase(499), "Client Error");
    EXPECT_EQ(reasonPhrase(599), "Server Error");
    EXPECT_EQ(reasonPhrase(0), "Unknown Status");
    EXPECT_EQ(describe(std::nullopt), "nil");
    EXPECT_EQ(describe(std::nullopt, "Unknown error"), "Unknown error");
    EXPECT_EQ(base64Encode(""), "");
    EXPECT_EQ(base64Encode("f"), "Zg==");
    EXPECT_EQ(base64Encode("fo"), "Zm8=");
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
}

TEST(ServiceClientExitTest, ProcessEndsCleanlyWithRequestsInFlight) {
    std::string output;
    EXPECT_EQ(runHelper({"exit_with_requests_in_flight"}, &output), 0);
    EXPECT_NE(output.find("exiting"), std::string::npos) << output;
    EXPECT_EQ(output.find("completion"), std::string::npos) << output;
}
