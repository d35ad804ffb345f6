// The service client and its libcurl session end to end against the loopback and raw-socket
// servers: framing, status classification, the retry rule, transport failures and malformed
// answers, programming errors and invalidation.
#include <gtest/gtest.h>

#include <cmath>

#include "network/NetworkFixture.h"
#include "support/RawSocketServer.h"
#include "tarn/network/Endpoint.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;
using ServiceClientTest = NetworkTest;

const std::string kTag = "Tarn-ServiceClient:";

TEST_F(ServiceClientTest, FramesEveryRequestKeepsNoCookiesAndRefusesAnUnwritableBody) {
    auto withCookie = ScriptedAnswer::json(200, "{}");
    withCookie.headers = {{"Set-Cookie", "session=abc; Path=/"}};
    server_->on(Endpoint::event, withCookie);
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
    EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
    EXPECT_FALSE(seen[0].header("Expect"));
    // base64 of {"platform":"ios","bundleId":"com.example.host","application":"Host\/App"}
    EXPECT_EQ(
        seen[0].header("App-Info"),
        "eyJwbGF0Zm9ybSI6ImlvcyIsImJ1bmRsZUlkIjoiY29tLmV4YW1wbGUuaG9zdCIsImFwcGxpY2F0aW9uIjoiSG9zdF"
        "wvQXBwIn0=");
    // skipAuthorization: no header at all, even with a token stored. The cookie is not kept.
    EXPECT_FALSE(seen[1].header("Authorization"));
    EXPECT_FALSE(seen[1].header("Cookie"));
    EXPECT_EQ(seen[2].header("Authorization"), "Bearer stored-token-value");
    // The same with "com.unknown": the bundle has no identifier any more.
    EXPECT_EQ(
        seen[2].header("App-Info"),
        "eyJwbGF0Zm9ybSI6ImlvcyIsImJ1bmRsZUlkIjoiY29tLnVua25vd24iLCJhcHBsaWNhdGlvbiI6Ikhvc3RcL0Fw"
        "cCJ9");
    for (const auto& request : seen)
        EXPECT_EQ(request.header("cache-control"), "no-cache");

    // App info that cannot be encoded (a bundle identifier that is not UTF-8): the failure is
    // logged and the request goes out without the header.
    writeInfoPlist(bundleDir(), "com.example.\xff");
    ASSERT_TRUE(post(Endpoint::event, {{"n", 3}}).wait());
    seen = server_->requests(Endpoint::event);
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_FALSE(seen[3].header("App-Info"));
    EXPECT_EQ(seen[3].header("Content-Type"), "application/json");
    EXPECT_EQ(nlohmann::json::parse(seen[3].body), nlohmann::json({{"n", 3}}));
    EXPECT_TRUE(
        logs_->contains(line(kTag, "Failed to encode app info: a field is not valid UTF-8")));

    // A body JSON cannot write completes at once, on the caller's thread, and sends nothing.
    const std::string message = "Invalid number value (infinite or NaN) in JSON write";
    auto pending = post(Endpoint::event, {{"nested", {{"x", std::nan("")}}}});
    ASSERT_EQ(pending.calls(), 1);
    auto outcome = pending.wait(0ms);
    EXPECT_EQ(outcome->thread, std::this_thread::get_id());
    ASSERT_TRUE(outcome->networkError());
    EXPECT_EQ(*outcome->networkError(), NetworkError::serializationError(message));
    EXPECT_TRUE(logs_->contains(line(kTag, message)));
    EXPECT_EQ(server_->totalCount(), 4u);
}

TEST_F(ServiceClientTest, OnlyStatus200IsSuccessRedirectsAreNotFollowedAndA5xxWithBudgetWaits) {
    // A 5xx with the default budget: the retry task is created on the shared session, never sent.
    server_->on(Endpoint::event, ScriptedAnswer::json(503, R"({"error":"busy"})"));
    ASSERT_EQ(processSettings().requestRetryCount.load(), 3);
    auto pending = post(Endpoint::event);
    ASSERT_TRUE(server_->waitForCount(Endpoint::event, 1));
    EXPECT_FALSE(pending.wait(700ms));
    EXPECT_EQ(ServiceClient::shared().retryTaskCount(), 1u);
    EXPECT_EQ(server_->totalCount(), 1u);

    processSettings().requestRetryCount = 0;
    server_->on("/ok", ScriptedAnswer::json(200, R"({"a":1})"));
    auto ok = post("/ok").wait();
    ASSERT_TRUE(ok && ok->data);
    EXPECT_EQ(std::string(ok->data->begin(), ok->data->end()), R"({"a":1})");
    EXPECT_FALSE(ok->error);
    EXPECT_EQ(ok->status, 200);
    // Completions run on the transport's thread: not the caller's, not the main queue.
    EXPECT_NE(ok->thread, std::this_thread::get_id());
    EXPECT_EQ(queue().pendingCount(), 0u);

    // Redirects are answers too: nothing goes to the new place, no GET follows.
    server_->on("/elsewhere", ScriptedAnswer::json(200, "{}"));
    for (const auto& [status, phrase] :
         std::vector<std::pair<int, std::string>>{{201, "Created"},
                                                  {204, "No Content"},
                                                  {302, "Found"},
                                                  {303, "See Other"},
                                                  {307, "Temporary Redirect"},
                                                  {503, "Service Unavailable"}}) {
        SCOPED_TRACE(status);
        auto path = "/" + std::to_string(status);
        auto answer = ScriptedAnswer::json(status, status == 201 || status == 503 ? "{}" : "");
        answer.headers = {{"Location", server_->baseUrl() + "/elsewhere"}};
        server_->on(path, answer);
        auto outcome = post(path).wait();
        ASSERT_TRUE(outcome && outcome->networkError());
        EXPECT_FALSE(outcome->data);
        EXPECT_EQ(outcome->status, status);
        EXPECT_EQ(*outcome->networkError(), NetworkError::httpError(status, phrase));
        EXPECT_EQ(outcome->error->localizedDescription(),
                  phrase + " (HTTP " + std::to_string(status) + ")");
    }
    EXPECT_EQ(server_->count("/elsewhere"), 0u);
    for (const auto& request : server_->requests())
        EXPECT_EQ(request.method, "POST") << request.path;
    EXPECT_TRUE(logs_->lines().empty());  // Status answers are not logged by the client.
}

