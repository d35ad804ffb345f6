// The libcurl session on its own: suspended tasks, answers with headers, no cookies kept, and
// invalidation with transfers in flight.
#include <gtest/gtest.h>

#include <future>

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
Answer roundTrip(HttpSession& session, HttpRequest request) {
    auto promise = std::make_shared<std::promise<Answer>>();
    auto answer = promise->get_future();
    session
        .dataTask(std::move(request),
                  [promise](auto data, auto response, auto error) {
                      promise->set_value(Answer{std::move(data), std::move(response),
                                                std::move(error), std::this_thread::get_id()});
                  })
        ->resume();
    if (answer.wait_for(5s) != std::future_status::ready) {
        ADD_FAILURE() << "no answer";
        return {};
    }
    return answer.get();
}

}  // namespace

class TransportTest : public NetworkTest {};

TEST_F(TransportTest, SessionsSendOnResumeReportHeadersAndKeepNoCookies) {
    auto session = CurlHttpSession::make("test");
    ScriptedAnswer withCookie = ScriptedAnswer::json(200, R"({"a":"b"})");
    withCookie.headers = {{"Set-Cookie", "session=abc; Path=/"}, {"X-Trace", "t-1"}};
    server_->on("/cookie", withCookie);
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
    EXPECT_NE(first.thread, std::this_thread::get_id());
    ASSERT_TRUE(first.response && first.data);
    EXPECT_EQ(first.response->statusCode, 200);
    EXPECT_EQ(first.response->headers.value("x-trace"), "t-1");
    EXPECT_EQ(std::string(first.data->begin(), first.data->end()), R"({"a":"b"})");
    EXPECT_FALSE(first.error);

    ASSERT_TRUE(roundTrip(*session, request).response);
    auto seen = server_->requests("/cookie");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].body, "{}");
    EXPECT_EQ(seen[0].header("X-Flag"), "yes");
    EXPECT_FALSE(seen[0].header("Expect"));
    EXPECT_FALSE(seen[1].header("Cookie"));  // The cookie of the first answer is not kept.

    // A URL the transport cannot use fails without a response.
    request.url = "ftp://127.0.0.1/x";
    auto unsupported = roundTrip(*session, request);
    ASSERT_TRUE(unsupported.error);
    EXPECT_EQ(unsupported.error->code, TransportError::unsupportedURL);
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
