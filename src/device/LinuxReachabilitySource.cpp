// The Linux flags source: interfaces, routes and a routing netlink watcher.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "device/DefaultRoute.h"
#include "device/KernelAnnouncements.h"
#include "tarn/device/Reachability.h"

namespace tarn {

namespace {

struct InterfaceState {
    unsigned flags = 0;
    bool hasAddress = false;  // IPv4, or IPv6 outside fe80::/10
};

bool usable(const InterfaceState& state) {
    return (state.flags & IFF_UP) && (state.flags & IFF_RUNNING) && !(state.flags & IFF_LOOPBACK);
}

/// The sysfs facts that tell the kind of a network device.
bool isWirelessDevice(const std::string& name, std::string* devtype) {
    std::filesystem::path base = std::filesystem::path("/sys/class/net") / name;
    std::ifstream uevent(base / "uevent");
    std::string line;
    while (std::getline(uevent, line)) {
        if (line.rfind("DEVTYPE=", 0) == 0) {
            *devtype = line.substr(8);
        }
    }
    std::error_code ec;
    return *devtype == "wlan" || std::filesystem::exists(base / "wireless", ec) ||
           std::filesystem::exists(base / "phy80211", ec);
}

bool isCellularDevice(const std::string& name) {
    std::string devtype;
    bool wireless = isWirelessDevice(name, &devtype);
    return !wireless && devtype == "wwan";
}

struct DefaultRoute {
    std::string interface;
    bool hasGateway = false;
};

/// Default routes of this network namespace, IPv4 first, from the kernel's route tables.
std::vector<DefaultRoute> defaultRoutes() {
    std::vector<DefaultRoute> routes;
    std::ifstream v4("/proc/net/route");
    std::string line;
    std::getline(v4, line);  // header
    while (std::getline(v4, line)) {
        std::istringstream fields(line);
        std::string iface, destination, gateway, flagsText, refcnt, use, metric, mask;
        if (!(fields >> iface >> destination >> gateway >> flagsText >> refcnt >> use >> metric >>
              mask)) {
            continue;
        }
        unsigned long flags = std::strtoul(flagsText.c_str(), nullptr, 16);
        if (destination == "00000000" && mask == "00000000" && (flags & RTF_UP) &&
            !(flags & RTF_REJECT)) {
            routes.push_back({iface, gateway != "00000000"});
        }
    }
    std::ifstream v6("/proc/net/ipv6_route");
    while (std::getline(v6, line)) {
        std::istringstream fields(line);
        std::string destination, destinationLength, source, sourceLength, nextHop, metric, refcnt,
            use, flagsText, iface;
        if (!(fields >> destination >> destinationLength >> source >> sourceLength >> nextHop >>
              metric >> refcnt >> use >> flagsText >> iface)) {
            continue;
        }
        unsigned long flags = std::strtoul(flagsText.c_str(), nullptr, 16);
        if (destinationLength == "00" && destination == std::string(32, '0') && (flags & RTF_UP) &&
            !(flags & RTF_REJECT) && iface != "lo") {
            routes.push_back({iface, nextHop != std::string(32, '0')});
        }
    }
    return routes;
}

bool readInterfaces(std::map<std::string, InterfaceState>& out, std::vector<std::string>& order,
                    std::int32_t& error) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        error = errno;
        return false;
    }
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_name) {
            continue;
        }
        std::string name = entry->ifa_name;
        if (!out.count(name)) {
            order.push_back(name);
        }
        auto& state = out[name];
        state.flags = entry->ifa_flags;
        if (!entry->ifa_addr) {
            continue;
        }
        if (entry->ifa_addr->sa_family == AF_INET) {
            state.hasAddress = true;
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
            if (!IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) {
                state.hasAddress = true;
            }
        }
    }
    ::freeifaddrs(list);
    return true;
}

/// The interface that owns `local` (an address of this machine), or "".
std::string interfaceOwning(const sockaddr_storage& local) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return {};
    }
    std::string found;
    for (ifaddrs* entry = list; entry && found.empty(); entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != local.ss_family) {
            continue;
        }
        if (local.ss_family == AF_INET) {
            const auto* a = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            const auto* b = reinterpret_cast<const sockaddr_in*>(&local);
            if (a->sin_addr.s_addr == b->sin_addr.s_addr) {
                found = entry->ifa_name;
            }
        } else if (local.ss_family == AF_INET6) {
            const auto* a = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
            const auto* b = reinterpret_cast<const sockaddr_in6*>(&local);
            if (IN6_ARE_ADDR_EQUAL(&a->sin6_addr, &b->sin6_addr)) {
                found = entry->ifa_name;
            }
        }
    }
    ::freeifaddrs(list);
    return found;
}

