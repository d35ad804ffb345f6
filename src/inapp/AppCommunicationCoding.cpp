// The wire coding of the in-app records, both ways: strict readers with a failure path that names
// the offending value, then encoding through one field list per record for two sinks (a JSON value
// and JSON text). It is one idea, each record's wire keys and types, and stays one file, longer
// than most, so that a field is added to its reader and to its field list side by side and the
// round trip (decoding what was encoded gives the record back) is kept in one place.

#include "tarn/inapp/AppCommunicationCoding.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "base/InputSafety.h"

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
        error.debugDescription = excerpt(e.what(), 160);
        return error;
    }
}

namespace {

/// The JSON parser's message with the token it quotes ("last read: '...'") cut to an excerpt: the
/// token may be a whole string value of any length.
std::string parserMessage(std::string_view message) {
    constexpr std::string_view marker = "; last read: '";
    auto at = message.find(marker);
    if (at == std::string_view::npos) {
        return excerpt(message, 4 * kMaxQuotedBytes);
    }
    auto token = message.substr(at + marker.size());
    if (!token.empty() && token.back() == '\'') {
        token.remove_suffix(1);
    }
    return excerpt(message.substr(0, at + marker.size()), 4 * kMaxQuotedBytes) + excerpt(token) +
           "'";
}

}  // namespace

