#include <gtest/gtest.h>

#include <limits>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunicationCoding.h"

using namespace tarn;
using nlohmann::json;

namespace {

// A communication with every field set.
json richItem(int n) {
    auto id = std::to_string(n);
    return {
        {"uuid", "uuid-" + id},
        {"code", "CODE-" + id},
        {"journey", "journey-" + id},
        {"name", "Communication " + id},
        {"expireDate", 1735689600000 + n},
        {"template", n % 2 ? "SURVEY" : "POPUP"},
        {"triggeringEventName", "event_" + id},
        {"title", {{"text", "Title \u00e7 " + id}, {"color", "#112233"}}},
        {"body", {{"text", ""}, {"color", "#FFF"}}},
        {"images", json::array({{{"url", "https://cdn.example.com/" + id + "/a.png"}},
                                json::object(),
                                {{"url", "https://cdn.example.com/" + id + "/b.png"}}})},
        {"maxShowCount", n},
        {"bgColor", "#80000000"},
        {"subInAppCommunication",
         {{"template", "POPUP"},
          {"surveyCode", "S-" + id},
          {"link", "https://example.com/survey/" + id},
          {"buttons", json::array({{{"_id", "b1"},
                                    {"text", "OK"},
                                    {"textColor", "#000000"},
                                    {"color", "#FFFFFF"},
                                    {"action", {{"link", "app://home"}, {"type", "deep"}}}},
                                   {{"_id", "b2"},
                                    {"text", "Web"},
                                    {"action", {{"link", "https://example.com"}, {"type", "url"}}}},
                                   {{"text", "Close"}}})},
          {"action", {{"link", "https://example.com/more"}, {"type", "url"}}}}},
        {"journeyVersion", 7},
        {"conversionEvent", "purchase"},
    };
}

// A communication with only its required fields.
json minimalItem(const std::string& uuid) {
    return {
        {"uuid", uuid},
        {"code", "C"},
        {"name", "N"},
        {"expireDate", 0},
        {"template", "POPUP"},
        {"triggeringEventName", "e"},
        {"title", {{"text", "t"}, {"color", "#000"}}},
        {"body", {{"text", "b"}, {"color", "#000"}}},
        {"maxShowCount", 1},
        {"bgColor", "#fff"},
        {"subInAppCommunication", json::object()},
    };
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

    // Null is the same as an absent key; unknown keys are ignored.
    auto nulls = decodeAppCommunication(
        R"({"inAppCommunicationCommands": null, "configuration": null, "extra": [1, {"x": 2}]})");
    ASSERT_TRUE(nulls.ok()) << nulls.error().localizedDescription();
    EXPECT_EQ(nulls.value(), empty.value());

    // An empty configuration is present but holds nothing; optional nulls inside an item too.
    auto item = minimalItem("u1");
    item["journey"] = nullptr;
    item["images"] = nullptr;
    item["subInAppCommunication"] = {{"template", nullptr}, {"buttons", nullptr}};
    auto partial =
        decodeAnswer({{"inAppCommunicationCommands", {item}}, {"configuration", json::object()}});
    ASSERT_TRUE(partial.ok()) << partial.error().localizedDescription();
    ASSERT_TRUE(partial.value().configuration);
    EXPECT_EQ(*partial.value().configuration, AppCommunicationConfiguration{});
    const auto& decoded = partial.value().model->at(0);
    EXPECT_FALSE(decoded.journey);
    EXPECT_FALSE(decoded.images);
    EXPECT_FALSE(decoded.subInAppCommunication.templateType);
    EXPECT_FALSE(decoded.subInAppCommunication.buttons);

    // An empty list stays an empty list, distinct from no list.
    auto none = decodeAnswer(answerOf(json::array()));
    ASSERT_TRUE(none.ok());
    ASSERT_TRUE(none.value().model);
    EXPECT_TRUE(none.value().model->empty());
}

TEST(AppCommunicationCoding, EnumerationsDecodeUnlistedValuesAsUnknown) {
    auto items = json::array();
    for (json templateValue : {json("POPUP"), json("SURVEY"), json("BANNER"), json("popup"),
                               json(3), json(true), json(nullptr), json::object(), json::array()}) {
        auto item = minimalItem("u" + std::to_string(items.size()));
        item["template"] = templateValue;
        items.push_back(item);
    }
    auto answer = decodeAnswer(answerOf(items));
    ASSERT_TRUE(answer.ok()) << answer.error().localizedDescription();
    const auto& model = *answer.value().model;
    EXPECT_EQ(model[0].templateType, InAppType::popup);
    EXPECT_EQ(model[1].templateType, InAppType::survey);
    for (std::size_t i = 2; i < model.size(); ++i) {
        EXPECT_EQ(model[i].templateType, InAppType::unknown) << items[i]["template"].dump();
    }

    // Optional enumerations: null or missing is absent, anything unlisted is unknown.
    auto action = [](const char* text) { return decode<AppCommunicationAction>(text).value(); };
    EXPECT_EQ(action(R"({"type": "deep"})").type, TarnActionType::deep);
    EXPECT_EQ(action(R"({"type": "url"})").type, TarnActionType::url);
    EXPECT_EQ(action(R"({"type": "DEEP"})").type, TarnActionType::unknown);
    EXPECT_EQ(action(R"({"type": "Deep"})").type, TarnActionType::unknown);
    EXPECT_EQ(action(R"({"type": 1})").type, TarnActionType::unknown);
    EXPECT_EQ(action(R"({"type": {"a": 1}})").type, TarnActionType::unknown);
    EXPECT_EQ(action(R"({"type": null})").type, std::nullopt);
    EXPECT_EQ(action(R"({})").type, std::nullopt);
    auto sub = decode<SubInAppCommunication>(R"({"template": "BANNER"})");
    EXPECT_EQ(sub.value().templateType, InAppType::unknown);

    // The enumerations on their own, and their wire spellings.
    EXPECT_EQ(decode<InAppType>(R"("SURVEY")").value(), InAppType::survey);
    EXPECT_EQ(decode<InAppType>("null").value(), InAppType::unknown);
    EXPECT_EQ(decode<TarnActionType>("42").value(), TarnActionType::unknown);
    EXPECT_FALSE(decode<TarnActionType>("deep").ok());  // not JSON: a bare word
    EXPECT_STREQ(rawValue(InAppType::popup), "POPUP");
    EXPECT_STREQ(rawValue(InAppType::unknown), "unknown");
    EXPECT_STREQ(rawValue(TarnActionType::deep), "deep");
    EXPECT_EQ(encode(InAppType::unknown), R"("unknown")");
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
        EXPECT_EQ(missing.error().kind, DecodingError::Kind::keyNotFound) << key;
        EXPECT_EQ(missing.error().codingPath, std::string("inAppCommunicationCommands[0].") + key);

        item[key] = nullptr;
        auto null = decodeAnswer(answerOf({item}));
        ASSERT_FALSE(null.ok()) << key;
        EXPECT_EQ(null.error().kind, DecodingError::Kind::valueNotFound) << key;
    }