TEST_F(ServiceClientTest, TransportFailuresGiveThePlatformErrorAndALogLine) {
    auto failure = [&](const std::string& path, TransportError::Code code, const char* logged,
                       std::optional<int> status = std::nullopt) {
        SCOPED_TRACE(logged);
        const auto before = logs_->count(line(kTag, logged));
        auto outcome = post(path).wait(10s);
        ASSERT_TRUE(outcome && outcome->error && outcome->error->transportError());
        EXPECT_FALSE(outcome->data);
        EXPECT_EQ(outcome->status, status);
        EXPECT_EQ(outcome->error->transportError()->code, code);
        EXPECT_TRUE(logs_->waitFor(line(kTag, logged), 5s, before + 1));
    };
    // Connection refused: a port that was bound a moment ago and is closed now.
    processSettings().baseUrl = LoopbackServer().baseUrl();
    failure(Endpoint::event, TransportError::cannotConnectToHost,
            "Could not connect to the server.");
    // Bytes that are no HTTP, a status line without a code, and 4,000 header lines of 100 bytes
    // each (past the header block's bound) are a bad answer, not a bad URL.
    RawSocketServer raw;
    processSettings().baseUrl = raw.baseUrl();
    std::vector<std::string> flood;
    for (int i = 0; i < 4000; ++i)
        flood.push_back("X-Fill-" + std::to_string(i) + ": " + std::string(85, 'h'));
    for (const auto& [head, status] : std::vector<std::pair<std::string, std::optional<int>>>{
             {"\x16\x03\x01 these bytes are no HTTP at all\r\n\r\n", std::nullopt},
             {"HTTP/1.1 abc\r\nContent-Length: 2\r\n\r\n{}", std::nullopt},
             {RawSocketServer::head("HTTP/1.1 200 OK", flood), 200}}) {
        raw.answer({head, nullptr});
        failure(Endpoint::event, TransportError::badServerResponse,
                "The server returned a bad response.", status);
    }
    EXPECT_FALSE(logs_->containsText("unsupported URL"));
    // A scheme the transport does not speak is the URL's fault.
    processSettings().baseUrl = "gopher://127.0.0.1";
    failure("/x", TransportError::unsupportedURL, "unsupported URL");
    // A server that never answers: the framed request carries the configured time-out.
    processSettings().baseUrl = server_->baseUrl();
    processSettings().requestTimeout = 1;
    server_->on("/silent", ScriptedAnswer::never());
    auto started = std::chrono::steady_clock::now();
    failure("/silent", TransportError::timedOut, "The request timed out.");
    auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_GE(elapsed, 900ms);
    EXPECT_LT(elapsed, 5s);
    server_->on("/dropped", ScriptedAnswer::close());
    failure("/dropped", TransportError::networkConnectionLost, "The network connection was lost.");
}

TEST_F(ServiceClientTest, InvalidatingASessionDropsTransfersInFlightWithoutCompletions) {
    auto session = CurlHttpSession::make("test");
    server_->on("/hold", ScriptedAnswer::never());
    std::atomic<int> completions{0};
    HttpRequest request;
    request.url = server_->baseUrl() + "/hold";
    for (int i = 0; i < 3; ++i)
        session->dataTask(request, [&](auto, auto, auto) { ++completions; })->resume();
    ASSERT_TRUE(server_->waitForCount("/hold", 3));
    session->invalidate();
    session->dataTask(request, [&](auto, auto, auto) { ++completions; })->resume();
    server_->stop();  // Releases the held requests; nobody is listening for them any more.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(completions.load(), 0);
    EXPECT_EQ(server_->count("/hold"), 3u);
}
