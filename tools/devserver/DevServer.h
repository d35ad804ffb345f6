#pragma once
// The development server: the library's three endpoints on a loopback port, with client
// credentials checked, bearer tokens issued and checked, an in-app answer from a file or a value,
// every request recorded, and faults (a status or a delay) scripted for a share of requests.
//
// Used by `tarn serve` and `tarn demo`. Requests are answered on the server's own worker threads;
// the observers run there too, one call per request, possibly on several threads at once.
//
// The same port serves a page for a browser at "/": the requests as they arrive (each event body
// checked against what the library sends), the fault switches and the in-app answer. Its own
// routes live under "/_tarn/" and are neither recorded nor faulted.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace httplib {
class Server;
}

namespace tarn::devserver {

class LiveFeed;

inline constexpr const char* kTokenPath = "/core/auth/token";
inline constexpr const char* kInAppPath = "/orbital-harbor/sdk-public/inapp-communication-wrapper";
inline constexpr const char* kEventPath = "/orbital-harbor/sdk-public/event/mobile";
/// Browser pages open at once on one server (each holds a live stream and a worker thread).
inline constexpr std::size_t kMaxPages = 4;

/// Faults for a share of requests. Shares are spread evenly over the eligible requests, so runs
/// are reproducible: a share of 0.25 hits the 4th, 8th, 12th... request, 1 hits every one.
struct FaultPlan {
    /// Status of a faulty answer (its body is {"error":"injected fault"}).
    int status = 503;
    /// Share of eligible requests answered with `status`, from 0 to 1.
    double share = 0;
    /// Milliseconds to hold an answer before it is sent (cut short when the server stops).
    int delayMs = 0;
    /// Share of eligible requests held by `delayMs`, from 0 to 1.
    double delayShare = 1;
    /// Only requests to these paths are eligible; empty means every path.
    std::vector<std::string> paths;
};

/// What a check of an in-app answer found; an answer with errors is not served from the page.
struct InAppVerdict {
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
};

struct DevServerOptions {
    std::string host = "127.0.0.1";
    /// 0 binds a free port.
    int port = 0;
    std::string clientId = "dev-client";
    std::string clientSecret = "dev-secret";
    /// Lifetime of issued tokens in seconds; a request with an older token gets 401.
    std::int64_t expiresIn = 300;
    /// Skip the "Authorization" check of the in-app and event endpoints.
    bool acceptAnyToken = false;
    /// A file whose bytes are the in-app answer, served verbatim (even when it does not decode, so
    /// that a host's failure handling can be tried) and re-read whenever it changes.
    std::filesystem::path inappFile;
    /// The in-app answer when there is no file.
    nlohmann::json inappAnswer = {{"inAppCommunicationCommands", nlohmann::json::array()},
                                  {"configuration", nlohmann::json::object()}};
    /// Every accepted event is appended to this file as one JSON line, when set.
    std::filesystem::path eventsFile;
    /// How many of the newest requests, events and event attempts are kept in memory for
    /// `requests()`, `events()` and `eventAttempts()`; older ones are dropped (they are still
    /// counted, and still appended to `eventsFile`), so a server that runs for a day stays small.
    std::size_t keepRecent = 10000;
    FaultPlan faults;
    /// Compress answers when the client's Accept-Encoding allows it (gzip or brotli). Off by
    /// default: the library asks for every encoding it can read, and on a loopback connection
    /// compressing costs more time than it saves.
    bool compress = false;
    /// Serve the browser page at "/" and its routes under "/_tarn/".
    bool page = true;
    /// The page must be given `clientSecret` before it shows anything (for a server reachable from
    /// other machines).
    bool pageNeedsSecret = false;
    /// Checks an in-app answer edited in the page (called on a worker thread). Unset: the
    /// library's own decoder decides.
    std::function<InAppVerdict(const std::string&)> inappCheck;
};

/// One request as the server saw and answered it. Secrets (the client secret, tokens, the
/// "Authorization" value) are never kept.
struct ReceivedRequest {
    std::uint64_t sequence = 0;
    std::string method;
    std::string path;
    int status = 0;
    bool faulted = false;
    bool delayed = false;
    bool hadAuthorization = false;
    std::chrono::system_clock::time_point receivedAt;
    /// One line about the request and its answer, for a console.
    std::string summary;
};

/// An event sent to the event endpoint: accepted (status 200) or refused (a fault, a bad token).
struct ReceivedEvent {
    std::uint64_t sequence = 0;
    /// The status it was answered with.
    int status = 200;
    std::string name;
    std::string actorId;
    /// "parameters"."conversionCommunicationCode", when the event completes a conversion.
    std::optional<std::string> conversionCode;
    /// "parameters"."communicationCode", for the in-app events.
    std::optional<std::string> communicationCode;
    std::string requestId;
    /// The body as compact JSON text (one line). Kept as text, not as a tree: a tree takes
    /// several times the memory, and the server keeps thousands of these.
    std::string body;
};

class DevServer {
  public:
    explicit DevServer(DevServerOptions options);
    /// Stops the server.
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    /// Binds and starts answering on a thread of its own. False with `error` set when the
    /// address cannot be bound.
    bool start(std::string* error = nullptr);
    /// Stops answering and joins the server's thread. Idempotent.
    void stop();

