#include "support/RawSocketServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace tarn::test {

namespace {

/// Waits up to 100 ms for `fd` to be readable; false on time-out.
bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 100) > 0;
}

/// False once the client stopped reading and closed.
bool sendAll(int fd, std::string_view data) {
    for (ssize_t sent = 0; !data.empty(); data.remove_prefix(static_cast<std::size_t>(sent))) {
        if ((sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL)) <= 0)
            return false;
    }
    return true;
}

/// Deflates `total` bytes, handed out in pieces by `next`, into one gzip member.
std::string gzipStream(std::size_t total,
                       const std::function<std::string_view(std::size_t)>& next) {
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string out;
    char buffer[64 * 1024];
    for (std::size_t fed = 0, flush = Z_NO_FLUSH; flush != Z_FINISH;) {
        auto piece = next(std::min<std::size_t>(total - fed, 1 << 20));
        fed += piece.size();
        flush = fed >= total ? Z_FINISH : Z_NO_FLUSH;
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
        stream.avail_in = static_cast<uInt>(piece.size());
        do {
            stream.next_out = reinterpret_cast<Bytef*>(buffer);
            stream.avail_out = sizeof buffer;
            deflate(&stream, static_cast<int>(flush));
            out.append(buffer, sizeof buffer - stream.avail_out);
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return out;
}

}  // namespace

RawSocketServer::RawSocketServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listenFd_, raw, length) != 0 || ::listen(listenFd_, 16) != 0 ||
        ::getsockname(listenFd_, raw, &length) != 0) {
        ::close(listenFd_);
        throw std::runtime_error("RawSocketServer: cannot listen on 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] {
        while (!stopping_) {
            int fd =
                readable(listenFd_) ? ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
            if (fd < 0)
                continue;
            std::lock_guard lock(mutex_);
            connections_.emplace_back([this, fd] {
                serve(fd);
                ::close(fd);
            });
        }
    });
}

void RawSocketServer::answer(Answer answer) {
    std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
}

std::vector<RawSocketServer::Request> RawSocketServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void RawSocketServer::stop() {
    if (stopping_.exchange(true))
        return;
    acceptor_.join();  // after this, nobody else touches `connections_`
    ::close(listenFd_);
    for (auto& t : connections_)
        t.join();
}

void RawSocketServer::serve(int fd) {
    // The request: the header block, then as many body bytes as "Content-Length" announces.
    std::string received;
    std::size_t headerEnd = std::string::npos, wanted = 0;
    char buffer[16 * 1024];
    while (headerEnd == std::string::npos || received.size() < headerEnd + 4 + wanted) {
        if (stopping_)
            return;
        if (!readable(fd))
            continue;
        auto n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0)
            return;
        received.append(buffer, static_cast<std::size_t>(n));
        if (headerEnd == std::string::npos &&
            (headerEnd = received.find("\r\n\r\n")) != std::string::npos) {
            auto block = received.substr(0, headerEnd);
            if (const char* at = ::strcasestr(block.c_str(), "\r\ncontent-length:"))
                wanted = std::strtoull(at + 17, nullptr, 10);
        }
    }
    Answer answer;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back({received.substr(0, received.find(' '))});
        answer = answer_;
    }
    if (!sendAll(fd, answer.head) || !answer.body)
        return;
    for (auto chunk = answer.body(); !stopping_ && !chunk.empty() && sendAll(fd, chunk);
         chunk = answer.body())
        bytesWritten_ += chunk.size();
    ::shutdown(fd, SHUT_WR);
}

std::string RawSocketServer::head(const std::string& statusLine,
                                  const std::vector<std::string>& headers) {
    std::string text = statusLine + "\r\n";
    for (const auto& header : headers)
        text += header + "\r\n";
    return text + "\r\n";
}

RawSocketServer::BodySource RawSocketServer::repeated(std::size_t total, char fill) {
    // Each connection works on its own copy of the answer, so the count lives in the copy.
    return [left = total, block = std::string(64 * 1024, fill)]() mutable {
        auto n = std::min(left, block.size());
        left -= n;
        return std::string_view(block.data(), n);
    };
}

RawSocketServer::BodySource RawSocketServer::fixed(std::string payload) {
    return
        [shared = std::make_shared<const std::string>(std::move(payload)), sent = false]() mutable {
            return std::exchange(sent, true) ? std::string_view() : std::string_view(*shared);
        };
}

std::string gzipCompress(const std::string& text) {
    return gzipStream(text.size(), [&, at = std::size_t{0}](std::size_t n) mutable {
        at += n;
        return std::string_view(text).substr(at - n, n);
    });
}

std::string gzipOfZeros(std::size_t total) {
    const std::string zeros(1 << 20, '\0');
    return gzipStream(total, [&](std::size_t n) { return std::string_view(zeros).substr(0, n); });
}

std::size_t peakRssBytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::size_t>(usage.ru_maxrss) * 1024;
}

}  // namespace tarn::test
