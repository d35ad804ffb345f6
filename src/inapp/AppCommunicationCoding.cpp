#include "tarn/inapp/AppCommunicationCoding.h"

#include <cmath>
#include <limits>
#include <optional>
#include <vector>

namespace tarn {

using nlohmann::json;

const char* rawValue(InAppType type) {
    switch (type) {
        case InAppType::popup:
            return "POPUP";
        case InAppType::survey:
            return "SURVEY";
        case InAppType::unknown:
            break;
    }
    return "unknown";
}

const char* rawValue(TarnActionType type) {
    switch (type) {
        case TarnActionType::deep:
            return "deep";
        case TarnActionType::url:
            return "url";
        case TarnActionType::unknown:
            break;
    }
    return "unknown";
}

InAppType inAppTypeFromRawValue(std::string_view raw) {
    if (raw == "POPUP") {
        return InAppType::popup;
    }
    if (raw == "SURVEY") {
        return InAppType::survey;
    }
    return InAppType::unknown;
}

TarnActionType tarnActionTypeFromRawValue(std::string_view raw) {
    if (raw == "deep") {
        return TarnActionType::deep;
    }
    if (raw == "url") {
        return TarnActionType::url;
    }
    return TarnActionType::unknown;
}

std::string DecodingError::localizedDescription() const {
    std::string text = "The data couldn't be read";
    switch (kind) {
        case Kind::dataCorrupted:
            text += " because it isn't in the correct format";
            break;
        case Kind::keyNotFound:
            text += " because it is missing";
            break;
        case Kind::valueNotFound:
        case Kind::typeMismatch:
            break;
    }
    text += ": ";
    text += codingPath.empty() ? std::string("(document root)") : codingPath;
    text += ": ";
    text += debugDescription;
    return text;
}

namespace {

// The path of the value being decoded, kept as a chain of stack frames; it is turned into text
// only when decoding fails, so the successful path allocates nothing for it.
struct Path {
    const Path* parent = nullptr;
    std::string_view key;
    std::size_t index = 0;
    bool isIndex = false;

    Path child(std::string_view name) const { return Path{this, name, 0, false}; }
    Path element(std::size_t i) const { return Path{this, {}, i, true}; }
};

void appendPath(std::string& out, const Path* path) {
    if (path == nullptr || path->parent == nullptr) {
        return;  // the root frame names nothing
    }
    appendPath(out, path->parent);
    if (path->isIndex) {
        out += '[';
        out += std::to_string(path->index);
        out += ']';
    } else {
        if (!out.empty()) {
            out += '.';
        }
        out += path->key;
    }
}

// Thrown inside this file only; every entry point catches it.
struct Failure {
    DecodingError error;
};

[[noreturn]] void fail(DecodingError::Kind kind, const Path& path, std::string description) {
    DecodingError error;
    error.kind = kind;
    appendPath(error.codingPath, &path);
    error.debugDescription = std::move(description);
    throw Failure{std::move(error)};
}

const char* describe(const json& value) {
    switch (value.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return "a bool";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
        case json::value_t::number_float:
            return "a number";
        case json::value_t::string:
            return "a string";
        case json::value_t::array:
            return "an array";
        case json::value_t::object:
            return "an object";
        case json::value_t::binary:
        case json::value_t::discarded:
            break;
    }
    return "an unsupported value";
}

[[noreturn]] void mismatch(const char* expected, const json& value, const Path& path) {
    fail(DecodingError::Kind::typeMismatch, path,
         std::string("Expected ") + expected + " but found " + describe(value) + ".");
}

// Readers of single values. Each gets a non-null value (null is handled by the field lookup).

std::string readString(const json& value, const Path& path) {
    if (!value.is_string()) {
        mismatch("a string", value, path);
    }
    return value.get_ref<const std::string&>();
}

bool readBool(const json& value, const Path& path) {
    if (!value.is_boolean()) {
        mismatch("a bool", value, path);
    }
    return value.get<bool>();
}

std::int64_t readInt(const json& value, const Path& path) {
    switch (value.type()) {
        case json::value_t::number_integer:
            return value.get<std::int64_t>();
        case json::value_t::number_unsigned: {
            auto number = value.get<std::uint64_t>();
            if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                fail(DecodingError::Kind::typeMismatch, path,
                     "Number " + std::to_string(number) + " does not fit in a 64-bit integer.");
            }
            return static_cast<std::int64_t>(number);
        }
        case json::value_t::number_float: {
            double number = value.get<double>();
            // 2^63 is exactly representable; anything from it upwards does not fit.
            if (std::trunc(number) != number || number < -9223372036854775808.0 ||
                number >= 9223372036854775808.0) {
                fail(DecodingError::Kind::typeMismatch, path,
                     "Number " + value.dump() + " is not a 64-bit integer.");
            }
            return static_cast<std::int64_t>(number);
        }
        default:
            mismatch("an integer", value, path);
    }
}

double readNumber(const json& value, const Path& path) {
    if (!value.is_number()) {
        mismatch("a number", value, path);
    }
    return value.get<double>();
}

// Enumerations never fail: anything but an exactly spelled wire string is `unknown`.
InAppType readInAppType(const json& value, const Path&) {
    return value.is_string() ? inAppTypeFromRawValue(value.get_ref<const std::string&>())
                             : InAppType::unknown;
}

TarnActionType readActionType(const json& value, const Path&) {
    return value.is_string() ? tarnActionTypeFromRawValue(value.get_ref<const std::string&>())
                             : TarnActionType::unknown;
}

template <typename Read>
auto readArray(const json& value, const Path& path, Read read) {
    using Element = decltype(read(value, path));
    if (!value.is_array()) {
        mismatch("an array", value, path);
    }
    std::vector<Element> result;
    result.reserve(value.size());
    std::size_t i = 0;
    for (const auto& element : value) {
        Path at = path.element(i++);
        if (element.is_null()) {
            fail(DecodingError::Kind::valueNotFound, at, "Expected a value but found null.");
        }
        result.push_back(read(element, at));
    }
    return result;
}

// Field lookup in one JSON object.
class Fields {
  public:
    Fields(const json& value, const Path& path) : object_(value), path_(path) {
        if (!value.is_object()) {
            mismatch("an object", value, path);
        }
    }

