// Conversion markers: the look-up's period and order, consumption, the purge, arming on the
// millisecond-as-second scale, and the conversion key in an event body.
#include <cmath>

#include "store/RawDatabase.h"
#include "support/TestSupport.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/store/ConversionManager.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

constexpr double kNow = 1'000'000'000.0;

class ConversionTest : public TarnTest {
  protected:
    void TearDown() override {
        setNowForTesting(std::nullopt);
        TarnTest::TearDown();
    }

    static void arm(const std::string& actor, const std::string& code, const std::string& name,
                    double time) {
        Tarn::shared().actorId = actor;
        bool saved = false;
        CoreDataManager::shared().saveConversion({code, name, Date{time}}, "inapp_open",
                                                 [&] { saved = true; });
        ASSERT_TRUE(saved);
    }

    static std::vector<std::string> storedCodes() {
        RawDatabase raw(CoreDataManager::databasePath());
        return raw.column("SELECT communicationCode FROM ConversionEntity ORDER BY id");
    }
};

TEST_F(ConversionTest, NewestMarkerOfTheActorInsideThePeriodIsConsumedFirst) {
    setNowForTesting(Date{kNow});
    LogCapture logs;
    auto& conversions = ConversionManager::shared();
    arm("alice", "older", "purchase", kNow - 100);
    arm("alice", "newer", "purchase", kNow - 50);
    arm("alice", "at-cutoff", "signup", kNow - 86400);
    arm("alice", "just-inside", "signup", kNow - 86400 + 0.001);

    // Another actor's event matches nothing and leaves the markers in place.
    EXPECT_EQ(conversions.checkConversion("purchase", "bob"), std::nullopt);
    EXPECT_TRUE(
        logs.contains("Tarn-ConversionManager: purchase is not a conversion event. Not "
                      "Found: Requestted item was not found in conversion database!;"));
    EXPECT_EQ(storedCodes().size(), 4u);

    Tarn::shared().actorId = "alice";
    EXPECT_EQ(conversions.checkConversion("purchase"), "newer");
    EXPECT_TRUE(logs.contains("Tarn-ConversionManager: purchase is a conversion event;"));
    EXPECT_EQ(conversions.checkConversion("purchase"), "older");
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);

    // The period is strict: a marker exactly at the cutoff is outside, one a moment later inside.
    EXPECT_EQ(conversions.checkConversion("signup"), "just-inside");
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);
    EXPECT_EQ(storedCodes(), std::vector<std::string>{"at-cutoff"});

    // A shorter period from the server moves the cutoff.
    arm("alice", "hour-old", "login", kNow - 3600);
    processSettings().conversionOffset = -60.0;
    EXPECT_EQ(conversions.checkConversion("login"), std::nullopt);
    processSettings().conversionOffset = -7200.0;
    EXPECT_EQ(conversions.checkConversion("login"), "hour-old");
}

TEST_F(ConversionTest, PurgeRemovesMarkersOneDayOldWhateverThePeriod) {
    setNowForTesting(Date{kNow});
    processSettings().conversionOffset = -10.0;
    arm("alice", "day-old", "purchase", kNow - 86400);
    arm("alice", "older", "purchase", kNow - 90000);
    arm("alice", "recent", "purchase", kNow - 86399.5);
    arm("alice", "armed", "purchase", 1712345678901.0);  // the arming scale: never purged
    Tarn::shared().actorId = "bob";
    CoreDataManager::shared().saveConversion({"no-time", "purchase", std::nullopt}, "e", nullptr);

    LogCapture logs;
    CoreDataManager::shared().deleteExpiredConversions();
    EXPECT_EQ(storedCodes(), (std::vector<std::string>{"recent", "armed", "no-time"}));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ConversionTest, ArmingStoresMillisecondsAsSecondsAndTheNextMatchingEventTakesIt) {
    LogCapture logs;
    auto& conversions = ConversionManager::shared();
    Tarn::shared().actorId = "alice";
    double before = Date::now().secondsSince1970 * 1000;
    conversions.armConversion("msg-1", "purchase", "inapp_open");
    double after = Date::now().secondsSince1970 * 1000;
    conversions.armConversion("msg-2", std::nullopt, "inapp_open");  // arms nothing
    EXPECT_EQ(logs.count("Tarn-ConversionManager: Conversion event saved with name: purchase;"),
              1u);

    RawDatabase raw(CoreDataManager::databasePath());
    EXPECT_EQ(raw.integer("SELECT count(*) FROM ConversionEntity"), 1);
    EXPECT_EQ(raw.column("SELECT actorId FROM ConversionEntity").at(0), "alice");
    double stored = raw.real("SELECT time FROM ConversionEntity");
    EXPECT_EQ(stored, std::trunc(stored)) << "a whole number of milliseconds";
    EXPECT_GE(stored, std::trunc(before));
    EXPECT_LE(stored, after);

    // The purge leaves it (its time is on the millisecond scale); the actor's next event takes it.
    CoreDataManager::shared().deleteExpiredConversions();
    EXPECT_EQ(conversions.checkConversion("purchase"), "msg-1");
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);

    EXPECT_EQ(ConversionManager::millisecondStamp(Date{1712345678.9019}), 1712345678901);
    EXPECT_EQ(ConversionManager::millisecondStamp(Date{-1.0005}), -1000);
    EXPECT_DEATH(ConversionManager::millisecondStamp(Date{1e17}), "64-bit");
}

