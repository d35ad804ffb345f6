// `tarn check inapp FILE`.
//
// The library's decoder stops at the first failing field of a document, so each communication and
// the configuration block are decoded on their own here: every broken part gets its own line with
// the full path of its fault.
#include <cstdio>
#include <map>
#include <set>

#include "Commands.h"
#include "Output.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/inapp/ColorCode.h"

namespace tarn::cli {

namespace {

constexpr const char* kCommandsKey = "inAppCommunicationCommands";
constexpr std::size_t kMaxButtonCount = 3;

struct Findings {
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
};

std::string joinPath(const std::string& prefix, const std::string& codingPath) {
    if (codingPath.empty()) {
        return prefix;
    }
    if (prefix.empty()) {
        return codingPath;
    }
    return codingPath[0] == '[' ? prefix + codingPath : prefix + "." + codingPath;
}

std::string errorLine(const std::string& prefix, const DecodingError& error) {
    return joinPath(prefix, error.codingPath) + ": " + error.debugDescription;
}

const nlohmann::json* member(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) {
        return nullptr;
    }
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        return nullptr;
    }
    return &*it;
}

std::string shown(const nlohmann::json& value) {
    return value.is_string() ? "\"" + value.get<std::string>() + "\"" : describeType(value);
}

void checkColor(Findings& findings, const nlohmann::json& object, const char* key,
                const std::string& path) {
    const nlohmann::json* value = member(object, key);
    if (value && value->is_string() && !parseColorCode(value->get<std::string>())) {
        findings.warnings.push_back(path + "." + key + ": " + shown(*value) +
                                    " is not a colour code (#RGB, #RGBA, #RRGGBB, #RRGGBBAA); it "
                                    "is drawn in black");
    }
}

void checkActionType(Findings& findings, const nlohmann::json& object, const std::string& path) {
    const nlohmann::json* action = member(object, "action");
    if (!action) {
        return;
    }
    const nlohmann::json* type = member(*action, "type");
    if (type && !(type->is_string() && (*type == "deep" || *type == "url"))) {
        findings.warnings.push_back(path + ".action.type: " + shown(*type) +
                                    " decodes as unknown (expected \"deep\" or \"url\"); the host "
                                    "cannot tell what the link is");
    }
}

/// Warnings about a communication that decoded: values the library accepts but quietly ignores.
void checkItem(Findings& findings, const nlohmann::json& raw, const AppCommunicationItem& item,
               const std::string& path) {
    const nlohmann::json& templ = raw["template"];
    if (item.templateType == InAppType::unknown) {
        findings.warnings.push_back(path + ".template: " + shown(templ) +
                                    " decodes as unknown (expected \"POPUP\" or \"SURVEY\"); "
                                    "this communication is never shown, yet uses a showing");
    }
    if (item.maxShowCount <= 0) {
        findings.warnings.push_back(path + ".maxShowCount: " + std::to_string(item.maxShowCount) +
                                    ": the first showing is always allowed, so it is shown once");
    }
    checkColor(findings, raw["title"], "color", path + ".title");
    checkColor(findings, raw["body"], "color", path + ".body");
    checkColor(findings, raw, "bgColor", path);
    const nlohmann::json& sub = raw["subInAppCommunication"];
    const std::string subPath = path + ".subInAppCommunication";
    if (const nlohmann::json* subTemplate = member(sub, "template");
        subTemplate && item.subInAppCommunication.templateType == InAppType::unknown) {
        findings.warnings.push_back(subPath + ".template: " + shown(*subTemplate) +
                                    " decodes as unknown (expected \"POPUP\" or \"SURVEY\")");
    }
    checkActionType(findings, sub, subPath);
    if (const nlohmann::json* buttons = member(sub, "buttons")) {
        for (std::size_t j = 0; j < buttons->size(); ++j) {
            const nlohmann::json& button = (*buttons)[j];
            std::string buttonPath = subPath + ".buttons[" + std::to_string(j) + "]";
            if (button.contains("id") && !button.contains("_id")) {
                findings.warnings.push_back(buttonPath +
                                            ": the identifier goes under \"_id\"; \"id\" is "
                                            "ignored and the button has no identifier");
            }
            checkColor(findings, button, "color", buttonPath);
            checkColor(findings, button, "textColor", buttonPath);
            checkActionType(findings, button, buttonPath);
        }
        if (buttons->size() > kMaxButtonCount) {
            findings.warnings.push_back(subPath + ".buttons: " + std::to_string(buttons->size()) +
                                        " buttons, only the first 3 are shown");
        }
    }
}

std::string optionalText(const std::optional<std::string>& value) {
    return value ? *value : "-";
}

}  // namespace

