#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunicationCoding.h"

using namespace tarn;
using nlohmann::json;

namespace {

// A communication with every field set; `n` varies the values.
json richItem(int n) {
    auto item = json::parse(R"({
        "code": "CODE", "journey": "journey-1", "name": "Communication", "triggeringEventName": "e",
        "title": {"text": "Title \u00e7", "color": "#112233"},
        "body": {"text": "", "color": "#FFF"},
        "images": [{"url": "https://cdn.example.com/a.png"}, {}, {"url": "https://x/b.png"}],
        "bgColor": "#80000000", "journeyVersion": 7, "conversionEvent": "purchase",
        "subInAppCommunication": {"template": "POPUP", "surveyCode": "S-1", "link": "https://s/1",
            "buttons": [{"_id": "b1", "text": "OK", "textColor": "#000000", "color": "#FFFFFF",
                         "action": {"link": "app://home", "type": "deep"}},
                        {"_id": "b2", "text": "Web",
                         "action": {"link": "https://w", "type": "url"}},
                        {"text": "Close"}],
            "action": {"link": "https://example.com/more", "type": "url"}}})");
    item["uuid"] = "uuid-" + std::to_string(n);
    item["expireDate"] = 1735689600000 + n;
    item["template"] = n % 2 ? "SURVEY" : "POPUP";
    item["maxShowCount"] = n;
    return item;
}

// A communication with only its required fields.
json minimalItem(const std::string& uuid) {
    auto item = json::parse(R"({"code": "C", "name": "N", "expireDate": 0, "template": "POPUP",
        "triggeringEventName": "e", "title": {"text": "t", "color": "#000"},
        "body": {"text": "b", "color": "#000"}, "maxShowCount": 1, "bgColor": "#fff",
        "subInAppCommunication": {}})");
    item["uuid"] = uuid;
    return item;
}

json answerOf(json items) {
    return {{"inAppCommunicationCommands", std::move(items)}};
}

DecodeResult<AppCommunication> decodeAnswer(const json& document) {
    return decodeAppCommunication(document.dump());
}

}  // namespace

TEST(AppCommunicationCoding, EmptyAndNullParts) {
    auto empty = decodeAppCommunication("{}");
    ASSERT_TRUE(empty.ok()) << empty.error().localizedDescription();
    EXPECT_FALSE(empty.value().model);
    EXPECT_FALSE(empty.value().configuration);
    EXPECT_EQ(encode(empty.value()), "{}");

    // Null is the same as an absent key; unknown keys are ignored.
    auto nulls = decodeAppCommunication(
        R"({"inAppCommunicationCommands": null, "configuration": null, "extra": [1, {"x": 2}]})");
    ASSERT_TRUE(nulls.ok()) << nulls.error().localizedDescription();
    EXPECT_EQ(nulls.value(), empty.value());

    // Optional nulls inside an item are absent; an empty list stays a list, distinct from none.
    auto item = minimalItem("u1");
    item["images"] = nullptr;
    item["subInAppCommunication"] = {{"template", nullptr}, {"buttons", nullptr}};
    auto partial = decodeAnswer(answerOf({item}));
    ASSERT_TRUE(partial.ok()) << partial.error().localizedDescription();
    const auto& decoded = partial.value().model->at(0);
    EXPECT_FALSE(decoded.images);
    EXPECT_FALSE(decoded.subInAppCommunication.templateType);
    EXPECT_FALSE(decoded.subInAppCommunication.buttons);
    auto none = decodeAnswer(answerOf(json::array()));
    ASSERT_TRUE(none.ok() && none.value().model);
    EXPECT_TRUE(none.value().model->empty());
}

