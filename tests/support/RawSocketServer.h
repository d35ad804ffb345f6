#pragma once
// A TCP server on 127.0.0.1 that answers each connection once with hand-made bytes (broken status
// lines, lying headers, huge bodies streamed in chunks so they never exist whole), then closes it.
// Every method is thread-safe.

#include <atomic>
#include <cstddef>
#include <functional>
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
    };
    /// One request as it arrived.
    struct Request {
        std::string method;
    };

    RawSocketServer();
    ~RawSocketServer() { stop(); }
    RawSocketServer(const RawSocketServer&) = delete;
    RawSocketServer& operator=(const RawSocketServer&) = delete;

    /// "http://127.0.0.1:<port>".
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
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
/// A gzip member that expands to `total` zero bytes (the expanded text is never held in memory).
std::string gzipOfZeros(std::size_t total);
/// The process's peak resident set size in bytes so far (getrusage).
std::size_t peakRssBytes();

}  // namespace tarn::test
