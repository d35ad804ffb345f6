// The event pipeline end to end: public calls, the local queue and the loopback server.
#include <gmock/gmock.h>

#include <thread>

#include "support/PipelineFixture.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Date.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventManager.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"

using namespace tarn;
using namespace tarn::test;
using nlohmann::json;

namespace {

ScreenRef screen(const std::string& name = "HomeScreen") {
    return std::make_shared<NamedScreen>(name);
}

void sendCustom(const std::string& name) {
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, name);
}

}  // namespace

class EventPipelineTest : public PipelineTest {
  protected:
    /// Advances the main queue until the send timer has stopped.
    bool idle() {
        return pumpUntil([] { return !EventQueueManager::shared().isTimerActive.load(); });
    }
};

TEST_F(EventPipelineTest, StoredEventsWaitForInitialisationThenGoOutOldestFirstOnePerTick) {
    // A second process stores events without ever being initialised and is killed.
    EXPECT_NE(runHelper({"store_and_die", dataDir().string(), "3"}), 0);
    auto& events = TarnEvent::shared();
    events.sendCustomEvent(screen(), std::string("Home"), "first", json{{"k", 1}});
    sendCustom("second");
    events.sendCustomEvent(nullptr, std::nullopt, "third");
    queue().advance(5);  // many ticks while not initialised
    EXPECT_EQ(server_->count(kEventPath), 0u);
    EXPECT_EQ(storedEventCount(), 6);

    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    // One event per tick: each tick of the 0.5 s timer sends exactly one more.
    for (int tick = 0; tick < 2; ++tick) {
        auto before = server_->count(kEventPath);
        queue().advance(0.5);
        ASSERT_TRUE(server_->waitForCount(kEventPath, before + 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(server_->count(kEventPath), before + 1);
    }
    ASSERT_TRUE(drainUntil(8));
    EXPECT_EQ(receivedNames(),
              (std::vector<std::string>{"killed-0", "killed-1", "killed-2", "first", "second",
                                        "third", "install", "sdk_initialize"}));
    // Events built before initialisation carry the state of that moment: no actor yet.
    EXPECT_EQ(receivedEvents()[3]["actorId"], "");

    // A body built now carries the facade's state and every section; the library's values
    // replace the host's ("loggedIn", "timestamp"); with no configuration block the switched
    // device keys are absent ("-" below).
    events.sendCustomEvent(screen(), std::string("Home"), "fourth",
                           json{{"k", 1}, {"loggedIn", "host"}, {"timestamp", "host"}});
    ASSERT_TRUE(drainUntil(9));
    const auto body = receivedEvents()[8];
    const auto& p = body["parameters"];
    const auto expected = json::parse(R"({"/name": "fourth", "/actorId": "actor-1",
        "/channel": "MOBILE", "/sync": "a", "/isActive": true, "/journeys": [],
        "/parameters/k": 1, "/parameters/loggedIn": false, "/parameters/pageName": "Home",
        "/parameters/deviceOs": "IOS", "/parameters/controller": "HomeScreen",
        "/parameters/phoneBrand": "Apple", "/parameters/sdkVersion": "0.0.1",
        "/parameters/applicationName": "HostApp", "/parameters/battery": "-",
        "/parameters/networkStatus": "-", "/parameters/freeDisk": "-",
        "/parameters/totalDisk": "-", "/parameters/conversionCommunicationCode": "-"})");
    for (const auto& [pointer, value] : expected.items())
        EXPECT_EQ(body.value(json::json_pointer(pointer), json("-")), value) << pointer;
    EXPECT_THAT(
        body["requestId"].get<std::string>(),
        testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"));
    EXPECT_TRUE(p["timestamp"].is_number_integer());
    for (const char* key : {"deviceId", "phoneModel", "timeZone", "deviceOsVersion"})
        EXPECT_TRUE(p.contains(key)) << key;
    EXPECT_NE(receivedEvents()[0]["requestId"], receivedEvents()[1]["requestId"]);
    EXPECT_EQ(storedEventCount(), 0);
}

TEST_F(EventPipelineTest, TheTimerStartsOnceStopsWhenEmptyAndFollowsBackgroundAndForeground) {
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    ASSERT_TRUE(drainUntil(2));  // install, sdk_initialize
    auto& queueManager = EventQueueManager::shared();
    auto stopped = [&] { return !queueManager.isTimerActive.load() && !queueManager.hasTimer(); };
    ASSERT_TRUE(pumpUntil(stopped));

    LogCapture logs;
    sendCustom("a");
    EXPECT_TRUE(queueManager.isTimerActive.load());
    sendCustom("b");
    EXPECT_EQ(logs.count("Tarn-QueueManager: a has been saved to the queue.;"), 1u);
    queue().runPending();
    EXPECT_TRUE(queueManager.hasTimer());
    EXPECT_EQ(queue().pendingCount(), 1u);  // one timer, not two
    ASSERT_TRUE(drainUntil(4));
    ASSERT_TRUE(pumpUntil(stopped));

    // Two starts that meet (an event stored just as the stop's last step takes one) leave one
    // timer: the first empty tick stops it, and nothing ticks on after that.
    queueManager.startTimer();
    queueManager.startTimer();
    queueManager.isTimerActive = true;
    ASSERT_TRUE(pumpUntil(stopped));
    queue().advance(2);
    EXPECT_EQ(queue().pendingCount(), 0u);

    // Background stops the timer; the stop's last drain step sends "c", and events stored in the
    // background wait for the return.
    sendCustom("c");
    queue().runPending();
    ASSERT_TRUE(queueManager.hasTimer());
    NotificationCenter::defaultCenter().post(kApplicationDidEnterBackgroundNotification);
    EXPECT_FALSE(queueManager.hasTimer());
    EXPECT_TRUE(queueManager.isTimerActive.load());
    ASSERT_TRUE(drainUntil(5));
    sendCustom("d");
    queue().advance(3);
    EXPECT_EQ(server_->count(kEventPath), 5u);
    NotificationCenter::defaultCenter().post(kApplicationWillEnterForegroundNotification);
    ASSERT_TRUE(drainUntil(6));
    EXPECT_EQ(receivedNames().back(), "d");
}

TEST_F(EventPipelineTest, UnusableRecordsAreDroppedAndAFailedSendIsLost) {
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    ASSERT_TRUE(drainUntil(2));
    // Each unusable record (not JSON, without a usable "name", text that does not end where the
    // object does, an array) is deleted unsent and stops the timer, whose last drain step goes on
    // with the next one. A record is sent byte for byte as stored; only its last top-level "name"
    // counts, as in a parse; a "requestId" that is not a string is logged as JSON.
    ASSERT_TRUE(idle());
    const std::string stored =
        R"( {"requestId" : [7],"name":1, "x":{"name":"inner"},"name":"raw"})";
    double t = Date::now().secondsSince1970 - 10;
    for (const std::string& text :
         {std::string("not json"), stored, std::string(R"({"noName":1})"),
          std::string(R"({"name":"second raw"})"), std::string(R"({"name":"dup","name":null})"),
          std::string(R"({"name":"3"})"), std::string(R"({"name":"trailing"} x)"),
          std::string(R"({"name":"4"})"), std::string(R"([{"name":"in an array"}])")})
        insertRawEvent(text, t += 0.5);
    LogCapture logs;
    sendCustom("after the odd ones");
    ASSERT_TRUE(drainUntil(7));
    EXPECT_TRUE(logs.waitFor(
        "Tarn-QueueManager: Sent event, request id :[7] name: raw, response code : 200;"));
    EXPECT_EQ(receivedNames(),
              (std::vector<std::string>{"install", "sdk_initialize", "raw", "second raw", "3", "4",
                                        "after the odd ones"}));
    auto bodies = server_->requests(kEventPath);
    EXPECT_EQ(bodies[2].body, stored);
    EXPECT_EQ(bodies[3].body, R"({"name":"second raw"})");
    EXPECT_EQ(storedEventCount(), 0);

    // 201 is not success: the event is logged as failed, with "nil" for the error, and is gone.
    server_->on(kEventPath, ScriptedAnswer::json(201, "{}"));
    sendCustom("created");
    ASSERT_TRUE(drainUntil(8));
    EXPECT_TRUE(logs.waitFor(
        "Tarn-QueueManager: An error occurred when the created event was called. nil;"));
    queue().advance(2);
    EXPECT_EQ(server_->count(kEventPath), 8u);
    EXPECT_EQ(storedEventCount(), 0);

    // A record that cannot be serialised (a parameter string that is not UTF-8) is dropped: its
    // conversion look-up is logged as for any event, nothing is stored or sent, and the event
    // after it goes out as usual.
    TarnEvent::shared().sendCustomEvent(screen(), std::nullopt, "unwritable",
                                        json{{"note", std::string("caf\xe9 au lait")}});
    EXPECT_EQ(storedEventCount(), 0);
    EXPECT_TRUE(logs.contains(
        "Tarn-ConversionManager: unwritable is not a conversion event. Not Found: Requestted item "
        "was not found in conversion database!;"));
    EXPECT_FALSE(logs.containsText("unwritable has been saved to the queue."));
    sendCustom("after the unwritable");
    ASSERT_TRUE(drainUntil(9));
    queue().advance(2);
    EXPECT_EQ(server_->count(kEventPath), 9u);
    EXPECT_EQ(receivedNames().back(), "after the unwritable");
    EXPECT_EQ(storedEventCount(), 0);
}

// What later events carry changes with the facade's state: the actor on login and logout, and a
// conversion armed by an in-app message for the next matching event only.
TEST_F(EventPipelineTest, LoginLogoutAndAnArmedConversionMarkTheEventsThatFollow) {
    ASSERT_EQ(initializeAndWait(hostConfig()), InitializeStatusType::initialized);  // a guest
    auto guest = PreferencesManager::shared().stringValue(PreferenceKey::guestActorId);
    ASSERT_TRUE(guest);
    TarnEvent::shared().sendLoginEvent(screen(), std::string("Login"), "A");
    EXPECT_TRUE(Tarn::shared().loggedIn.load());
    TarnEvent::shared().sendLogoutEvent();
    sendCustom("after");
    AppCommunicationItem item;
    item.uuid = "u-1";
    item.code = "CODE-1";
    item.name = "Spring sale";
    item.templateType = InAppType::popup;
    item.conversionEvent = "purchase";
    EventManager::shared().sendInAppEvent(InAppEventType::opened, item, std::nullopt,
                                          screen("Shop"));
    sendCustom("purchase");
    sendCustom("purchase");
    ASSERT_TRUE(drainUntil(10));
    // Per event after the first two: its name, actor, and the new actor or logged-in flag.
    auto events = receivedEvents();
    std::vector<std::string> seen;
    for (std::size_t i = 2; i < 7; ++i) {
        auto p = events[i].value("parameters", json::object());
        seen.push_back(
            events[i].value("name", "") + " " + events[i].value("actorId", "") + " " +
            p.value(p.contains("newActorId") ? "newActorId" : "loggedIn", json()).dump());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"actor_change " + *guest + " \"A\"", "login A true",
                                              "logout A false", "actor_change A \"" + *guest + "\"",
                                              "after " + *guest + " false"}));
    EXPECT_EQ(events[7]["name"], "in_app_opened");
    EXPECT_EQ(events[7]["journeys"], json::array({"ALL"}));
    EXPECT_EQ(events[7]["parameters"]["communicationTemplate"], "POPUP");
    EXPECT_EQ(events[7]["parameters"]["pageName"], "Shop");
    EXPECT_EQ(events[8]["parameters"]["conversionCommunicationCode"], "CODE-1");
    EXPECT_FALSE(events[9]["parameters"].contains("conversionCommunicationCode"));
}
