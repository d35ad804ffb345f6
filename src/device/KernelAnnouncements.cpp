#include "device/KernelAnnouncements.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <string_view>

#include "base/ForkGeneration.h"

namespace tarn::detail {

namespace {

/// Keys of channels; a closed channel's key is never given again, so a stale readiness never
/// names another channel.
std::atomic<std::uint64_t> nextChannelId{1};

/// The process's epoll set of announcement descriptors. Never destroyed: channels of other
/// process-wide instances use it until exit. A child makes its own on first use and never changes
/// the inherited one, which is still its parent's.
class AnnouncementSet {
  public:
    static AnnouncementSet& shared() {
        static auto* set = new AnnouncementSet;
        return *set;
    }

    /// This process's set, -1 when epoll is unavailable.
    int descriptor() {
        std::lock_guard lock(mutex_);
        auto now = forkGeneration();
        if (generation_ != now) {
            if (fd_ >= 0) {
                ::close(fd_);  // the parent's set, inherited by this child
            }
            fd_ = ::epoll_create1(EPOLL_CLOEXEC);
            generation_ = now;
        }
        return fd_;
    }

    /// Adds `fd` under `id`; false when the set cannot report it.
    bool add(int fd, std::uint64_t id) {
        int set = descriptor();
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = id;
        return set >= 0 && ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event) == 0;
    }

    void remove(int fd) {
        if (int set = descriptor(); set >= 0) {
            ::epoll_ctl(set, EPOLL_CTL_DEL, fd, nullptr);
        }
    }

  private:
    AnnouncementSet() {
        generation_ = forkGeneration();
        fd_ = ::epoll_create1(EPOLL_CLOEXEC);
    }

    std::mutex mutex_;
    int fd_ = -1;
    unsigned generation_ = 0;
};

/// What the set reported to one thread. Trivially destructible: nothing runs at thread exit.
struct Readiness {
    static constexpr int kCapacity = 16;
    unsigned passDepth = 0;
    bool polled = false;      // inside a pass: the set was asked in this pass
    unsigned generation = 0;  // the fork generation of that answer
    bool everything = false;  // the answer was incomplete: every channel counts as ready
    int count = 0;
    std::uint64_t ready[kCapacity];

    void poll() {
        epoll_event events[kCapacity];
        int set = AnnouncementSet::shared().descriptor();
        int found = set < 0 ? -1 : ::epoll_wait(set, events, kCapacity, 0);
        generation = forkGeneration();
        // A failed wait or a full list may leave ready channels out: drain them all.
        everything = found < 0 || found == kCapacity;
        count = everything ? 0 : found;
        for (int i = 0; i < count; ++i) {
            ready[i] = events[i].data.u64;
        }
    }

    bool isReady(std::uint64_t id) {
        if (passDepth == 0 || !polled || generation != forkGeneration()) {
            poll();
            polled = passDepth > 0;
        }
        return everything || std::find(ready, ready + count, id) != ready + count;
    }
};

thread_local Readiness readiness;

}  // namespace

AnnouncementPass::AnnouncementPass() {
    ++readiness.passDepth;
}

AnnouncementPass::~AnnouncementPass() {
    if (--readiness.passDepth == 0) {
        readiness.polled = false;
    }
}

AnnouncementChannel::AnnouncementChannel(Open open, Classify classify)
    : open_(std::move(open)), classify_(std::move(classify)) {
    this->open();
}

AnnouncementChannel::~AnnouncementChannel() {
    close();
}

void AnnouncementChannel::open() {
    auto& set = AnnouncementSet::shared();
    generation_ = forkGeneration();
    fd_ = open_();
    if (fd_ >= 0) {
        id_ = nextChannelId.fetch_add(1, std::memory_order_relaxed);
        inSet_ = set.add(fd_, id_);
    }
}

void AnnouncementChannel::close() {
    if (fd_ < 0) {
        return;
    }
    // Only this process's own set: a descriptor inherited from a parent is in the parent's.
    if (inSet_ && generation_ == forkGeneration()) {
        AnnouncementSet::shared().remove(fd_);
    }
    ::close(fd_);
    fd_ = -1;
    inSet_ = false;
}

AnnouncementChannel::Since AnnouncementChannel::check() {
    if (generation_ != forkGeneration()) {
        // A forked child: the descriptor is shared with the parent, whose announcements it would
        // take. A descriptor of its own knows nothing of what happened before, so read again.
        close();
        open();
        return fd_ >= 0 ? Since::changed : Since::unwatched;
    }
    if (fd_ < 0) {
        return Since::unwatched;
    }
    if (inSet_ && !readiness.isReady(id_)) {
        return Since::nothing;
    }
    return drain() ? Since::changed : Since::nothing;
}

bool AnnouncementChannel::drain() {
    bool changed = false;
    alignas(8) char buffer[8192];
    while (true) {
        auto length = ::read(fd_, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0 && errno == ENOBUFS) {
            changed = true;  // the socket's queue overran: announcements were lost
            continue;
        }
        if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return changed;
        }
        if (length <= 0) {
            close();  // unusable from now on: every read is fresh
            return true;
        }
        switch (classify_(buffer, static_cast<std::size_t>(length))) {
            case News::none:
                break;
            case News::changed:
                changed = true;
                break;
            case News::watchLost:
                close();
                return true;
        }
    }
}

AnnouncedValue::AnnouncedValue(AnnouncementChannel::Open open,
                               AnnouncementChannel::Classify classify)
    : channel_(std::move(open), std::move(classify)) {}

bool AnnouncedValue::watching() const {
    std::lock_guard lock(mutex_);
    return channel_.watching();
}

std::string AnnouncedValue::get(const std::function<std::string()>& read) {
    std::lock_guard lock(mutex_);
    switch (channel_.check()) {
        case AnnouncementChannel::Since::unwatched:
            value_.reset();
            return read();
        case AnnouncementChannel::Since::changed:
            value_ = read();
            break;
        case AnnouncementChannel::Since::nothing:
            if (!value_) {
                value_ = read();
            }
            break;
    }
    return *value_;
}

namespace {

/// A non-blocking netlink socket bound to `groups` of `protocol`; -1 when refused.
int netlinkSocket(int protocol, std::uint32_t groups) {
    int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::unique_ptr<AnnouncementChannel> makeRoutingChannel() {
    return std::make_unique<AnnouncementChannel>(
        [] {
            return netlinkSocket(NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR |
                                                    RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE |
                                                    RTMGRP_IPV6_ROUTE);
        },
        [](const char*, std::size_t) { return AnnouncementChannel::News::changed; });
}

std::unique_ptr<AnnouncedValue> makePowerSupplyCache() {
    // A uevent is "ACTION@DEVPATH" followed by NUL-separated KEY=VALUE fields.
    using News = AnnouncedValue::News;
    return std::make_unique<AnnouncedValue>(
        [] { return netlinkSocket(NETLINK_KOBJECT_UEVENT, 1); },  // the kernel's own uevents
        [](const char* message, std::size_t size) {
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
    using News = AnnouncedValue::News;
    return std::make_unique<AnnouncedValue>(
        [folder] {
            int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
            if (fd >= 0 && ::inotify_add_watch(fd, folder.c_str(),
                                               IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                                   IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF |
                                                   IN_MOVE_SELF) < 0) {
                ::close(fd);
                fd = -1;
            }
            return fd;
        },
        [](const char* message, std::size_t size) {
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
