#pragma once
// The errors that service-client completions report.

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "tarn/core/Export.h"
#include "tarn/network/HttpTransport.h"

namespace tarn {

/// The service client's own failures.
struct TARN_API NetworkError {
    /// An answer outside 200...299, or a body that did not decode.
    enum class Kind { httpError, serializationError };

    /// The server answered with a status other than 200; `message` is the status's reason phrase
    /// (or "Unauthorized" for 401).
    static NetworkError httpError(int statusCode, std::string message) {
        return NetworkError{Kind::httpError, statusCode, std::move(message)};
    }
    /// The request body could not be turned into JSON; `message` says why.
    static NetworkError serializationError(std::string message) {
        return NetworkError{Kind::serializationError, 0, std::move(message)};
    }

    /// Which of the two failures this is.
    Kind kind = Kind::httpError;
    /// The HTTP status of an `httpError`; 0 for a `serializationError`.
    int statusCode = 0;
    /// What went wrong, for the log.
    std::string message;

    /// `httpError`: "<message> (HTTP <code>)", e.g. "Unauthorized (HTTP 401)".
    /// `serializationError`: the message itself.
    std::string localizedDescription() const;
    /// Errors are equal when every field is.
    bool operator==(const NetworkError&) const = default;
};

/// The one error value that completions receive: a `NetworkError` or a `TransportError`.
class TARN_API ServiceError {
  public:
    /// A failure at the HTTP level.
    ServiceError(NetworkError error) : value_(std::move(error)) {}    // NOLINT
    /// A failure below HTTP.
    ServiceError(TransportError error) : value_(std::move(error)) {}  // NOLINT

    /// A short human-readable text; never contains header values or request bodies.
    std::string localizedDescription() const;

    /// The service client's error, or nullptr when this is a transport error.
    const NetworkError* networkError() const { return std::get_if<NetworkError>(&value_); }
    /// The transport's error, or nullptr when this is a service-client error.
    const TransportError* transportError() const { return std::get_if<TransportError>(&value_); }

  private:
    std::variant<NetworkError, TransportError> value_;
};

/// `error`'s description, or `fallback` when there is no error ("nil" for the event queue's log
/// line, "Unknown error" for the service client's).
TARN_API std::string describe(const std::optional<ServiceError>& error, std::string_view fallback = "nil");

/// The reason phrase of an HTTP status code, e.g. "No Content" for 204. Codes outside the table
/// get their class's name ("Client Error", "Server Error", ...).
TARN_API std::string reasonPhrase(int statusCode);

}  // namespace tarn
