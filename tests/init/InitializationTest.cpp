// Initialisation end to end and in-app communications against the loopback server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/PipelineFixture.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/inapp/TarnSession.h"

using namespace tarn;
using namespace tarn::test;

namespace {

/// A popup shown on "promo" with a title, two usable images of three, a body with an unreadable
/// colour and four buttons, of which the first has an action.
nlohmann::json popup(const std::string& uuid, int maxShowCount) {
    auto item = nlohmann::json::parse(R"({"name": "Popup", "expireDate": 0, "template": "POPUP",
        "triggeringEventName": "promo", "bgColor": "#FFFFFF",
        "title": {"text": "Hello", "color": "#FF0000"},
        "body": {"text": "Body", "color": "not a colour"},
        "images": [{"url": "https://img/1.png"}, {}, {"url": "https://img/2.png"}],
        "subInAppCommunication": {"buttons": [
            {"_id": "b1", "text": "One", "action": {"link": "app://one", "type": "deep"}},
            {"_id": "b2", "text": "Two"}, {"_id": "b3", "text": "Three"},
            {"_id": "b4", "text": "Four"}]}})");
    item.update({{"uuid", uuid}, {"code", "code-" + uuid}, {"maxShowCount", maxShowCount}});
    return item;
}

/// A presenter that records what it was asked to show.
struct RecordingScreen : InAppViewController, std::enable_shared_from_this<RecordingScreen> {
    static inline std::vector<std::shared_ptr<RecordingScreen>> shown;
    ScreenRef presenter;
    void present(const ScreenRef& p) override {
        presenter = p;
        shown.push_back(shared_from_this());
    }
};

}  // namespace

using InitializationTest = PipelineTest;

TEST_F(InitializationTest, FailedFetchesKeepEventsAndAServerErrorFailsOnlyWithoutRetriesLeft) {
    // One undecodable item fails the whole answer.
    auto broken =
        nlohmann::json{{"inAppCommunicationCommands", {popup("a", 1), {{"code", "no uuid"}}}}};
    server_->on(kInAppPath, ScriptedAnswer::json(200, broken.dump()));
    LogCapture logs;
    EXPECT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initializeFailed);
    EXPECT_TRUE(logs.containsText("inAppCommunicationCommands[1]"));
    EXPECT_TRUE(logs.contains("Tarn-InAppRepository: No Data;"));
    EXPECT_TRUE(logs.contains("Tarn-InAppManager: Tarn Sdk initialize failed.;"));
    EXPECT_FALSE(TarnSession::shared().appCommunication());
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "meanwhile");
    queue().advance(3);
    EXPECT_EQ(server_->count(kEventPath), 0u);

    // An empty body fails the same way; an empty object succeeds with every default.
    server_->on(kInAppPath, ScriptedAnswer::json(200, ""));
    EXPECT_EQ(initializeAndWait(hostConfig("actor-1", true)),
              InitializeStatusType::initializeFailed);
    server_->on(kInAppPath, ScriptedAnswer::json(200, "{}"));
    EXPECT_EQ(initializeAndWait(hostConfig("actor-1", true)), InitializeStatusType::initialized);
    // (The retry budget's and time-out's fallbacks are checked with the start-up time-out.)
    EXPECT_EQ(processSettings().queueDelay.load(), 0.5);
    EXPECT_EQ(processSettings().conversionOffset.load(), -86400.0);
    EXPECT_FALSE(Tarn::shared().isBatteryStatusRequired.load());
    // The first run that stored the actor decided the installation; a retry is not a first run.
    ASSERT_TRUE(drainUntil(2));
    // (Two ticks' sends may overtake each other on the wire.)
    EXPECT_THAT(receivedNames(), testing::UnorderedElementsAre("meanwhile", "sdk_initialize"));

    // With no retries left a server error fails the fetch.
    server_->on(kInAppPath,
                ScriptedAnswer::json(200, R"({"configuration":{"apiRequestRetryCount":0}})"));
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1", true)), InitializeStatusType::initialized);
    EXPECT_EQ(processSettings().requestRetryCount.load(), 0);
    server_->on(kInAppPath, ScriptedAnswer::json(500, "{}"));
    Tarn::shared().requestInAppCommunications();
    EXPECT_TRUE(pumpUntil([] {
        return ConfigManager::shared().getInitializeStatus() ==
               InitializeStatusType::initializeFailed;
    }));
}

// An application name that is not UTF-8 is kept as the host gave it: requests go out without the
// App-Info header, with one log line each, and the in-app request, whose body carries the name,
// cannot be serialised, so initialisation fails.
TEST_F(InitializationTest, AnApplicationNameThatIsNotUtf8DropsAppInfoAndFailsTheInAppRequest) {
    LogCapture logs;
    auto config = hostConfig("actor-1");
    config.applicationName = "Host\xff App";
    EXPECT_EQ(initializeAndWait(config), InitializeStatusType::initializeFailed);
    auto tokens = server_->requests(kTokenPath);
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_FALSE(tokens[0].header("App-Info"));
    EXPECT_EQ(tokens[0].header("Content-Type"), "application/json");
    EXPECT_EQ(logs.count("Tarn-ServiceClient: Failed to encode app info: a field is not valid "
                         "UTF-8;"),
              2u);
    EXPECT_TRUE(logs.contains(
        "Tarn-ServiceClient: Invalid string value (not UTF-8) in JSON write;"));
    EXPECT_TRUE(logs.contains("Tarn-InAppRepository: No Data;"));
    EXPECT_EQ(server_->count(kInAppPath), 0u);
    EXPECT_EQ(Tarn::shared().applicationName.get(), "Host\xff App");

    // The same host with a readable name: the header is back and initialisation succeeds.
    config.applicationName = "Host App";
    config.forceInitialize = true;
    EXPECT_EQ(initializeAndWait(config), InitializeStatusType::initialized);
    ASSERT_EQ(server_->count(kInAppPath), 1u);
    EXPECT_TRUE(server_->requests(kInAppPath)[0].header("App-Info"));
}

