#include "tarn/store/ConversionItem.h"

namespace tarn {

void to_json(nlohmann::json& j, const ConversionItem& item) {
    j = nlohmann::json::object();
    if (item.communicationCode) {
        j["communicationCode"] = *item.communicationCode;
    }
    if (item.conversionName) {
        j["conversionName"] = *item.conversionName;
    }
    if (item.time) {
        j["time"] = item.time->secondsSince1970;
    }
}

void from_json(const nlohmann::json& j, ConversionItem& item) {
    item = ConversionItem{};
    if (!j.is_object()) {
        return;
    }
    auto text = [&](const char* key) -> std::optional<std::string> {
        auto it = j.find(key);
        if (it != j.end() && it->is_string()) {
            return it->get<std::string>();
        }
        return std::nullopt;
    };
    item.communicationCode = text("communicationCode");
    item.conversionName = text("conversionName");
    if (auto it = j.find("time"); it != j.end() && it->is_number()) {
        item.time = Date{it->get<double>()};
    }
}

}  // namespace tarn
