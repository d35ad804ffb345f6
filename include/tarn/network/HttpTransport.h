#pragma once
// The HTTP transport under the service client: a request value, the answer it gets, and sessions
// that run data tasks asynchronously.
//
// Threads: a session runs its transfers on a worker thread of its own, started on first use, and
// calls every task's completion on that thread, one completion at a time. Completions never run on
// the thread that resumed the task, nor on the main queue. A completion may start new tasks.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarn/core/Export.h"

namespace tarn {

/// A byte buffer: request bodies and answer bodies.
using Data = std::vector<std::uint8_t>;

/// Header fields in the order they were set. Names compare case-insensitively.
class TARN_API HttpHeaders {
  public:
    /// Sets `name` to `value`, replacing every earlier field of that name.
    void set(std::string_view name, std::string value);
    /// Adds a field without removing earlier ones (answers may repeat a field).
    void add(std::string name, std::string value);
    /// The first value of `name`, or none.
    std::optional<std::string> value(std::string_view name) const;
    /// Removes every field of `name`.
    void remove(std::string_view name);
    /// Every field, in order.
    const std::vector<std::pair<std::string, std::string>>& fields() const { return fields_; }
    /// True when there is no field.
    bool empty() const { return fields_.empty(); }

  private:
    std::vector<std::pair<std::string, std::string>> fields_;
};

/// One HTTP request: URL, method, headers, body and time-out.
struct TARN_API HttpRequest {
    /// The absolute URL.
    std::string url;
    /// The HTTP method.
    std::string method = "GET";
    /// The header fields.
    HttpHeaders headers;
    /// The request body.
    Data body;
    /// Seconds the whole exchange (connection, request and answer) may take before it fails with
    /// a time-out. Zero or less means no limit.
    double timeoutInterval = 60.0;
    /// The most answer-body bytes the request accepts, counted after content decoding (a gzip
    /// answer counts by what it expands to). A longer answer, or one whose "Content-Length"
    /// announces more, is cut off while it arrives and fails with
    /// `TransportError::dataLengthExceedsMaximum`: the body is never held beyond this bound.
    std::size_t maxResponseBytes = kDefaultMaxResponseBytes;

    /// The bound of a request that names none: 16 MiB.
    static constexpr std::size_t kDefaultMaxResponseBytes = std::size_t{16} << 20;

    /// Sets a header field, replacing an earlier one of the same name.
    void setValue(std::string value, std::string_view field) {
        headers.set(field, std::move(value));
    }
};

/// The HTTP part of an answer: status code, header fields and the URL that answered.
struct TARN_API HttpResponse {
    /// The HTTP status code.
    int statusCode = 0;
    /// The answer's header fields.
    HttpHeaders headers;
    /// The URL that answered.
    std::string url;
};

/// A failure below HTTP: no connection, a time-out, a dropped connection, a malformed answer, an
/// answer larger than the request accepts.
struct TARN_API TransportError {
    /// Codes in the manner of the platform's URL loading errors.
    enum Code : int {
        unknown = -1,
        cancelled = -999,
        badURL = -1000,
        timedOut = -1001,
        unsupportedURL = -1002,
        cannotFindHost = -1003,
        cannotConnectToHost = -1004,
        networkConnectionLost = -1005,
        badServerResponse = -1011,
        dataLengthExceedsMaximum = -1103,
        secureConnectionFailed = -1200,
    };
    /// One of `Code`.
    int code = unknown;
    /// The transport library's own error number (0 when there is none).
    int transportCode = 0;
    /// The transport library's detail text; may name the host. Not part of the description.
    std::string detail;

    /// A short human-readable sentence for the code, e.g. "The request timed out.".
    std::string localizedDescription() const;
};

/// What a data task reports: the body (present exactly when an HTTP answer arrived in full; it
/// may be empty), the HTTP response when a status line arrived, and the error when the exchange
/// failed.
using DataTaskCompletion =
    std::function<void(std::optional<Data> data, std::optional<HttpResponse> response,
                       std::optional<TransportError> error)>;

class HttpSession;

/// A request bound to a session, created suspended. `resume` sends it; a task that is destroyed
/// without being resumed sends nothing and never calls its completion.
class TARN_API HttpDataTask {
  public:
    /// A suspended task of `session` for `request`; `completion` runs once, on the session's
    /// callback thread.
    HttpDataTask(std::weak_ptr<HttpSession> session, HttpRequest request,
                 DataTaskCompletion completion);
    /// Starts the transfer; later calls do nothing. Returns at once.
    void resume();
    /// Whether `resume` has been called.
    bool isStarted() const { return started_; }
    /// The request as it was given.
    const HttpRequest& originalRequest() const { return request_; }

  private:
    std::weak_ptr<HttpSession> session_;
    HttpRequest request_;
    DataTaskCompletion completion_;
    bool started_ = false;
};

/// A session: an independent set of connections and state. Sessions keep no cookies, no cache
/// and no credentials between requests; only open connections are reused.
class TARN_API HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    virtual ~HttpSession() = default;
    /// Creates a suspended task for `request`; its completion runs on the session's worker thread.
    std::shared_ptr<HttpDataTask> dataTask(HttpRequest request, DataTaskCompletion completion);
    /// Sends `request` now. Implementations return at once and report through `completion`.
    virtual void send(HttpRequest request, DataTaskCompletion completion) = 0;
    /// Stops the session: transfers in flight are abandoned without calling their completions,
    /// later sends are dropped, and the worker thread is joined (unless called from it).
    virtual void invalidate() = 0;
};

/// The libcurl session: one worker thread drives a multi handle for all the session's transfers.
///
/// Redirects are not followed: a 3xx is an answer like any other status and reaches the
/// completion with its code and body. Every request of the library is a POST of a JSON body;
/// following would either turn it into a GET without its body (libcurl's and browsers' rule for
/// 301 to 303), so a request that reached no server looks answered, or send the body (client
/// credentials among them) on to wherever the "Location" points. The caller sees the 3xx instead.
///
/// Answers are bounded: the body by the request's `maxResponseBytes` (decoded bytes, checked as
/// they arrive and against "Content-Length" up front), the header block by 256 KiB.
class TARN_API CurlHttpSession final : public HttpSession {
  public:
    /// `name` tells sessions apart in diagnostics.
    static std::shared_ptr<CurlHttpSession> make(std::string name);
    ~CurlHttpSession() override;
    void send(HttpRequest request, DataTaskCompletion completion) override;
    void invalidate() override;
    /// The session's name, for log lines.
    const std::string& name() const { return name_; }

    /// Diagnostics: what the libcurl sessions of the whole process hold at this moment.
    struct Resources {
        /// Easy handles: one per transfer from its start until its completion has returned (or
        /// it was abandoned).
        std::size_t easyHandles = 0;
        /// Multi handles: one per session until the session and its worker are gone.
        std::size_t multiHandles = 0;
        /// Worker threads that have not yet ended.
        std::size_t workerThreads = 0;
    };
    /// Any thread.
    static Resources liveResources();

    struct Impl;

  private:
    explicit CurlHttpSession(std::string name);
    std::string name_;
    std::shared_ptr<Impl> impl_;
};

/// The process-wide shared session, distinct from every client's own session. Created on first
/// use; its worker thread starts only when a task on it is resumed.
TARN_API HttpSession& sharedHttpSession();

}  // namespace tarn