TEST(AppCommunicationCoding, EnumerationsDecodeUnlistedValuesAsUnknown) {
    const std::vector<std::pair<json, InAppType>> templates = {
        {"POPUP", InAppType::popup},    {"SURVEY", InAppType::survey},
        {"BANNER", InAppType::unknown}, {"popup", InAppType::unknown},
        {3, InAppType::unknown},        {nullptr, InAppType::unknown}};
    auto items = json::array();
    for (const auto& [value, type] : templates) {
        items.push_back(minimalItem("u" + std::to_string(items.size())));
        items.back()["template"] = value;
    }
    auto answer = decodeAnswer(answerOf(items));
    ASSERT_TRUE(answer.ok()) << answer.error().localizedDescription();
    for (std::size_t i = 0; i < templates.size(); ++i) {
        EXPECT_EQ(answer.value().model->at(i).templateType, templates[i].second)
            << templates[i].first.dump();
    }

    // Optional enumerations: null or missing is absent, anything unlisted is unknown.
    for (const auto& [text, type] :
         std::vector<std::pair<std::string, std::optional<TarnActionType>>>{
             {R"({"type": "deep"})", TarnActionType::deep},
             {R"({"type": "url"})", TarnActionType::url},
             {R"({"type": "DEEP"})", TarnActionType::unknown},
             {R"({"type": 1})", TarnActionType::unknown},
             {R"({"type": null})", std::nullopt},
             {R"({})", std::nullopt}}) {
        EXPECT_EQ(decode<AppCommunicationAction>(text).value().type, type) << text;
    }
    EXPECT_EQ(decode<SubInAppCommunication>(R"({"template": "BANNER"})").value().templateType,
              InAppType::unknown);
}

TEST(AppCommunicationCoding, MissingRequiredFieldFailsTheWholeAnswer) {
    auto withoutTemplate = minimalItem("u2");
    withoutTemplate.erase("template");
    auto answer = decodeAnswer(answerOf({minimalItem("u1"), withoutTemplate}));
    ASSERT_FALSE(answer.ok());
    EXPECT_EQ(answer.error().kind, DecodingError::Kind::keyNotFound);
    EXPECT_EQ(answer.error().codingPath, "inAppCommunicationCommands[1].template");

    // Every required field of an item is required, and a null counts as missing.
    for (const char* key : {"uuid", "code", "name", "expireDate", "triggeringEventName", "title",
                            "body", "maxShowCount", "bgColor", "subInAppCommunication"}) {
        auto item = minimalItem("u");
        item.erase(key);
        auto missing = decodeAnswer(answerOf({item}));
        ASSERT_FALSE(missing.ok()) << key;
        EXPECT_EQ(missing.error().codingPath, std::string("inAppCommunicationCommands[0].") + key);
        item[key] = nullptr;
        auto null = decodeAnswer(answerOf({item}));
        ASSERT_FALSE(null.ok()) << key;
        EXPECT_EQ(null.error().kind, DecodingError::Kind::valueNotFound) << key;
    }
}

TEST(AppCommunicationCoding, ErrorsNameThePathOfTheOffendingField) {
    auto items = json::array({minimalItem("a"), minimalItem("b"), minimalItem("c"), richItem(3)});
    items[3]["title"]["color"] = 255;
    auto answer = decodeAnswer(answerOf(items));
    ASSERT_FALSE(answer.ok());
    EXPECT_EQ(answer.error().kind, DecodingError::Kind::typeMismatch);
    EXPECT_EQ(answer.error().localizedDescription(),
              "The data couldn't be read: inAppCommunicationCommands[3].title.color: Expected a "
              "string but found a number.");

    // Deep inside, and in an optional field present with the wrong type.
    items[3]["title"]["color"] = "#fff";
    items[3]["subInAppCommunication"]["buttons"][1]["action"]["link"] = json::array();
    answer = decodeAnswer(answerOf(items));
    ASSERT_FALSE(answer.ok());
    EXPECT_EQ(answer.error().codingPath,
              "inAppCommunicationCommands[3].subInAppCommunication.buttons[1].action.link");
    // Text that is not JSON.
    auto garbage = decodeAppCommunication(R"({"inAppCommunicationCommands": [)");
    ASSERT_FALSE(garbage.ok());
    EXPECT_EQ(garbage.error().kind, DecodingError::Kind::dataCorrupted);
    EXPECT_NE(garbage.error().localizedDescription().find("isn't in the correct format"),
              std::string::npos);
}

