// Answers past their bound from a raw-socket server, plain, announced and compressed. Each one must
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
        processSettings().baseUrl = raw_->baseUrl();
    }
    /// Fetches the in-app answer from the raw server: whether an answer was decoded, or none.
    std::optional<bool> inAppFetchDecoded() {
        auto decoded = std::make_shared<std::promise<bool>>();
        auto result = decoded->get_future();
        InAppRepository::shared().fetchInAppCommunications(
            {{"actorId", "a"}}, [decoded](auto answer) { decoded->set_value(answer.has_value()); });
        if (result.wait_for(20s) != std::future_status::ready)
            return std::nullopt;
        return result.get();
    }

    std::unique_ptr<RawSocketServer> raw_ = std::make_unique<RawSocketServer>();
};

TEST_F(AnswerBoundsTest, OversizedTokenAnswersFailTheRoutineWithoutGrowingTheProcess) {
    Tarn::shared().tarnAuthToken = "Bearer earlier";
    // 100 MB without a length: read until the bound, then the transfer is cut.
    auto baseline = peakRssBytes();
    raw_->answer({RawSocketServer::head("HTTP/1.1 200 OK", {"Content-Type: application/json"}),
                  RawSocketServer::repeated(100 * kMiB)});
    configureCredentials();
    ASSERT_TRUE(requestToken().wait(20s));
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
    ASSERT_TRUE(requestToken().wait(20s));
    EXPECT_TRUE(logs_->waitFor(kTooLarge, 5s, 2));
    EXPECT_EQ(Tarn::shared().tarnAuthToken.get(), "Bearer earlier");
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
