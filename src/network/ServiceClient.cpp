#include "tarn/network/ServiceClient.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <cmath>

#include "tarn/config/Consent.h"
#include "tarn/config/Preferences.h"
#include "tarn/config/TarnState.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/network/Authorization.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn {

// ---- Url -----------------------------------------------------------------------------------

std::optional<Url> Url::parse(const std::string& text) {
    CURLU* handle = curl_url();
    if (!handle) {
        return std::nullopt;
    }
    CURLUcode rc = curl_url_set(handle, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME);
    curl_url_cleanup(handle);
    if (rc != CURLUE_OK) {
        return std::nullopt;
    }
    return Url(text);
}

// ---- AppInfo and Base64 --------------------------------------------------------------------

std::optional<std::string> AppInfo::encode(std::string* error) const {
    nlohmann::ordered_json object;
    object["platform"] = platform;
    object["bundleId"] = bundleId;
    object["application"] = application;
    std::string text;
    try {
        text = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
    } catch (const nlohmann::json::exception&) {
        if (error) {
            *error = "a field is not valid UTF-8";
        }
        return std::nullopt;
    }
    // The platform's default encoder escapes every "/"; a "/" occurs only inside strings here.
    std::string escaped;
    escaped.reserve(text.size() + 8);
    for (char c : text) {
        if (c == '/') {
            escaped += "\\/";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string base64Encode(const std::uint8_t* bytes, std::size_t size) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        std::uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += alphabet[(n >> 6) & 63];
        out += alphabet[n & 63];
    }
    if (size - i == 1) {
        std::uint32_t n = bytes[i] << 16;
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += "==";
    } else if (size - i == 2) {
        std::uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8);
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += alphabet[(n >> 6) & 63];
        out += '=';
    }
    return out;
}

// ---- ServiceClient -------------------------------------------------------------------------

ServiceClient& ServiceClient::shared() {
    // What completions use is created first. A reset for tests destroys the client before it
    // (the client's destructor stops the transfers); at exit nothing is destroyed at all, the
    // transfers are abandoned with the process.
    static std::once_flag dependencies;
    std::call_once(dependencies, [] {
        NotificationCenter::defaultCenter();
        processSettings();
        PreferencesManager::shared();
        TarnState::shared();
        AuthorizationRepository::shared();
        sharedHttpSession();
    });
    return detail::SharedInstance<ServiceClient, 50>::get();
}

ServiceClient::ServiceClient() : urlSession_(CurlHttpSession::make("ephemeral")) {}

ServiceClient::~ServiceClient() {
    // Joins the worker: no completion runs once the client is gone.
    urlSession_->invalidate();
}

Url ServiceClient::url(const std::string& path) const {
    auto text = requireBaseUrl() + path;
    auto parsed = Url::parse(text);
    if (!parsed) {
        fatalError("Invalid url", "TarniOSCommonKit/Endpoint", 23);
    }
    return *parsed;
}

std::optional<std::string> ServiceClient::appInfoHeader() const {
    // The header depends only on the main bundle's property list and the application name: it
    // is built again only when one of them changes, not for each request (reading and parsing
    // the property list costs more than the rest of a request's framing). A stat of the file
    // tells whether it changed.
    auto folder = Bundle::main().path();
    auto application = TarnState::shared().applicationName.get();
    InfoFileStamp stamp;
    if (struct stat info{};
        !folder.empty() && ::stat((folder / "Info.plist").c_str(), &info) == 0) {
        stamp = {true, static_cast<std::uint64_t>(info.st_ino),
                 static_cast<std::int64_t>(info.st_size),
                 static_cast<std::int64_t>(info.st_mtim.tv_sec),
                 static_cast<std::int64_t>(info.st_mtim.tv_nsec)};
    }
    {
        std::lock_guard lock(appInfoMutex_);
        if (appInfoCache_ && appInfoCache_->folder == folder && appInfoCache_->stamp == stamp &&
            appInfoCache_->application == application) {
            return appInfoCache_->header;
        }
    }
    AppInfo info;
    info.bundleId = Bundle(folder).bundleIdentifier().value_or("com.unknown");
    info.application = application;
    std::string error;
    auto json = info.encode(&error);
    if (!json) {
        log("Failed to encode app info: " + error, logtag, LogLevel::error);
        return std::nullopt;  // not kept: every request that cannot carry it says so
    }
    auto header = base64Encode(*json);
    std::lock_guard lock(appInfoMutex_);
    appInfoCache_ = AppInfoHeader{std::move(folder), stamp, std::move(application), header};
    return header;
}

HttpRequest ServiceClient::buildRequest(const Url& url, bool isPost,
                                        std::optional<bool> skipAuthorization) const {
    HttpRequest request;
    request.url = url.absoluteString();
    request.timeoutInterval = 60.0;
    request.timeoutInterval = static_cast<double>(processSettings().requestTimeout.load());
    request.method = isPost ? "POST" : "GET";
    request.maxResponseBytes = Endpoint::maxAnswerBytes(request.url);
    if (!skipAuthorization.value_or(false)) {
        request.setValue(TarnState::shared().tarnAuthToken.get(), "Authorization");
    }
    request.setValue("no-cache", "cache-control");
    if (auto appInfo = appInfoHeader()) {
        request.setValue(std::move(*appInfo), "App-Info");
    }
    request.setValue("application/json", "Content-Type");
    return request;
}

