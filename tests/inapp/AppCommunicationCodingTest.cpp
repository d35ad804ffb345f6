#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/inapp/ColorCode.h"

using namespace tarn;
using nlohmann::json;

namespace {

// A communication with every field set.
const json kRichItem = json::parse(R"({"uuid": "uuid-1", "code": "CODE", "journey": "journey-1",
    "name": "Communication", "triggeringEventName": "e", "expireDate": 1735689600001,
    "template": "SURVEY", "maxShowCount": 1, "title": {"text": "Title \u00e7", "color": "#112233"},
    "body": {"text": "", "color": "#FFF"},
    "images": [{"url": "https://cdn.example.com/a.png"}, {}, {"url": "https://x/b.png"}],
    "bgColor": "#80000000", "journeyVersion": 7, "conversionEvent": "purchase",
    "subInAppCommunication": {"template": "POPUP", "surveyCode": "S-1", "link": "https://s/1",
        "buttons": [{"_id": "b1", "text": "OK", "textColor": "#000000", "color": "#FFFFFF",
                     "action": {"link": "app://home", "type": "deep"}},
                    {"_id": "b2", "text": "Web", "action": {"link": "https://w", "type": "url"}},
                    {"text": "Close"}],
        "action": {"link": "https://example.com/more", "type": "url"}}})");

// A communication with only its required fields.
json minimalItem() {
    return json::parse(
        R"({"uuid": "u", "code": "C", "name": "N", "expireDate": 0, "template": "POPUP",
        "triggeringEventName": "e", "title": {"text": "t", "color": "#000"},
        "body": {"text": "b", "color": "#000"}, "maxShowCount": 1, "bgColor": "#fff",
        "subInAppCommunication": {}})");
}

DecodeResult<AppCommunication> decodeItems(json items) {
    return decodeAppCommunication(json{{"inAppCommunicationCommands", items}}.dump());
}

}  // namespace

TEST(AppCommunicationCoding, EmptyAndNullParts) {
    // Neither part present; null is the same as an absent key; unknown keys are ignored.
    auto reencoded = [](const char* text) { return encode(decodeAppCommunication(text).value()); };
    EXPECT_EQ(reencoded("{}"), "{}");
    EXPECT_EQ(reencoded(R"({"inAppCommunicationCommands": null, "configuration": null,
                           "extra": [1, {"x": 2}]})"),
              "{}");

    // Optional nulls inside an item are absent (and so not written back); an empty list stays a
    // list, distinct from none.
    auto item = minimalItem();
    item["images"] = nullptr;
    item["subInAppCommunication"] = {{"template", nullptr}, {"buttons", nullptr}};
    EXPECT_EQ(json::parse(encode(decodeItems({item}).value())),
              json({{"inAppCommunicationCommands", {minimalItem()}}}));
    EXPECT_EQ(encode(decodeItems(json::array()).value()), R"({"inAppCommunicationCommands":[]})");
}

TEST(AppCommunicationCoding, EnumerationsDecodeUnlistedValuesAsUnknown) {
    using enum InAppType;
    const std::vector<std::pair<json, InAppType>> templates = {
        {"POPUP", popup},   {"SURVEY", survey}, {"BANNER", unknown},
        {"popup", unknown}, {3, unknown},       {nullptr, unknown}};
    for (const auto& [value, type] : templates) {
        auto item = minimalItem();
        item["template"] = value;
        EXPECT_EQ(decode<AppCommunicationItem>(item.dump()).value().templateType, type) << value;
    }

    // Optional enumerations: null or missing is absent, anything unlisted is unknown.
    using A = TarnActionType;
    const std::vector<std::pair<json, std::optional<A>>> actions = {
        {"deep", A::deep}, {"url", A::url}, {"DEEP", A::unknown}, {1, A::unknown}, {nullptr, {}}};
    for (const auto& [value, type] : actions) {
        auto text = json{{"type", value}}.dump();
        EXPECT_EQ(decode<AppCommunicationAction>(text).value().type, type) << text;
    }
    EXPECT_FALSE(decode<AppCommunicationAction>("{}").value().type);
    EXPECT_EQ(decode<SubInAppCommunication>(R"({"template": "BANNER"})").value().templateType,
              InAppType::unknown);
}

