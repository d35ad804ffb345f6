#include "tarn/events/EventRecords.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>

#include "device/KernelAnnouncements.h"
#include "tarn/config/TarnState.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Settings.h"
#include "tarn/device/DeviceInfo.h"
#include "tarn/events/NotificationSettings.h"
#include "tarn/store/ConversionManager.h"

namespace tarn {

namespace {

void putOptional(nlohmann::json& dict, const char* key, const std::optional<std::string>& value) {
    if (value) {
        dict[key] = *value;
    }
}

void appendOptional(std::vector<TextField>& fields, std::string_view key,
                    const std::optional<std::string>& value) {
    if (value) {
        fields.push_back({key, *value});
    }
}

std::int64_t currentMilliseconds() {
    double seconds =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    double product = seconds * 1000.0;
    if (!std::isfinite(product) || product >= 9.2233720368547758e18 ||
        product < -9.2233720368547758e18) {
        TARN_FATAL("The current time in milliseconds does not fit a 64-bit integer");
    }
    return static_cast<std::int64_t>(product);
}

constexpr const char* kSdkVersion = "0.0.1";

/// One member of the body's "parameters" object as the one-pass writer sees it.
struct Member {
    enum class Kind { json, text, boolean, integer, erased };
    std::string_view key;
    Kind kind = Kind::text;
    const nlohmann::json* value = nullptr;
    std::string_view string;
    std::int64_t number = 0;
    std::uint32_t position = 0;

    static Member json(std::string_view key, const nlohmann::json& value) {
        return {key, Kind::json, &value, {}, 0, 0};
    }
    static Member text(std::string_view key, std::string_view value) {
        return {key, Kind::text, nullptr, value, 0, 0};
    }
    static Member boolean(std::string_view key, bool value) {
        return {key, Kind::boolean, nullptr, {}, value ? 1 : 0, 0};
    }
    static Member integer(std::string_view key, std::int64_t value) {
        return {key, Kind::integer, nullptr, {}, value, 0};
    }
    static Member erased(std::string_view key) { return {key, Kind::erased, nullptr, {}, 0, 0}; }
};

/// The most members a thread keeps room for between bodies.
constexpr std::size_t kKeptMembers = 256;

/// Appends `text` as a JSON string exactly as the JSON library prints it. Plain printable ASCII
/// is copied; anything else (escapes, UTF-8) goes through the library's own printer, so both ways
/// give the same bytes, and bytes that are not UTF-8 throw its `type_error` as a dump would: the
/// event manager drops such a record.
void writeString(std::string& out, std::string_view text) {
    bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        auto byte = static_cast<unsigned char>(c);
        return byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\';
    });
    if (plain) {
        out += '"';
        out.append(text);
        out += '"';
        return;
    }
    out += nlohmann::json(std::string(text)).dump();
}

/// Appends an integer as the JSON library prints it: a plain decimal.
template <class Integer>
void writeInteger(std::string& out, Integer value) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

void writeBoolean(std::string& out, bool value) {
    out += value ? "true" : "false";
}

/// Appends `value` as the JSON library prints it. Strings, booleans, integers and null are
/// written directly; floating-point numbers, arrays and objects go through the library's printer.
void writeValue(std::string& out, const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::string:
            writeString(out, value.get_ref<const std::string&>());
            return;
        case nlohmann::json::value_t::boolean:
            writeBoolean(out, value.get<bool>());
            return;
        case nlohmann::json::value_t::null:
            out += "null";
            return;
        case nlohmann::json::value_t::number_integer:
            writeInteger(out, value.get<std::int64_t>());
            return;
        case nlohmann::json::value_t::number_unsigned:
            writeInteger(out, value.get<std::uint64_t>());
            return;
        default:
            out += value.dump();
            return;
    }
}

}  // namespace