    int port() const { return port_; }
    /// "http://<host>:<port>", the value for a service file's "DOMAIN".
    std::string baseUrl() const;

    /// Called for every request after it has been answered (worker thread).
    void setRequestObserver(std::function<void(const ReceivedRequest&)> observer);
    /// Called for every accepted event after it has been answered (worker thread).
    void setEventObserver(std::function<void(const ReceivedEvent&)> observer);
    /// Called with notices about the server's own inputs, e.g. an in-app file that does not decode.
    void setNoticeObserver(std::function<void(const std::string&)> observer);

    /// Reads the in-app file now (it is otherwise read on the first in-app request), so that a
    /// notice says at once whether it decodes.
    void loadInAppFile();

    /// The newest requests (at most `keepRecent`), in the order they were answered.
    std::vector<ReceivedRequest> requests() const;
    /// The newest accepted events (at most `keepRecent`), in the order they arrived.
    std::vector<ReceivedEvent> events() const;
    /// The newest requests to the event endpoint whose body is a JSON object, accepted or not (at
    /// most `keepRecent`), in order.
    std::vector<ReceivedEvent> eventAttempts() const;
    /// Every request answered since the start, kept in memory or not.
    std::uint64_t requestCount() const;
    /// Every event accepted since the start, kept in memory or not.
    std::uint64_t eventCount() const;
    /// Waits until at least `count` events have been accepted since the start or `timeout` passes.
    bool waitForEvents(std::size_t count, std::chrono::milliseconds timeout) const;

    /// The faults in force; the page may change them while the server runs.
    FaultPlan faults() const;
    /// Replaces the faults from the next request on; the shares count from that request.
    void setFaults(FaultPlan faults);
    /// The in-app answer served now, as text.
    std::string currentInAppAnswer();
    /// Messages dropped for pages too slow to read them, since the start.
    std::uint64_t pageMessagesDropped() const;

  private:
    struct Answer;
    Answer handle(const std::string& method, const std::string& path, const std::string& body,
                  const std::string& authorization);
    Answer handleToken(const std::string& body);
    Answer handleInApp(const std::string& authorization);
    Answer handleEvent(const std::string& body, const std::string& authorization,
                       std::optional<ReceivedEvent>& event);
    bool authorized(const std::string& authorization);
    static std::optional<ReceivedEvent> parseEvent(const std::string& body);
    std::string inappAnswerText();
    /// Appends `item` to `list`, dropping the oldest entry past `keepRecent`.
    template <typename T>
    void keepRecent(std::deque<T>& list, const T& item) const;
    void notice(const std::string& text);
    void addPageRoutes();
    bool pageAllowed(const std::string& cookie, const std::string& hostHeader) const;
    void publishRow(const ReceivedRequest& record, const std::string& body);

    DevServerOptions options_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable eventsChanged_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::uint64_t sequence_ = 0;
    std::uint64_t eligible_ = 0;
    std::uint64_t eventTotal_ = 0;
    std::deque<ReceivedRequest> requests_;
    std::deque<ReceivedEvent> events_;
    std::deque<ReceivedEvent> attempts_;
    std::ofstream eventsOut_;
    std::vector<std::pair<std::string, std::chrono::steady_clock::time_point>> tokens_;
    std::function<void(const ReceivedRequest&)> requestObserver_;
    std::function<void(const ReceivedEvent&)> eventObserver_;
    std::function<void(const std::string&)> noticeObserver_;
    FaultPlan faults_;
    std::unique_ptr<LiveFeed> feed_;
    std::vector<std::string> pageSessions_;
    /// The answer set from the page, served instead of the options' answer or file.
    std::optional<std::string> inappOverride_;

    std::mutex inappMutex_;
    std::optional<std::filesystem::file_time_type> inappTime_;
    std::uintmax_t inappSize_ = 0;
    std::string inappText_;
};

}  // namespace tarn::devserver