// Every required field of an item is required, a null (but the template's) counts as missing, and
// one bad item fails the whole answer.
TEST(AppCommunicationCoding, AnyFieldThatFailsFailsTheWholeAnswerNamingItsPath) {
    for (const char* key : {"uuid", "code", "name", "expireDate", "template", "triggeringEventName",
                            "title", "body", "maxShowCount", "bgColor", "subInAppCommunication"}) {
        auto item = minimalItem();
        item.erase(key);
        auto missing = decodeItems({minimalItem(), item});
        ASSERT_FALSE(missing.ok()) << key;
        EXPECT_EQ(missing.error().kind, DecodingError::Kind::keyNotFound) << key;
        EXPECT_EQ(missing.error().codingPath, std::string("inAppCommunicationCommands[1].") + key);
        if (std::string_view(key) == "template")
            continue;  // a null template reads as unknown
        item[key] = nullptr;
        auto null = decodeItems({minimalItem(), item});
        ASSERT_FALSE(null.ok()) << key;
        EXPECT_EQ(null.error().kind, DecodingError::Kind::valueNotFound) << key;
    }

    // A field of the wrong type, and text that is not JSON. (Paths deep inside an item, and in an
    // optional field present with the wrong type: CheckTest, through the item decoder.)
    auto item = minimalItem();
    item["title"]["color"] = 255;
    auto answer = decodeItems({minimalItem(), item});
    ASSERT_FALSE(answer.ok());
    EXPECT_EQ(answer.error().kind, DecodingError::Kind::typeMismatch);
    EXPECT_EQ(answer.error().localizedDescription(),
              "The data couldn't be read: inAppCommunicationCommands[1].title.color: Expected a "
              "string but found a number.");
    auto garbage = decodeAppCommunication(R"({"inAppCommunicationCommands": [)");
    ASSERT_FALSE(garbage.ok());
    EXPECT_EQ(garbage.error().kind, DecodingError::Kind::dataCorrupted);
    EXPECT_NE(garbage.error().localizedDescription().find("isn't in the correct format"),
              std::string::npos);
}

