#pragma once
// A TCP server on 127.0.0.1 that answers with hand-made bytes: broken status lines, lying
// headers, bodies far larger than anything worth keeping in memory. Each connection gets one
// answer, written by a thread of the server, after which the connection is closed.
//
// The answer is a head (any bytes: a status line and headers, or garbage) and an optional body
// source that is asked for chunks until it returns an empty one or the client stops reading, so a
// 100 MB body never exists as a whole. Every method is thread-safe.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tarn::test {

class RawSocketServer {
  public:
    /// The next body bytes (valid until the next call); an empty view ends the body.
    using BodySource = std::function<std::string_view()>;

    struct Answer {
        std::string head;
        BodySource body;
        /// Wait this long after reading the request before writing (cut short by `stop`).
        std::chrono::milliseconds delay{0};
    };

    /// One request as it arrived: the request line, the header block and the body.
    struct Request {
        std::string method;
        std::string target;
        std::string headers;
        std::string body;
    };

    RawSocketServer();
    ~RawSocketServer();
    RawSocketServer(const RawSocketServer&) = delete;
    RawSocketServer& operator=(const RawSocketServer&) = delete;

    /// "http://127.0.0.1:<port>".
    std::string baseUrl() const;
    /// Every later connection gets `answer`.
    void answer(Answer answer);
    std::vector<Request> requests() const;
    /// Body bytes written to clients so far, over every connection.
    std::size_t bytesWritten() const { return bytesWritten_.load(); }
    /// Closes the listening socket and joins every thread. Idempotent.
    void stop();

    /// A head with the given status line and headers, ending the header block.
    static std::string head(const std::string& statusLine,
                            const std::vector<std::string>& headers = {});
    /// `total` bytes of `fill`, in chunks of 64 KiB.
    static BodySource repeated(std::size_t total, char fill = 'x');
    /// `payload` as it stands, in one chunk; the bytes are shared by every copy, not copied.
    static BodySource fixed(std::string payload);

  private:
    void acceptLoop();
    void serve(int fd);

    int listenFd_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<std::size_t> bytesWritten_{0};
    mutable std::mutex mutex_;
    Answer answer_;
    std::vector<Request> requests_;
    std::vector<std::thread> connections_;
    std::thread acceptor_;
};

/// `text` compressed into a gzip member with zlib.
std::string gzipCompress(const std::string& text);
/// A gzip member that expands to `total` zero bytes, built in pieces (the expanded text is never
/// held in memory).
std::string gzipOfZeros(std::size_t total);

/// The process's peak resident set size in bytes so far (getrusage).
std::size_t peakRssBytes();

}  // namespace tarn::test
