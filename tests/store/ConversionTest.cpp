// Conversion markers: the look-up's period and order, consumption, the purge, arming on the
// millisecond-as-second scale, markers of another connection, and the conversion key in a body.
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
const char* const kNotFound =
    " is not a conversion event. Not Found: Requestted item was not found in conversion database!;";

class ConversionTest : public TarnTest {
  protected:
    void TearDown() override {
        setNowForTesting(std::nullopt);
        TarnTest::TearDown();
    }

    static void arm(const std::string& actor, const std::string& code, const std::string& name,
                    std::optional<double> time) {
        Tarn::shared().actorId = actor;
        bool saved = false;
        std::optional<Date> date;
        if (time)
            date = Date{*time};
        CoreDataManager::shared().saveConversion({code, name, date}, "inapp_open",
                                                 [&] { saved = true; });
        ASSERT_TRUE(saved);
    }

    static std::vector<std::string> storedCodes() {
        return RawDatabase(CoreDataManager::databasePath())
            .column("SELECT communicationCode FROM ConversionEntity ORDER BY id");
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
    EXPECT_TRUE(logs.contains(std::string("Tarn-ConversionManager: purchase") + kNotFound));
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
    arm("bob", "no-time", "purchase", std::nullopt);
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
    EXPECT_EQ(raw.column("SELECT actorId FROM ConversionEntity"),
              std::vector<std::string>{"alice"});
    EXPECT_EQ(raw.integer("SELECT time = round(time) FROM ConversionEntity"), 1)
        << "a whole number of milliseconds";
    auto stored = static_cast<double>(raw.integer("SELECT time FROM ConversionEntity"));
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

TEST_F(ConversionTest, MarkersWrittenOrRemovedByAnotherConnectionAreSeen) {
    auto& conversions = ConversionManager::shared();
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
    LogCapture logs;
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);
    EXPECT_TRUE(logs.contains(std::string("Tarn-ConversionManager: signup") + kNotFound));

    // Arms and consumes of this process keep the counts current without another read.
    arm("alice", "again", "signup", 5e12);
    arm("alice", "again-2", "signup", 5e12);
    EXPECT_EQ(conversions.checkConversion("signup"), "again-2");
    EXPECT_EQ(conversions.checkConversion("signup"), "again");
    EXPECT_EQ(conversions.checkConversion("signup"), std::nullopt);
    EXPECT_EQ(conversions.checkConversion("purchase", "bob"), "bobs");
    EXPECT_EQ(storedCodes(), std::vector<std::string>{});
}

TEST_F(ConversionTest, ConversionCodeGoesIntoTheParametersAndTheMarkerKeepsItsJsonNames) {
    using nlohmann::json;
    const json empty = json::object();
    struct Row {
        json parameters;  // null: no "parameters" key
        std::optional<std::string> code;
        json expected;
    } rows[] = {
        {nullptr, "msg-1", {{"conversionCommunicationCode", "msg-1"}}},
        {{{"amount", 5}, {"conversionCommunicationCode", "stale"}},
         "msg-2",
         {{"amount", 5}, {"conversionCommunicationCode", "msg-2"}}},
        {{{"amount", 5}, {"conversionCommunicationCode", "stale"}}, std::nullopt, {{"amount", 5}}},
        {"not an object", std::nullopt, empty},
        {nullptr, std::nullopt, empty},
    };
    for (const auto& row : rows) {
        json body = {{"name", "purchase"}};
        if (!row.parameters.is_null())
            body["parameters"] = row.parameters;
        ConversionManager::applyConversionCode(body, row.code);
        EXPECT_EQ(body, (json{{"name", "purchase"}, {"parameters", row.expected}}))
            << row.parameters;
    }

    // The arming value keeps its field names and exact time through JSON.
    ConversionItem item{"msg-1", "purchase", Date{1712345678901.0}};
    json encoded = item;
    EXPECT_EQ(
        encoded.dump(),
        R"({"communicationCode":"msg-1","conversionName":"purchase","time":1712345678901.0})");
    EXPECT_EQ(encoded.get<ConversionItem>(), item);
    EXPECT_EQ(empty.get<ConversionItem>(), ConversionItem{});
}

}  // namespace
}  // namespace tarn::test