std::string shortestDecimalText(double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

BodySections BodySections::read(const EventRecord& record) {
    // The device facts that the kernel announces are looked up once for the whole body.
    detail::AnnouncementPass pass;
    auto& tarn = TarnState::shared();
    BodySections sections;
    sections.loggedIn = tarn.loggedIn.load();
    sections.requestId = makeUuidString();
    auto device = deviceInfoProvider();
    if (tarn.isBatteryStatusRequired) {
        sections.battery = device->batteryLevel();
    }
    if (tarn.isWifiStatusRequired) {
        sections.networkStatus = device->networkStatus();
    }
    if (tarn.isDiskCapacityRequired) {
        sections.disk = device->diskCapacities();
    }
    sections.deviceId = device->deviceId();
    sections.phoneModel = device->modelName();
    sections.timeZone = device->timeZone();
    sections.osVersion = device->osVersion();
    sections.timestamp = currentMilliseconds();
    sections.notificationPermission = NotificationManager::shared().permissionStatus();
    if (tarn.isLocationRequired) {
        if (auto location = device->location()) {
            sections.location = {shortestDecimalText(location->second),
                                 shortestDecimalText(location->first)};
        }
    }
    sections.applicationName =
        record.applicationNameOverride().value_or(tarn.applicationName.get());
    sections.pushToken = tarn.tarnPushToken.get();
    sections.apnsToken = tarn.tarnApnsToken.get();
    return sections;
}

nlohmann::json EventRecord::ownFields() const {
    std::vector<TextField> fields;
    auto dict = nlohmann::json::object();
    if (appendTextFields(fields)) {
        for (const auto& field : fields) {
            dict[std::string(field.key)] = std::string(field.value);
        }
    }
    return dict;
}

nlohmann::json EventRecord::ownDictionary() const {
    nlohmann::json dict = nlohmann::json::object();
    if (const auto* initial = initialParameterObject()) {
        dict = *initial;
    }
    nlohmann::json fields = ownFields();
    for (auto& [key, value] : fields.items()) {
        dict[key] = std::move(value);
    }
    return dict;
}

nlohmann::json EventRecord::dictionary() const {
    return dictionary(BodySections::read(*this));
}

nlohmann::json EventRecord::dictionary(const BodySections& sections) const {
    // 1.-2. Own dictionary, wrapped with "loggedIn".
    nlohmann::json parameters = ownDictionary();
    parameters["loggedIn"] = sections.loggedIn;
    nlohmann::json body = nlohmann::json::object();
    body["parameters"] = std::move(parameters);
    // 3. Primary section.
    body["actorId"] = actorId;
    body["channel"] = "MOBILE";
    body["sync"] = "a";
    body["journeys"] = journeys;
    body["requestId"] = sections.requestId;
    body["name"] = name;
    body["isActive"] = true;
    // 4. Conversion section.
    ConversionManager::applyConversionCode(body, communucationCode);
    auto& params = body["parameters"];
    // 5. Device section.
    if (sections.battery) {
        params["battery"] = *sections.battery;
    }
    if (sections.networkStatus) {
        params["networkStatus"] = *sections.networkStatus;
    }
    if (sections.disk) {
        params["freeDisk"] = sections.disk->first;
        params["totalDisk"] = sections.disk->second;
    }
    params["deviceId"] = sections.deviceId;
    params["deviceOs"] = "IOS";
    params["phoneBrand"] = "Apple";
    params["phoneModel"] = sections.phoneModel;
    params["timeZone"] = sections.timeZone;
    params["deviceOsVersion"] = sections.osVersion;
    params["timestamp"] = sections.timestamp;
    if (sections.notificationPermission) {
        params[NotificationManager::kEventKey] = *sections.notificationPermission;
    }
    // 6. Location section.
    if (sections.location) {
        params["longitude"] = sections.location->first;
        params["latitude"] = sections.location->second;
    }
    // 7. SDK section.
    params["sdkVersion"] = kSdkVersion;
    params["applicationName"] = sections.applicationName;
    if (!sections.pushToken.empty()) {
        params["pushToken"] = sections.pushToken;
    }
    if (!sections.apnsToken.empty()) {
        params["apnsToken"] = sections.apnsToken;
    }
    return body;
}

std::string EventRecord::serializedBody() const {
    return serializedBody(BodySections::read(*this));
}

std::string EventRecord::serializedBody(const BodySections& sections) const {
    // The "parameters" members from every layer, later layers last; after a stable sort by key
    // the last entry of each key is the one the tree would keep.
    // The member list of this thread's previous body is reused: no allocation per body.
    thread_local std::vector<Member> spare;
    std::vector<Member> members = std::move(spare);
    members.clear();
    members.reserve(40);
    if (const auto* initial = initialParameterObject()) {
        for (const auto& [key, value] : initial->items()) {
            members.push_back(Member::json(key, value));
        }
    }
    thread_local std::vector<TextField> textFields;  // reused: no allocation per body
    textFields.clear();
    nlohmann::json fields;  // only for records whose own fields are not all strings
    if (appendTextFields(textFields)) {
        for (const auto& field : textFields) {
            members.push_back(Member::text(field.key, field.value));
        }
    } else {
        fields = ownFields();
        for (const auto& [key, value] : fields.items()) {
            members.push_back(Member::json(key, value));
        }
    }
    members.push_back(Member::boolean("loggedIn", sections.loggedIn));
    members.push_back(communucationCode
                          ? Member::text(kConversionCommunicationCodeKey, *communucationCode)
                          : Member::erased(kConversionCommunicationCodeKey));
    if (sections.battery) {
        members.push_back(Member::text("battery", *sections.battery));
    }
    if (sections.networkStatus) {
        members.push_back(Member::text("networkStatus", *sections.networkStatus));
    }
    if (sections.disk) {
        members.push_back(Member::text("freeDisk", sections.disk->first));
        members.push_back(Member::text("totalDisk", sections.disk->second));
    }
    members.push_back(Member::text("deviceId", sections.deviceId));
    members.push_back(Member::text("deviceOs", "IOS"));
    members.push_back(Member::text("phoneBrand", "Apple"));
    members.push_back(Member::text("phoneModel", sections.phoneModel));
    members.push_back(Member::text("timeZone", sections.timeZone));
    members.push_back(Member::text("deviceOsVersion", sections.osVersion));
    members.push_back(Member::integer("timestamp", sections.timestamp));
    if (sections.notificationPermission) {
        members.push_back(
            Member::text(NotificationManager::kEventKey, *sections.notificationPermission));
    }
    if (sections.location) {
        members.push_back(Member::text("longitude", sections.location->first));
        members.push_back(Member::text("latitude", sections.location->second));
    }
    members.push_back(Member::text("sdkVersion", kSdkVersion));
    members.push_back(Member::text("applicationName", sections.applicationName));
    if (!sections.pushToken.empty()) {
        members.push_back(Member::text("pushToken", sections.pushToken));
    }
    if (!sections.apnsToken.empty()) {
        members.push_back(Member::text("apnsToken", sections.apnsToken));
    }
    // Stable by key without the merge buffer that std::stable_sort allocates: ties are broken by
    // the position each member was added at.
    for (std::size_t i = 0; i < members.size(); ++i) {
        members[i].position = static_cast<std::uint32_t>(i);
    }
    std::sort(members.begin(), members.end(), [](const Member& a, const Member& b) {
        return a.key != b.key ? a.key < b.key : a.position < b.position;
    });

    // The top-level keys in byte order: actorId, channel, isActive, journeys, name, parameters,
    // requestId, sync.
    std::string out;
    out.reserve(1024);
    out += "{\"actorId\":";
    writeString(out, actorId);
    out += ",\"channel\":\"MOBILE\",\"isActive\":true,\"journeys\":[";
    for (std::size_t i = 0; i < journeys.size(); ++i) {
        if (i > 0) {
            out += ',';
        }
        writeString(out, journeys[i]);
    }
    out += "],\"name\":";
    writeString(out, name);
    out += ",\"parameters\":{";
    bool first = true;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (i + 1 < members.size() && members[i + 1].key == members[i].key) {
            continue;  // a later layer replaces this one
        }
        const auto& member = members[i];
        if (member.kind == Member::Kind::erased) {
            continue;
        }
        if (!first) {
            out += ',';
        }
        first = false;
        writeString(out, member.key);
        out += ':';
        switch (member.kind) {
            case Member::Kind::json:
                writeValue(out, *member.value);
                break;
            case Member::Kind::text:
                writeString(out, member.string);
                break;
            case Member::Kind::boolean:
                writeBoolean(out, member.number != 0);
                break;
            case Member::Kind::integer:
                writeInteger(out, member.number);
                break;
            case Member::Kind::erased:
                break;
        }
    }
    out += "},\"requestId\":";
    writeString(out, sections.requestId);
    out += ",\"sync\":\"a\"}";
    if (members.capacity() <= kKeptMembers) {
        spare = std::move(members);  // a host's huge parameter object is not kept alive
    }
    return out;
}