TEST_F(ConversionTest, FailedConsumeReportsFetchErrorAndTheMarkerStaysTakenInThisProcess) {
    Tarn::shared().actorId = "alice";
    ConversionManager::shared().armConversion("msg-1", "purchase", "inapp_open");
    arm("alice", "expired", "purchase", 1.0);
    CoreDataManager::shared().setBusyTimeout(std::chrono::milliseconds(20));
    LogCapture logs;
    {
        RawDatabase blocker(CoreDataManager::databasePath());
        ASSERT_EQ(blocker.exec("BEGIN IMMEDIATE"), "");
        EXPECT_EQ(ConversionManager::shared().checkConversion("purchase"), std::nullopt);
        EXPECT_TRUE(
            logs.contains("Tarn-ConversionManager: purchase is not a conversion event. "
                          "Fetch Error: An error occurred while fetching the conversion "
                          "event!;"));
        bool saved = false;
        CoreDataManager::shared().saveConversion({"msg-2", "purchase", Date{1}}, "inapp_open",
                                                 [&] { saved = true; });
        EXPECT_FALSE(saved);
        EXPECT_TRUE(
            logs.contains("Tarn-ConversionManager: inapp_open conversion couldn't save. "
                          "Save Error: An error occurred while saving the conversion "
                          "event!;"));
        CoreDataManager::shared().deleteExpiredConversions();
        EXPECT_TRUE(logs.contains("Tarn-CoreDataManager: Delete error: database is locked;"));
        ASSERT_EQ(blocker.exec("ROLLBACK"), "");
    }
    // Markers whose delete failed count as deleted here; the next write deletes them for good.
    EXPECT_EQ(ConversionManager::shared().checkConversion("purchase"), std::nullopt);
    ConversionManager::shared().armConversion("msg-3", "other", "inapp_open");
    EXPECT_EQ(storedCodes(), std::vector<std::string>{"msg-3"});
}

TEST_F(ConversionTest, ConversionCodeGoesIntoTheEventParameters) {
    nlohmann::json body = {{"name", "purchase"}};
    ConversionManager::applyConversionCode(body, "msg-1");
    EXPECT_EQ(body["parameters"], (nlohmann::json{{"conversionCommunicationCode", "msg-1"}}));

    body["parameters"] = {{"amount", 5}, {"conversionCommunicationCode", "stale"}};
    ConversionManager::applyConversionCode(body, "msg-2");
    EXPECT_EQ(body["parameters"],
              (nlohmann::json{{"amount", 5}, {"conversionCommunicationCode", "msg-2"}}));
    ConversionManager::applyConversionCode(body, std::nullopt);
    EXPECT_EQ(body["parameters"], (nlohmann::json{{"amount", 5}}));

    body["parameters"] = "not an object";
    ConversionManager::applyConversionCode(body, std::nullopt);
    EXPECT_EQ(body["parameters"], nlohmann::json::object());
    body.erase("parameters");
    ConversionManager::applyConversionCode(body, std::nullopt);
    EXPECT_EQ(body,
              (nlohmann::json{{"name", "purchase"}, {"parameters", nlohmann::json::object()}}));

    // The arming value keeps its field names and exact time through JSON.
    ConversionItem item{"msg-1", "purchase", Date{1712345678901.0}};
    nlohmann::json encoded = item;
    EXPECT_EQ(
        encoded.dump(),
        R"({"communicationCode":"msg-1","conversionName":"purchase","time":1712345678901.0})");
    EXPECT_EQ(encoded.get<ConversionItem>(), item);
    EXPECT_EQ(nlohmann::json::object().get<ConversionItem>(), ConversionItem{});
}

}  // namespace
TEST_F(ConversionTest, MarkersWrittenOrRemovedByAnotherConnectionAreSeen) {
    auto& conversions = ConversionManager::shared();
    Tarn::shared().actorId = std::string("alice");
    arm("alice", "own", "signup", 5e12);
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);  // counts loaded: none

    // Another connection (another process sharing the folder) arms and removes markers.
    RawDatabase raw(CoreDataManager::databasePath());
    ASSERT_EQ(raw.exec("INSERT INTO ConversionEntity (actorId, communicationCode, convertionName, "
                       "time) VALUES ('alice', 'theirs', 'purchase', 5e12), "
                       "('bob', 'bobs', 'purchase', 5e12)"),
              "");
    EXPECT_EQ(conversions.checkConversion("purchase"), "theirs");
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);
    ASSERT_EQ(raw.exec("DELETE FROM ConversionEntity WHERE communicationCode = 'own'"), "");
    test::LogCapture logs;
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);
    EXPECT_TRUE(
        logs.contains("Tarn-ConversionManager: signup is not a conversion event. Not "
                      "Found: Requestted item was not found in conversion database!;"));

    // Arms and consumes of this process keep the counts current without another read.
    arm("alice", "again", "signup", 5e12);
    arm("alice", "again-2", "signup", 5e12);
    EXPECT_EQ(conversions.checkConversion("signup"), "again-2");
    EXPECT_EQ(conversions.checkConversion("signup"), "again");
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);
    EXPECT_EQ(conversions.checkConversion("purchase", "bob"), "bobs");
    EXPECT_EQ(storedCodes(), std::vector<std::string>{});
}

}  // namespace tarn::test