namespace {

/// Finds what the JSON text cannot carry: numbers that are not finite, binary values.
bool checkWritable(const nlohmann::json& value, std::string* error) {
    switch (value.type()) {
        case nlohmann::json::value_t::number_float:
            if (!std::isfinite(value.get<double>())) {
                *error = "Invalid number value (infinite or NaN) in JSON write";
                return false;
            }
            return true;
        case nlohmann::json::value_t::binary:
        case nlohmann::json::value_t::discarded:
            *error = "Invalid type in JSON write";
            return false;
        case nlohmann::json::value_t::array:
        case nlohmann::json::value_t::object:
            for (const auto& element : value) {
                if (!checkWritable(element, error)) {
                    return false;
                }
            }
            return true;
        default:
            return true;
    }
}

}  // namespace

std::optional<Data> ServiceClient::serialize(const nlohmann::json& parameters, std::string* error) {
    std::string reason;
    if (!parameters.is_object()) {
        reason = "Invalid top-level type in JSON write";
    } else if (checkWritable(parameters, &reason)) {
        try {
            auto text = parameters.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
            return Data(text.begin(), text.end());
        } catch (const nlohmann::json::exception&) {
            // The library's message quotes the offending byte; ours names no content.
            reason = "Invalid string value (not UTF-8) in JSON write";
        }
    }
    if (error) {
        *error = reason;
    }
    return std::nullopt;
}

void ServiceClient::request(const Url& url, const nlohmann::json& parameters,
                            std::optional<bool> skipAuthorization, ServiceCompletion completion) {
    const std::int64_t budget = processSettings().requestRetryCount.load();
    auto framed = buildRequest(url, true, skipAuthorization);
    std::string reason;
    auto body = serialize(parameters, &reason);
    if (!body) {
        if (completion) {
            completion(std::nullopt, NetworkError::serializationError(reason), std::nullopt);
        }
        log(reason, logtag, LogLevel::error);
        return;
    }
    framed.body = std::move(*body);
    start(std::move(framed), budget, std::move(completion));
}

void ServiceClient::requestJsonText(const Url& url, const std::string& jsonText,
                                    std::optional<bool> skipAuthorization,
                                    ServiceCompletion completion) {
    const std::int64_t budget = processSettings().requestRetryCount.load();
    auto framed = buildRequest(url, true, skipAuthorization);
    framed.body.assign(jsonText.begin(), jsonText.end());
    start(std::move(framed), budget, std::move(completion));
}

void ServiceClient::start(HttpRequest framed, std::int64_t budget, ServiceCompletion completion) {
    // No request leaves the process while tracking is off; the caller is not called back.
    if (!ConsentManager::shared().allowsRequests()) {
        return;
    }
    auto task = urlSession_->dataTask(
        framed, [this, framed, budget, completion = std::move(completion)](
                    std::optional<Data> data, std::optional<HttpResponse> response,
                    std::optional<TransportError> error) {
            handleFirstAnswer(std::move(data), std::move(response), std::move(error), framed,
                              budget, completion);
        });
    task->resume();
}

void ServiceClient::handleFirstAnswer(std::optional<Data> data,
                                      std::optional<HttpResponse> response,
                                      std::optional<TransportError> error,
                                      const HttpRequest& request, std::int64_t retriesLeft,
                                      const ServiceCompletion& completion) {
    auto complete = [&](std::optional<Data> d, std::optional<ServiceError> e,
                        std::optional<int> status) {
        if (completion) {
            completion(std::move(d), std::move(e), status);
        }
    };
    if (data && response) {
        const int code = response->statusCode;
        if (code == 200) {
            complete(std::move(data), std::nullopt, 200);
        } else if (code == 401) {
            complete(std::nullopt, NetworkError::httpError(401, "Unauthorized"), 401);
            TarnState::shared().refreshAccessToken();
        } else if (code >= 500 && code <= 599 && retriesLeft >= 1) {
            retryRequest(request, retriesLeft - 1, completion);
        } else {
            complete(std::nullopt, NetworkError::httpError(code, reasonPhrase(code)), code);
        }
        return;
    }
    std::optional<ServiceError> failure;
    if (error) {
        failure = ServiceError(*error);
    }
    if (data) {
        complete(std::nullopt, failure, std::nullopt);
    } else {
        complete(std::nullopt, failure,
                 response ? std::optional<int>(response->statusCode) : std::nullopt);
    }
    log(describe(failure, "Unknown error"), logtag, LogLevel::error);
}

void ServiceClient::retryRequest(const HttpRequest& request, std::int64_t retriesLeft,
                                 ServiceCompletion completion) {
    ++retryTaskCount_;
    auto task = sharedHttpSession().dataTask(
        request, [this, request, retriesLeft, completion = std::move(completion)](
                     std::optional<Data> data, std::optional<HttpResponse> response,
                     std::optional<TransportError> error) {
            handleRetryAnswer(std::move(data), std::move(response), std::move(error), request,
                              retriesLeft, completion);
        });
    // Deliberately never resumed: a 5xx with budget left ends the exchange without a completion.
    (void)task;
}

void ServiceClient::handleRetryAnswer(std::optional<Data> data,
                                      std::optional<HttpResponse> response,
                                      std::optional<TransportError> error,
                                      const HttpRequest& request, std::int64_t retriesLeft,
                                      const ServiceCompletion& completion) {
    std::optional<int> status;
    if (response) {
        status = response->statusCode;
    }
    if (status && *status >= 500 && *status <= 599 && retriesLeft >= 1) {
        retryRequest(request, retriesLeft - 1, completion);
        return;
    }
    if (data) {
        if (completion) {
            completion(std::move(data), std::nullopt, status);
        }
        return;
    }
    std::optional<ServiceError> failure;
    if (error) {
        failure = ServiceError(*error);
    }
    if (completion) {
        completion(std::nullopt, failure, status);
    }
    log(describe(failure, "Unknown error"), logtag, LogLevel::error);
}

}  // namespace tarn
