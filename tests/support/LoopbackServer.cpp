#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace tarn::test {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

int portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    }
    if (address.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    }
    return -1;
}

/// Shuts down the accepted connection from `remotePort` to `localPort`. cpp-httplib does not hand
/// the socket to handlers, so it is found among the process's descriptors.
void shutdownConnection(int localPort, int remotePort) {
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) {
        return;
    }
    while (dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == ::dirfd(dir)) {
            continue;
        }
        sockaddr_storage local{}, peer{};
        socklen_t localSize = sizeof local, peerSize = sizeof peer;
        if (::getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &localSize) !=
                0 ||
            ::getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &peerSize) !=
                0) {
            continue;
        }
        if (portOf(local) == localPort && portOf(peer) == remotePort) {
            ::shutdown(static_cast<int>(fd), SHUT_RDWR);
        }
    }
    ::closedir(dir);
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
    for (const auto& [field, value] : headers) {
        if (equalsIgnoringCase(field, name)) {
            return value;
        }
    }
    return std::nullopt;
}

struct LoopbackServer::Impl {
    httplib::Server server;
    std::thread listener;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    bool stopped = false;
    std::vector<RecordedRequest> recorded;
    std::map<std::string, Responder> scripts;

    void handle(const httplib::Request& req, httplib::Response& res, int localPort) {
        RecordedRequest record;
        record.method = req.method;
        record.path = req.path;
        record.body = req.body;
        for (const auto& [field, value] : req.headers) {
            // cpp-httplib adds the peer's address and port as pseudo headers.
            if (field == "REMOTE_ADDR" || field == "REMOTE_PORT" || field == "LOCAL_ADDR" ||
                field == "LOCAL_PORT") {
                continue;
            }
            record.headers.emplace_back(field, value);
        }
        Responder responder;
        {
            std::lock_guard lock(mutex);
            recorded.push_back(record);
            auto it = scripts.find(record.path);
            if (it != scripts.end()) {
                responder = it->second;
            }
        }
        changed.notify_all();
        ScriptedAnswer answer;
        if (responder) {
            answer = responder(record);
        } else {
            answer.status = 404;
        }
        if (answer.delay.count() > 0) {
            std::unique_lock lock(mutex);
            changed.wait_for(lock, answer.delay, [this] { return stopped; });
        }
        if (answer.closeWithoutAnswer) {
            shutdownConnection(localPort, req.remote_port);
            res.status = 500;
            return;
        }
        res.status = answer.status;
        for (const auto& [field, value] : answer.headers) {
            res.set_header(field, value);
        }
        if (!answer.body.empty()) {
            res.set_content(answer.body, answer.contentType);
        }
    }
};

LoopbackServer::LoopbackServer() : impl_(std::make_unique<Impl>()) {
    impl_->server.set_keep_alive_max_count(100000);
    // Without this, answers on a reused connection wait for the client's delayed ACK (~40 ms).
    impl_->server.set_tcp_nodelay(true);
    port_ = impl_->server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) {
        throw std::runtime_error("LoopbackServer: cannot bind 127.0.0.1");
    }
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        impl_->handle(req, res, port_);
    };
    impl_->server.Get(".*", handler);
    impl_->server.Post(".*", handler);
    impl_->server.Put(".*", handler);
    impl_->server.Delete(".*", handler);
    impl_->server.Patch(".*", handler);
    // The socket already listens; connections made before the loop starts wait in its backlog.
    impl_->listener = std::thread([this] { impl_->server.listen_after_bind(); });
    // cpp-httplib ignores stop() until its accept loop runs, so wait for that here.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!impl_->server.is_running() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

LoopbackServer::~LoopbackServer() {
    stop();
}

void LoopbackServer::stop() {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->stopped) {
            return;
        }
        impl_->stopped = true;
    }
    impl_->changed.notify_all();
    impl_->server.stop();
    if (impl_->listener.joinable()) {
        impl_->listener.join();
    }
}

std::string LoopbackServer::baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

void LoopbackServer::on(const std::string& path, ScriptedAnswer answer) {
    onRequest(path, [answer](const RecordedRequest&) { return answer; });
}

void LoopbackServer::onSequence(const std::string& path, std::vector<ScriptedAnswer> answers) {
    if (answers.empty()) {
        throw std::invalid_argument("LoopbackServer::onSequence needs at least one answer");
    }
    auto state = std::make_shared<std::pair<std::mutex, std::size_t>>();
    onRequest(path, [state, answers = std::move(answers)](const RecordedRequest&) {
        std::lock_guard lock(state->first);
        auto index = std::min(state->second++, answers.size() - 1);
        return answers[index];
    });
}

void LoopbackServer::onRequest(const std::string& path, Responder responder) {
    std::lock_guard lock(impl_->mutex);
    impl_->scripts[path] = std::move(responder);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->recorded;
}

std::vector<RecordedRequest> LoopbackServer::requests(const std::string& path) const {
    std::lock_guard lock(impl_->mutex);
    std::vector<RecordedRequest> out;
    for (const auto& r : impl_->recorded) {
        if (r.path == path) {
            out.push_back(r);
        }
    }
    return out;
}

std::size_t LoopbackServer::count(const std::string& path) const {
    std::lock_guard lock(impl_->mutex);
    return static_cast<std::size_t>(
        std::count_if(impl_->recorded.begin(), impl_->recorded.end(),
                      [&](const RecordedRequest& r) { return r.path == path; }));
}

std::size_t LoopbackServer::totalCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->recorded.size();
}

bool LoopbackServer::waitForCount(const std::string& path, std::size_t n,
                                  std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] {
        return static_cast<std::size_t>(
                   std::count_if(impl_->recorded.begin(), impl_->recorded.end(),
                                 [&](const RecordedRequest& r) { return r.path == path; })) >= n;
    });
}

}  // namespace tarn::test

#if defined(__SANITIZE_THREAD__)
// cpp-httplib is a prebuilt, uninstrumented library: ThreadSanitizer cannot see the
// synchronisation inside it and reports the byte copies its worker threads make. Only accesses
// made directly by that library are ignored; the server's handler code here stays checked.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}
#endif