    // A push item needs only its uuid.
    EXPECT_TRUE(decodeNotificationAppCommunicationItem(R"({"uuid": "p"})").ok());
    auto noUuid = decodeNotificationAppCommunicationItem(R"({"title": "t"})");
    ASSERT_FALSE(noUuid.ok());
    EXPECT_EQ(noUuid.error().codingPath, "uuid");
}

TEST(AppCommunicationCoding, ErrorsNameThePathOfTheOffendingField) {
    auto items = json::array({minimalItem("a"), minimalItem("b"), minimalItem("c"), richItem(3)});
    items[3]["title"]["color"] = 255;
    auto answer = decodeAnswer(answerOf(items));
    ASSERT_FALSE(answer.ok());
    const auto& error = answer.error();
    EXPECT_EQ(error.kind, DecodingError::Kind::typeMismatch);
    EXPECT_EQ(error.codingPath, "inAppCommunicationCommands[3].title.color");
    EXPECT_EQ(error.localizedDescription(),
              "The data couldn't be read: inAppCommunicationCommands[3].title.color: Expected a "
              "string but found a number.");

    items[3]["title"]["color"] = "#fff";
    items[3]["subInAppCommunication"]["buttons"][1]["action"]["link"] = json::array();
    answer = decodeAnswer(answerOf(items));
    ASSERT_FALSE(answer.ok());
    EXPECT_EQ(answer.error().codingPath,
              "inAppCommunicationCommands[3].subInAppCommunication.buttons[1].action.link");
    EXPECT_NE(answer.error().localizedDescription().find("found an array"), std::string::npos);

    // An optional field present with the wrong type fails like a required one.
    items[3]["subInAppCommunication"]["buttons"][1]["action"]["link"] = "https://example.com";
    items[3]["images"][2] = "https://cdn.example.com/c.png";
    answer = decodeAnswer(answerOf(items));
    ASSERT_FALSE(answer.ok());
    EXPECT_EQ(answer.error().codingPath, "inAppCommunicationCommands[3].images[2]");
    EXPECT_EQ(answer.error().debugDescription, "Expected an object but found a string.");

    auto config = decodeAnswer({{"configuration", {{"batteryEnabled", 1}}}});
    ASSERT_FALSE(config.ok());
    EXPECT_EQ(config.error().codingPath, "configuration.batteryEnabled");

    // Text that is not JSON, and JSON of the wrong shape at the root.
    auto garbage = decodeAppCommunication(R"({"inAppCommunicationCommands": [)");
    ASSERT_FALSE(garbage.ok());
    EXPECT_EQ(garbage.error().kind, DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(garbage.error().codingPath, "");
    EXPECT_NE(garbage.error().localizedDescription().find("isn't in the correct format"),
              std::string::npos);
    EXPECT_EQ(decodeAppCommunication("").error().kind, DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(decodeAppCommunication("{\"a\": \"\xff\"}").error().kind,
              DecodingError::Kind::dataCorrupted);
    auto array = decodeAppCommunication("[]");
    ASSERT_FALSE(array.ok());
    EXPECT_EQ(array.error().localizedDescription(),
              "The data couldn't be read: (document root): Expected an object but found an "
              "array.");
    EXPECT_EQ(decodeAppCommunication("null").error().kind, DecodingError::Kind::valueNotFound);
    EXPECT_FALSE(decodeAnswer(answerOf(json::object())).ok());
    auto nullElement = decodeAnswer(answerOf({minimalItem("a"), nullptr}));
    ASSERT_FALSE(nullElement.ok());
    EXPECT_EQ(nullElement.error().codingPath, "inAppCommunicationCommands[1]");
}

TEST(AppCommunicationCoding, NumbersAndIntegers) {
    auto config = decodeAnswer({{"configuration",
                                 {{"eventQueueDelay", 2},
                                  {"conversionTimeout", 1500},
                                  {"apiRequestTimeout", 5.0},
                                  {"offlineQueueSize", -1},
                                  {"blockAllEvents", false}}}});
    ASSERT_TRUE(config.ok()) << config.error().localizedDescription();
    const auto& c = *config.value().configuration;
    EXPECT_EQ(c.eventQueueDelay, 2.0);
    EXPECT_EQ(c.conversionTimeout, 1500);
    EXPECT_EQ(c.apiRequestTimeout, 5);  // a zero fraction is still an integer
    EXPECT_EQ(c.offlineQueueSize, -1);
    EXPECT_EQ(c.blockAllEvents, false);
    EXPECT_FALSE(c.batteryEnabled);

    EXPECT_EQ(decodeAnswer({{"configuration", {{"eventQueueDelay", 0.25}}}})
                  .value()
                  .configuration->eventQueueDelay,
              0.25);

    auto item = [](json value) {
        auto document = minimalItem("u");
        document["expireDate"] = std::move(value);
        return decode<AppCommunicationItem>(document.dump());
    };
    EXPECT_EQ(item(9223372036854775807LL).value().expireDate, 9223372036854775807LL);
    EXPECT_EQ(item(-9223372036854775807LL - 1).value().expireDate, -9223372036854775807LL - 1);
    EXPECT_EQ(item(1e3).value().expireDate, 1000);
    for (json bad : {json(9223372036854775808ULL), json(2.5), json(1e19), json("12"), json(true)}) {
        auto result = item(bad);
        ASSERT_FALSE(result.ok()) << bad.dump();
        EXPECT_EQ(result.error().kind, DecodingError::Kind::typeMismatch);
        EXPECT_EQ(result.error().codingPath, "expireDate");
    }
    EXPECT_FALSE(decodeAnswer({{"configuration", {{"eventQueueDelay", "0.5"}}}}).ok());
}

TEST(AppCommunicationCoding, ButtonIdentifierTravelsUnderUnderscoreId) {
    auto plain = decode<AppCommunicationButton>(R"({"id": "b1", "text": "OK"})");
    ASSERT_TRUE(plain.ok());
    EXPECT_FALSE(plain.value().id);
    EXPECT_EQ(plain.value().text, "OK");

    auto underscored = decode<AppCommunicationButton>(R"({"_id": "b1"})");
    ASSERT_TRUE(underscored.ok());
    EXPECT_EQ(underscored.value().id, "b1");

    AppCommunicationButton button;
    button.id = "b9";
    button.text = "Buy";
    button.action = AppCommunicationAction{"app://cart", TarnActionType::deep};
    EXPECT_EQ(toJson(button), json::parse(R"({"_id": "b9", "text": "Buy",
                                              "action": {"link": "app://cart", "type": "deep"}})"));
    EXPECT_EQ(toJson(AppCommunicationButton{}), json::object());
}

TEST(AppCommunicationCoding, RichDocumentsSurviveEncodeAndDecode) {
    json document = {
        {"inAppCommunicationCommands", {richItem(1), richItem(2), minimalItem("m")}},
        {"configuration",
         {{"blockAllEvents", true},
          {"offlineQueueSize", 100},
          {"inAppMaxShowDuration", 15},
          {"batteryEnabled", true},
          {"wifiStatusEnabled", false},
          {"diskCapacityEnabled", true},
          {"locationEnabled", false},
          {"apiRequestRetryCount", 4},
          {"apiRequestTimeout", 10},
          {"eventQueueDelay", 0.75},
          {"conversionTimeout", 3600000}}},
    };
    auto decoded = decodeAnswer(document);
    ASSERT_TRUE(decoded.ok()) << decoded.error().localizedDescription();
    const auto& first = decoded.value().model->at(0);
    EXPECT_EQ(first.templateType, InAppType::survey);
    EXPECT_EQ(first.title.text, "Title \u00e7 1");
    EXPECT_EQ(first.images->size(), 3u);
    EXPECT_FALSE(first.images->at(1).url);
    EXPECT_EQ(first.subInAppCommunication.buttons->at(1).action->type, TarnActionType::url);
    EXPECT_EQ(first.journeyVersion, 7);

    // Encoding writes back exactly the keys it read, and decoding that gives an equal answer.
    auto text = encode(decoded.value());
    EXPECT_EQ(json::parse(text), document);
    auto again = decodeAppCommunication(text);
    ASSERT_TRUE(again.ok()) << again.error().localizedDescription();
    EXPECT_EQ(again.value(), decoded.value());

    EXPECT_EQ(toJson(first), document["inAppCommunicationCommands"][0]);
    json implicit = decoded.value().model->at(2);
    EXPECT_EQ(implicit, document["inAppCommunicationCommands"][2]);

    // Values that the wire cannot tell apart come back as the same record.
    AppCommunicationItem unknownTemplate = first;
    unknownTemplate.templateType = InAppType::unknown;
    EXPECT_EQ(decode<AppCommunicationItem>(encode(unknownTemplate)).value(), unknownTemplate);

    // The push item.
    json push = {{"uuid", "p1"},
                 {"code", "PC"},
                 {"actorId", "actor"},
                 {"pushToken", "token"},
                 {"title", "Hello"},
                 {"message", "World"},
                 {"image", "https://cdn.example.com/i.png"},
                 {"buttons", {{{"_id", "x"}, {"text", "Go"}}}},
                 {"applicationName", "App"},
                 {"journey", "J"},
                 {"action", {{"link", "app://x"}, {"type", "deep"}}},
                 {"images", {{{"url", "https://cdn.example.com/1.png"}}}},
                 {"sliderSupport", true},
                 {"category", "TarnNotificationCategory"},
                 {"conversionEvent", "buy"}};
    auto pushItem = decodeNotificationAppCommunicationItem(push.dump());
    ASSERT_TRUE(pushItem.ok()) << pushItem.error().localizedDescription();
    EXPECT_EQ(pushItem.value().sliderSupport, true);
    EXPECT_EQ(json::parse(encode(pushItem.value())), push);
}

TEST(AppCommunicationCoding, EncodedTextEscapesAwkwardValues) {
    AppCommunicationItem item;
    item.uuid = "quote \" backslash \\ slash /";
    item.code = "controls \b\f\n\r\t \x01\x1f end";
    item.name = "utf-8 \u00e7\u20ac\U0001F600";
    item.title.text = "bad \xff\xfe bytes";
    item.body.text = std::string("nul \0 inside", 12);
    item.expireDate = -42;
    item.templateType = InAppType::survey;

    auto text = encode(item);
    auto parsed = json::parse(text);  // throws on invalid JSON
    EXPECT_EQ(parsed["uuid"], item.uuid);
    EXPECT_EQ(parsed["code"], item.code);
    EXPECT_EQ(parsed["name"], item.name);
    EXPECT_EQ(parsed["title"]["text"], "bad \xEF\xBF\xBD\xEF\xBF\xBD bytes");  // U+FFFD twice
    EXPECT_EQ(parsed["body"]["text"], item.body.text);
    EXPECT_EQ(parsed["expireDate"], -42);
    EXPECT_NE(text.find(R"("code":"controls \b\f\n\r\t \u0001\u001f end")"), std::string::npos);
    // The text writer and the JSON value agree on everything that is valid UTF-8.
    item.title.text = "fine";
    EXPECT_EQ(json::parse(encode(item)), toJson(item));

    AppCommunicationConfiguration config;
    config.eventQueueDelay = 2.0;
    EXPECT_EQ(encode(config), R"({"eventQueueDelay":2.0})");
    config.eventQueueDelay = 0.1;
    EXPECT_EQ(decode<AppCommunicationConfiguration>(encode(config)).value(), config);
    config.eventQueueDelay = std::numeric_limits<double>::infinity();
    EXPECT_EQ(encode(config), R"({"eventQueueDelay":null})");
    EXPECT_EQ(encode(AppCommunication{}), "{}");
}
