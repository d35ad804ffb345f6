#include "tarn/network/Authorization.h"

#include <cmath>
#include <limits>

#include "base/InputSafety.h"
#include "tarn/config/Preferences.h"
#include "tarn/config/TarnState.h"
#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"

namespace tarn {

namespace {

// The texts of the platform's JSON decoder; they never quote the decoded content.
constexpr const char* kMissing = "The data couldn’t be read because it is missing.";
constexpr const char* kWrongFormat =
    "The data couldn’t be read because it isn’t in the correct format.";

const nlohmann::json& member(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end()) {
        throw TokenDecodingError(kMissing);
    }
    return *it;
}

std::string stringMember(const nlohmann::json& object, const char* key) {
    const auto& value = member(object, key);
    if (!value.is_string()) {
        throw TokenDecodingError(kWrongFormat);
    }
    return value.get<std::string>();
}

std::int64_t integerMember(const nlohmann::json& object, const char* key) {
    const auto& value = member(object, key);
    if (value.is_number_integer() && !value.is_number_unsigned()) {
        return value.get<std::int64_t>();
    }
    if (value.is_number_unsigned()) {
        auto u = value.get<std::uint64_t>();
        if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return static_cast<std::int64_t>(u);
        }
        throw TokenDecodingError(kWrongFormat);
    }
    if (value.is_number_float()) {
        // "3.0" decodes as 3; "3.5" or a value out of range does not.
        double d = value.get<double>();
        if (std::isfinite(d) && std::trunc(d) == d && d >= -9.2e18 && d <= 9.2e18) {
            return static_cast<std::int64_t>(d);
        }
    }
    throw TokenDecodingError(kWrongFormat);
}

}  // namespace

nlohmann::json AuthClient::body() const {
    return {{"clientId", clientId}, {"clientSecret", clientSecret}};
}

AccessToken AccessToken::decode(const Data& data) {
    auto root =
        parseJsonBounded(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
    if (root.is_discarded() || !root.is_object()) {
        throw TokenDecodingError(kWrongFormat);
    }
    AccessToken token;
    token.accessToken = stringMember(root, "access_token");
    token.expiresIn = integerMember(root, "expires_in");
    token.refreshExpiresIn = integerMember(root, "refresh_expires_in");
    token.tokenType = stringMember(root, "token_type");
    token.notBeforePolicy = integerMember(root, "not-before-policy");
    token.scope = stringMember(root, "scope");
    return token;
}

const char* rawValue(AuthTokenStatus status) {
    return status == AuthTokenStatus::authorized ? "authorized" : "notDetermined";
}

AuthorizationRepository& AuthorizationRepository::shared() {
    return detail::SharedInstance<AuthorizationRepository, 60>::get();
}

AuthTokenStatus AuthorizationRepository::tokenStatus() const {
    bool flag = false;
    if (int own = inProcessFlag_.load(); own >= 0) {
        flag = own == 1;
    } else {
        flag = PreferencesManager::shared().boolValue(PreferenceKey::tokenStatus).value_or(false);
    }
    return flag ? AuthTokenStatus::authorized : AuthTokenStatus::notDetermined;
}

void AuthorizationRepository::setTokenStatus(bool value) {
    inProcessFlag_.store(value ? 1 : 0);
    PreferencesManager::shared().set(PreferenceKey::tokenStatus, value);
}

void AuthorizationRepository::requestAccessToken(const AuthClient& client,
                                                 std::function<void(bool)> callback) {
    service().request(client.authUrl, client.body(), true,
                      [this, callback = std::move(callback)](std::optional<Data> data,
                                                             std::optional<ServiceError> error,
                                                             std::optional<int> statusCode) {
                          handleAccessTokenResponse(data, error, statusCode, callback);
                      });
}

void AuthorizationRepository::handleAccessTokenResponse(
    const std::optional<Data>& data, const std::optional<ServiceError>& /*error*/,
    std::optional<int> /*statusCode*/, const std::function<void(bool)>& callback) {
    setTokenStatus(true);
    bool stored = false;
    if (data) {
        try {
            auto token = AccessToken::decode(*data);
            TarnState::shared().tarnAuthToken = token.tokenType + " " + token.accessToken;
            stored = true;
        } catch (const TokenDecodingError& e) {
            log(e.localizedDescription(), "Tarn-Repository", LogLevel::error);
            log("Access token could not fetched!", logtag, LogLevel::error);
        }
    } else {
        // A transport failure, any status but 200, or a body that could not be serialised (the
        // service client logs that reason under its own tag right after this).
        log("Access token could not fetched!", logtag, LogLevel::error);
    }
    if (callback) {
        callback(stored);
    }
}

}  // namespace tarn
