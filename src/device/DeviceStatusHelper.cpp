#include "tarn/device/DeviceStatusHelper.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <limits>
#include <vector>

#include "device/KernelAnnouncements.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/device/Reachability.h"

namespace tarn {

namespace {

std::optional<std::string> readFirstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) {
        return std::nullopt;
    }
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
        line.pop_back();
    }
    return line;
}

/// The serial queue of the monitor that `networkStatus` makes for one reading: the calling thread
/// itself. That monitor is never started, so its only work is the synchronous flag update of
/// `connection()`; running it in place spares every event a thread started and joined for it.
/// Nothing else may be put on this queue.
class CallerThreadQueue final : public Executor {
  public:
    void async(Task task) override { task(); }
    void asyncAfter(double, Task task) override { task(); }
    bool isCurrent() const override { return true; }
};

/// The names in `folder` other than "." and "..", in name order; none when it cannot be read.
/// Straight directory reads (open, getdents64 until it gives nothing, close): this runs for every
/// event, and the stream calls of `opendir` add a stat of their own.
std::vector<std::string> sortedEntries(const std::string& folder) {
    std::vector<std::string> names;
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return names;
    }
    alignas(dirent64) char buffer[4096];
    while (true) {
        auto length = ::getdents64(fd, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            break;
        }
        for (decltype(length) at = 0; at < length;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            std::string_view name = entry->d_name;
            if (name != "." && name != "..") {
                names.emplace_back(name);
            }
            at += entry->d_reclen;
        }
    }
    ::close(fd);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

std::string rawValue(NetworkCapability capability) {
    switch (capability) {
        case NetworkCapability::wifi:
            return "WIFI";
        case NetworkCapability::cellular:
            return "CELLULAR";
        case NetworkCapability::none:
            return "NONE";
    }
    return "NONE";
}

std::optional<NetworkCapability> networkCapabilityFromRawValue(std::string_view raw) {
    if (raw == "WIFI") {
        return NetworkCapability::wifi;
    }
    if (raw == "CELLULAR") {
        return NetworkCapability::cellular;
    }
    if (raw == "NONE") {
        return NetworkCapability::none;
    }
    return std::nullopt;
}

DeviceStatusHelper& DeviceStatusHelper::shared() {
    return detail::SharedInstance<DeviceStatusHelper>::get();
}

DeviceStatusHelper::DeviceStatusHelper() : powerSupplies_(detail::makePowerSupplyCache()) {}

DeviceStatusHelper::~DeviceStatusHelper() = default;

std::string DeviceStatusHelper::batteryLevelText(float level) {
    float product = level * 100.0f;
    if (!std::isfinite(product) ||
        product <= static_cast<float>(std::numeric_limits<int>::min()) - 1.0f ||
        product >= static_cast<float>(std::numeric_limits<int>::max())) {
        TARN_FATAL("Battery level cannot be converted to a whole percent");
    }
    return std::to_string(static_cast<int>(product));
}

std::optional<int> DeviceStatusHelper::readBatteryCapacity(const std::filesystem::path& sysfsRoot) {
    // Plain directory calls: the listing runs for every event, mostly over an empty folder.
    const std::string folder = (sysfsRoot / "class" / "power_supply").string();
    for (const auto& name : sortedEntries(folder)) {
        const std::filesystem::path supply = folder + "/" + name;
        if (readFirstLine(supply / "type") != "Battery") {
            continue;
        }
        if (readFirstLine(supply / "present") == "0" ||
            readFirstLine(supply / "scope") == "Device") {
            continue;
        }
        auto capacity = readFirstLine(supply / "capacity");
        if (!capacity) {
            continue;
        }
        try {
            std::size_t used = 0;
            int value = std::stoi(*capacity, &used);
            if (used == capacity->size()) {
                return std::clamp(value, 0, 100);
            }
        } catch (const std::exception&) {
        }
    }
    return std::nullopt;
}

std::string DeviceStatusHelper::batteryLevel() {
    // The kernel already reports whole percent; only an unknown level goes through the level text
    // (-1.0 gives "-100").
    auto read = [root = sysfsRoot_.get()] {
        if (auto capacity = readBatteryCapacity(root)) {
            return std::to_string(*capacity);
        }
        return batteryLevelText(-1.0f);
    };
    if (sysfsRoot_.get() == "/sys") {
        return powerSupplies_->get(read);
    }
    return read();
}

std::string DeviceStatusHelper::networkStatus() {
    // The monitor reads once and is released. Its first reading is announced like any change,
    // but onto a queue that nobody runs, so a reading for an event neither posts
    // "reachabilityChanged" nor leaves work on the main queue; it reads on the calling thread.
    auto discarded = std::make_shared<ManualExecutor>();
    auto monitor = Reachability::create(DispatchQoS::defaultQoS,
                                        std::make_shared<CallerThreadQueue>(), discarded);
    switch (monitor->connection()) {
        case Connection::unavailable:
            return rawValue(NetworkCapability::none);
        case Connection::wifi:
            return rawValue(NetworkCapability::wifi);
        default:
            return rawValue(NetworkCapability::cellular);
    }
}

std::string DeviceStatusHelper::totalDiskCapacity() {
    struct statvfs figures {};
    if (::statvfs(volumePath_.get().c_str(), &figures) != 0) {
        log("Total disk capacity is unavailable", logtag);
        return "-1";
    }
    return std::to_string(static_cast<unsigned long long>(figures.f_blocks) * figures.f_frsize);
}

std::string DeviceStatusHelper::availableDiskCapacity() {
    struct statvfs figures {};
    if (::statvfs(volumePath_.get().c_str(), &figures) != 0) {
        log("Available disk capacity is unavailable", logtag);
        return "-1";
    }
    return std::to_string(static_cast<unsigned long long>(figures.f_bavail) * figures.f_frsize);
}

std::pair<std::string, std::string> DeviceStatusHelper::diskCapacities() {
    struct statvfs figures {};
    if (::statvfs(volumePath_.get().c_str(), &figures) != 0) {
        log("Available disk capacity is unavailable", logtag);
        log("Total disk capacity is unavailable", logtag);
        return {"-1", "-1"};
    }
    return {std::to_string(static_cast<unsigned long long>(figures.f_bavail) * figures.f_frsize),
            std::to_string(static_cast<unsigned long long>(figures.f_blocks) * figures.f_frsize)};
}

}  // namespace tarn
