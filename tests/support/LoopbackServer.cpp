#include "support/LoopbackServer.h"

#include <dirent.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace tarn::test {

namespace {

int portOf(int fd, bool peer) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    bool ok = (peer ? ::getpeername(fd, raw, &size) : ::getsockname(fd, raw, &size)) == 0;
    return ok && address.sin_family == AF_INET ? ntohs(address.sin_port) : -1;
}

/// Shuts down the accepted connection from `remotePort` to `localPort`. cpp-httplib does not hand
/// the socket to handlers, so it is found among the process's descriptors.
void shutdownConnection(int localPort, int remotePort) {
    DIR* dir = ::opendir("/proc/self/fd");
    while (dirent* entry = dir ? ::readdir(dir) : nullptr) {
        int fd = std::atoi(entry->d_name);
        if (fd > 2 && fd != ::dirfd(dir) && portOf(fd, false) == localPort &&
            portOf(fd, true) == remotePort)
            ::shutdown(fd, SHUT_RDWR);
    }
    if (dir)
        ::closedir(dir);
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
    for (const auto& [field, value] : headers) {
        if (field.size() == name.size() &&
            ::strncasecmp(field.data(), name.data(), name.size()) == 0)
            return value;
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

    std::size_t countLocked(const std::string& path) const {
        return static_cast<std::size_t>(std::count_if(
            recorded.begin(), recorded.end(), [&](const auto& r) { return r.path == path; }));
    }

    void handle(const httplib::Request& req, httplib::Response& res, int localPort) {
        RecordedRequest record{req.method, req.path, {}, req.body};
        for (const auto& [field, value] : req.headers) {
            // cpp-httplib adds the peer's and its own address and port as pseudo headers.
            if (field.find("_ADDR") == std::string::npos &&
                field.find("_PORT") == std::string::npos)
                record.headers.emplace_back(field, value);
        }
        Responder responder;
        {
            std::lock_guard lock(mutex);
            recorded.push_back(record);
            if (auto it = scripts.find(record.path); it != scripts.end())
                responder = it->second;
        }
        changed.notify_all();
        ScriptedAnswer answer = responder ? responder(record) : ScriptedAnswer{.status = 404};
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
        for (const auto& [field, value] : answer.headers)
            res.set_header(field, value);
        if (!answer.body.empty())
            res.set_content(answer.body, answer.contentType);
    }
};

LoopbackServer::LoopbackServer() : impl_(std::make_unique<Impl>()) {
    impl_->server.set_keep_alive_max_count(100000);
    // Without this, answers on a reused connection wait for the client's delayed ACK (~40 ms).
    impl_->server.set_tcp_nodelay(true);
    port_ = impl_->server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0)
        throw std::runtime_error("LoopbackServer: cannot bind 127.0.0.1");
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        impl_->handle(req, res, port_);
    };
    impl_->server.Get(".*", handler).Post(".*", handler).Put(".*", handler);
    impl_->server.Delete(".*", handler).Patch(".*", handler);
    // The socket already listens; connections made before the loop starts wait in its backlog.
    impl_->listener = std::thread([this] { impl_->server.listen_after_bind(); });
    // cpp-httplib ignores stop() until its accept loop runs, so wait for that here.
    for (int i = 0; i < 10000 && !impl_->server.is_running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
    stop();
}

void LoopbackServer::stop() {
    {
        std::lock_guard lock(impl_->mutex);
        if (std::exchange(impl_->stopped, true))
            return;
    }
    impl_->changed.notify_all();
    impl_->server.stop();
    impl_->listener.join();
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
    std::vector<RecordedRequest> out;
    std::lock_guard lock(impl_->mutex);
    std::copy_if(impl_->recorded.begin(), impl_->recorded.end(), std::back_inserter(out),
                 [&](const auto& r) { return r.path == path; });
    return out;
}

std::size_t LoopbackServer::count(const std::string& path) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->countLocked(path);
}

bool LoopbackServer::waitForCount(const std::string& path, std::size_t n,
                                  std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->countLocked(path) >= n; });
}

}  // namespace tarn::test

#if defined(__SANITIZE_THREAD__)
// cpp-httplib is a prebuilt, uninstrumented library: ThreadSanitizer cannot see its synchronisation
// and reports its worker threads' byte copies. Only accesses made directly by it are ignored.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}
#endif
