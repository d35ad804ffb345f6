// Hostile answers from a raw-socket server: bodies past their bound (plain, announced and
// compressed), bytes that are not HTTP, a flood of headers, and a redirect of a POST. Each one must
// end in the caller's failure outcome with a log line that names it, without the body ever being
// held in memory.
#include <gtest/gtest.h>

#include <future>

#include "network/NetworkFixture.h"
#include "support/RawSocketServer.h"
#include "tarn/inapp/InAppRepository.h"
#include "tarn/network/Authorization.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;
// How far peak RSS may grow while one hostile answer is handled: far below the answers' sizes,
// with room for the thread sanitizer's shadow of every byte touched.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t kRssGrowthBound = 256 * kMiB;
#else
constexpr std::size_t kRssGrowthBound = 64 * kMiB;
#endif
const std::string kTooLarge =
    "Tarn-ServiceClient: The server's answer is larger than this request accepts.;";

}  // namespace

class AnswerBoundsTest : public NetworkTest {
  protected:
    void SetUp() override {
        NetworkTest::SetUp();
        raw_ = std::make_unique<RawSocketServer>();
        processSettings().baseUrl = raw_->baseUrl();
    }
    void TearDown() override {
        NetworkTest::TearDown();
        raw_->stop();
    }

    /// Runs the token routine against the raw server; true once its continuation has run.
    bool tokenRoutineEnds() {
        configureCredentials();
        Pending done;
        Tarn::shared().requestAccessToken(done.continuation());
        return done.wait(20s).has_value();
    }

    /// Fetches the in-app answer from the raw server; true when an answer was decoded.
    std::optional<bool> inAppFetchDecoded() {
        auto promise = std::make_shared<std::promise<bool>>();
        auto result = promise->get_future();
        InAppRepository::shared().fetchInAppCommunications(
            {{"actorId", "a"}},
            [promise](std::optional<AppCommunication> answer) { promise->set_value(!!answer); });
        if (result.wait_for(20s) != std::future_status::ready) {
            return std::nullopt;
        }
        return result.get();
    }

    std::unique_ptr<RawSocketServer> raw_;
};

TEST_F(AnswerBoundsTest, OversizedTokenAnswersFailTheRoutineWithoutGrowingTheProcess) {
    Tarn::shared().tarnAuthToken = "Bearer earlier";
    // 100 MB without a length: read until the bound, then the transfer is cut.
    auto baseline = peakRssBytes();
    raw_->answer({RawSocketServer::head("HTTP/1.1 200 OK", {"Content-Type: application/json"}),
                  RawSocketServer::repeated(100 * kMiB)});
    ASSERT_TRUE(tokenRoutineEnds());
    EXPECT_LT(peakRssBytes() - baseline, kRssGrowthBound);
    EXPECT_LT(raw_->bytesWritten(), 100 * kMiB);  // the client stopped reading before the end
    EXPECT_TRUE(logs_->waitFor(kTooLarge));
    EXPECT_TRUE(
        logs_->contains(line("Tarn-AuthorizationRepository:", "Access token could not fetched!")));
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Bearer earlier");
    EXPECT_EQ(PreferencesManager::shared().boolValue(PreferenceKey::tokenStatus), true);
    ASSERT_EQ(raw_->requests().size(), 1u);
    EXPECT_EQ(raw_->requests()[0].method, "POST");

    // An announced length over the bound fails before the body is read.
    raw_->answer({RawSocketServer::head("HTTP/1.1 200 OK", {"Content-Length: 104857600"}),
                  RawSocketServer::fixed("{}")});
    ASSERT_TRUE(tokenRoutineEnds());
    EXPECT_TRUE(logs_->waitFor(kTooLarge, 5s, 2));
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Bearer earlier");

    // A compressed token answer inside the bound is decoded and stored.
    raw_->answer(
        {RawSocketServer::head("HTTP/1.1 200 OK", {"Content-Encoding: gzip", "Connection: close"}),
         RawSocketServer::fixed(gzipCompress(kTokenAnswer))});
    ASSERT_TRUE(tokenRoutineEnds());
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), std::string("bearer ") + kServerToken);
}

