#pragma once
// Property lists (XML and binary) read into JSON values.

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"

namespace tarn {

/// Parses a property list in XML or binary form. Strings, integers, reals, booleans, arrays and
/// dictionaries map to the JSON values of the same kind; a data item becomes {"$data": base64
/// text} and a date {"$date": seconds since 1970}, so that neither reads as a string. The bytes of
/// strings and keys are kept as the file holds them, UTF-8 or not. Returns none when the bytes are not a
/// property list, when a string or key holds a NUL character, or when arrays and dictionaries nest
/// more than 128 deep (`kMaxNestingDepth`); `error` then says why. Never throws.
TARN_API std::optional<nlohmann::json> parsePropertyList(const std::string& bytes,
                                                std::string* error = nullptr);

/// Writes a JSON object or array as an XML (or, with `binary`, binary) property list.
TARN_API std::string writePropertyList(const nlohmann::json& value, bool binary = false);

}  // namespace tarn
