#pragma once
// A scripted HTTP server (cpp-httplib) on 127.0.0.1 with an ephemeral port: records every request,
// answers each path from a script and stops when destroyed. Handlers run on the server's worker
// threads; every method is thread-safe.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn::test {

/// One request as the server received it.
struct RecordedRequest {
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    /// The first value of header `name` (case-insensitive), or none.
    std::optional<std::string> header(std::string_view name) const;
};

/// How to answer one request.
struct ScriptedAnswer {
    int status = 200;
    std::string body{};
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers{};
    /// Wait this long before answering (cut short when the server stops).
    std::chrono::milliseconds delay{0};
    /// Shut the connection down without writing any answer.
    bool closeWithoutAnswer = false;

    static ScriptedAnswer json(int status, std::string body) {
        return {.status = status, .body = std::move(body)};
    }
    /// Holds the request until the server stops.
    static ScriptedAnswer never() { return {.delay = std::chrono::hours(1)}; }
    static ScriptedAnswer close() { return {.closeWithoutAnswer = true}; }
};

class LoopbackServer {
  public:
    using Responder = std::function<ScriptedAnswer(const RecordedRequest&)>;

    /// Binds 127.0.0.1 on an ephemeral port and starts serving.
    LoopbackServer();
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    /// "http://127.0.0.1:<port>".
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

    /// Answers every request to `path` with `answer`. Paths without a script get 404.
    void on(const std::string& path, ScriptedAnswer answer) {
        onRequest(path, [answer](const RecordedRequest&) { return answer; });
    }
    /// Answers requests to `path` with whatever `responder` returns (called on a server thread).
    void onRequest(const std::string& path, Responder responder);

    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requests(const std::string& path) const;
    std::size_t count(const std::string& path) const;
    std::size_t totalCount() const { return requests().size(); }
    /// Waits until `path` has received at least `n` requests; false on time-out.
    bool waitForCount(const std::string& path, std::size_t n,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

    /// Stops serving: the port is closed, held requests are released. Idempotent.
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
};

}  // namespace tarn::test