bool PageInOutEvent::appendTextFields(std::vector<TextField>& fields) const {
    appendOptional(fields, "pageName", pageName);
    fields.push_back({"eventType", rawValue(eventType)});
    return true;
}

bool AppGroundStatusEvent::appendTextFields(std::vector<TextField>& fields) const {
    appendOptional(fields, "pageName", pageName);
    return true;
}

bool CustomEvent::appendTextFields(std::vector<TextField>& fields) const {
    appendOptional(fields, "pageName", pageName);
    appendOptional(fields, "controller", controller);
    return true;
}

bool LogoutEvent::appendTextFields(std::vector<TextField>& /*fields*/) const {
    return true;
}

bool ActorChangeEvent::appendTextFields(std::vector<TextField>& fields) const {
    fields.push_back({"newActorId", newActorId});
    return true;
}

nlohmann::json InstallEvent::ownFields() const {
    auto dict = nlohmann::json{{"anonymous", anonymous}};
    putOptional(dict, "configurationActorId", configurationActorId);
    return dict;
}

bool ApplicationErrorEvent::appendTextFields(std::vector<TextField>& fields) const {
    fields.push_back({"errorMessage", errorMessage});
    fields.push_back({"errorType", errorType});
    return true;
}

bool PushTokenChangeEvent::appendTextFields(std::vector<TextField>& fields) const {
    fields.push_back({"tokenProvider", rawValue(tokenProvider)});
    return true;
}

