#pragma once
// The access token: the credentials sent for it, the server's answer, the persisted in-flight
// flag and the repository that handles the answer.
//
// Threads: the token answer is handled on the HTTP session's worker thread, which writes
// `Tarn::shared().tarnAuthToken` there; requests framed on other threads read either the old or
// the new value.

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/network/Endpoint.h"
#include "tarn/network/ServiceClient.h"

namespace tarn {

/// The client credentials of one token request. Only `clientId` and `clientSecret` are sent.
struct TARN_API AuthClient {
    /// The token endpoint's address.
    Url authUrl;
    /// The client identifier from the service file.
    std::string clientId;
    /// The client secret from the service file; never logged.
    std::string clientSecret;

    /// {"clientId": .., "clientSecret": ..}.
    nlohmann::json body() const;
};

/// A decoding failure; its description never quotes the decoded text.
class TARN_API TokenDecodingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    /// The error's message.
    std::string localizedDescription() const { return what(); }
};

/// The token endpoint's answer. Every member is required and must have its type.
struct TARN_API AccessToken {
    /// The token ("access_token"); never logged.
    std::string accessToken;            // "access_token"
    /// Seconds until the token expires ("expires_in").
    std::int64_t expiresIn = 0;         // "expires_in"
    /// Seconds until the refresh token expires ("refresh_expires_in").
    std::int64_t refreshExpiresIn = 0;  // "refresh_expires_in"
    /// The token type ("token_type"), e.g. "Bearer".
    std::string tokenType;              // "token_type"
    /// The "not-before-policy" value.
    std::int64_t notBeforePolicy = 0;   // "not-before-policy"
    /// The granted scopes ("scope").
    std::string scope;                  // "scope"

    /// Decodes the answer body; throws `TokenDecodingError` when it is not JSON, not an object, or
    /// a member is missing or of another type. Integers accept integral JSON numbers only.
    static AccessToken decode(const Data& data);
};

/// The persisted token flag read as a status: true is `authorized` (no token request in flight),
/// false or absent is `notDetermined` (a token request was sent and not yet answered).
enum class AuthTokenStatus { notDetermined, authorized };
/// "notDetermined", "authorized".
TARN_API const char* rawValue(AuthTokenStatus status);

/// Sends the token request and handles its answer. Answers are decoded with `AccessToken::decode`.
class TARN_API AuthorizationRepository {
  public:
    /// The one repository, created on first use.
    static AuthorizationRepository& shared();

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-AuthorizationRepository:";

    /// The shared service client.
    ServiceClient& service() const { return ServiceClient::shared(); }

    /// Whether this process may send a token request. Until this process has set the flag it
    /// is the persisted "tokenStatus"; from then on it is the value this process last set.
    ///
    /// The persisted flag lives in preferences that every instance of the application (and of
    /// its app group) shares, so two instances started together would otherwise see each other's
    /// request in flight, log "pending Authorization!" and go on without a token. Each process
    /// therefore keeps its own copy of the flag and only mirrors it to the store.
    AuthTokenStatus tokenStatus() const;
    /// Sets this process's flag and persists "tokenStatus": true when no token request is in
    /// flight.
    void setTokenStatus(bool value);

    /// POSTs the credentials to `client.authUrl` without an "Authorization" header and hands the
    /// answer to `handleAccessTokenResponse`. `callback` runs on the session's worker thread (or
    /// at once, on this thread, when the body cannot be serialised).
    void requestAccessToken(const AuthClient& client, std::function<void(bool)> callback);

    /// The answer handler: sets "tokenStatus" to true, then on a decodable answer stores
    /// "<token_type> <access_token>" in the facade's `tarnAuthToken` and calls back true; on any
    /// failure logs it, leaves the stored value alone and calls back false.
    void handleAccessTokenResponse(const std::optional<Data>& data,
                                   const std::optional<ServiceError>& error,
                                   std::optional<int> statusCode,
                                   const std::function<void(bool)>& callback);

  private:
    // -1 until this process sets the flag, then 0 (request in flight) or 1.
    std::atomic<int> inProcessFlag_{-1};
};

}  // namespace tarn
