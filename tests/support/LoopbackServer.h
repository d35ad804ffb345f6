#pragma once
// A scripted HTTP server on 127.0.0.1 for tests and local development.
//
// It binds an ephemeral port when constructed, records every request (method, path, headers,
// body), answers each path from a script (status, body, headers, delay, or closing the connection
// without an answer) and stops when destroyed. It depends on cpp-httplib only, not on the test
// framework. Handlers run on the server's own worker threads; every method is thread-safe.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
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
    std::string body;
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    /// Wait this long before answering (cut short when the server stops).
    std::chrono::milliseconds delay{0};
    /// Shut the connection down without writing any answer.
    bool closeWithoutAnswer = false;

    static ScriptedAnswer json(int status, std::string body) {
        ScriptedAnswer a;
        a.status = status;
        a.body = std::move(body);
        return a;
    }
    /// Holds the request until the server stops.
    static ScriptedAnswer never() {
        ScriptedAnswer a;
        a.delay = std::chrono::hours(1);
        return a;
    }
    static ScriptedAnswer close() {
        ScriptedAnswer a;
        a.closeWithoutAnswer = true;
        return a;
    }
};

class LoopbackServer {
  public:
    using Responder = std::function<ScriptedAnswer(const RecordedRequest&)>;

    /// Binds 127.0.0.1 on an ephemeral port and starts serving.
    LoopbackServer();
    /// Stops the server.
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>".
    std::string baseUrl() const;

    /// Answers every request to `path` with `answer`. Paths without a script get 404.
    void on(const std::string& path, ScriptedAnswer answer);
    /// Answers requests to `path` with `answers` in turn; the last one repeats.
    void onSequence(const std::string& path, std::vector<ScriptedAnswer> answers);
    /// Answers requests to `path` with whatever `responder` returns (called on a server thread).
    void onRequest(const std::string& path, Responder responder);

    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requests(const std::string& path) const;
    std::size_t count(const std::string& path) const;
    std::size_t totalCount() const;
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
