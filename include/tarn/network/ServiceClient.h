#pragma once
// The one HTTP client of the library: URL forming, request framing, sending, the classification
// of answers, the retry rule for server errors and the reaction to an expired authorization.
//
// Threads: completions run on the HTTP session's worker thread, never on the caller's thread or
// the main queue, except a body that cannot be serialised, which completes at once on the
// caller's thread. Callers that touch shared state from a completion hop threads themselves.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/network/Endpoint.h"
#include "tarn/network/HttpTransport.h"
#include "tarn/network/NetworkError.h"

namespace tarn {

/// Every exchange ends in (data, error, status code): data on success, else the error; the
/// status code whenever an HTTP answer arrived.
using ServiceCompletion = std::function<void(
    std::optional<Data> data, std::optional<ServiceError> error, std::optional<int> statusCode)>;

/// Who is calling: sent with every request as the Base64 "App-Info" header.
struct TARN_API AppInfo {
    /// The platform name sent to the server.
    std::string platform = "ios";
    /// The host's bundle identifier.
    std::string bundleId;
    /// The host's application name.
    std::string application;

    /// {"platform":..,"bundleId":..,"application":..} in that order, with "/" written as "\/" in
    /// the manner of the platform's default JSON encoder. Fails (returns none and sets `error`)
    /// when a field is not valid UTF-8.
    std::optional<std::string> encode(std::string* error = nullptr) const;
};

/// Standard Base64 (RFC 4648 alphabet, with padding, no line breaks).
TARN_API std::string base64Encode(const std::uint8_t* bytes, std::size_t size);
inline std::string base64Encode(const std::string& text) {
    return base64Encode(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

/// Sends the library's requests to the server: JSON bodies, the authorization header, retries of
/// 5xx answers and the time-out of the process settings; completions run on the HTTP transport's
/// callback thread.
class TARN_API ServiceClient {
  public:
    /// The one client, created on first use.
    static ServiceClient& shared();

    ServiceClient();
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-ServiceClient:";

    /// The client's own session: keeps no cookies, cache or credentials between requests.
    HttpSession& urlSession() { return *urlSession_; }

    /// The base URL followed by `path` (plain concatenation). An unset base URL or a result that
    /// does not parse ends the process: both are programming errors.
    Url url(const std::string& path) const;

    /// Frames a request: method, time-out (the current `requestTimeout`), the answer bound
    /// (`Endpoint::maxAnswerBytes` of the URL), "Authorization" (unless
    /// `skipAuthorization` is true; the facade's `tarnAuthToken` as stored), "cache-control",
    /// "App-Info" and "Content-Type". The "App-Info" value is kept between requests and built
    /// again only when the main bundle's folder, its property list (seen by a stat) or the
    /// application name changes.
    HttpRequest buildRequest(const Url& url, bool isPost,
                             std::optional<bool> skipAuthorization = std::nullopt) const;

    /// POSTs `parameters` (a JSON object) to `url`. `completion` runs later on the session's
    /// worker thread; or at once, on this thread, with a `serializationError` when the object
    /// cannot be serialised (a string that is not UTF-8, a number that is not finite, a top level
    /// that is not an object).
    ///
    /// The answer: 200 gives the data; 401 gives `httpError(401, "Unauthorized")` and then runs
    /// the token routine again; a 5xx with retry budget left is handed to `retryRequest` and gets
    /// no completion; any other status gives `httpError(code, reason phrase)` (a 3xx too:
    /// redirects are not followed); a transport failure gives the transport error and is logged,
    /// and an answer over the request's bound is one (`dataLengthExceedsMaximum`).
    void request(const Url& url, const nlohmann::json& parameters,
                 std::optional<bool> skipAuthorization, ServiceCompletion completion);
    /// POSTs `jsonText`, JSON object text already serialised (and valid UTF-8), as it stands; the
    /// rest as above.
    void requestJsonText(const Url& url, const std::string& jsonText,
                         std::optional<bool> skipAuthorization, ServiceCompletion completion);

    /// The retry of a 5xx answer: creates a task for the same framed request on the process-wide
    /// shared session. The task is never started, so such an exchange ends without a completion;
    /// callers must not wait for one. Its answer rule, should it run, retries a 5xx while budget
    /// is left and otherwise passes data (whatever the status) or the error on.
    void retryRequest(const HttpRequest& request, std::int64_t retriesLeft,
                      ServiceCompletion completion);

    /// The JSON bytes of `parameters`, or the reason they cannot be produced.
    static std::optional<Data> serialize(const nlohmann::json& parameters, std::string* error);

    /// How many retry tasks this client has created (none of them is ever started).
    std::uint64_t retryTaskCount() const { return retryTaskCount_.load(); }

  private:
    void handleFirstAnswer(std::optional<Data> data, std::optional<HttpResponse> response,
                           std::optional<TransportError> error, const HttpRequest& request,
                           std::int64_t retriesLeft, const ServiceCompletion& completion);
    void handleRetryAnswer(std::optional<Data> data, std::optional<HttpResponse> response,
                           std::optional<TransportError> error, const HttpRequest& request,
                           std::int64_t retriesLeft, const ServiceCompletion& completion);
    std::optional<std::string> appInfoHeader() const;
    void start(HttpRequest framed, std::int64_t budget, ServiceCompletion completion);

    /// Identifies one version of the bundle's property list (all zero: no file).
    struct InfoFileStamp {
        bool exists = false;
        std::uint64_t inode = 0;
        std::int64_t size = 0;
        std::int64_t modifiedSeconds = 0;
        std::int64_t modifiedNanoseconds = 0;
        bool operator==(const InfoFileStamp&) const = default;
    };
    /// The last header built, with what it was built from.
    struct AppInfoHeader {
        std::filesystem::path folder;
        InfoFileStamp stamp;
        std::string application;
        std::string header;
    };
    mutable std::mutex appInfoMutex_;
    mutable std::optional<AppInfoHeader> appInfoCache_;

    std::shared_ptr<HttpSession> urlSession_;
    std::atomic<std::uint64_t> retryTaskCount_{0};
};

}  // namespace tarn