// Rich documents, the push item and numbers survive encoding and decoding.
TEST(AppCommunicationCoding, RichDocumentsAndNumbersSurviveEncodeAndDecode) {
    json document = {
        {"inAppCommunicationCommands", {kRichItem, minimalItem()}},
        {"configuration", json::parse(R"({"blockAllEvents": true, "offlineQueueSize": 100,
             "inAppMaxShowDuration": 15, "batteryEnabled": true, "wifiStatusEnabled": false,
             "diskCapacityEnabled": true, "locationEnabled": false, "apiRequestRetryCount": 4,
             "apiRequestTimeout": 10, "eventQueueDelay": 0.75, "conversionTimeout": 3600000})")},
    };
    auto decoded = decodeAppCommunication(document.dump());
    ASSERT_TRUE(decoded.ok()) << decoded.error().localizedDescription();
    // Fields land where they belong (the round trip below would not tell a swap of two).
    const auto& first = decoded.value().model->at(0);
    EXPECT_EQ(first.templateType, InAppType::survey);
    EXPECT_EQ(first.subInAppCommunication.buttons->at(1).id, "b2");  // sent as "_id"
    EXPECT_FALSE(decode<AppCommunicationButton>(R"({"id": "b1"})").value().id);

    // Encoding writes back exactly the keys it read.
    EXPECT_EQ(json::parse(encode(decoded.value())), document);

    // The push item.
    auto push = json::parse(R"({"uuid": "p1", "code": "PC", "actorId": "actor",
        "pushToken": "token", "title": "Hello", "message": "World", "image": "https://i/i.png",
        "buttons": [{"_id": "x", "text": "Go"}], "applicationName": "App", "journey": "J",
        "action": {"link": "app://x", "type": "deep"}, "images": [{"url": "https://i/1.png"}],
        "sliderSupport": true, "category": "TarnNotificationCategory", "conversionEvent": "buy"})");
    auto pushItem = decodeNotificationAppCommunicationItem(push.dump());
    ASSERT_TRUE(pushItem.ok()) << pushItem.error().localizedDescription();
    EXPECT_EQ(json::parse(encode(pushItem.value())), push);

    auto config = decodeAppCommunication(R"({"configuration": {"eventQueueDelay": 2,
        "conversionTimeout": 1500, "apiRequestTimeout": 5.0, "offlineQueueSize": -1}})");
    ASSERT_TRUE(config.ok()) << config.error().localizedDescription();
    // 2 stays a double and is written as one; a zero fraction is still an integer; nothing else
    // is present.
    EXPECT_EQ(encode(*config.value().configuration),
              R"({"offlineQueueSize":-1,"apiRequestTimeout":5,"eventQueueDelay":2.0,)"
              R"("conversionTimeout":1500})");

    auto item = minimalItem();
    item["expireDate"] = 9223372036854775807LL;
    EXPECT_EQ(decode<AppCommunicationItem>(item.dump()).value().expireDate, 9223372036854775807LL);
    item["expireDate"] = 2.5;
    EXPECT_EQ(decode<AppCommunicationItem>(item.dump()).error().kind,
              DecodingError::Kind::typeMismatch);
}

TEST(AppCommunicationCoding, EncodedTextEscapesAwkwardValues) {
    AppCommunicationItem item;
    item.uuid = "quote \" backslash \\ slash /";
    item.code = "controls \b\f\n\r\t \x01\x1f end";
    item.name = "utf-8 \u00e7\u20ac\U0001F600";
    item.body.text = std::string("nul \0 inside", 12);
    EXPECT_EQ(json::parse(encode(item)), toJson(item));  // throws on invalid JSON
    item.title.text = "bad \xff\xfe bytes";
    EXPECT_EQ(json::parse(encode(item))["title"]["text"], "bad \xEF\xBF\xBD\xEF\xBF\xBD bytes");
}

// The colour codes an item carries for its title, body, buttons and background.
TEST(ColorCode, ReadsTheHexFormsAndTakesUnreadableCodesAsBlack) {
    const std::vector<std::pair<std::string, Color>> readable = {
        {"#FF8800", {255, 136, 0, 255}},   {"ff8800", {255, 136, 0, 255}},
        {"#fF88aA", {255, 136, 170, 255}}, {"#F80", {255, 136, 0, 255}},
        {"f80", {255, 136, 0, 255}},       {"#F808", {255, 136, 0, 136}},
        {"#FF000080", {255, 0, 0, 128}},  // alpha last
        {"#00000000", {0, 0, 0, 0}},       {"  #0a0B0c \t\n", {10, 11, 12, 255}}};
    for (const auto& [code, color] : readable) {
        EXPECT_EQ(parseColorCode(code), color) << code;
        EXPECT_EQ(colorFromCode(code), color) << code;
    }
    for (const char* code : {"", "   ", "#", "##FFF", "#FF", "#FFFFF", "#FFFFFFF", "#FFFFFFFFF",
                             "#GGGGGG", "red", "rgb(1,2,3)", "# FFF", "#FF FF FF", "0xFFFFFF"}) {
        EXPECT_FALSE(parseColorCode(code)) << code;
        EXPECT_EQ(colorFromCode(code), (Color{0, 0, 0, 255})) << code;
    }
    EXPECT_FALSE(parseColorCode(std::string_view("#FFF\0", 5)));
}