template <typename T>
DecodeResult<T> decode(std::string_view text) {
    json document;
    if (jsonNestingExceeds(text)) {
        DecodingError error;
        error.kind = DecodingError::Kind::dataCorrupted;
        error.debugDescription =
            "The given data was not valid JSON (arrays and objects nested more "
            "than " +
            std::to_string(kMaxNestingDepth) + " deep).";
        return error;
    }
    try {
        document = json::parse(text.begin(), text.end());
    } catch (const std::exception& e) {
        // The parser's message quotes the offending token whole, however long; quote a part.
        DecodingError error;
        error.kind = DecodingError::Kind::dataCorrupted;
        error.debugDescription =
            std::string("The given data was not valid JSON (") + parserMessage(e.what()) + ").";
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

// Encoding. Each record lists its fields once, in `visit`, for a sink that either builds a JSON
// value (`ValueSink`, for `to_json`) or writes JSON text directly (`TextSink`, for `encode`, which
// saves building a JSON value first).

namespace {

template <typename Sink>
void visit(Sink& s, const AppCommunicationAction& v) {
    s.optional("link", v.link);
    s.optional("type", v.type);
}

template <typename Sink>
void visit(Sink& s, const AppCommunicationButton& v) {
    s.optional("_id", v.id);
    s.optional("text", v.text);
    s.optional("textColor", v.textColor);
    s.optional("color", v.color);
    s.optional("action", v.action);
}

template <typename Sink>
void visit(Sink& s, const AppCommunicationHeader& v) {
    s.required("text", v.text);
    s.required("color", v.color);
}

template <typename Sink>
void visit(Sink& s, const AppCommunicationImage& v) {
    s.optional("url", v.url);
}

template <typename Sink>
void visit(Sink& s, const SubInAppCommunication& v) {
    s.optional("template", v.templateType);
    s.optional("surveyCode", v.surveyCode);
    s.optional("link", v.link);
    s.optional("buttons", v.buttons);
    s.optional("action", v.action);
}

template <typename Sink>
void visit(Sink& s, const AppCommunicationItem& v) {
    s.required("uuid", v.uuid);
    s.required("code", v.code);
    s.optional("journey", v.journey);
    s.required("name", v.name);
    s.required("expireDate", v.expireDate);
    s.required("template", v.templateType);
    s.required("triggeringEventName", v.triggeringEventName);
    s.required("title", v.title);
    s.required("body", v.body);
    s.optional("images", v.images);
    s.required("maxShowCount", v.maxShowCount);
    s.required("bgColor", v.bgColor);
    s.required("subInAppCommunication", v.subInAppCommunication);
    s.optional("journeyVersion", v.journeyVersion);
    s.optional("conversionEvent", v.conversionEvent);
}

template <typename Sink>
void visit(Sink& s, const AppCommunicationConfiguration& v) {
    s.optional("blockAllEvents", v.blockAllEvents);
    s.optional("offlineQueueSize", v.offlineQueueSize);
    s.optional("inAppMaxShowDuration", v.inAppMaxShowDuration);
    s.optional("batteryEnabled", v.batteryEnabled);
    s.optional("wifiStatusEnabled", v.wifiStatusEnabled);
    s.optional("diskCapacityEnabled", v.diskCapacityEnabled);
    s.optional("locationEnabled", v.locationEnabled);
    s.optional("apiRequestRetryCount", v.apiRequestRetryCount);
    s.optional("apiRequestTimeout", v.apiRequestTimeout);
    s.optional("eventQueueDelay", v.eventQueueDelay);
    s.optional("conversionTimeout", v.conversionTimeout);
}

template <typename Sink>
void visit(Sink& s, const AppCommunication& v) {
    s.optional("inAppCommunicationCommands", v.model);
    s.optional("configuration", v.configuration);
}

template <typename Sink>
void visit(Sink& s, const NotificationAppCommunicationItem& v) {
    s.required("uuid", v.uuid);
    s.optional("code", v.code);
    s.optional("actorId", v.actorId);
    s.optional("pushToken", v.pushToken);
    s.optional("title", v.title);
    s.optional("message", v.message);
    s.optional("image", v.image);
    s.optional("buttons", v.buttons);
    s.optional("applicationName", v.applicationName);
    s.optional("journey", v.journey);
    s.optional("action", v.action);
    s.optional("images", v.images);
    s.optional("sliderSupport", v.sliderSupport);
    s.optional("category", v.category);
    s.optional("conversionEvent", v.conversionEvent);
}

struct ValueSink {
    json& out;

    template <typename T>
    void required(const char* key, const T& value) {
        out[key] = value;
    }
    template <typename T>
    void optional(const char* key, const std::optional<T>& value) {
        if (value) {
            out[key] = *value;
        }
    }
};

template <typename T>
void toValue(json& out, const T& value) {
    out = json::object();
    ValueSink sink{out};
    visit(sink, value);
}

// Writes JSON text the way nlohmann-json's compact dump does, with keys in field order.
class TextSink {
  public:
    explicit TextSink(std::string& out) : out_(out) {}

    template <typename T>
    void required(const char* key, const T& value) {
        if (!first_) {
            out_ += ',';
        }
        first_ = false;
        writeString(out_, key);
        out_ += ':';
        write(out_, value);
    }
    template <typename T>
    void optional(const char* key, const std::optional<T>& value) {
        if (value) {
            required(key, *value);
        }
    }

    static void write(std::string& out, const std::string& value) { writeString(out, value); }
    static void write(std::string& out, std::int64_t value) {
        char buffer[24];
        auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
        out.append(buffer, end);
    }
    static void write(std::string& out, double value) {
        if (!std::isfinite(value)) {
            out += "null";  // JSON has no infinities or NaN
            return;
        }
        char buffer[32];
        auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
        std::string_view text(buffer, static_cast<std::size_t>(end - buffer));
        out += text;
        if (text.find_first_of(".e") == std::string_view::npos) {
            out += ".0";  // keep it a floating-point number, as the value was one
        }
    }
    static void write(std::string& out, bool value) { out += value ? "true" : "false"; }
    static void write(std::string& out, InAppType value) { writeString(out, rawValue(value)); }
    static void write(std::string& out, TarnActionType value) { writeString(out, rawValue(value)); }
    template <typename T>
    static void write(std::string& out, const std::vector<T>& values) {
        out += '[';
        bool first = true;
        for (const auto& value : values) {
            if (!first) {
                out += ',';
            }
            first = false;
            write(out, value);
        }
        out += ']';
    }
    template <typename T>
    static auto write(std::string& out, const T& record)
        -> decltype(visit(std::declval<TextSink&>(), record)) {
        out += '{';
        TextSink sink(out);
        visit(sink, record);
        out += '}';
    }

  private:
    static bool isValidUtf8(std::string_view text) {
        std::size_t i = 0;
        while (i < text.size()) {
            auto c = static_cast<unsigned char>(text[i]);
            if (c < 0x80) {
                ++i;
                continue;
            }
            std::size_t length;
            std::uint32_t point;
            if ((c & 0xE0) == 0xC0) {
                length = 2;
                point = c & 0x1F;
            } else if ((c & 0xF0) == 0xE0) {
                length = 3;
                point = c & 0x0F;
            } else if ((c & 0xF8) == 0xF0) {
                length = 4;
                point = c & 0x07;
            } else {
                return false;
            }
            if (i + length > text.size()) {
                return false;
            }
            for (std::size_t k = 1; k < length; ++k) {
                auto next = static_cast<unsigned char>(text[i + k]);
                if ((next & 0xC0) != 0x80) {
                    return false;
                }
                point = (point << 6) | (next & 0x3F);
            }
            static constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
            if (point < smallest[length] || point > 0x10FFFF ||
                (point >= 0xD800 && point <= 0xDFFF)) {
                return false;
            }
            i += length;
        }
        return true;
    }

    static void writeString(std::string& out, std::string_view text) {
        if (!isValidUtf8(text)) {
            // Rare (records built by hand): let nlohmann-json replace the bad bytes with U+FFFD.
            out += json(std::string(text)).dump(-1, ' ', false, json::error_handler_t::replace);
            return;
        }
        static constexpr char hex[] = "0123456789abcdef";
        out += '"';
        for (char ch : text) {
            auto c = static_cast<unsigned char>(ch);
            switch (ch) {
                case '"':
                    out += "\\\"";
                    break;
                case '\\':
                    out += "\\\\";
                    break;
                case '\b':
                    out += "\\b";
                    break;
                case '\f':
                    out += "\\f";
                    break;
                case '\n':
                    out += "\\n";
                    break;
                case '\r':
                    out += "\\r";
                    break;
                case '\t':
                    out += "\\t";
                    break;
                default:
                    if (c < 0x20) {
                        out += "\\u00";
                        out += hex[c >> 4];
                        out += hex[c & 0xF];
                    } else {
                        out += ch;
                    }
            }
        }
        out += '"';
    }

    std::string& out_;
    bool first_ = true;
};

}  // namespace

void to_json(json& out, InAppType value) {
    out = rawValue(value);
}
void to_json(json& out, TarnActionType value) {
    out = rawValue(value);
}
void to_json(json& out, const AppCommunicationAction& value) {
    toValue(out, value);
}
void to_json(json& out, const AppCommunicationButton& value) {
    toValue(out, value);
}
void to_json(json& out, const AppCommunicationHeader& value) {
    toValue(out, value);
}
void to_json(json& out, const AppCommunicationImage& value) {
    toValue(out, value);
}
void to_json(json& out, const SubInAppCommunication& value) {
    toValue(out, value);
}
void to_json(json& out, const AppCommunicationItem& value) {
    toValue(out, value);
}
void to_json(json& out, const AppCommunicationConfiguration& value) {
    toValue(out, value);
}
void to_json(json& out, const AppCommunication& value) {
    toValue(out, value);
}
void to_json(json& out, const NotificationAppCommunicationItem& value) {
    toValue(out, value);
}

json toJson(const AppCommunicationItem& item) {
    return item;
}

json toJson(const AppCommunicationButton& button) {
    return button;
}

template <typename T>
std::string encode(const T& value) {
    std::string out;
    TextSink::write(out, value);
    return out;
}

template std::string encode(const AppCommunication&);
template std::string encode(const AppCommunicationConfiguration&);
template std::string encode(const AppCommunicationItem&);
template std::string encode(const AppCommunicationHeader&);
template std::string encode(const AppCommunicationImage&);
template std::string encode(const SubInAppCommunication&);
template std::string encode(const AppCommunicationButton&);
template std::string encode(const AppCommunicationAction&);
template std::string encode(const NotificationAppCommunicationItem&);
template std::string encode(const InAppType&);
template std::string encode(const TarnActionType&);

}  // namespace tarn
