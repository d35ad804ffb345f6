#pragma once
// The value that arms a conversion marker.

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Date.h"
#include "tarn/core/Export.h"

namespace tarn {

/// What a communication arms: its code, the event name that will count as its conversion, and the
/// arming time. `time` is kept on the scale its writer chose; conversion tracking writes
/// milliseconds read as seconds.
struct TARN_API ConversionItem {
    /// The code of the communication that started the conversion.
    std::optional<std::string> communicationCode;
    /// The event name that completes it.
    std::optional<std::string> conversionName;
    /// When the communication was shown.
    std::optional<Date> time;

    /// Items are equal when every field is.
    friend bool operator==(const ConversionItem&, const ConversionItem&) = default;
};

/// JSON with the field names as keys; `time` as a number of seconds since 1970. Absent fields are
/// left out when writing and read as absent (as is a member of the wrong type).
TARN_API void to_json(nlohmann::json& j, const ConversionItem& item);
TARN_API void from_json(const nlohmann::json& j, ConversionItem& item);

}  // namespace tarn
