// The dev server's browser page: its routes under "/_tarn/", the rows of its live feed and the
// faults and in-app answer it may change.
#include <httplib.h>

#include <random>

#include "devserver/DevServer.h"
#include "devserver/EventCheck.h"
#include "devserver/LiveFeed.h"
// Generated at configure time from devserver/page/index.html (in the build tree).
#include <devserver/PageHtml.h>
#include "tarn/inapp/AppCommunicationCoding.h"

namespace tarn::devserver {

namespace {

// Values the page shows only the start of: tokens and secrets.
bool secretKey(const std::string& key) {
    return key == "pushToken" || key == "apnsToken" || key == "pushTokenForNotification" ||
           key == "access_token" || key == "refresh_token" || key == "clientSecret";
}

void maskSecrets(nlohmann::json& value) {
    if (value.is_object()) {
        for (auto& [key, member] : value.items()) {
            if (secretKey(key) && member.is_string()) {
                auto text = member.get<std::string>();
                member = (text.size() > 8 ? text.substr(0, 4) : std::string()) + "\u2026";
            } else {
                maskSecrets(member);
            }
        }
    } else if (value.is_array()) {
        for (auto& member : value) {
            maskSecrets(member);
        }
    }
}

std::string text(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) {
        return "";
    }
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : "";
}

std::string endpointName(const std::string& path) {
    if (path == kEventPath) {
        return "event";
    }
    if (path == kInAppPath) {
        return "inapp";
    }
    if (path == kTokenPath) {
        return "token";
    }
    return "other";
}

std::string sessionToken() {
    std::random_device device;
    std::string token;
    const char* digits = "0123456789abcdef";
    for (int i = 0; i < 32; ++i) {
        token += digits[device() % 16];
    }
    return token;
}

nlohmann::json faultsJson(const FaultPlan& faults) {
    return {{"status", faults.status},       {"share", faults.share},
            {"delayMs", faults.delayMs},     {"delayShare", faults.delayShare},
            {"paths", faults.paths}};
}

void answerJson(httplib::Response& response, int status, const nlohmann::json& body) {
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content(body.dump(), "application/json");
}

/// Reads a fault plan the page sent; an error text when a value is out of range.
std::string readFaults(const nlohmann::json& body, FaultPlan& faults) {
    if (!body.is_object()) {
        return "expected a JSON object";
    }
    try {
        faults.status = body.value("status", faults.status);
        faults.share = body.value("share", faults.share);
        faults.delayMs = body.value("delayMs", faults.delayMs);
        faults.delayShare = body.value("delayShare", faults.delayShare);
        faults.paths = body.value("paths", faults.paths);
    } catch (const nlohmann::json::exception&) {
        return "status and delayMs are integers, share and delayShare numbers, paths a list of "
               "strings";
    }
    if (faults.status < 100 || faults.status > 599) {
        return "status: from 100 to 599";
    }
    if (!(faults.share >= 0 && faults.share <= 1) ||
        !(faults.delayShare >= 0 && faults.delayShare <= 1)) {
        return "share, delayShare: from 0 to 1";
    }
    if (faults.delayMs < 0 || faults.delayMs > 600000) {
        return "delayMs: from 0 to 600000";
    }
    return "";
}

}  // namespace

FaultPlan DevServer::faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
}

void DevServer::setFaults(FaultPlan faults) {
    std::lock_guard lock(mutex_);
    faults_ = std::move(faults);
    eligible_ = 0;
}

std::string DevServer::currentInAppAnswer() {
    return inappAnswerText();
}

std::uint64_t DevServer::pageMessagesDropped() const {
    return feed_ ? feed_->droppedTotal() : 0;
}