    template <typename Read>
    auto required(std::string_view key, Read read) const {
        Path at = path_.child(key);
        auto it = object_.find(key);
        if (it == object_.end()) {
            fail(DecodingError::Kind::keyNotFound, at,
                 "No value associated with key \"" + std::string(key) + "\".");
        }
        if (it->is_null()) {
            fail(DecodingError::Kind::valueNotFound, at, "Expected a value but found null.");
        }
        return read(*it, at);
    }

    template <typename Read>
    auto optional(std::string_view key, Read read) const
        -> std::optional<decltype(read(std::declval<const json&>(), std::declval<const Path&>()))> {
        auto it = object_.find(key);
        if (it == object_.end() || it->is_null()) {
            return std::nullopt;
        }
        return read(*it, path_.child(key));
    }

    /// A required enumeration: the key must be there, its value may be anything (null included).
    template <typename Read>
    auto requiredEnum(std::string_view key, Read read) const {
        Path at = path_.child(key);
        auto it = object_.find(key);
        if (it == object_.end()) {
            fail(DecodingError::Kind::keyNotFound, at,
                 "No value associated with key \"" + std::string(key) + "\".");
        }
        return read(*it, at);
    }

  private:
    const json& object_;
    const Path& path_;
};

template <typename Read>
auto arrayOf(Read read) {
    return [read](const json& value, const Path& path) { return readArray(value, path, read); };
}

AppCommunicationAction readAction(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunicationAction action;
    action.link = f.optional("link", readString);
    action.type = f.optional("type", readActionType);
    return action;
}

AppCommunicationButton readButton(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunicationButton button;
    button.id = f.optional("_id", readString);
    button.text = f.optional("text", readString);
    button.textColor = f.optional("textColor", readString);
    button.color = f.optional("color", readString);
    button.action = f.optional("action", readAction);
    return button;
}

AppCommunicationHeader readHeader(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunicationHeader header;
    header.text = f.required("text", readString);
    header.color = f.required("color", readString);
    return header;
}

AppCommunicationImage readImage(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunicationImage image;
    image.url = f.optional("url", readString);
    return image;
}

SubInAppCommunication readSub(const json& value, const Path& path) {
    Fields f(value, path);
    SubInAppCommunication sub;
    sub.templateType = f.optional("template", readInAppType);
    sub.surveyCode = f.optional("surveyCode", readString);
    sub.link = f.optional("link", readString);
    sub.buttons = f.optional("buttons", arrayOf(readButton));
    sub.action = f.optional("action", readAction);
    return sub;
}

AppCommunicationItem readItem(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunicationItem item;
    item.uuid = f.required("uuid", readString);
    item.code = f.required("code", readString);
    item.journey = f.optional("journey", readString);
    item.name = f.required("name", readString);
    item.expireDate = f.required("expireDate", readInt);
    item.templateType = f.requiredEnum("template", readInAppType);
    item.triggeringEventName = f.required("triggeringEventName", readString);
    item.title = f.required("title", readHeader);
    item.body = f.required("body", readHeader);
    item.images = f.optional("images", arrayOf(readImage));
    item.maxShowCount = f.required("maxShowCount", readInt);
    item.bgColor = f.required("bgColor", readString);
    item.subInAppCommunication = f.required("subInAppCommunication", readSub);
    item.journeyVersion = f.optional("journeyVersion", readInt);
    item.conversionEvent = f.optional("conversionEvent", readString);
    return item;
}

AppCommunicationConfiguration readConfiguration(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunicationConfiguration c;
    c.blockAllEvents = f.optional("blockAllEvents", readBool);
    c.offlineQueueSize = f.optional("offlineQueueSize", readInt);
    c.inAppMaxShowDuration = f.optional("inAppMaxShowDuration", readInt);
    c.batteryEnabled = f.optional("batteryEnabled", readBool);
    c.wifiStatusEnabled = f.optional("wifiStatusEnabled", readBool);
    c.diskCapacityEnabled = f.optional("diskCapacityEnabled", readBool);
    c.locationEnabled = f.optional("locationEnabled", readBool);
    c.apiRequestRetryCount = f.optional("apiRequestRetryCount", readInt);
    c.apiRequestTimeout = f.optional("apiRequestTimeout", readInt);
    c.eventQueueDelay = f.optional("eventQueueDelay", readNumber);
    c.conversionTimeout = f.optional("conversionTimeout", readInt);
    return c;
}

AppCommunication readAppCommunication(const json& value, const Path& path) {
    Fields f(value, path);
    AppCommunication answer;
    answer.model = f.optional("inAppCommunicationCommands", arrayOf(readItem));
    answer.configuration = f.optional("configuration", readConfiguration);
    return answer;
}

NotificationAppCommunicationItem readNotificationItem(const json& value, const Path& path) {
    Fields f(value, path);
    NotificationAppCommunicationItem item;
    item.uuid = f.required("uuid", readString);
    item.code = f.optional("code", readString);
    item.actorId = f.optional("actorId", readString);
    item.pushToken = f.optional("pushToken", readString);
    item.title = f.optional("title", readString);
    item.message = f.optional("message", readString);
    item.image = f.optional("image", readString);
    item.buttons = f.optional("buttons", arrayOf(readButton));
    item.applicationName = f.optional("applicationName", readString);
    item.journey = f.optional("journey", readString);
    item.action = f.optional("action", readAction);
    item.images = f.optional("images", arrayOf(readImage));
    item.sliderSupport = f.optional("sliderSupport", readBool);
    item.category = f.optional("category", readString);
    item.conversionEvent = f.optional("conversionEvent", readString);
    return item;
}

// The reader of each public type; a top-level null is a missing value, except for the
// enumerations, which take anything.
template <typename T>
struct Reader;
template <>
struct Reader<AppCommunication> {
    static constexpr auto read = readAppCommunication;
};
template <>
struct Reader<AppCommunicationConfiguration> {
    static constexpr auto read = readConfiguration;
};
template <>
struct Reader<AppCommunicationItem> {
    static constexpr auto read = readItem;
};
template <>
struct Reader<AppCommunicationHeader> {
    static constexpr auto read = readHeader;
};
template <>
struct Reader<AppCommunicationImage> {
    static constexpr auto read = readImage;
};
template <>
struct Reader<SubInAppCommunication> {
    static constexpr auto read = readSub;
};
template <>
struct Reader<AppCommunicationButton> {
    static constexpr auto read = readButton;
};
template <>
struct Reader<AppCommunicationAction> {
    static constexpr auto read = readAction;
};
template <>
struct Reader<NotificationAppCommunicationItem> {
    static constexpr auto read = readNotificationItem;
};
template <>
struct Reader<InAppType> {
    static constexpr auto read = readInAppType;
};
template <>
struct Reader<TarnActionType> {
    static constexpr auto read = readActionType;
};

template <typename T>
constexpr bool isEnumeration = std::is_enum_v<T>;

}  // namespace

