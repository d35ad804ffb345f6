#include "devserver/EventCheck.h"

#include <map>
#include <set>

namespace tarn::devserver {

namespace {

enum class Kind { text, boolean, integer, textList, object };

struct Key {
    const char* name;
    Kind kind;
    bool required;
};

const char* kindName(Kind kind) {
    switch (kind) {
        case Kind::text:
            return "a string";
        case Kind::boolean:
            return "a boolean";
        case Kind::integer:
            return "an integer";
        case Kind::textList:
            return "a list of strings";
        case Kind::object:
            return "an object";
    }
    return "";
}

std::string found(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::null:
            return "null";
        case nlohmann::json::value_t::object:
            return "an object";
        case nlohmann::json::value_t::array:
            return "an array";
        case nlohmann::json::value_t::string:
            return "a string";
        case nlohmann::json::value_t::boolean:
            return "a boolean";
        case nlohmann::json::value_t::number_float:
            return "a fractional number";
        case nlohmann::json::value_t::number_integer:
        case nlohmann::json::value_t::number_unsigned:
            return "an integer";
        default:
            return "binary data";
    }
}

bool fits(const nlohmann::json& value, Kind kind) {
    switch (kind) {
        case Kind::text:
            return value.is_string();
        case Kind::boolean:
            return value.is_boolean();
        case Kind::integer:
            return value.is_number_integer();
        case Kind::textList:
            return value.is_array();  // the members are checked one by one
        case Kind::object:
            return value.is_object();
    }
    return false;
}

// The primary section, around "parameters".
const std::vector<Key> kPrimary = {
    {"actorId", Kind::text, true},     {"channel", Kind::text, true},
    {"sync", Kind::text, true},        {"journeys", Kind::textList, true},
    {"requestId", Kind::text, true},   {"name", Kind::text, true},
    {"isActive", Kind::boolean, true}, {"parameters", Kind::object, true},
};

// "loggedIn" and the conversion, device, location and SDK sections, in every body.
const std::vector<Key> kSections = {
    {"loggedIn", Kind::boolean, true},
    {"conversionCommunicationCode", Kind::text, false},
    {"battery", Kind::text, false},
    {"networkStatus", Kind::text, false},
    {"freeDisk", Kind::text, false},
    {"totalDisk", Kind::text, false},
    {"deviceId", Kind::text, true},
    {"deviceOs", Kind::text, true},
    {"phoneBrand", Kind::text, true},
    {"phoneModel", Kind::text, true},
    {"timeZone", Kind::text, true},
    {"deviceOsVersion", Kind::text, true},
    {"timestamp", Kind::integer, true},
    {"notificationPermissionStatus", Kind::text, false},
    {"longitude", Kind::text, false},
    {"latitude", Kind::text, false},
    {"sdkVersion", Kind::text, true},
    {"applicationName", Kind::text, true},
    {"pushToken", Kind::text, false},
    {"apnsToken", Kind::text, false},
};

struct Shape {
    std::vector<Key> own;
    /// Custom and login events carry the host's own parameters besides.
    bool hostKeys = false;
    /// The required value of "parameters"."eventType", when the event has one.
    const char* eventType = nullptr;
};

const std::vector<Key> kInApp = {
    {"communicationCode", Kind::text, true}, {"communicationTemplate", Kind::text, true},
    {"communicationName", Kind::text, true}, {"communicationId", Kind::text, true},
    {"pageName", Kind::text, false},         {"conversionEvent", Kind::text, false},
};

std::vector<Key> withButton(std::vector<Key> keys) {
    keys.push_back({"buttonId", Kind::text, false});
    keys.push_back({"buttonText", Kind::text, false});
    return keys;
}

Shape push(const char* eventType) {
    return {{{"eventType", Kind::text, true},
             {"buttonId", Kind::text, false},
             {"buttonText", Kind::text, false},
             {"customApplicationName", Kind::text, false},
             {"conversionEvent", Kind::text, false},
             {"code", Kind::text, true},
             {"communicationId", Kind::text, true},
             {"pushTokenForNotification", Kind::text, true}},
            false,
            eventType};
}

const std::map<std::string, Shape>& shapes() {
    static const std::map<std::string, Shape> table = {
        {"page_in", {{{"eventType", Kind::text, true}, {"pageName", Kind::text, false}}, false,
                     "page_in"}},
        {"page_out", {{{"eventType", Kind::text, true}, {"pageName", Kind::text, false}}, false,
                      "page_out"}},
        {"app_background", {{{"pageName", Kind::text, false}}}},
        {"app_foreground", {{{"pageName", Kind::text, false}}}},
        {"sdk_initialize", {}},
        {"logout", {}},
        {"actor_change", {{{"newActorId", Kind::text, true}}}},
        {"install",
         {{{"anonymous", Kind::boolean, true}, {"configurationActorId", Kind::text, false}}}},
        {"application_error",
         {{{"errorMessage", Kind::text, true}, {"errorType", Kind::text, true}}}},
        {"push_token_change", {{{"tokenProvider", Kind::text, true}}}},
        {"in_app_opened", {kInApp}},
        {"in_app_dismissed", {kInApp}},
        {"in_app_self_clicked", {kInApp}},
        {"in_app_button_clicked", {withButton(kInApp)}},
        {"push_notification_clicked", push("onBodyClick")},
        {"push_notification_dismissed", push("onDismiss")},
        {"push_notification_received", push("received")},
        {"push_notificition_denied", push("denied")},
        {"login",
         {{{"pageName", Kind::text, false}, {"controller", Kind::text, false}}, true}},
    };
    return table;
}

const Shape& customShape() {
    static const Shape shape{
        {{"pageName", Kind::text, false}, {"controller", Kind::text, false}}, true};
    return shape;
}

class Checker {
  public:
    std::vector<BodyProblem> problems;