bool DevServer::pageAllowed(const std::string& cookie, const std::string& hostHeader) const {
    if (!options_.pageNeedsSecret) {
        // On a loopback server the page is only for pages addressed to a loopback name: another
        // site whose name a DNS answer points at 127.0.0.1 gets nothing.
        std::string host = hostHeader.substr(0, hostHeader.rfind(':'));
        if (hostHeader.rfind(']') != std::string::npos &&
            hostHeader.rfind(']') > hostHeader.rfind(':')) {
            host = hostHeader;  // "[::1]" without a port
        }
        return host.empty() || host == "localhost" || host == "[::1]" ||
               host.rfind("127.", 0) == 0;
    }
    std::lock_guard lock(mutex_);
    for (const auto& session : pageSessions_) {
        if (cookie.find("tarn_page=" + session) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void DevServer::publishRow(const ReceivedRequest& record, const std::string& body) {
    nlohmann::json row = {
        {"seq", record.sequence},
        {"time", std::chrono::duration_cast<std::chrono::milliseconds>(
                     record.receivedAt.time_since_epoch())
                     .count()},
        {"method", record.method},
        {"path", record.path},
        {"endpoint", endpointName(record.path)},
        {"status", record.status},
        {"faulted", record.faulted},
        {"delayed", record.delayed},
    };
    auto json = body.empty() ? nlohmann::json() : nlohmann::json::parse(body, nullptr, false);
    if (record.path == kEventPath) {
        nlohmann::json problems = nlohmann::json::array();
        for (const auto& problem : checkEventText(body)) {
            problems.push_back(problem.text());
        }
        row["problems"] = std::move(problems);
    }
    if (json.is_object()) {
        row["name"] = text(json, "name");
        row["actor"] = text(json, "actorId");
        if (auto parameters = json.find("parameters"); parameters != json.end()) {
            row["page"] = text(*parameters, "pageName");
            std::string communication = text(*parameters, "communicationCode");
            if (communication.empty()) {
                communication = text(*parameters, "code");
            }
            row["communication"] = communication;
            row["conversion"] = text(*parameters, "conversionCommunicationCode");
        }
        maskSecrets(json);
        row["body"] = std::move(json);
    } else if (!body.empty()) {
        row["raw"] = body.substr(0, 2000);
    }
    feed_->publish("id: " + std::to_string(record.sequence) + "\nevent: row\ndata: " +
                   row.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n\n");
}

void DevServer::addPageRoutes() {
    server_->Get("/", [](const httplib::Request&, httplib::Response& response) {
        response.set_header("Cache-Control", "no-store");
        response.set_content(kPageHtml, "text/html; charset=utf-8");
    });
    // Browsers ask for an icon; answered here so that it is not recorded as a request.
    server_->Get("/favicon.ico", [](const httplib::Request&, httplib::Response& response) {
        response.status = 204;
    });
    // POST routes ask for a header a cross-site form cannot send, so another site open in the
    // same browser cannot switch faults or the answer.
    auto fromPage = [](const httplib::Request& request) {
        return request.has_header("X-Tarn-Page");
    };
    server_->Post("/_tarn/login", [this, fromPage](const httplib::Request& request,
                                                    httplib::Response& response) {
        auto body = nlohmann::json::parse(request.body, nullptr, false);
        if (!fromPage(request) || text(body, "secret") != options_.clientSecret) {
            answerJson(response, 401, {{"error", "wrong client secret"}});
            return;
        }
        std::string session = sessionToken();
        {
            std::lock_guard lock(mutex_);
            pageSessions_.push_back(session);
        }
        response.set_header("Set-Cookie",
                            "tarn_page=" + session + "; HttpOnly; SameSite=Strict; Path=/");
        answerJson(response, 200, {{"ok", true}});
    });
    server_->Get("/_tarn/state", [this](const httplib::Request& request,
                                        httplib::Response& response) {
        if (!pageAllowed(request.get_header_value("Cookie"), request.get_header_value("Host"))) {
            answerJson(response, 401, {{"error", "the page needs the client secret"}});
            return;
        }
        bool fromPageAnswer;
        {
            std::lock_guard lock(inappMutex_);
            fromPageAnswer = inappOverride_.has_value();
        }
        answerJson(response, 200,
                   {{"faults", faultsJson(faults())},
                    {"dropped", pageMessagesDropped()},
                    {"pages", feed_->subscriberCount()},
                    {"inapp",
                     {{"text", inappAnswerText()},
                      {"source", fromPageAnswer                 ? "page"
                                 : options_.inappFile.empty() ? "built in"
                                                              : options_.inappFile.string()}}}});
    });
    server_->Post("/_tarn/faults", [this, fromPage](const httplib::Request& request,
                                                     httplib::Response& response) {
        if (!fromPage(request) || !pageAllowed(request.get_header_value("Cookie"), request.get_header_value("Host"))) {
            answerJson(response, 401, {{"error", "the page needs the client secret"}});
            return;
        }
        FaultPlan plan = faults();
        std::string error = readFaults(nlohmann::json::parse(request.body, nullptr, false), plan);
        if (!error.empty()) {
            answerJson(response, 400, {{"error", error}});
            return;
        }
        setFaults(plan);
        notice("faults set from the page: " + faultsJson(plan).dump());
        answerJson(response, 200, {{"faults", faultsJson(plan)}});
    });
    server_->Post("/_tarn/inapp", [this, fromPage](const httplib::Request& request,
                                                    httplib::Response& response) {
        if (!fromPage(request) || !pageAllowed(request.get_header_value("Cookie"), request.get_header_value("Host"))) {
            answerJson(response, 401, {{"error", "the page needs the client secret"}});
            return;
        }
        std::string answer = text(nlohmann::json::parse(request.body, nullptr, false), "text");
        InAppVerdict verdict;
        if (options_.inappCheck) {
            verdict = options_.inappCheck(answer);
        } else if (auto decoded = decode<AppCommunication>(answer); !decoded) {
            verdict.errors.push_back(decoded.error().localizedDescription());
        }
        if (!verdict.errors.empty()) {
            answerJson(response, 422,
                       {{"errors", verdict.errors}, {"warnings", verdict.warnings}});
            return;
        }
        {
            std::lock_guard lock(inappMutex_);
            inappOverride_ = answer;
        }
        notice("serving the in-app answer set from the page (" + std::to_string(answer.size()) +
               " bytes)");
        answerJson(response, 200,
                   {{"warnings", verdict.warnings},
                    {"inapp", {{"text", answer}, {"source", "page"}}}});
    });
    server_->Post("/_tarn/clear", [this, fromPage](const httplib::Request& request,
                                                    httplib::Response& response) {
        if (!fromPage(request) || !pageAllowed(request.get_header_value("Cookie"), request.get_header_value("Host"))) {
            answerJson(response, 401, {{"error", "the page needs the client secret"}});
            return;
        }
        feed_->clearHistory();
        answerJson(response, 200, {{"ok", true}});
    });
    server_->Get("/_tarn/live", [this](const httplib::Request& request,
                                       httplib::Response& response) {
        if (!pageAllowed(request.get_header_value("Cookie"), request.get_header_value("Host"))) {
            answerJson(response, 401, {{"error", "the page needs the client secret"}});
            return;
        }
        auto subscriber = feed_->subscribe();
        if (!subscriber) {
            answerJson(response, 503, {{"error", "too many pages open"}});
            return;
        }
        response.set_header("Cache-Control", "no-store");
        // The stream runs on this worker only; the host's requests publish into the subscriber's
        // bounded queue and never wait for it.
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, subscriber](std::size_t, httplib::DataSink& sink) {
                std::string message;
                std::uint64_t dropped = 0;
                bool closed = false;
                bool got = feed_->next(*subscriber, message, dropped,
                                       std::chrono::milliseconds(1000), closed);
                if (closed) {
                    sink.done();
                    return true;
                }
                if (dropped > 0) {
                    std::string notice = "event: dropped\ndata: " + std::to_string(dropped) +
                                         "\n\n";
                    if (!sink.write(notice.data(), notice.size())) {
                        return false;
                    }
                }
                // A comment when there is nothing to send finds a page that went away.
                if (!got) {
                    message = ": idle\n\n";
                }
                return sink.write(message.data(), message.size());
            },
            [this, subscriber](bool) { feed_->unsubscribe(subscriber); });
    });
}

}  // namespace tarn::devserver
