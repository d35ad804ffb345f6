// The dev server's event-body check against the bodies the library writes: every record kind,
// with every optional section present and with none, passes; a body with a missing, extra or
// mistyped key is flagged with that key's path, by the check and by `tarn check event`.
#include <gtest/gtest.h>

#include <fstream>

#include "devserver/EventCheck.h"
#include "support/ChildProcess.h"
#include "support/TestSupport.h"
#include "tarn/events/EventRecords.h"

namespace tarn::test {
namespace {

using nlohmann::json;

const BodySections kFull{.loggedIn = true,
                         .requestId = "7E57AB1E-0000-4000-8000-000000000001",
                         .battery = "87",
                         .networkStatus = "WIFI",
                         .disk = std::pair<std::string, std::string>{"51234567890", "256000000000"},
                         .deviceId = "5D3C6E1A-9B7F-5C2D-8E4A-1F0B3A6C9D2E",
                         .phoneModel = "x86_64",
                         .timeZone = "Europe/Istanbul",
                         .osVersion = "6.1.0",
                         .timestamp = 1732284000123,
                         .notificationPermission = "AUTHORIZED",
                         .location = std::pair<std::string, std::string>{"28.9784", "41.0082"},
                         .applicationName = "Shop",
                         .pushToken = "fcm-token",
                         .apnsToken = "0aff"};

/// One record of every kind the library sends, filled as its handlers fill them.
std::vector<std::unique_ptr<EventRecord>> everyRecord() {
    std::vector<std::unique_ptr<EventRecord>> records;
    auto add = [&](auto record, const char* name) {
        record->name = name;
        record->actorId = "actor-1";
        record->journeys = {"j1"};
        records.push_back(std::move(record));
    };
    auto custom = std::make_unique<CustomEvent>();
    custom->pageName = "Home";
    custom->controller = "HomeScreen";
    custom->initialParameters = json{{"sku", "A-42"}, {"price", 19.99}, {"nested", {{"a", 1}}}};
    add(std::move(custom), "add_to_cart");
    auto login = std::make_unique<LoginEvent>();
    login->initialParameters = json{{"method", "password"}};
    add(std::move(login), "login");
    add(std::make_unique<LogoutEvent>(), "logout");
    add(std::make_unique<InitializeEvent>(), "sdk_initialize");
    for (auto type : {PageInOutEventType::pageIn, PageInOutEventType::pageOut}) {
        auto page = std::make_unique<PageInOutEvent>();
        page->pageName = "Cart";
        page->eventType = type;
        add(std::move(page), rawValue(type));
    }
    for (const char* name : {"app_background", "app_foreground"}) {
        auto ground = std::make_unique<AppGroundStatusEvent>();
        ground->pageName = "Cart";
        add(std::move(ground), name);
    }
    auto change = std::make_unique<ActorChangeEvent>();
    change->newActorId = "actor-2";
    add(std::move(change), "actor_change");
    auto install = std::make_unique<InstallEvent>();
    install->anonymous = true;
    install->configurationActorId = "actor-1";
    add(std::move(install), "install");
    auto error = std::make_unique<ApplicationErrorEvent>();
    error->errorMessage = "boom";
    error->errorType = "NSError";
    add(std::move(error), "application_error");
    auto token = std::make_unique<PushTokenChangeEvent>();
    token->tokenProvider = TokenProviderType::firebase;
    add(std::move(token), "push_token_change");
    auto fillInApp = [](InAppEvent& event) {
        event.communication.code = "C-1";
        event.communication.name = "Promo";
        event.communication.uuid = "u-1";
        event.communication.templateType = InAppType::popup;
        event.pageName = "Home";
        event.conversionEvent = "purchase";
    };
    auto opened = std::make_unique<InAppOpenedEvent>();
    fillInApp(*opened);
    add(std::move(opened), "in_app_opened");
    auto dismissed = std::make_unique<InAppDismissedEvent>();
    fillInApp(*dismissed);
    add(std::move(dismissed), "in_app_dismissed");
    auto self = std::make_unique<InAppSelfClickedEvent>();
    fillInApp(*self);
    add(std::move(self), "in_app_self_clicked");
    auto button = std::make_unique<InAppButtonClickedEvent>();
    fillInApp(*button);
    button->button.id = "b1";
    button->button.text = "Go";
    add(std::move(button), "in_app_button_clicked");
    const std::pair<PushNotificationEventType, const char*> pushes[] = {
        {PushNotificationEventType::onBodyClick, "push_notification_clicked"},
        {PushNotificationEventType::onDismiss, "push_notification_dismissed"},
        {PushNotificationEventType::received, "push_notification_received"},
        {PushNotificationEventType::denied, "push_notificition_denied"}};
    for (const auto& [type, name] : pushes) {
        auto push = std::make_unique<PushNotificationEvent>();
        push->eventType = type;
        push->code = "P-1";
        push->communicationId = "pc-1";
        push->buttonId = "b1";
        push->buttonText = "Open";
        push->customApplicationName = "Other";
        push->conversionEvent = "purchase";
        add(std::move(push), name);
    }
    return records;
}

std::vector<std::string> problemTexts(const json& body) {
    std::vector<std::string> texts;
    for (const auto& problem : devserver::checkEventBody(body))
        texts.push_back(problem.text());
    return texts;
}

TEST(EventCheckTest, EveryBodyTheLibraryWritesPassesAndBrokenOnesAreFlaggedWithTheirPath) {
    BodySections bare;  // every optional section absent, no tokens
    bare.requestId = "R";
    auto records = everyRecord();
    for (const auto& record : records) {
        for (const auto& sections : {kFull, bare}) {
            auto text = record->serializedBody(sections);
            EXPECT_THAT(problemTexts(json::parse(text)), ::testing::IsEmpty()) << text;
        }
        record->communucationCode = "CONV-1";  // completes a conversion
        auto text = record->serializedBody(kFull);
        EXPECT_THAT(problemTexts(json::parse(text)), ::testing::IsEmpty()) << text;
    }

    auto body = [&](const std::string& name) {
        for (const auto& record : records)
            if (record->name == name)
                return json::parse(record->serializedBody(kFull));
        return json();
    };
    using ::testing::ElementsAre;
    auto page = body("page_in");
    page["parameters"].erase("deviceId");
    page["parameters"]["timestamp"] = "1732284000123";
    page["parameters"]["pageNmae"] = "Cart";
    page["journeys"].push_back(7);
    EXPECT_THAT(problemTexts(page),
                ElementsAre("journeys[1]: an integer, expected a string",
                            "parameters.deviceId: missing (a string)",
                            "parameters.timestamp: a string, expected an integer",
                            "parameters.pageNmae: not sent by the library for \"page_in\""));
    // A custom event may carry the host's keys, not mistyped library keys.
    auto custom = body("add_to_cart");
    custom["parameters"]["anything"] = {1, 2};
    custom["parameters"]["loggedIn"] = "yes";
    custom["channel"] = "WEB";
    custom["extra"] = true;
    EXPECT_THAT(problemTexts(custom), ElementsAre("extra: not sent by the library",
                                                  "channel: \"WEB\", expected \"MOBILE\"",
                                                  "parameters.loggedIn: a string, expected a boolean"));
    auto inapp = body("in_app_button_clicked");
    inapp["parameters"].erase("communicationCode");
    inapp["parameters"].erase("totalDisk");
    EXPECT_THAT(problemTexts(inapp),
                ElementsAre("parameters.communicationCode: missing (a string)",
                            "parameters.totalDisk: missing (sent together with \"freeDisk\")"));
    auto push = body("push_notification_clicked");
    push["parameters"]["eventType"] = "received";
    push["parameters"]["code"] = 5;
    EXPECT_THAT(problemTexts(push),
                ElementsAre("parameters.code: an integer, expected a string",
                            "parameters.eventType: \"received\", expected \"onBodyClick\""));
    EXPECT_THAT(problemTexts(json::array()), ElementsAre("an array, expected an object"));
    EXPECT_THAT(devserver::checkEventText("{\"name\":"), ::testing::SizeIs(1));

    // `tarn check event` on a file of JSON lines: the library's bodies pass, the broken ones are
    // named by line and path, and the exit status says so.
    if (tarnExecutable().empty())
        GTEST_SKIP() << "the tarn command is not part of this build";
    TempDir dir;
    auto good = dir.path() / "good.jsonl";
    {
        std::ofstream out(good);
        for (const auto& record : records)
            out << record->serializedBody(kFull) << "\n";
    }
    ChildProcess passing({tarnExecutable(), "check", "event", good.string()});
    EXPECT_EQ(passing.wait(), 0) << passing.out;
    EXPECT_THAT(passing.out, HasSubstr(": OK (" + std::to_string(records.size()) + " events, 0"));
    auto bad = dir.path() / "bad.jsonl";
    std::ofstream(bad) << body("logout").dump() << "\n" << page.dump() << "\nnot json\n";
    ChildProcess failing({tarnExecutable(), "check", "event", bad.string()});
    EXPECT_EQ(failing.wait(), 1);
    EXPECT_THAT(failing.out, HasSubstr(bad.string() +
                                       ":2 \"page_in\": error: parameters.deviceId: missing"));
    EXPECT_THAT(failing.out, HasSubstr(bad.string() + ":3: error: not JSON"));
    EXPECT_THAT(failing.out, HasSubstr("INVALID (3 events, 2 with problems)"));
}

}  // namespace
}  // namespace tarn::test
