// The event pipeline end to end: public calls, the local queue and the loopback server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/PipelineFixture.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Date.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventManager.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/NotificationCenter.h"
#include "tarn/store/CoreDataManager.h"

using namespace tarn;
using namespace tarn::test;

namespace {

ScreenRef screen(const std::string& name = "HomeScreen") {
    return std::make_shared<NamedScreen>(name);
}

}  // namespace

class EventPipelineTest : public PipelineTest {};

TEST_F(EventPipelineTest, StoredEventsWaitForInitialisationThenGoOutOldestFirstOnePerTick) {
    auto& events = TarnEvent::shared();
    events.sendCustomEvent(screen(), std::string("Home"), "first",
                           nlohmann::json{{"k", 1}, {"loggedIn", "host"}});
    events.sendCustomEvent(screen(), std::nullopt, "second");
    events.sendCustomEvent(nullptr, std::nullopt, "third");
    queue().advance(5);  // many ticks while not initialised
    EXPECT_EQ(server_->count(kEventPath), 0u);
    EXPECT_EQ(storedEventCount(), 3);

    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    // One event per tick: each tick of the 0.5 s timer sends exactly one more.
    for (int tick = 0; tick < 2; ++tick) {
        auto before = server_->count(kEventPath);
        queue().advance(0.5);
        ASSERT_TRUE(server_->waitForCount(kEventPath, before + 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(server_->count(kEventPath), before + 1);
    }
    ASSERT_TRUE(drainUntil(5));
    EXPECT_EQ(receivedNames(),
              (std::vector<std::string>{"first", "second", "third", "install", "sdk_initialize"}));

    // Events built before initialisation carry the state of that moment: no actor yet.
    EXPECT_EQ(receivedEvents()[0]["actorId"], "");

    // A body built now carries the facade's state and every section.
    TarnEvent::shared().sendCustomEvent(
        screen(), std::string("Home"), "fourth",
        nlohmann::json{{"k", 1}, {"loggedIn", "host"}, {"timestamp", "host"}});
    ASSERT_TRUE(drainUntil(6));
    const auto first = receivedEvents()[5];
    const nlohmann::json top = {{"name", "fourth"},    {"actorId", "actor-1"},
                                {"channel", "MOBILE"}, {"sync", "a"},
                                {"isActive", true},    {"journeys", nlohmann::json::array()}};
    // The library's values replace the host's ("loggedIn").
    const nlohmann::json params = {{"k", 1},
                                   {"loggedIn", false},
                                   {"pageName", "Home"},
                                   {"deviceOs", "IOS"},
                                   {"controller", "HomeScreen"},
                                   {"phoneBrand", "Apple"},
                                   {"sdkVersion", "0.0.1"},
                                   {"applicationName", "HostApp"}};
    const auto& p = first["parameters"];
    for (const auto& [expected, actual] : {std::pair{&top, &first}, std::pair{&params, &p}}) {
        for (const auto& [key, value] : expected->items()) {
            EXPECT_EQ(actual->value(key, nlohmann::json()), value) << key;
        }
    }
    EXPECT_THAT(
        first["requestId"].get<std::string>(),
        testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"));
    EXPECT_TRUE(p["timestamp"].is_number_integer());
    for (const char* key : {"deviceId", "phoneModel", "timeZone", "deviceOsVersion"}) {
        EXPECT_TRUE(p.contains(key)) << key;
    }
    // No configuration block: the switched device keys are absent.
    for (const char* key :
         {"battery", "networkStatus", "freeDisk", "totalDisk", "conversionCommunicationCode"}) {
        EXPECT_FALSE(p.contains(key)) << key;
    }
    EXPECT_NE(receivedEvents()[0]["requestId"], receivedEvents()[1]["requestId"]);
    EXPECT_EQ(storedEventCount(), 0);
    // Every event went out with the token the server issued.
    for (const auto& request : server_->requests(kEventPath)) {
        EXPECT_EQ(request.header("Authorization"), "Bearer T1");
    }
}

TEST_F(EventPipelineTest, TheTimerStartsOnceStopsWhenEmptyAndFollowsBackgroundAndForeground) {
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    ASSERT_TRUE(drainUntil(2));  // install, sdk_initialize
    auto& queueManager = EventQueueManager::shared();
    ASSERT_TRUE(
        pumpUntil([&] { return !queueManager.isTimerActive.load() && !queueManager.hasTimer(); }));

    test::LogCapture logs;
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "a");
    EXPECT_TRUE(queueManager.isTimerActive.load());
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "b");
    EXPECT_EQ(logs.count("Tarn-QueueManager: a has been saved to the queue.;"), 1u);
    queue().runPending();
    EXPECT_TRUE(queueManager.hasTimer());
    EXPECT_EQ(queue().pendingCount(), 1u);  // one timer, not two
    ASSERT_TRUE(drainUntil(4));
    ASSERT_TRUE(
        pumpUntil([&] { return !queueManager.isTimerActive.load() && !queueManager.hasTimer(); }));

    // Background stops the timer; events stored meanwhile go out after the return.
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "c");
    queue().runPending();
    ASSERT_TRUE(queueManager.hasTimer());
    NotificationCenter::defaultCenter().post(kApplicationDidEnterBackgroundNotification);
    EXPECT_FALSE(queueManager.hasTimer());
    EXPECT_TRUE(queueManager.isTimerActive.load());
    // The stop's last drain step sends "c"; events stored in the background then wait.
    ASSERT_TRUE(drainUntil(5));
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "d");
    queue().advance(3);
    EXPECT_EQ(server_->count(kEventPath), 5u);
    NotificationCenter::defaultCenter().post(kApplicationWillEnterForegroundNotification);
    ASSERT_TRUE(drainUntil(6));
    EXPECT_EQ(receivedNames().back(), "d");
}

