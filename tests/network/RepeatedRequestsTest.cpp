// Requests and sessions repeated many times against the loopback server: what the transport holds
// (easy and multi handles, worker threads, connections) is no more after many than after one.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "network/NetworkFixture.h"
#include "tarn/network/Endpoint.h"
#include "tarn/network/HttpTransport.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

/// What the process holds: threads, and open descriptors that are sockets.
struct Held {
    std::size_t threads = 0;
    std::size_t sockets = 0;
};

Held held() {
    Held h;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/task"))
        ++h.threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        auto target = std::filesystem::read_symlink(entry.path(), ec);
        if (!ec && target.string().starts_with("socket:"))
            ++h.sockets;
    }
    return h;
}

/// Waits up to five seconds for `done`.
bool settles(const std::function<bool()>& done) {
    for (int i = 0; i < 500 && !done(); ++i)
        std::this_thread::sleep_for(10ms);
    return done();
}

class RepeatedRequestsTest : public NetworkTest {
  protected:
    void SetUp() override {
        NetworkTest::SetUp();
        Tarn::shared().tarnAuthToken = "Bearer stored-token-value";
        server_->on("/ok", ScriptedAnswer::json(200, R"({"ok":true})"));
        server_->on("/missing", ScriptedAnswer::json(404, "{}"));
        server_->on("/dropped", ScriptedAnswer::close());
        server_->on("/held", ScriptedAnswer::never());
    }
};

}  // namespace

// 200 requests through the service client (answered, refused with a status, dropped without an
// answer) and 50 sessions of their own (used and invalidated, released with a transfer in flight,
// released unused): afterwards no easy handle is left, and the multi handles, worker threads,
// process threads and sockets are what they were after one.
TEST_F(RepeatedRequestsTest, ManyRequestsAndSessionsHoldWhatOneDid) {
    ASSERT_TRUE(post("/ok").wait());
    ASSERT_TRUE(settles([] { return CurlHttpSession::liveResources().easyHandles == 0; }));
    const auto transportAfterOne = CurlHttpSession::liveResources();
    const Held afterOne = held();
    EXPECT_EQ(transportAfterOne.workerThreads, 1u);  // the client's session; the shared one is idle

    const char* paths[] = {"/ok", "/missing", "/dropped"};
    for (int i = 0; i < 200; ++i) {
        auto outcome = post(paths[i % 3]).wait();
        ASSERT_TRUE(outcome) << "request " << i;
    }
    ASSERT_TRUE(post("/ok").wait());  // ends on a kept-alive connection, as the first did
    ASSERT_TRUE(settles([] { return CurlHttpSession::liveResources().easyHandles == 0; }));
    EXPECT_EQ(CurlHttpSession::liveResources().multiHandles, transportAfterOne.multiHandles);
    EXPECT_EQ(CurlHttpSession::liveResources().workerThreads, transportAfterOne.workerThreads);
    EXPECT_EQ(held().threads, afterOne.threads);
    EXPECT_LE(held().sockets, afterOne.sockets);

    HttpRequest request;
    request.url = server_->baseUrl() + "/ok";
    for (int i = 0; i < 50; ++i) {
        auto session = CurlHttpSession::make("probe-" + std::to_string(i));
        Pending answered;
        auto completion = [c = answered.completion()](auto data, auto response, auto) {
            c(std::move(data), std::nullopt,
              response ? std::optional(response->statusCode) : std::nullopt);
        };
        // Three sessions are released with a transfer held by the server (each holds one of the
        // server's few threads until it stops); the others are used or left unused.
        switch (i < 9 ? i % 3 : i % 2 * 2) {
            case 0: {  // used, then invalidated
                session->send(request, completion);
                auto outcome = answered.wait();
                ASSERT_TRUE(outcome);
                ASSERT_EQ(outcome->status, 200);
                session->invalidate();
                break;
            }
            case 1: {  // released while its transfer is held by the server
                HttpRequest held = request;
                held.url = server_->baseUrl() + "/held";
                session->send(held, completion);
                ASSERT_TRUE(server_->waitForCount("/held", static_cast<std::size_t>(i / 3 + 1)));
                EXPECT_EQ(CurlHttpSession::liveResources().easyHandles, 1u);
                break;
            }
            default:  // never used: no thread was ever started
                break;
        }
        session.reset();
    }
    ASSERT_TRUE(settles([&] {
        auto now = CurlHttpSession::liveResources();
        return now.easyHandles == 0 && now.multiHandles == transportAfterOne.multiHandles &&
               now.workerThreads == transportAfterOne.workerThreads &&
               held().threads == afterOne.threads;
    })) << "easy "
        << CurlHttpSession::liveResources().easyHandles << ", multi "
        << CurlHttpSession::liveResources().multiHandles << ", workers "
        << CurlHttpSession::liveResources().workerThreads << ", threads " << held().threads
        << " (after one " << afterOne.threads << ")";
    // The abandoned transfers' connections are closed with their sessions; the server's end of
    // each stays open until it stops.
    ASSERT_TRUE(post("/ok").wait());
    EXPECT_LE(held().sockets, afterOne.sockets + 3u);  // the server's ends of the three held ones
}
