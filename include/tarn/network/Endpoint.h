#pragma once
// The server's paths and the URL value the service client sends to.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "tarn/core/Export.h"

namespace tarn {

/// The three paths under the base URL; appended to it verbatim.
namespace Endpoint {
/// The access-token exchange.
inline constexpr const char* accessToken = "/core/auth/token";
/// In-app communications together with the server's configuration block.
inline constexpr const char* inAppCommunication =
    "/orbital-harbor/sdk-public/inapp-communication-wrapper";
/// One behavioural event.
inline constexpr const char* event = "/orbital-harbor/sdk-public/event/mobile";

/// The largest answer body (decoded bytes) accepted from the in-app path: the answer carries
/// every communication with its texts and image addresses, so the bound is generous.
inline constexpr std::size_t maxInAppAnswerBytes = std::size_t{16} << 20;
/// The largest answer body accepted from the token and event paths (and any other): a token
/// document or an acknowledgement is a few hundred bytes.
inline constexpr std::size_t maxShortAnswerBytes = std::size_t{64} << 10;

/// The answer bound for a request to `url`: `maxInAppAnswerBytes` when it ends with the in-app
/// path, else `maxShortAnswerBytes`. An answer over it fails like a lost connection would.
inline std::size_t maxAnswerBytes(std::string_view url) {
    return url.ends_with(inAppCommunication) ? maxInAppAnswerBytes : maxShortAnswerBytes;
}
}  // namespace Endpoint

/// An absolute http(s)-style URL, kept exactly as it was written (no normalisation, so a base
/// ending in "/" followed by a path starting with "/" keeps its double slash).
class TARN_API Url {
  public:
    /// The URL when `text` parses as an absolute URL with a scheme and a host, else none.
    /// Relative references and text with spaces or control characters do not parse.
    static std::optional<Url> parse(const std::string& text);

    /// The URL as text.
    const std::string& absoluteString() const { return text_; }
    /// URLs are equal when their text is.
    bool operator==(const Url&) const = default;

  private:
    explicit Url(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

}  // namespace tarn