TEST_F(EventPipelineTest, UnusableRecordsAreDroppedAndAFailedSendIsLost) {
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    ASSERT_TRUE(drainUntil(2));
    ASSERT_TRUE(pumpUntil([&] { return !EventQueueManager::shared().isTimerActive.load(); }));

    // An unusable record is deleted unsent; the stop's extra drain step goes on with the next one.
    double t = Date::now().secondsSince1970;
    insertRawEvent("not json", t - 3);
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "good");
    ASSERT_TRUE(drainUntil(3));
    EXPECT_EQ(receivedNames().back(), "good");
    ASSERT_TRUE(pumpUntil([&] { return !EventQueueManager::shared().isTimerActive.load(); }));
    insertRawEvent(R"({"noName":1})", Date::now().secondsSince1970 - 2);
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "good again");
    ASSERT_TRUE(drainUntil(4));
    EXPECT_EQ(receivedNames().back(), "good again");
    EXPECT_EQ(storedEventCount(), 0);

    // A record is sent byte for byte as stored; only its last top-level "name" counts, as in a
    // parse; a "requestId" that is not a string is logged as JSON; text that does not end where
    // the object does, or an array, is unusable.
    ASSERT_TRUE(pumpUntil([&] { return !EventQueueManager::shared().isTimerActive.load(); }));
    const std::string stored =
        R"( {"requestId" : [7],"name":1, "x":{"name":"inner"},"name":"raw"})";
    t = Date::now().secondsSince1970;
    insertRawEvent(R"({"name":"dup","name":null})", t - 7);
    insertRawEvent(stored, t - 6);
    insertRawEvent(R"({"name":"trailing"} x)", t - 5);
    insertRawEvent(R"({"name":"second raw"})", t - 4);
    insertRawEvent(R"([{"name":"in an array"}])", t - 3);
    {
        test::LogCapture sent;
        TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "after the odd ones");
        ASSERT_TRUE(drainUntil(7));
        EXPECT_TRUE(sent.waitFor(
            "Tarn-QueueManager: Sent event, request id :[7] name: raw, response code : 200;"));
    }
    auto bodies = server_->requests(kEventPath);
    EXPECT_EQ(bodies[4].body, stored);
    EXPECT_EQ(bodies[5].body, R"({"name":"second raw"})");
    EXPECT_EQ(receivedNames().back(), "after the odd ones");
    EXPECT_EQ(storedEventCount(), 0);

    // 201 is not success: the event is logged as failed, with "nil" for the error, and is gone.
    server_->on(kEventPath, ScriptedAnswer::json(201, "{}"));
    test::LogCapture logs;
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "created");
    ASSERT_TRUE(drainUntil(8));
    EXPECT_TRUE(logs.waitFor(
        "Tarn-QueueManager: An error occurred when the created event was called. nil;"));
    queue().advance(2);
    EXPECT_EQ(server_->count(kEventPath), 8u);
    EXPECT_EQ(storedEventCount(), 0);
}