/// The default route's flags read from the kernel's present state.
std::optional<ReachabilityFlags> readDefaultRouteFlags(std::int32_t& error) {
    std::map<std::string, InterfaceState> interfaces;
    std::vector<std::string> order;
    if (!readInterfaces(interfaces, order, error)) {
        return std::nullopt;
    }
    std::optional<DefaultRoute> route;
    for (const auto& candidate : defaultRoutes()) {
        auto it = interfaces.find(candidate.interface);
        if (it != interfaces.end() && usable(it->second)) {
            route = candidate;
            break;
        }
    }
    std::string carrier;
    if (route) {
        carrier = route->interface;
    } else {
        for (const auto& name : order) {
            const auto& state = interfaces[name];
            if (usable(state) && state.hasAddress) {
                carrier = name;
                break;
            }
        }
    }
    if (carrier.empty()) {
        return ReachabilityFlags{0};
    }
    ReachabilityFlags flags = kReachabilityReachable;
    if (!route || !route->hasGateway) {
        flags |= kReachabilityIsDirect;
    }
    if (isCellularDevice(carrier)) {
        flags |= kReachabilityIsWWAN;
    }
    return flags;
}

/// The default route's flags, read again only when the routing state may have changed.
///
/// Everything `readDefaultRouteFlags` depends on (the interfaces with their flags and addresses,
/// and the IPv4 and IPv6 default routes; the kind of a device is fixed for its life) is announced
/// by the kernel on the routing channel's netlink groups, and the kernel queues the announcement
/// on every subscribed socket before the change it describes completes. So the reading kept from
/// an earlier call is still what a fresh reading would give as long as the channel has nothing
/// new, and a call costs no interface dump and no route tables. Any message, an overflow of the
/// socket's queue (ENOBUFS) or a failed reading discards the kept one. Without a usable socket
/// (netlink refused) every call reads afresh. A child process opens a socket of its own, so parent
/// and child never take each other's messages.
class DefaultRouteReading {
  public:
    static DefaultRouteReading& shared() {
        static auto* reading = new DefaultRouteReading;  // never destroyed: used until exit
        return *reading;
    }

    std::optional<ReachabilityFlags> flags(std::int32_t& error) {
        std::lock_guard lock(mutex_);
        if (channel_->check() != detail::AnnouncementChannel::Since::nothing) {
            kept_.reset();
        }
        if (kept_) {
            return kept_;
        }
        auto flags = readDefaultRouteFlags(error);
        if (channel_->watching()) {
            kept_ = flags;
        }
        return flags;
    }

  private:
    std::mutex mutex_;
    std::unique_ptr<detail::AnnouncementChannel> channel_ = detail::makeRoutingChannel();
    std::optional<ReachabilityFlags> kept_;
};

class LinuxReachabilitySource final : public ReachabilityFlagsSource {
  public:
    /// `host`: a numeric destination to check, or none for the default route.
    explicit LinuxReachabilitySource(std::optional<sockaddr_storage> host) : host_(host) {}
    ~LinuxReachabilitySource() override { stopWatcher(); }

    std::optional<ReachabilityFlags> getFlags() override {
        std::int32_t error = 0;
        auto flags = host_ ? hostFlags(error) : detail::defaultRouteFlags(error);
        if (!flags) {
            lastError_ = error;
        }
        return flags;
    }

    bool setCallback(std::function<void()> callback) override {
        std::lock_guard lock(mutex_);
        callback_ = std::move(callback);
        return true;
    }