    void add(std::string path, std::string message) {
        problems.push_back({std::move(path), std::move(message)});
    }

    /// Checks `keys` of `object` (at `prefix`); returns the names it knows.
    void keys(const nlohmann::json& object, const std::string& prefix, const std::vector<Key>& list,
              std::set<std::string>& known) {
        for (const Key& key : list) {
            known.insert(key.name);
            std::string path = prefix + key.name;
            auto it = object.find(key.name);
            if (it == object.end()) {
                if (key.required) {
                    add(path, std::string("missing (") + kindName(key.kind) + ")");
                }
                continue;
            }
            if (!fits(*it, key.kind)) {
                add(path, found(*it) + ", expected " + kindName(key.kind));
                continue;
            }
            if (key.kind == Kind::textList) {
                for (std::size_t i = 0; i < it->size(); ++i) {
                    if (!(*it)[i].is_string()) {
                        add(path + "[" + std::to_string(i) + "]",
                            found((*it)[i]) + ", expected a string");
                    }
                }
            }
        }
    }

    void value(const nlohmann::json& object, const std::string& prefix, const char* key,
               const std::string& expected) {
        auto it = object.find(key);
        if (it != object.end() && it->is_string() && *it != expected) {
            add(prefix + key, "\"" + it->get<std::string>() + "\", expected \"" + expected + "\"");
        }
    }

    void together(const nlohmann::json& object, const char* a, const char* b) {
        bool hasA = object.contains(a);
        if (hasA != object.contains(b)) {
            add(std::string("parameters.") + (hasA ? b : a),
                std::string("missing (sent together with \"") + (hasA ? a : b) + "\")");
        }
    }

    void extras(const nlohmann::json& object, const std::string& prefix,
                const std::set<std::string>& known, const std::string& event) {
        for (const auto& [key, member] : object.items()) {
            if (!known.count(key)) {
                add(prefix + key, "not sent by the library" +
                                      (event.empty() ? std::string() : " for \"" + event + "\""));
            }
        }
    }
};

}  // namespace

std::string BodyProblem::text() const {
    return path.empty() ? message : path + ": " + message;
}

std::vector<BodyProblem> checkEventBody(const nlohmann::json& body) {
    Checker check;
    if (!body.is_object()) {
        check.add("", found(body) + ", expected an object");
        return check.problems;
    }
    std::set<std::string> known;
    check.keys(body, "", kPrimary, known);
    check.extras(body, "", known, "");
    check.value(body, "", "channel", "MOBILE");
    auto isActive = body.find("isActive");
    if (isActive != body.end() && isActive->is_boolean() && !isActive->get<bool>()) {
        check.add("isActive", "false, expected true");
    }

    std::string name;
    auto nameIt = body.find("name");
    if (nameIt != body.end() && nameIt->is_string()) {
        name = nameIt->get<std::string>();
    }
    auto shapeIt = shapes().find(name);
    const Shape& shape = shapeIt != shapes().end() ? shapeIt->second : customShape();
    if (name.empty() && nameIt != body.end() && nameIt->is_string()) {
        check.add("name", "empty");
    }

    auto parameters = body.find("parameters");
    if (parameters == body.end() || !parameters->is_object()) {
        return check.problems;
    }
    const std::string prefix = "parameters.";
    std::set<std::string> knownParameters;
    check.keys(*parameters, prefix, kSections, knownParameters);
    check.keys(*parameters, prefix, shape.own, knownParameters);
    if (!shape.hostKeys) {
        check.extras(*parameters, prefix, knownParameters, name);
    }
    check.value(*parameters, prefix, "deviceOs", "IOS");
    check.value(*parameters, prefix, "phoneBrand", "Apple");
    if (shape.eventType) {
        check.value(*parameters, prefix, "eventType", shape.eventType);
    }
    if (name == "push_token_change") {
        auto provider = parameters->find("tokenProvider");
        if (provider != parameters->end() && provider->is_string() && *provider != "apns" &&
            *provider != "firebase") {
            check.add(prefix + "tokenProvider",
                      "\"" + provider->get<std::string>() + "\", expected \"apns\" or \"firebase\"");
        }
    }
    auto timestamp = parameters->find("timestamp");
    if (timestamp != parameters->end() && timestamp->is_number_integer() &&
        timestamp->get<std::int64_t>() < 0) {
        check.add(prefix + "timestamp", "negative, expected milliseconds since 1970");
    }
    check.together(*parameters, "freeDisk", "totalDisk");
    check.together(*parameters, "longitude", "latitude");
    return check.problems;
}

std::vector<BodyProblem> checkEventText(std::string_view text) {
    auto body = nlohmann::json::parse(text, nullptr, false);
    if (body.is_discarded()) {
        return {{"", "not JSON"}};
    }
    return checkEventBody(body);
}

}  // namespace tarn::devserver
