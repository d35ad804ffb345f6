// The libcurl session on its own: suspended tasks, answers with headers, no cookies kept, and
// invalidation with transfers in flight.
#include <gtest/gtest.h>

#include "network/NetworkFixture.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

struct Answer {
    std::optional<Data> data;
    std::optional<HttpResponse> response;
    std::optional<TransportError> error;
    std::thread::id thread;
};

/// Sends `request` on `session` and waits for the answer.
std::optional<Answer> roundTrip(HttpSession& session, HttpRequest request,
                               std::chrono::milliseconds timeout = 5s) {
    auto state = std::make_shared<std::pair<std::mutex, std::optional<Answer>>>();
    auto cv = std::make_shared<std::condition_variable>();
    session
        .dataTask(std::move(request),
                  [state, cv](auto data, auto response, auto error) {
                      std::lock_guard lock(state->first);
                      state->second = Answer{std::move(data), std::move(response), std::move(error),
                                             std::this_thread::get_id()};
                      cv->notify_all();
                  })
        ->resume();
    std::unique_lock lock(state->first);
    cv->wait_for(lock, timeout, [&] { return state->second.has_value(); });
    return state->second;
}

}  // namespace

class TransportTest : public NetworkTest {};

TEST_F(TransportTest, SessionsSendOnResumeReportHeadersAndKeepNoCookies) {
    auto session = CurlHttpSession::make("test");
    ScriptedAnswer withCookie = ScriptedAnswer::json(200, R"({"a":"b"})");
    withCookie.headers = {{"Set-Cookie", "session=abc; Path=/"}, {"X-Trace", "t-1"}};
    server_->on("/cookie", withCookie);
    server_->on("/empty", ScriptedAnswer::json(204, ""));

    HttpRequest request;
    request.url = server_->baseUrl() + "/cookie";
    request.method = "POST";
    request.body = Data{'{', '}'};
    request.setValue("yes", "X-Flag");

    // A task that is never resumed sends nothing.
    auto idle = session->dataTask(request, [](auto, auto, auto) { ADD_FAILURE(); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(server_->totalCount(), 0u);
    EXPECT_FALSE(idle->isStarted());

    auto first = roundTrip(*session, request);
    ASSERT_TRUE(first);
    EXPECT_NE(first->thread, std::this_thread::get_id());
    ASSERT_TRUE(first->response);
    EXPECT_EQ(first->response->statusCode, 200);
    EXPECT_EQ(first->response->headers.value("x-trace"), "t-1");
    EXPECT_EQ(std::string(first->data->begin(), first->data->end()), R"({"a":"b"})");
    EXPECT_FALSE(first->error);

    auto second = roundTrip(*session, request);
    ASSERT_TRUE(second && second->response);
    auto seen = server_->requests("/cookie");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].body, "{}");
    EXPECT_EQ(seen[0].header("X-Flag"), "yes");
    EXPECT_FALSE(seen[0].header("Expect"));
    EXPECT_FALSE(seen[1].header("Cookie"));

    // An HTTP answer without a body still carries data, empty.
    request.url = server_->baseUrl() + "/empty";
    auto empty = roundTrip(*session, request);
    ASSERT_TRUE(empty && empty->data);
    EXPECT_TRUE(empty->data->empty());
    EXPECT_EQ(empty->response->statusCode, 204);

    // A URL the transport cannot use fails without a response.
    request.url = "ftp://127.0.0.1/x";
    auto unsupported = roundTrip(*session, request);
    ASSERT_TRUE(unsupported && unsupported->error);
    EXPECT_EQ(unsupported->error->code, TransportError::unsupportedURL);
    EXPECT_FALSE(unsupported->response);
}

TEST_F(TransportTest, InvalidatingDropsTransfersInFlightWithoutCompletions) {
    auto session = CurlHttpSession::make("test");
    server_->on("/hold", ScriptedAnswer::never());
    std::atomic<int> completions{0};
    HttpRequest request;
    request.url = server_->baseUrl() + "/hold";
    for (int i = 0; i < 3; ++i) {
        session->dataTask(request, [&](auto, auto, auto) { ++completions; })->resume();
    }
    ASSERT_TRUE(server_->waitForCount("/hold", 3));
    session->invalidate();
    session->dataTask(request, [&](auto, auto, auto) { ++completions; })->resume();
    server_->stop();  // Releases the held requests; nobody is listening for them any more.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(completions.load(), 0);
    EXPECT_EQ(server_->count("/hold"), 3u);

    // The shared session is a separate object from every client's own session.
    EXPECT_NE(&sharedHttpSession(), &ServiceClient::shared().urlSession());
}
