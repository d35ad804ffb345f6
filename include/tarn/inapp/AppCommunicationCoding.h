#pragma once
// Decoding and encoding of the in-app records (see "tarn/inapp/AppCommunication.h").
//
// Decoding is strict for required fields and field types and lenient for the two enumerations:
// - a required field that is missing, null or of another type fails the whole document (one bad
//   communication fails the whole answer, no partial list is kept);
// - an optional field may be missing or null and then holds no value; present with a value of the
//   wrong type it fails like a required field;
// - `InAppType` and `TarnActionType` never fail: any string other than their exact wire spellings
//   (case-sensitive), a number, a bool, an array, an object or null gives `unknown`. A required
//   enumeration (`AppCommunicationItem::templateType`, key "template") must still have its key
//   present. An optional enumeration that is null holds no value;
// - an integer field takes a JSON integer in the 64-bit signed range; a number written with a
//   fraction part of zero (2.0) is accepted as that integer, any other fraction fails;
// - a number field (`eventQueueDelay`) takes any JSON number, integers included (2 gives 2.0);
// - unknown keys are ignored; no defaults are filled in.
//
// Encoding writes every present field under its wire key (the button's `id` under "_id", the
// answer's `model` under "inAppCommunicationCommands", the templates under "template"), leaves
// absent optional fields out and writes the enumerations as their wire strings, so that decoding
// the encoded document gives back an equal record.
//
// Nothing here throws; every function may be called from any thread.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/core/Fatal.h"
#include "tarn/inapp/AppCommunication.h"

namespace tarn {

/// Why a document could not be decoded, and where.
struct TARN_API DecodingError {
    /// The kind of failure, named after the decoding errors of the platform's JSON decoder.
    enum class Kind {
        /// The text is not JSON at all (or not UTF-8).
        dataCorrupted,
        /// A required key is missing.
        keyNotFound,
        /// A required value is null.
        valueNotFound,
        /// A value has another type than its field (or an integer is out of range).
        typeMismatch,
    };

    /// The kind of failure.
    Kind kind = Kind::dataCorrupted;
    /// The path of the offending field from the document's root, for example
    /// "inAppCommunicationCommands[3].title.color"; empty for the document itself.
    std::string codingPath;
    /// What went wrong, for example "Expected a string but found a number."
    std::string debugDescription;

    /// One readable sentence naming the path and the reason, meant for the host developer's log,
    /// for example: The data couldn't be read: inAppCommunicationCommands[3].title.color: Expected
    /// a string but found a number.
    std::string localizedDescription() const;
};

/// Either a decoded value or the error that stopped decoding.
template <typename T>
class DecodeResult {
  public:
    /// A decoded value.
    DecodeResult(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    /// A failure.
    DecodeResult(DecodingError error) : state_(std::in_place_index<1>, std::move(error)) {}

    /// True when the document decoded.
    bool ok() const { return state_.index() == 0; }
    /// True when the document decoded.
    explicit operator bool() const { return ok(); }

    /// The decoded value; asking a failed result for its value ends the process.
    const T& value() const& {
        requireValue();
        return std::get<0>(state_);
    }
    /// The decoded value; a fatal error when decoding failed.
    T& value() & {
        requireValue();
        return std::get<0>(state_);
    }
    /// Moves the value out of a temporary result (returned by value, so it cannot dangle).
    T value() && {
        requireValue();
        return std::get<0>(std::move(state_));
    }
    /// The error; asking a successful result for its error ends the process.
    const DecodingError& error() const {
        if (ok()) {
            TARN_FATAL("DecodeResult::error() called on a successful result");
        }
        return std::get<1>(state_);
    }

  private:
    void requireValue() const {
        if (!ok()) {
            TARN_FATAL("DecodeResult::value() called on a failed result: " +
                       std::get<1>(state_).localizedDescription());
        }
    }
    std::variant<T, DecodingError> state_;
};

/// The enumeration case whose wire string is exactly `raw`, else `unknown`.
TARN_API InAppType inAppTypeFromRawValue(std::string_view raw);
/// The enumeration case whose wire string is exactly `raw`, else `unknown`.
TARN_API TarnActionType tarnActionTypeFromRawValue(std::string_view raw);

/// Decodes a `T` from UTF-8 JSON text. Text that is not JSON is a `dataCorrupted` error.
/// Available for `AppCommunication`, `AppCommunicationConfiguration`, `AppCommunicationItem`,
/// `AppCommunicationHeader`, `AppCommunicationImage`, `SubInAppCommunication`,
/// `AppCommunicationButton`, `AppCommunicationAction`, `NotificationAppCommunicationItem`,
/// `InAppType` and `TarnActionType`.
template <typename T>
TARN_API DecodeResult<T> decode(std::string_view text);

/// Decodes a `T` from an already parsed JSON value; same rules and types as `decode(text)`.
template <typename T>
TARN_API DecodeResult<T> decodeJson(const nlohmann::json& document);

/// The in-app endpoint's answer from its body text.
inline DecodeResult<AppCommunication> decodeAppCommunication(std::string_view text) {
    return decode<AppCommunication>(text);
}
/// The item that a push notification carries (the text under the payload's "data").
inline DecodeResult<NotificationAppCommunicationItem> decodeNotificationAppCommunicationItem(
    std::string_view text) {
    return decode<NotificationAppCommunicationItem>(text);
}

// Encoding to JSON values. These are also the `to_json` hooks of nlohmann-json, so
// `nlohmann::json j = item;` works for every record.
TARN_API void to_json(nlohmann::json& json, InAppType value);
TARN_API void to_json(nlohmann::json& json, TarnActionType value);
TARN_API void to_json(nlohmann::json& json, const AppCommunicationAction& value);
TARN_API void to_json(nlohmann::json& json, const AppCommunicationButton& value);
TARN_API void to_json(nlohmann::json& json, const AppCommunicationHeader& value);
TARN_API void to_json(nlohmann::json& json, const AppCommunicationImage& value);
TARN_API void to_json(nlohmann::json& json, const SubInAppCommunication& value);
TARN_API void to_json(nlohmann::json& json, const AppCommunicationItem& value);
TARN_API void to_json(nlohmann::json& json, const AppCommunicationConfiguration& value);
TARN_API void to_json(nlohmann::json& json, const AppCommunication& value);
TARN_API void to_json(nlohmann::json& json, const NotificationAppCommunicationItem& value);

/// The JSON object of one communication, as it goes into an event body.
TARN_API nlohmann::json toJson(const AppCommunicationItem& item);
/// The JSON object of one button, as it goes into an event body.
TARN_API nlohmann::json toJson(const AppCommunicationButton& button);

/// Compact JSON text of any record or enumeration above, keys in field order. Bytes that are not
/// UTF-8 (only possible in records built by hand) are written as U+FFFD instead of failing; a
/// number that is not finite is written as null.
template <typename T>
TARN_API std::string encode(const T& value);

}  // namespace tarn