nlohmann::json InAppEvent::ownFields() const {
    auto dict = nlohmann::json::object();
    dict["communicationCode"] = communication.code;
    dict["communicationTemplate"] = rawValue(communication.templateType);
    dict["communicationName"] = communication.name;
    dict["communicationId"] = communication.uuid;
    putOptional(dict, "pageName", pageName);
    putOptional(dict, "conversionEvent", conversionEvent);
    return dict;
}

std::optional<ReportedCommunication> InAppEvent::reportedCommunication() const {
    return ReportedCommunication{communication.code, conversionEvent};
}

nlohmann::json InAppButtonClickedEvent::ownFields() const {
    auto dict = InAppEvent::ownFields();
    putOptional(dict, "buttonId", button.id);
    putOptional(dict, "buttonText", button.text);
    return dict;
}

nlohmann::json PushNotificationEvent::ownFields() const {
    auto dict = nlohmann::json::object();
    dict["eventType"] = rawValue(eventType);
    putOptional(dict, "buttonId", buttonId);
    putOptional(dict, "buttonText", buttonText);
    putOptional(dict, "customApplicationName", customApplicationName);
    putOptional(dict, "conversionEvent", conversionEvent);
    dict["code"] = code;
    dict["communicationId"] = communicationId;
    dict["pushTokenForNotification"] = pushTokenForNotification;
    return dict;
}

std::optional<ReportedCommunication> PushNotificationEvent::reportedCommunication() const {
    return ReportedCommunication{code, conversionEvent};
}

}  // namespace tarn