TEST(AppCommunicationCoding, NumbersAndIntegers) {
    auto config = decodeAppCommunication(R"({"configuration": {"eventQueueDelay": 2,
        "conversionTimeout": 1500, "apiRequestTimeout": 5.0, "offlineQueueSize": -1}})");
    ASSERT_TRUE(config.ok()) << config.error().localizedDescription();
    const auto& c = *config.value().configuration;
    EXPECT_EQ(c.eventQueueDelay, 2.0);
    EXPECT_EQ(c.conversionTimeout, 1500);
    EXPECT_EQ(c.apiRequestTimeout, 5);  // a zero fraction is still an integer
    EXPECT_EQ(c.offlineQueueSize, -1);
    EXPECT_FALSE(c.batteryEnabled);
    AppCommunicationConfiguration integral;
    integral.eventQueueDelay = 2.0;
    EXPECT_EQ(encode(integral), R"({"eventQueueDelay":2.0})");

    auto item = minimalItem("u");
    item["expireDate"] = 9223372036854775807LL;
    EXPECT_EQ(decode<AppCommunicationItem>(item.dump()).value().expireDate, 9223372036854775807LL);
    item["expireDate"] = 2.5;
    EXPECT_EQ(decode<AppCommunicationItem>(item.dump()).error().kind,
              DecodingError::Kind::typeMismatch);
}

TEST(AppCommunicationCoding, ButtonIdentifierTravelsUnderUnderscoreId) {
    auto plain = decode<AppCommunicationButton>(R"({"id": "b1", "text": "OK"})");
    ASSERT_TRUE(plain.ok());
    EXPECT_FALSE(plain.value().id);
    EXPECT_EQ(decode<AppCommunicationButton>(R"({"_id": "b1"})").value().id, "b1");
    AppCommunicationButton button;
    button.id = "b9";
    EXPECT_EQ(toJson(button), json({{"_id", "b9"}}));
}

TEST(AppCommunicationCoding, RichDocumentsSurviveEncodeAndDecode) {
    json document = {
        {"inAppCommunicationCommands", {richItem(1), richItem(2), minimalItem("m")}},
        {"configuration", json::parse(R"({"blockAllEvents": true, "offlineQueueSize": 100,
             "inAppMaxShowDuration": 15, "batteryEnabled": true, "wifiStatusEnabled": false,
             "diskCapacityEnabled": true, "locationEnabled": false, "apiRequestRetryCount": 4,
             "apiRequestTimeout": 10, "eventQueueDelay": 0.75, "conversionTimeout": 3600000})")},
    };
    auto decoded = decodeAnswer(document);
    ASSERT_TRUE(decoded.ok()) << decoded.error().localizedDescription();
    const auto& first = decoded.value().model->at(0);
    EXPECT_EQ(first.templateType, InAppType::survey);
    EXPECT_EQ(first.title.text, "Title \u00e7");
    EXPECT_FALSE(first.images->at(1).url);
    EXPECT_EQ(first.subInAppCommunication.buttons->at(1).action->type, TarnActionType::url);

    // Encoding writes back exactly the keys it read, and decoding that gives an equal answer.
    auto text = encode(decoded.value());
    EXPECT_EQ(json::parse(text), document);
    EXPECT_EQ(decodeAppCommunication(text).value(), decoded.value());
    EXPECT_EQ(toJson(first), document["inAppCommunicationCommands"][0]);

    // The push item.
    auto push = json::parse(R"({"uuid": "p1", "code": "PC", "actorId": "actor",
        "pushToken": "token", "title": "Hello", "message": "World", "image": "https://i/i.png",
        "buttons": [{"_id": "x", "text": "Go"}], "applicationName": "App", "journey": "J",
        "action": {"link": "app://x", "type": "deep"}, "images": [{"url": "https://i/1.png"}],
        "sliderSupport": true, "category": "TarnNotificationCategory", "conversionEvent": "buy"})");
    auto pushItem = decodeNotificationAppCommunicationItem(push.dump());
    ASSERT_TRUE(pushItem.ok()) << pushItem.error().localizedDescription();
    EXPECT_EQ(json::parse(encode(pushItem.value())), push);
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