TEST_F(AnswerBoundsTest, ACompressedAnswerIsBoundedByWhatItExpandsTo) {
    // 512 MiB of zeros compress to a few megabytes: well under the bound on the wire.
    auto bomb = gzipOfZeros(512 * kMiB);
    ASSERT_LT(bomb.size(), Endpoint::maxInAppAnswerBytes / 4);
    auto head = RawSocketServer::head(
        "HTTP/1.1 200 OK",
        {"Content-Encoding: gzip", "Content-Length: " + std::to_string(bomb.size())});
    raw_->answer({head, RawSocketServer::fixed(std::move(bomb))});
    auto baseline = peakRssBytes();
    EXPECT_EQ(inAppFetchDecoded(), false);
    EXPECT_LT(peakRssBytes() - baseline, kRssGrowthBound);
    // The client logs right after the completion has run.
    EXPECT_TRUE(logs_->waitFor(kTooLarge));
    EXPECT_TRUE(logs_->contains(line("Tarn-InAppRepository:", "No Data")));

    // An answer expanding past the token bound but not the in-app one is read in full.
    raw_->answer(
        {RawSocketServer::head("HTTP/1.1 200 OK", {"Content-Encoding: gzip"}),
         RawSocketServer::fixed(gzipCompress(
             R"({"inAppCommunicationCommands":[],"configuration":{}})" + std::string(kMiB, ' ')))});
    EXPECT_EQ(inAppFetchDecoded(), true);
}

TEST_F(AnswerBoundsTest, BytesThatAreNotHttpAreABadServerResponse) {
    const std::string bad = line("Tarn-ServiceClient:", "The server returned a bad response.");
    // 4,000 header lines of 100 bytes each: past the header block's bound.
    std::vector<std::string> flood;
    for (int i = 0; i < 4000; ++i) {
        flood.push_back("X-Fill-" + std::to_string(i) + ": " + std::string(85, 'h'));
    }
    std::size_t expected = 0;
    for (const auto& head : {std::string("\x16\x03\x01 these bytes are no HTTP at all\r\n\r\n"),
                             std::string("HTTP/1.1 abc\r\nContent-Length: 2\r\n\r\n{}"),
                             RawSocketServer::head("HTTP/1.1 200 OK", flood)}) {
        SCOPED_TRACE(head.substr(0, 16));
        raw_->answer({head, nullptr});
        auto outcome = post(Endpoint::event).wait(10s);
        ASSERT_TRUE(outcome && outcome->error && outcome->error->transportError());
        EXPECT_FALSE(outcome->data);
        EXPECT_EQ(outcome->error->transportError()->code, TransportError::badServerResponse);
        EXPECT_TRUE(logs_->waitFor(bad, 5s, ++expected));
        EXPECT_FALSE(logs_->containsText("unsupported URL"));
    }
}

TEST_F(AnswerBoundsTest, ARedirectedPostIsAnAnswerAndNoGetFollows) {
    // The event endpoint moved: the 3xx is reported, nothing goes to the new place.
    processSettings().baseUrl = server_->baseUrl();
    ScriptedAnswer moved = ScriptedAnswer::json(302, "");
    moved.headers = {{"Location", server_->baseUrl() + "/elsewhere"}};
    server_->on("/elsewhere", ScriptedAnswer::json(200, "{}"));
    for (int status : {302, 303, 307}) {
        SCOPED_TRACE(status);
        moved.status = status;
        server_->on(Endpoint::event, moved);
        auto outcome = post(Endpoint::event, {{"name", "page_in"}}).wait(5s);
        ASSERT_TRUE(outcome && outcome->error && outcome->error->networkError());
        EXPECT_FALSE(outcome->data);
        EXPECT_EQ(outcome->status, status);
        EXPECT_EQ(*outcome->error->networkError(),
                  NetworkError::httpError(status, reasonPhrase(status)));
    }
    EXPECT_EQ(server_->count("/elsewhere"), 0u);
    for (const auto& request : server_->requests()) {
        EXPECT_EQ(request.method, "POST") << request.path;
    }
}