TEST_F(EventPipelineTest, LoginAndLogoutSwitchTheActor) {
    ASSERT_EQ(initializeAndWait(hostConfig()), InitializeStatusType::initialized);  // a guest
    auto guest = PreferencesManager::shared().stringValue(PreferenceKey::guestActorId);
    ASSERT_TRUE(guest);
    TarnEvent::shared().sendLoginEvent(screen(), std::string("Login"), "A");
    EXPECT_TRUE(Tarn::shared().loggedIn.load());
    TarnEvent::shared().sendLogoutEvent();
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "after");
    ASSERT_TRUE(drainUntil(7));
    // Logging in and back out each change the actor within one process: per event after the first
    // two, its name, actor, and the new actor or logged-in flag it reports.
    std::vector<std::string> seen;
    for (const auto& e : receivedEvents()) {
        auto p = e.value("parameters", nlohmann::json::object());
        seen.push_back(
            e.value("name", "") + " " + e.value("actorId", "") + " " +
            p.value(p.contains("newActorId") ? "newActorId" : "loggedIn", nlohmann::json()).dump());
    }
    seen.erase(seen.begin(), seen.begin() + 2);
    EXPECT_EQ(seen, (std::vector<std::string>{"actor_change " + *guest + " \"A\"", "login A true",
                                              "logout A false", "actor_change A \"" + *guest + "\"",
                                              "after " + *guest + " false"}));
}

TEST_F(EventPipelineTest, AnArmedConversionMarksTheNextMatchingEventOnly) {
    ASSERT_EQ(initializeAndWait(hostConfig("buyer")), InitializeStatusType::initialized);
    AppCommunicationItem item;
    item.uuid = "u-1";
    item.code = "CODE-1";
    item.name = "Spring sale";
    item.templateType = InAppType::popup;
    item.conversionEvent = "purchase";
    EventManager::shared().sendInAppEvent(InAppEventType::opened, item, std::nullopt,
                                          screen("Shop"));
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "purchase");
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "purchase");
    ASSERT_TRUE(drainUntil(5));
    auto events = receivedEvents();
    EXPECT_EQ(events[2]["name"], "in_app_opened");
    EXPECT_EQ(events[2]["journeys"], nlohmann::json::array({"ALL"}));
    EXPECT_EQ(events[2]["parameters"]["communicationTemplate"], "POPUP");
    EXPECT_EQ(events[2]["parameters"]["pageName"], "Shop");
    EXPECT_EQ(events[3]["parameters"]["conversionCommunicationCode"], "CODE-1");
    EXPECT_FALSE(events[4]["parameters"].contains("conversionCommunicationCode"));
}

TEST_F(EventPipelineTest, GatesIgnoreManualCallsWhileTrackingIsAutomatic) {
    auto& tarn = Tarn::shared();
    tarn.isSendActivityLifeCycleEventEnabled = true;
    tarn.applicationLifecyleAuto = false;
    TarnEvent::shared().sendPageInEvent(screen());
    TarnEvent::shared().sendAppBackgroundEvent(nullptr);
    EXPECT_EQ(storedEventCount(), 0);
    tarn.isSendActivityLifeCycleEventEnabled = false;
    TarnEvent::shared().sendPageInEvent(screen("Detail"));
    TarnEvent::shared().sendAppBackgroundEvent(screen("Detail"));
    EXPECT_EQ(storedEventCount(), 2);
}

TEST_F(EventPipelineTest, EventsSurviveAProcessKilledBeforeTheDrain) {
    // A second process stores events without ever being initialised and is killed.
    std::string out;
    int code = runHelper({"store_and_die", dataDir().string(), "3"}, &out);
    EXPECT_NE(code, 0);  // killed by SIGKILL
    EXPECT_EQ(storedEventCount(), 3);
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    ASSERT_TRUE(drainUntil(5));
    EXPECT_EQ(receivedNames(), (std::vector<std::string>{"killed-0", "killed-1", "killed-2",
                                                         "install", "sdk_initialize"}));
}