TEST_F(InitializationTest, AFirstRunSendsInstallThenThePopupIsShownWithinItsLimitAndReports) {
    auto first = popup("p1", 1);
    first["conversionEvent"] = "purchase";
    auto answer = nlohmann::json{{"inAppCommunicationCommands", {first, popup("p2", 5)}},
                                 {"configuration", nlohmann::json::object()}};
    server_->on(kInAppPath, ScriptedAnswer::json(200, answer.dump()));
    LogCapture logs;
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    auto all = server_->requests();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0].path, kTokenPath);
    EXPECT_EQ(all[1].path, kInAppPath);
    EXPECT_EQ(nlohmann::json::parse(all[1].body), (nlohmann::json{{"actorId", "actor-1"},
                                                                  {"applicationName", "HostApp"},
                                                                  {"configuration", true}}));
    EXPECT_EQ(all[1].header("Authorization"), "Bearer T1");
    EXPECT_TRUE(logs.contains("Tarn: checkAuthToken;"));
    EXPECT_TRUE(logs.contains("Tarn-InAppManager: Tarn Sdk initialized succesfully.;"));
    EXPECT_TRUE(Tarn::shared().isInitializeCompleted.load());
    ASSERT_TRUE(drainUntil(2));
    EXPECT_EQ(receivedEvents()[0]["parameters"]["configurationActorId"], "actor-1");
    EXPECT_EQ(receivedEvents()[0]["parameters"]["anonymous"], false);
    // A second run in a new process sends no "install".
    std::string out;
    EXPECT_EQ(runHelper({"init_and_drain", dataDir().string(), bundleDir().string()}, &out), 0)
        << out;

    InAppManager::shared().registerInAppScreen([] { return std::make_shared<RecordingScreen>(); });
    auto shop = std::make_shared<NamedScreen>("ShopScreen");
    std::vector<AppCommunicationAction> actions;
    TarnEvent::shared().sendCustomEvent(
        shop, std::nullopt, "promo", std::nullopt,
        [&](const AppCommunicationAction& a) { actions.push_back(a); });
    queue().runPending();
    ASSERT_EQ(RecordingScreen::shown.size(), 1u);
    auto screen = RecordingScreen::shown[0];
    EXPECT_EQ(screen->presenter, shop);
    ASSERT_TRUE(screen->inApp);
    EXPECT_EQ(screen->inApp->appCommunucation.uuid, "p1");
    const auto& rows = screen->inApp->presentations;
    ASSERT_EQ(rows.size(), 6u);  // title, images, body, three of four buttons
    EXPECT_EQ(std::get<TitleTableViewCellPresentation>(rows[0]).color, (Color{255, 0, 0, 255}));
    EXPECT_EQ(std::get<ImageTableViewCellPresentation>(rows[1]).imageUrls,
              (std::vector<std::string>{"https://img/1.png", "https://img/2.png"}));
    EXPECT_EQ(std::get<BodyTextTableViewCellPresentation>(rows[2]).color, Color::black());
    EXPECT_EQ(std::get<ButtonTableViewCellPresentation>(rows[5]).button.id, "b3");
    EXPECT_EQ(PreferencesManager::shared().intValue("p1"), 0);

    // The screen reports; the next "purchase" carries the conversion.
    screen->reportOpened();
    screen->reportButtonClicked(std::get<ButtonTableViewCellPresentation>(rows[3]).button);
    ASSERT_EQ(actions.size(), 1u);
    EXPECT_EQ(actions[0].link, "app://one");
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "purchase");
    ASSERT_TRUE(drainUntil(7));
    EXPECT_EQ(receivedNames(),
              (std::vector<std::string>{"install", "sdk_initialize", "sdk_initialize", "promo",
                                        "in_app_opened", "in_app_button_clicked", "purchase"}));
    EXPECT_EQ(receivedEvents()[6]["parameters"]["conversionCommunicationCode"], "code-p1");

    // Past its limit the popup is not shown again, and only the first match counts.
    TarnEvent::shared().sendCustomEvent(shop, std::nullopt, "promo");
    TarnEvent::shared().sendCustomEvent(shop, std::nullopt, "Promo");
    queue().runPending();
    EXPECT_EQ(RecordingScreen::shown.size(), 1u);
    EXPECT_TRUE(
        logs.contains("Tarn-InAppManager: handlePopupAction: popup reached max show count!;"));
    EXPECT_TRUE(logs.contains("Tarn-InAppManager: couldn't get action type!;"));
    EXPECT_FALSE(PreferencesManager::shared().intValue("p2"));  // never chosen

    // Without a registered screen a chosen communication still spends one showing.
    InAppManager::shared().registerInAppScreen(nullptr);
    PreferencesManager::shared().defaults()->remove("p1");
    TarnEvent::shared().sendCustomEvent(shop, std::nullopt, "promo");
    queue().runPending();
    EXPECT_TRUE(logs.contains("Tarn-InAppManager: In app view not found;"));
    EXPECT_EQ(PreferencesManager::shared().intValue("p1"), 0);
}
