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
#include <stdexcept>

namespace tarn::test {

namespace {

/// Waits up to 100 ms for `fd` to be readable; false on time-out.
bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 100) > 0;
}

bool sendAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        auto sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;  // the client stopped reading and closed
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

}  // namespace

RawSocketServer::RawSocketServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) {
        throw std::runtime_error("socket failed");
    }
    int yes = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 16) != 0) {
        ::close(listenFd_);
        throw std::runtime_error("bind or listen failed");
    }
    socklen_t length = sizeof address;
    ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

RawSocketServer::~RawSocketServer() {
    stop();
}

std::string RawSocketServer::baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(port_);
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
    if (stopping_.exchange(true)) {
        return;
    }
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    ::close(listenFd_);
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(mutex_);
        threads.swap(connections_);
    }
    for (auto& t : threads) {
        t.join();
    }
}

void RawSocketServer::acceptLoop() {
    while (!stopping_) {
        if (!readable(listenFd_)) {
            continue;
        }
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        std::lock_guard lock(mutex_);
        connections_.emplace_back([this, fd] {
            serve(fd);
            ::close(fd);
        });
    }
}

void RawSocketServer::serve(int fd) {
    // The request: the header block, then as many body bytes as "Content-Length" announces.
    std::string received;
    std::size_t headerEnd = std::string::npos;
    std::size_t wanted = 0;
    char buffer[16 * 1024];
    while (!stopping_) {
        if (headerEnd != std::string::npos && received.size() >= headerEnd + 4 + wanted) {
            break;
        }
        if (!readable(fd)) {
            continue;
        }
        auto n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            return;
        }
        received.append(buffer, static_cast<std::size_t>(n));
        if (headerEnd == std::string::npos) {
            headerEnd = received.find("\r\n\r\n");
            if (headerEnd != std::string::npos) {
                std::string lower = received.substr(0, headerEnd);
                std::transform(lower.begin(), lower.end(), lower.begin(),
                               [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
                auto at = lower.find("\r\ncontent-length:");
                if (at != std::string::npos) {
                    wanted = std::strtoull(lower.c_str() + at + 17, nullptr, 10);
                }
            }
        }
    }
    if (stopping_) {
        return;
    }
    Request request;
    auto lineEnd = received.find("\r\n");
    auto firstSpace = received.find(' ');
    auto secondSpace = received.find(' ', firstSpace + 1);
    request.method = received.substr(0, firstSpace);
    request.target = received.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    request.headers = received.substr(lineEnd + 2, headerEnd - lineEnd - 2);
    request.body = received.substr(headerEnd + 4, wanted);
    Answer answer;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(std::move(request));
        answer = answer_;
    }
    for (auto waited = std::chrono::milliseconds(0); waited < answer.delay && !stopping_;
         waited += std::chrono::milliseconds(10)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!sendAll(fd, answer.head.data(), answer.head.size()) || !answer.body) {
        return;
    }
    while (!stopping_) {
        auto chunk = answer.body();
        if (chunk.empty() || !sendAll(fd, chunk.data(), chunk.size())) {
            break;
        }
        bytesWritten_ += chunk.size();
    }
    ::shutdown(fd, SHUT_WR);
}

std::string RawSocketServer::head(const std::string& statusLine,
                                  const std::vector<std::string>& headers) {
    std::string text = statusLine + "\r\n";
    for (const auto& header : headers) {
        text += header + "\r\n";
    }
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
            if (sent) {
                return std::string_view();
            }
            sent = true;
            return std::string_view(*shared);
        };
}

namespace {

/// Deflates `total` bytes produced by `next` into one gzip member.
std::string gzipStream(std::size_t total, const std::function<std::string(std::size_t)>& next) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2 failed");
    }
    std::string out;
    char buffer[64 * 1024];
    std::size_t fed = 0;
    int flush = Z_NO_FLUSH;
    do {
        std::string input = fed < total ? next(std::min<std::size_t>(total - fed, 1 << 20)) : "";
        fed += input.size();
        flush = fed >= total ? Z_FINISH : Z_NO_FLUSH;
        stream.next_in = reinterpret_cast<Bytef*>(input.data());
        stream.avail_in = static_cast<uInt>(input.size());
        do {
            stream.next_out = reinterpret_cast<Bytef*>(buffer);
            stream.avail_out = sizeof buffer;
            deflate(&stream, flush);
            out.append(buffer, sizeof buffer - stream.avail_out);
        } while (stream.avail_out == 0);
    } while (flush != Z_FINISH);
    deflateEnd(&stream);
    return out;
}

}  // namespace

std::string gzipCompress(const std::string& text) {
    return gzipStream(text.size(), [&, at = std::size_t{0}](std::size_t n) mutable {
        auto piece = text.substr(at, n);
        at += n;
        return piece;
    });
}

std::string gzipOfZeros(std::size_t total) {
    return gzipStream(total, [](std::size_t n) { return std::string(n, '\0'); });
}

std::size_t peakRssBytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::size_t>(usage.ru_maxrss) * 1024;
}

}  // namespace tarn::test