InappReport inspectInapp(const std::string& text) {
    InappReport report;
    nlohmann::json root;
    try {
        root = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        report.errors.push_back(std::string("not JSON: ") + e.what());
        report.fatal = true;
        return report;
    }
    Findings findings;
    if (!root.is_object()) {
        report.errors.push_back("the root is " + describeType(root) + ", not an object");
        report.fatal = true;
        return report;
    }

    std::vector<std::pair<std::size_t, AppCommunicationItem>> items;
    std::size_t itemCount = 0;
    if (const nlohmann::json* commands = member(root, kCommandsKey)) {
        if (!commands->is_array()) {
            findings.errors.push_back(std::string(kCommandsKey) + ": expected an array but found " +
                                      describeType(*commands));
        } else {
            itemCount = commands->size();
            for (std::size_t i = 0; i < commands->size(); ++i) {
                std::string path = std::string(kCommandsKey) + "[" + std::to_string(i) + "]";
                auto decoded = decodeJson<AppCommunicationItem>((*commands)[i]);
                if (!decoded) {
                    findings.errors.push_back(errorLine(path, decoded.error()));
                    continue;
                }
                checkItem(findings, (*commands)[i], decoded.value(), path);
                items.emplace_back(i, std::move(decoded).value());
            }
        }
    } else {
        findings.warnings.push_back(std::string(kCommandsKey) +
                                    ": absent, so there are no communications");
    }

    if (const nlohmann::json* configuration = member(root, "configuration")) {
        auto decoded = decodeJson<AppCommunicationConfiguration>(*configuration);
        if (!decoded) {
            findings.errors.push_back(errorLine("configuration", decoded.error()));
        }
    } else {
        findings.warnings.push_back(
            "configuration: absent, so the library shows no communication at all (and every "
            "setting keeps its default)");
    }

    // Whatever the part-wise checks miss, the whole document's decoder still catches.
    auto whole = decodeJson<AppCommunication>(root);
    if (!whole && findings.errors.empty()) {
        findings.errors.push_back(errorLine("", whole.error()));
    }

    std::map<std::string, std::size_t> firstByTrigger;
    for (const auto& [index, item] : items) {
        auto [it, inserted] = firstByTrigger.emplace(item.triggeringEventName, index);
        if (!inserted) {
            findings.warnings.push_back(
                std::string(kCommandsKey) + "[" + std::to_string(index) + "]: the trigger \"" +
                item.triggeringEventName + "\" is also the trigger of " + kCommandsKey + "[" +
                std::to_string(it->second) + "]; only the first is ever shown");
        }
    }

    report.errors = std::move(findings.errors);
    report.warnings = std::move(findings.warnings);
    report.itemCount = itemCount;
    for (auto& [index, item] : items) {
        report.items.push_back({index, item.uuid, item.name, rawValue(item.templateType),
                                item.triggeringEventName, item.maxShowCount,
                                optionalText(item.conversionEvent)});
    }
    return report;
}

int runCheckInapp(const std::string& file, bool strict) {
    std::string text;
    std::string error;
    if (!readWholeFile(file, text, error)) {
        emit(stdout, file + ": error: cannot read the file: " + error + "\n");
        return 1;
    }
    InappReport findings = inspectInapp(text);
    if (findings.fatal) {
        emit(stdout, file + ": error: " + findings.errors.front() + "\n");
        return 1;
    }
    std::size_t itemCount = findings.itemCount;
    std::string out;
    for (const auto& e : findings.errors) {
        out += file + ": error: " + e + "\n";
    }
    for (const auto& w : findings.warnings) {
        out += file + ": warning: " + w + "\n";
    }
    if (!findings.items.empty()) {
        Table table(
            {"#", "uuid", "name", "template", "trigger", "maxShowCount", "conversionEvent"});
        for (const auto& item : findings.items) {
            table.add({std::to_string(item.index), item.uuid, item.name, item.templateName,
                       item.trigger, std::to_string(item.maxShowCount), item.conversionEvent});
        }
        out += table.render();
    }
    std::string counts =
        std::to_string(itemCount) + " communication" + (itemCount == 1 ? "" : "s") + ", " +
        std::to_string(findings.errors.size()) + " error" +
        (findings.errors.size() == 1 ? "" : "s") + ", " + std::to_string(findings.warnings.size()) +
        " warning" + (findings.warnings.size() == 1 ? "" : "s");
    if (!findings.errors.empty()) {
        out += file + ": INVALID (" + counts +
               "): the library rejects the whole answer when any part fails to decode\n";
    } else {
        out += file + ": OK (" + counts + ")\n";
    }
    emit(stdout, out);
    if (!findings.errors.empty() || (strict && !findings.warnings.empty())) {
        return 1;
    }
    return 0;
}

}  // namespace tarn::cli
