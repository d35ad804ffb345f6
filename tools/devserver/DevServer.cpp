#include "devserver/DevServer.h"

#include <httplib.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "devserver/LiveFeed.h"
#include "tarn/inapp/AppCommunicationCoding.h"

namespace tarn::devserver {

namespace {

// Whether the `n`th eligible request (from 1) falls in a share spread evenly over all of them.
bool inShare(std::uint64_t n, double share) {
    if (share <= 0) {
        return false;
    }
    if (share >= 1) {
        return true;
    }
    return std::floor(static_cast<double>(n) * share) >
           std::floor(static_cast<double>(n - 1) * share);
}

std::string newToken() {
    std::random_device device;
    std::ostringstream out;
    out << std::hex;
    for (int i = 0; i < 4; ++i) {
        out << device();
    }
    return out.str();
}

std::string errorBody(const std::string& error) {
    return nlohmann::json{{"error", error}}.dump();
}

std::optional<std::string> stringAt(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) {
        return std::nullopt;
    }
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

}  // namespace

template <typename T>
void DevServer::keepRecent(std::deque<T>& list, const T& item) const {
    if (options_.keepRecent == 0) {
        return;
    }
    if (list.size() >= options_.keepRecent) {
        list.pop_front();
    }
    list.push_back(item);
}

struct DevServer::Answer {
    int status = 200;
    std::string body;
    std::string summary;
};

DevServer::DevServer(DevServerOptions options)
    : options_(std::move(options)), faults_(options_.faults) {}

DevServer::~DevServer() {
    stop();
}

std::string DevServer::baseUrl() const {
    std::string host =
        options_.host.find(':') != std::string::npos ? "[" + options_.host + "]" : options_.host;
    return "http://" + host + ":" + std::to_string(port_);
}

void DevServer::setRequestObserver(std::function<void(const ReceivedRequest&)> observer) {
    std::lock_guard lock(mutex_);
    requestObserver_ = std::move(observer);
}

void DevServer::setEventObserver(std::function<void(const ReceivedEvent&)> observer) {
    std::lock_guard lock(mutex_);
    eventObserver_ = std::move(observer);
}

void DevServer::setNoticeObserver(std::function<void(const std::string&)> observer) {
    std::lock_guard lock(mutex_);
    noticeObserver_ = std::move(observer);
}

std::vector<ReceivedRequest> DevServer::requests() const {
    std::lock_guard lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

std::vector<ReceivedEvent> DevServer::events() const {
    std::lock_guard lock(mutex_);
    return {events_.begin(), events_.end()};
}

std::vector<ReceivedEvent> DevServer::eventAttempts() const {
    std::lock_guard lock(mutex_);
    return {attempts_.begin(), attempts_.end()};
}

std::uint64_t DevServer::requestCount() const {
    std::lock_guard lock(mutex_);
    return sequence_;
}

std::uint64_t DevServer::eventCount() const {
    std::lock_guard lock(mutex_);
    return eventTotal_;
}

bool DevServer::waitForEvents(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return eventsChanged_.wait_for(lock, timeout, [&] { return eventTotal_ >= count; });
}

bool DevServer::start(std::string* error) {
    server_ = std::make_unique<httplib::Server>();
    // Each open page holds a worker for its live stream: room for them besides the host's
    // requests.
    server_->new_task_queue = [] {
        return new httplib::ThreadPool(CPPHTTPLIB_THREAD_POOL_COUNT + kMaxPages);
    };
    // Without this, answers on a reused connection wait for the client's delayed ACK (~40 ms).
    server_->set_tcp_nodelay(true);
    // An idle kept-alive connection holds a worker until this timeout, and stop() waits for it.
    server_->set_keep_alive_timeout(1);
    // A connection serves many requests, as a production server's does; cpp-httplib's default
    // closes it after five, which would make every fifth event of a client pay for a new one.
    server_->set_keep_alive_max_count(100000);
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        Answer answer = handle(request.method, request.path, request.body,
                               request.get_header_value("Authorization"));
        response.status = answer.status;
        if (options_.compress) {
            response.set_content(answer.body, "application/json");
            return;
        }
        // A content provider of known length is sent as it stands: the server compresses only
        // bodies set with set_content.
        auto body = std::make_shared<std::string>(std::move(answer.body));
        response.set_content_provider(
            body->size(), "application/json",
            [body](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                return sink.write(body->data() + offset, length);
            });
    };
    if (options_.page) {
        // The page shows the newest 1,000 requests; a page that falls 2,000 behind loses newer
        // ones rather than hold the server.
        feed_ = std::make_unique<LiveFeed>(1000, 2000, kMaxPages);
        addPageRoutes();
    }
    server_->Post(R"(.*)", handler);
    server_->Get(R"(.*)", handler);
    server_->Put(R"(.*)", handler);
    server_->Delete(R"(.*)", handler);
    if (options_.port == 0) {
        port_ = server_->bind_to_any_port(options_.host);
        if (port_ <= 0) {
            port_ = 0;
        }
    } else if (server_->bind_to_port(options_.host, options_.port)) {
        port_ = options_.port;
    }
    if (port_ == 0) {
        if (error) {
            *error = "cannot bind " + options_.host + ":" + std::to_string(options_.port);
        }
        server_.reset();
        return false;
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // The socket already listens: connections made before the accept loop runs wait in its
    // backlog. cpp-httplib ignores stop() until that loop runs, so wait for it here.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_->is_running() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void DevServer::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    if (feed_) {
        feed_->close();
    }
    if (server_) {
        server_->stop();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void DevServer::notice(const std::string& text) {
    std::function<void(const std::string&)> observer;
    {
        std::lock_guard lock(mutex_);
        observer = noticeObserver_;
    }
    if (observer) {
        observer(text);
    }
}

DevServer::Answer DevServer::handle(const std::string& method, const std::string& path,
                                    const std::string& body, const std::string& authorization) {
    ReceivedRequest record;
    record.method = method;
    record.path = path;
    record.hadAuthorization = !authorization.empty();
    record.receivedAt = std::chrono::system_clock::now();

    FaultPlan faults;
    {
        std::lock_guard lock(mutex_);
        faults = faults_;
        bool eligible = faults.paths.empty();
        for (const auto& p : faults.paths) {
            eligible = eligible || p == path;
        }
        if (eligible) {
            std::uint64_t n = ++eligible_;
            record.faulted = inShare(n, faults.share);
            record.delayed = faults.delayMs > 0 && inShare(n, faults.delayShare);
        }
    }
    if (record.delayed) {
        // Held on a condition, so that stopping the server cuts the delay short.
        std::unique_lock lock(mutex_);
        stopped_.wait_for(lock, std::chrono::milliseconds(faults.delayMs),
                          [this] { return stopping_; });
    }

    Answer answer;
    std::optional<ReceivedEvent> event;
    if (record.faulted) {
        answer = {faults.status, errorBody("injected fault"), "injected fault"};
    } else if (method != "POST") {
        answer = {405, errorBody("method not allowed"), "only POST is served"};
    } else if (path == kTokenPath) {
        answer = handleToken(body);
    } else if (path == kInAppPath) {
        answer = handleInApp(authorization);
    } else if (path == kEventPath) {
        answer = handleEvent(body, authorization, event);
    } else {
        answer = {404, errorBody("not found"), "unknown path"};
    }
    record.status = answer.status;
    std::optional<ReceivedEvent> attempt = event;
    if (!attempt && path == kEventPath) {
        attempt = parseEvent(body);
    }
    if (attempt) {
        attempt->status = answer.status;
    }

    std::function<void(const ReceivedRequest&)> requestObserver;
    std::function<void(const ReceivedEvent&)> eventObserver;
    {
        std::lock_guard lock(mutex_);
        record.sequence = ++sequence_;
        std::ostringstream line;
        line << "#" << record.sequence << " " << method << " " << path << " -> " << answer.status;
        if (record.delayed) {
            line << " (held " << faults.delayMs << " ms)";
        }
        if (!answer.summary.empty()) {
            line << ": " << answer.summary;
        }
        record.summary = line.str();
        keepRecent(requests_, record);
        if (attempt) {
            attempt->sequence = record.sequence;
            keepRecent(attempts_, *attempt);
        }
        if (event) {
            event->sequence = record.sequence;
            ++eventTotal_;
            keepRecent(events_, *event);
            if (!options_.eventsFile.empty()) {
                if (!eventsOut_.is_open()) {
                    eventsOut_.open(options_.eventsFile, std::ios::app);
                }
                eventsOut_ << event->body << "\n";
                eventsOut_.flush();
            }
        }
        requestObserver = requestObserver_;
        eventObserver = eventObserver_;
    }
    eventsChanged_.notify_all();
    if (requestObserver) {
        requestObserver(record);
    }
    if (event && eventObserver) {
        eventObserver(*event);
    }
    if (feed_) {
        publishRow(record, path == kTokenPath ? std::string() : body);
    }
    return answer;
}

DevServer::Answer DevServer::handleToken(const std::string& body) {
    auto request = nlohmann::json::parse(body, nullptr, false);
    auto clientId = stringAt(request, "clientId");
    auto clientSecret = stringAt(request, "clientSecret");
    if (!clientId || !clientSecret) {
        return {400, errorBody("invalid_request"),
                "the body needs the strings \"clientId\" and \"clientSecret\""};
    }
    if (*clientId != options_.clientId || *clientSecret != options_.clientSecret) {
        return {401, errorBody("invalid_client"),
                "wrong client credentials (client \"" + *clientId + "\")"};
    }
    std::string token = newToken();
    {
        // Expired tokens are forgotten as new ones are issued, so the list stays as short as the
        // number of live tokens.
        auto now = std::chrono::steady_clock::now();
        std::lock_guard lock(mutex_);
        std::erase_if(tokens_, [&](const auto& issued) {
            return now - issued.second >= std::chrono::seconds(options_.expiresIn);
        });
        tokens_.emplace_back(token, now);
    }
    nlohmann::json answer = {{"access_token", token},
                             {"expires_in", options_.expiresIn},
                             {"refresh_expires_in", options_.expiresIn * 6},
                             {"token_type", "Bearer"},
                             {"not-before-policy", 0},
                             {"scope", "profile email"}};
    return {200, answer.dump(), "token issued to \"" + *clientId + "\""};
}

bool DevServer::authorized(const std::string& authorization) {
    if (options_.acceptAnyToken) {
        return true;
    }
    const std::string scheme = "Bearer ";
    if (authorization.rfind(scheme, 0) != 0) {
        return false;
    }
    std::string token = authorization.substr(scheme.size());
    auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(mutex_);
    for (const auto& [issued, at] : tokens_) {
        if (issued == token) {
            return now - at < std::chrono::seconds(options_.expiresIn);
        }
    }
    return false;
}

void DevServer::loadInAppFile() {
    if (!options_.inappFile.empty()) {
        inappAnswerText();
    }
}

std::string DevServer::inappAnswerText() {
    {
        std::lock_guard lock(inappMutex_);
        if (inappOverride_) {
            return *inappOverride_;
        }
    }
    if (options_.inappFile.empty()) {
        return options_.inappAnswer.dump();
    }
    std::lock_guard lock(inappMutex_);
    std::error_code ec;
    auto time = std::filesystem::last_write_time(options_.inappFile, ec);
    auto size = ec ? 0 : std::filesystem::file_size(options_.inappFile, ec);
    if (ec) {
        if (inappTime_) {
            notice("cannot read " + options_.inappFile.string() + " (" + ec.message() +
                   "); serving its last content");
        }
        return inappTime_ ? inappText_ : std::string("{}");
    }
    if (inappTime_ && *inappTime_ == time && inappSize_ == size) {
        return inappText_;
    }
    std::ifstream in(options_.inappFile, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    bool reload = inappTime_.has_value();
    inappTime_ = time;
    inappSize_ = size;
    inappText_ = text.str();
    auto decoded = decode<AppCommunication>(inappText_);
    if (!decoded) {
        notice("warning: " + options_.inappFile.string() +
               " does not decode, served as it is: " + decoded.error().localizedDescription());
    } else {
        std::size_t count = decoded.value().model ? decoded.value().model->size() : 0;
        notice(std::string(reload ? "reloaded " : "serving ") + options_.inappFile.string() + " (" +
               std::to_string(count) + " communication" + (count == 1 ? "" : "s") + ")");
    }
    return inappText_;
}

DevServer::Answer DevServer::handleInApp(const std::string& authorization) {
    if (!authorized(authorization)) {
        return {401, errorBody("invalid_token"), "missing, unknown or expired token"};
    }
    std::string text = inappAnswerText();
    return {200, text, "in-app answer, " + std::to_string(text.size()) + " bytes"};
}

DevServer::Answer DevServer::handleEvent(const std::string& body, const std::string& authorization,
                                         std::optional<ReceivedEvent>& event) {
    if (!authorized(authorization)) {
        return {401, errorBody("invalid_token"), "missing, unknown or expired token"};
    }
    auto parsed = parseEvent(body);
    if (!parsed) {
        return {400, errorBody("invalid_event"), "the body is not a JSON object"};
    }
    ReceivedEvent received = std::move(*parsed);
    std::string summary = "event \"" + received.name + "\" actor " + received.actorId;
    if (received.conversionCode) {
        summary += " conversion " + *received.conversionCode;
    }
    event = std::move(received);
    return {200, nlohmann::json{{"status", "OK"}}.dump(), summary};
}

std::optional<ReceivedEvent> DevServer::parseEvent(const std::string& body) {
    auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    ReceivedEvent received;
    received.name = stringAt(json, "name").value_or("");
    received.actorId = stringAt(json, "actorId").value_or("");
    received.requestId = stringAt(json, "requestId").value_or("");
    if (auto parameters = json.find("parameters"); parameters != json.end()) {
        received.conversionCode = stringAt(*parameters, "conversionCommunicationCode");
        received.communicationCode = stringAt(*parameters, "communicationCode");
    }
    received.body = json.dump();
    return received;
}

}  // namespace tarn::devserver