    bool setDispatchQueue(std::shared_ptr<Executor> queue) override {
        if (!queue) {
            stopWatcher();
            return true;
        }
        std::lock_guard control(controlMutex_);
        {
            std::lock_guard lock(mutex_);
            queue_ = std::move(queue);
        }
        if (watcher_.joinable()) {
            return true;
        }
        int socketFd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
        if (socketFd < 0) {
            return fail(errno);
        }
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE;
        if (::bind(socketFd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            int error = errno;
            ::close(socketFd);
            return fail(error);
        }
        int stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (stopFd < 0) {
            int error = errno;
            ::close(socketFd);
            return fail(error);
        }
        socketFd_ = socketFd;
        stopFd_ = stopFd;
        watcher_ = std::thread([this] { watch(); });
        return true;
    }

    std::int32_t lastError() const override { return lastError_.load(); }

  private:
    bool fail(int error) {
        lastError_ = error;
        std::lock_guard lock(mutex_);
        queue_.reset();
        return false;
    }

    void stopWatcher() {
        std::lock_guard control(controlMutex_);
        {
            std::lock_guard lock(mutex_);
            queue_.reset();
        }
        if (!watcher_.joinable()) {
            return;
        }
        std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(stopFd_, &one, sizeof one);
        watcher_.join();
        ::close(socketFd_);
        ::close(stopFd_);
        socketFd_ = stopFd_ = -1;
    }

    /// The watcher thread: waits for routing messages and, after each burst, posts the callback.
    void watch() {
        pollfd fds[2] = {{socketFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
        char buffer[16384];
        while (true) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return;
            }
            if (fds[1].revents) {
                return;
            }
            if (!fds[0].revents) {
                continue;
            }
            // Drain everything queued (an overflow, ENOBUFS, also means "something changed").
            while (true) {
                ssize_t received = ::recv(socketFd_, buffer, sizeof buffer, 0);
                if (received > 0 || (received < 0 && (errno == ENOBUFS || errno == EINTR))) {
                    continue;
                }
                break;
            }
            std::function<void()> callback;
            std::shared_ptr<Executor> queue;
            {
                std::lock_guard lock(mutex_);
                callback = callback_;
                queue = queue_;
            }
            if (callback && queue) {
                queue->async(std::move(callback));
            }
        }
    }

    std::optional<ReachabilityFlags> hostFlags(std::int32_t& error) const {
        int family = host_->ss_family;
        int socketFd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (socketFd < 0) {
            error = errno;
            return std::nullopt;
        }
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        // Connecting a datagram socket only looks up the route; nothing is sent.
        if (::connect(socketFd, reinterpret_cast<const sockaddr*>(&*host_), length) != 0) {
            int failure = errno;
            ::close(socketFd);
            if (failure == ENETUNREACH || failure == EHOSTUNREACH || failure == EACCES ||
                failure == EPERM) {
                return ReachabilityFlags{0};
            }
            error = failure;
            return std::nullopt;
        }
        sockaddr_storage local{};
        socklen_t localLength = sizeof local;
        bool named =
            ::getsockname(socketFd, reinterpret_cast<sockaddr*>(&local), &localLength) == 0;
        ::close(socketFd);
        ReachabilityFlags flags = kReachabilityReachable;
        bool isLocal = false;
        if (family == AF_INET) {
            const auto* target = reinterpret_cast<const sockaddr_in*>(&*host_);
            isLocal = (ntohl(target->sin_addr.s_addr) >> 24) == 127 ||
                      (named && reinterpret_cast<const sockaddr_in*>(&local)->sin_addr.s_addr ==
                                    target->sin_addr.s_addr);
        } else {
            const auto* target = reinterpret_cast<const sockaddr_in6*>(&*host_);
            isLocal = IN6_IS_ADDR_LOOPBACK(&target->sin6_addr) ||
                      (named &&
                       IN6_ARE_ADDR_EQUAL(&reinterpret_cast<const sockaddr_in6*>(&local)->sin6_addr,
                                          &target->sin6_addr));
        }
        if (isLocal) {
            flags |= kReachabilityIsLocalAddress | kReachabilityIsDirect;
        } else if (named) {
            auto carrier = interfaceOwning(local);
            if (!carrier.empty() && isCellularDevice(carrier)) {
                flags |= kReachabilityIsWWAN;
            }
        }
        return flags;
    }

    const std::optional<sockaddr_storage> host_;
    std::mutex controlMutex_;  // attaching and detaching the watcher
    std::mutex mutex_;         // callback_ and queue_
    std::function<void()> callback_;
    std::shared_ptr<Executor> queue_;
    std::thread watcher_;
    int socketFd_ = -1;
    int stopFd_ = -1;
    std::atomic<std::int32_t> lastError_{0};
};

}  // namespace

std::optional<ReachabilityFlags> detail::defaultRouteFlags(std::int32_t& error) {
    return DefaultRouteReading::shared().flags(error);
}

std::shared_ptr<ReachabilityFlagsSource> makeDefaultRouteReachabilitySource() {
    return std::make_shared<LinuxReachabilitySource>(std::nullopt);
}

std::shared_ptr<ReachabilityFlagsSource> makeHostReachabilitySource(const std::string& hostname) {
    if (hostname.empty()) {
        return nullptr;
    }
    sockaddr_storage address{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (::inet_pton(AF_INET, hostname.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(9);
    } else if (::inet_pton(AF_INET6, hostname.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(9);
    } else {
        return std::make_shared<LinuxReachabilitySource>(std::nullopt);
    }
    return std::make_shared<LinuxReachabilitySource>(address);
}

}  // namespace tarn