template <typename T>
DecodeResult<T> decodeJson(const json& document) {
    Path root;
    try {
        if constexpr (!isEnumeration<T>) {
            if (document.is_null()) {
                fail(DecodingError::Kind::valueNotFound, root, "Expected a value but found null.");
            }
        }
        return Reader<T>::read(document, root);
    } catch (Failure& failure) {
        return std::move(failure.error);
    } catch (const std::exception& e) {
        // Not expected from the readers; kept so that nothing escapes to the caller.
        DecodingError error;
        error.kind = DecodingError::Kind::dataCorrupted;
        error.debugDescription = e.what();
        return error;
    }
}

template <typename T>
DecodeResult<T> decode(std::string_view text) {
    json document;
    try {
        document = json::parse(text.begin(), text.end());
    } catch (const std::exception& e) {
        DecodingError error;
        error.kind = DecodingError::Kind::dataCorrupted;
        error.debugDescription =
            std::string("The given data was not valid JSON (") + e.what() + ").";
        return error;
    }
    return decodeJson<T>(document);
}

#define TARN_DECODABLE(Type)                                         \
    template DecodeResult<Type> decode<Type>(std::string_view text); \
    template DecodeResult<Type> decodeJson<Type>(const json& document);

TARN_DECODABLE(AppCommunication)
TARN_DECODABLE(AppCommunicationConfiguration)
TARN_DECODABLE(AppCommunicationItem)
TARN_DECODABLE(AppCommunicationHeader)
TARN_DECODABLE(AppCommunicationImage)
TARN_DECODABLE(SubInAppCommunication)
TARN_DECODABLE(AppCommunicationButton)
TARN_DECODABLE(AppCommunicationAction)
TARN_DECODABLE(NotificationAppCommunicationItem)
TARN_DECODABLE(InAppType)
TARN_DECODABLE(TarnActionType)

