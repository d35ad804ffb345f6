// Conversion markers: the look-up's period and order, consumption, the purge, arming on the
// millisecond-as-second scale, markers of another connection, the period from the server's
// configuration block, and the conversion key in a body.
#include "support/RawDatabase.h"
#include "support/TestSupport.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/platform/Bundle.h"
#include "tarn/store/ConversionManager.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

using Codes = std::vector<std::string>;
constexpr double kNow = 1'000'000'000.0;
const char* const kNotFound =
    " is not a conversion event. Not Found: Requestted item was not found in conversion database!;";

class ConversionTest : public TarnTest {
  protected:
    void TearDown() override {
        setNowForTesting(std::nullopt);
        TarnTest::TearDown();
    }
    static void arm(const std::string& actor, const std::string& code, const std::string& name,
                    std::optional<Date> time) {
        Tarn::shared().actorId = actor;
        bool saved = false;
        CoreDataManager::shared().saveConversion({code, name, time}, "inapp_open",
                                                 [&] { saved = true; });
        ASSERT_TRUE(saved);
    }
    static Codes storedCodes() {
        return RawDatabase(CoreDataManager::databasePath())
            .column("SELECT communicationCode FROM ConversionEntity ORDER BY id");
    }
};

TEST_F(ConversionTest, NewestMarkerInsideThePeriodIsConsumedFirstAndArmedMarkersOutliveThePurge) {
    setNowForTesting(Date{kNow});
    LogCapture logs;
    auto& conversions = ConversionManager::shared();
    arm("alice", "older", "purchase", Date{kNow - 100});
    arm("alice", "newer", "purchase", Date{kNow - 50});
    arm("alice", "at-cutoff", "signup", Date{kNow - 86400});
    arm("alice", "just-inside", "signup", Date{kNow - 86400 + 0.001});
    arm("alice", "own", "login", Date{kNow - 10});

    // Another actor's event matches nothing and leaves the markers in place.
    EXPECT_EQ(conversions.checkConversion("purchase", "bob"), std::nullopt);
    EXPECT_TRUE(logs.contains(std::string("Tarn-ConversionManager: purchase") + kNotFound));
    EXPECT_EQ(storedCodes().size(), 5u);

    // Newest first, each once; the period is strict: a marker exactly at the cutoff is outside,
    // one a moment later inside.
    Tarn::shared().actorId = "alice";
    EXPECT_EQ(conversions.checkConversion("purchase"), "newer");
    EXPECT_TRUE(logs.contains("Tarn-ConversionManager: purchase is a conversion event;"));
    EXPECT_EQ(conversions.checkConversion("purchase"), "older");
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);
    EXPECT_EQ(conversions.checkConversion("signup"), "just-inside");
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);

    // Another connection (another process sharing the folder) arms and removes markers.
    ASSERT_EQ(RawDatabase(CoreDataManager::databasePath())
                  .exec("INSERT INTO ConversionEntity (actorId, communicationCode, "
                        "convertionName, time) VALUES ('alice', 'theirs', 'purchase', 1e9), "
                        "('bob', 'bobs', 'purchase', 1e9); DELETE FROM ConversionEntity WHERE "
                        "communicationCode = 'own'"),
              "");
    EXPECT_EQ(conversions.checkConversion("purchase"), "theirs");
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);
    EXPECT_EQ(conversions.checkConversion("login"), std::nullopt);
    EXPECT_TRUE(logs.contains(std::string("Tarn-ConversionManager: login") + kNotFound));
    EXPECT_EQ(conversions.checkConversion("purchase", "bob"), "bobs");
    // Arms and consumes of this process keep the counts current without another read.
    arm("alice", "again", "signup", Date{kNow - 2});
    arm("alice", "again-2", "signup", Date{kNow - 1});
    EXPECT_EQ(conversions.checkConversion("signup"), "again-2");
    EXPECT_EQ(conversions.checkConversion("signup"), "again");
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);

    // A shorter period from the server moves the cutoff.
    arm("alice", "hour-old", "login", Date{kNow - 3600});
    processSettings().conversionOffset = -60.0;
    EXPECT_EQ(conversions.checkConversion("login"), std::nullopt);
    processSettings().conversionOffset = -7200.0;
    EXPECT_EQ(conversions.checkConversion("login"), "hour-old");
    EXPECT_EQ(storedCodes(), Codes{"at-cutoff"});

    // The period comes from the server's configuration block as whole seconds, truncated toward
    // zero and negated: a negative period moves the cutoff past now (-1999 ms: one second ahead),
    // so only a marker stamped later than that counts. Only the offset's size is bounded.
    Tarn::shared().configuration =
        TarnInitConfig(Bundle::main(), "App", "alice", "http://x", std::nullopt, "id", "secret",
                       false, false, false);
    auto fromServer = [](const std::string& conversionTimeout) {
        auto answer = decodeAppCommunication(
            R"({"configuration": {"conversionTimeout": )" + conversionTimeout + "}}");
        EXPECT_TRUE(answer.ok()) << answer.error().localizedDescription();
        TarnSession::shared().setAppCommunication(answer.value());
        Tarn::shared().loadState();
        Tarn::shared().actorId = "alice";
        return processSettings().conversionOffset.load();
    };
    constexpr double kTenYears = 10.0 * 366 * 86400;
    EXPECT_EQ(fromServer("1500"), -1.0);
    EXPECT_EQ(fromServer("-9223372036854775807"), kTenYears);
    EXPECT_EQ(fromServer("9223372036854775807"), -kTenYears);
    EXPECT_EQ(fromServer("-999"), 0.0);
    EXPECT_EQ(fromServer("-1999"), 1.0);
    arm("alice", "half-a-second-ahead", "login", Date{kNow + 0.5});
    arm("alice", "two-seconds-ahead", "login", Date{kNow + 2});
    EXPECT_EQ(conversions.checkConversion("login"), "two-seconds-ahead");
    EXPECT_EQ(conversions.checkConversion("login"), std::nullopt);
    processSettings().conversionOffset = -86400.0;
    EXPECT_EQ(conversions.checkConversion("login"), "half-a-second-ahead");
    EXPECT_EQ(storedCodes(), Codes{"at-cutoff"});

    // Arming pins the time in whole milliseconds read as seconds, so the purge, which takes
    // markers one day old whatever the period, never takes an armed one.
    constexpr double kArmed = 1712345678.9019;
    setNowForTesting(Date{kArmed});
    processSettings().conversionOffset = -10.0;
    arm("alice", "day-old", "purchase", Date{kArmed - 86400});
    arm("alice", "older", "purchase", Date{kArmed - 90000});
    arm("alice", "recent", "purchase", Date{kArmed - 86399.5});
    arm("bob", "no-time", "purchase", std::nullopt);
    LogCapture armed;
    Tarn::shared().actorId = "alice";
    conversions.armConversion("msg-1", "purchase", "inapp_open");
    conversions.armConversion("msg-2", std::nullopt, "inapp_open");  // arms nothing
    CoreDataManager::shared().deleteExpiredConversions();
    EXPECT_EQ(armed.lines(), Codes{"Tarn-ConversionManager: Conversion event saved with name: "
                                   "purchase;"});
    EXPECT_EQ(storedCodes(), (Codes{"recent", "no-time", "msg-1"}));
    EXPECT_EQ(RawDatabase(CoreDataManager::databasePath())
                  .column("SELECT actorId || ' ' || time FROM ConversionEntity WHERE "
                          "communicationCode = 'msg-1'"),
              Codes{"alice 1712345678901.0"});
    EXPECT_EQ(conversions.checkConversion("purchase"), "msg-1");
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);
    EXPECT_EQ(ConversionManager::millisecondStamp(Date{-1.0005}), -1000);
    EXPECT_DEATH(ConversionManager::millisecondStamp(Date{1e17}), "64-bit");
    // A body whose "parameters" is missing or not an object gets an empty one.
    for (auto body :
         {nlohmann::json{{"name", "p"}}, nlohmann::json{{"name", "p"}, {"parameters", "text"}}}) {
        ConversionManager::applyConversionCode(body, std::nullopt);
        EXPECT_EQ(body, (nlohmann::json{{"name", "p"}, {"parameters", nlohmann::json::object()}}));
    }
}

}  // namespace
}  // namespace tarn::test
