#pragma once
// The value that arms a conversion marker.

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Date.h"

namespace tarn {

/// What a communication arms: its code, the event name that will count as its conversion, and the
/// arming time. `time` is kept on the scale its writer chose; conversion tracking writes
/// milliseconds read as seconds.
struct ConversionItem {
    std::optional<std::string> communicationCode;
    std::optional<std::string> conversionName;
    std::optional<Date> time;

    friend bool operator==(const ConversionItem&, const ConversionItem&) = default;
};

/// JSON with the field names as keys; `time` as a number of seconds since 1970. Absent fields are
/// left out when writing and read as absent (as is a member of the wrong type).
void to_json(nlohmann::json& j, const ConversionItem& item);
void from_json(const nlohmann::json& j, ConversionItem& item);

}  // namespace tarn