#undef TARN_DECODABLE

// Encoding.

namespace {

template <typename T>
void put(json& object, const char* key, const std::optional<T>& value) {
    if (value) {
        object[key] = *value;
    }
}

}  // namespace

void to_json(json& out, InAppType value) {
    out = rawValue(value);
}

void to_json(json& out, TarnActionType value) {
    out = rawValue(value);
}

void to_json(json& out, const AppCommunicationAction& value) {
    out = json::object();
    put(out, "link", value.link);
    put(out, "type", value.type);
}

void to_json(json& out, const AppCommunicationButton& value) {
    out = json::object();
    put(out, "_id", value.id);
    put(out, "text", value.text);
    put(out, "textColor", value.textColor);
    put(out, "color", value.color);
    put(out, "action", value.action);
}

void to_json(json& out, const AppCommunicationHeader& value) {
    out = json::object();
    out["text"] = value.text;
    out["color"] = value.color;
}

void to_json(json& out, const AppCommunicationImage& value) {
    out = json::object();
    put(out, "url", value.url);
}

void to_json(json& out, const SubInAppCommunication& value) {
    out = json::object();
    put(out, "template", value.templateType);
    put(out, "surveyCode", value.surveyCode);
    put(out, "link", value.link);
    put(out, "buttons", value.buttons);
    put(out, "action", value.action);
}

void to_json(json& out, const AppCommunicationItem& value) {
    out = json::object();
    out["uuid"] = value.uuid;
    out["code"] = value.code;
    put(out, "journey", value.journey);
    out["name"] = value.name;
    out["expireDate"] = value.expireDate;
    out["template"] = value.templateType;
    out["triggeringEventName"] = value.triggeringEventName;
    out["title"] = value.title;
    out["body"] = value.body;
    put(out, "images", value.images);
    out["maxShowCount"] = value.maxShowCount;
    out["bgColor"] = value.bgColor;
    out["subInAppCommunication"] = value.subInAppCommunication;
    put(out, "journeyVersion", value.journeyVersion);
    put(out, "conversionEvent", value.conversionEvent);
}

void to_json(json& out, const AppCommunicationConfiguration& value) {
    out = json::object();
    put(out, "blockAllEvents", value.blockAllEvents);
    put(out, "offlineQueueSize", value.offlineQueueSize);
    put(out, "inAppMaxShowDuration", value.inAppMaxShowDuration);
    put(out, "batteryEnabled", value.batteryEnabled);
    put(out, "wifiStatusEnabled", value.wifiStatusEnabled);
    put(out, "diskCapacityEnabled", value.diskCapacityEnabled);
    put(out, "locationEnabled", value.locationEnabled);
    put(out, "apiRequestRetryCount", value.apiRequestRetryCount);
    put(out, "apiRequestTimeout", value.apiRequestTimeout);
    put(out, "eventQueueDelay", value.eventQueueDelay);
    put(out, "conversionTimeout", value.conversionTimeout);
}

void to_json(json& out, const AppCommunication& value) {
    out = json::object();
    put(out, "inAppCommunicationCommands", value.model);
    put(out, "configuration", value.configuration);
}

void to_json(json& out, const NotificationAppCommunicationItem& value) {
    out = json::object();
    out["uuid"] = value.uuid;
    put(out, "code", value.code);
    put(out, "actorId", value.actorId);
    put(out, "pushToken", value.pushToken);
    put(out, "title", value.title);
    put(out, "message", value.message);
    put(out, "image", value.image);
    put(out, "buttons", value.buttons);
    put(out, "applicationName", value.applicationName);
    put(out, "journey", value.journey);
    put(out, "action", value.action);
    put(out, "images", value.images);
    put(out, "sliderSupport", value.sliderSupport);
    put(out, "category", value.category);
    put(out, "conversionEvent", value.conversionEvent);
}

json toJson(const AppCommunicationItem& item) {
    return item;
}

json toJson(const AppCommunicationButton& button) {
    return button;
}

}  // namespace tarn
