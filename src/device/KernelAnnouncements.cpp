#include "device/KernelAnnouncements.h"

#include <linux/netlink.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>

namespace tarn::detail {

AnnouncedValue::AnnouncedValue(int fd,
                               std::function<News(const char* message, std::size_t size)> relevant)
    : fd_(fd), relevant_(std::move(relevant)) {}

AnnouncedValue::~AnnouncedValue() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool AnnouncedValue::drainAnnouncements() {
    bool changed = false;
    alignas(8) char buffer[8192];
    while (true) {
        auto length = ::read(fd_, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            // EAGAIN: nothing more pending. Any other failure (an overrun netlink buffer gives
            // ENOBUFS) may have lost an announcement, so the value is read again.
            if (length < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
                changed = true;
            }
            return changed;
        }
        switch (relevant_(buffer, static_cast<std::size_t>(length))) {
            case News::none:
                break;
            case News::changed:
                changed = true;
                break;
            case News::watchLost:
                lost_ = true;
                return true;
        }
    }
}

bool AnnouncedValue::watching() const {
    std::lock_guard lock(mutex_);
    return fd_ >= 0 && !lost_;
}

std::string AnnouncedValue::get(const std::function<std::string()>& read) {
    std::lock_guard lock(mutex_);
    if (fd_ < 0 || lost_) {
        return read();
    }
    if (drainAnnouncements() || !value_) {
        value_ = read();
    }
    return *value_;
}

std::unique_ptr<AnnouncedValue> makePowerSupplyCache() {
    int fd =
        ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd >= 0) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;  // the kernel's own uevents
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    // A uevent is "ACTION@DEVPATH" followed by NUL-separated KEY=VALUE fields.
    using News = AnnouncedValue::News;
    return std::make_unique<AnnouncedValue>(fd, [](const char* message, std::size_t size) {
        std::string_view text(message, size);
        for (std::size_t at = 0; at < text.size();) {
            auto end = text.find('\0', at);
            auto field = text.substr(at, end == std::string_view::npos ? end : end - at);
            if (field == "SUBSYSTEM=power_supply") {
                return News::changed;
            }
            if (end == std::string_view::npos) {
                break;
            }
            at = end + 1;
        }
        return News::none;
    });
}

std::unique_ptr<AnnouncedValue> makeTimeZoneFileCache(const std::filesystem::path& folder) {
    int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd >= 0 &&
        ::inotify_add_watch(fd, folder.c_str(),
                            IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE |
                                IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF) < 0) {
        ::close(fd);
        fd = -1;
    }
    using News = AnnouncedValue::News;
    return std::make_unique<AnnouncedValue>(fd, [](const char* message, std::size_t size) {
        auto news = News::none;
        for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
            inotify_event event;
            std::memcpy(&event, message + at, sizeof event);
            std::string_view name;
            if (event.len > 0 && at + sizeof event + event.len <= size) {
                name = std::string_view(message + at + sizeof event);
            }
            // The folder itself moved or removed (its watch ends) or a lost queue: from now on
            // nothing tells of a change, so every read is fresh.
            if (event.mask & (IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
                return News::watchLost;
            }
            if (name == "localtime" || name == "timezone") {
                news = News::changed;
            }
            at += sizeof event + event.len;
        }
        return news;
    });
}

std::string timeZoneFromFiles(const std::filesystem::path& folder) {
    char target[PATH_MAX];
    if (auto length = ::readlink((folder / "localtime").c_str(), target, sizeof target);
        length > 0 && static_cast<std::size_t>(length) < sizeof target) {
        std::string_view path(target, static_cast<std::size_t>(length));
        if (auto at = path.find("zoneinfo/");
            at != std::string_view::npos && at + 9 < path.size()) {
            return std::string(path.substr(at + 9));
        }
    }
    std::string line;
    if (std::ifstream in(folder / "timezone"); in && std::getline(in, line) && !line.empty()) {
        return line;
    }
    return "UTC";
}

}  // namespace tarn::detail
