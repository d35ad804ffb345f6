// The body written in one pass against the dump of the body tree, for every record kind and the
// host values that are hard to print: nesting, numbers, escapes, UTF-8, keys that sort oddly and
// keys that a later layer replaces; bytes that are not UTF-8 fail both ways alike.

#include "support/TestSupport.h"
#include "tarn/events/EventRecords.h"

using namespace tarn;

namespace {

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
                         .applicationName = "Shop \"Deluxe\"",
                         .pushToken = "fcm-\xc3\xbc",
                         .apnsToken = "0aff"};

std::string treeText(const EventRecord& record, const BodySections& sections) {
    return record.dictionary(sections).dump();
}

}  // namespace

TEST(EventBodyTest, OnePassTextEqualsTheTreeForEveryRecordKind) {
    CustomEvent custom;
    custom.name = "add_to_cart";
    custom.actorId = "actor-\xe2\x82\xac";
    custom.journeys = {"j1", "j\"2"};
    custom.pageName = "Home";
    custom.controller = "HomeScreen";
    // Host values that are hard to print, and keys the library's own values replace or remove.
    custom.initialParameters =
        nlohmann::json{{"sku", "A-42"},
                       {"price", 19.99},
                       {"big", 1e20},
                       {"tiny", -0.0},
                       {"count", -7},
                       {"huge", 18446744073709551615ull},
                       {"nested", {{"list", {1, "two", nullptr, true, {{"deep", {{"x", 0.1}}}}}}}},
                       {"quote\"and\\backslash", "tab\there\nnewline\x01\x1f\x7f"},
                       {"İstanbul", "çok güzel ✓"},
                       {"", "empty key"},
                       {"Zebra", "upper case sorts first"},
                       {"\xc3\xa9t\xc3\xa9", "non-ASCII key sorts last"},
                       {"battery", "the device's wins"},
                       {"loggedIn", "replaced"},
                       {"conversionCommunicationCode", "removed without a code"},
                       {"pageName", "replaced by the record's field"}};
    PageInOutEvent page;
    page.name = "page_in";
    page.pageName = "Cart";
    page.initialParameters = nlohmann::json::array({1, 2});  // not an object: ignored
    InAppButtonClickedEvent button;
    button.name = "in_app_button_clicked";
    button.communication.code = "C-1";
    button.communication.name = "Promo";
    button.communication.uuid = "u-1";
    button.conversionEvent = "purchase";
    button.button.id = "b1";
    button.button.text = "Go";
    PushNotificationEvent push;
    push.name = "push_clicked";
    push.code = "P-1";
    push.customApplicationName = "Other App";
    InstallEvent install;
    install.name = "install";
    install.anonymous = true;
    ActorChangeEvent change;
    change.name = "actor_change";
    change.newActorId = "new\nactor";
    ApplicationErrorEvent error;
    error.name = "app_error";
    error.errorMessage = "boom";
    error.errorType = "fatal";
    InitializeEvent initialize;
    initialize.name = "sdk_initialize";
    AppGroundStatusEvent background;
    background.name = "app_background";
    background.pageName = "Checkout \"2\"";
    LogoutEvent logout;
    logout.name = "logout";
    PushTokenChangeEvent token;
    token.name = "push_token_change";

    // With a conversion code the host's key is replaced; without one it is gone.
    CustomEvent converted = custom;
    converted.communucationCode = "CONV-1";
    BodySections bare;  // every optional section absent, empty tokens
    bare.requestId = "R";
    for (const EventRecord* record : std::initializer_list<const EventRecord*>{
             &custom, &converted, &page, &button, &push, &install, &change, &error, &initialize,
             &background, &logout, &token}) {
        for (const auto& sections : {kFull, bare})
            EXPECT_EQ(record->serializedBody(sections), treeText(*record, sections))
                << record->name;
    }
    auto parameters = [&](const EventRecord& record) {
        return nlohmann::json::parse(record.serializedBody(kFull))["parameters"];
    };
    EXPECT_EQ(parameters(converted)["conversionCommunicationCode"], "CONV-1");
    EXPECT_FALSE(parameters(custom).contains("conversionCommunicationCode"));
    EXPECT_EQ(parameters(custom)["battery"], "87");
    EXPECT_EQ(parameters(custom)["loggedIn"], true);
    EXPECT_EQ(parameters(custom)["pageName"], "Home");

    // Bytes that are not UTF-8, anywhere from the host (a parameter, the actor, a token), fail
    // the text as they fail the dump: the event manager drops such a record.
    auto badToken = kFull;
    badToken.pushToken = "fcm-\xff";
    custom.initialParameters = nlohmann::json{{"nested", {{"bad", std::string("x\xff")}}}};
    converted.actorId = "actor-\xfe";
    for (const auto& [record, sections] :
         {std::pair<const EventRecord*, BodySections>{&custom, kFull},
          {&converted, kFull},
          {&initialize, badToken}}) {
        EXPECT_THROW(record->dictionary(sections).dump(), nlohmann::json::type_error)
            << record->name;
        EXPECT_THROW(record->serializedBody(sections), nlohmann::json::type_error)
            << record->name;
    }
}
