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

#include "device/DefaultRoute.h"
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

DeviceStatusHelper::~DeviceStatusHelper() {
    if (volumeFd_ >= 0) {
        ::close(volumeFd_);
    }
}

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
    // What a fresh default-route monitor's `connection()` gives, without making one per reading:
    // its flags from the same kept reading (unknown when unreadable, as a new monitor has none),
    // under a new monitor's rule.
    std::int32_t error = 0;
    auto flags = detail::defaultRouteFlags(error);
    switch (Reachability::connectionForFlags(flags, Reachability::isRunningOnDevice,
                                             Reachability::kAllowsCellularByDefault)) {
        case Connection::unavailable:
            return rawValue(NetworkCapability::none);
        case Connection::wifi:
            return rawValue(NetworkCapability::wifi);
        default:
            return rawValue(NetworkCapability::cellular);
    }
}

void DeviceStatusHelper::setVolumePath(std::filesystem::path path) {
    std::lock_guard lock(volumeMutex_);
    volumePath_ = std::move(path);
    if (volumeFd_ >= 0) {
        ::close(std::exchange(volumeFd_, -1));
    }
}

std::optional<std::pair<unsigned long long, unsigned long long>>
DeviceStatusHelper::volumeFigures() {
    // Every event reads the figures: through a descriptor opened once they cost no path lookup.
    // O_PATH needs no permission on the directory itself; anything that is not an openable
    // directory is read by path as before, and tried again next time.
    std::lock_guard lock(volumeMutex_);
    if (volumeFd_ < 0) {
        volumeFd_ = ::open(volumePath_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    struct statvfs figures {};
    if (volumeFd_ >= 0 ? ::fstatvfs(volumeFd_, &figures) != 0
                       : ::statvfs(volumePath_.c_str(), &figures) != 0) {
        return std::nullopt;
    }
    return std::pair{static_cast<unsigned long long>(figures.f_bavail) * figures.f_frsize,
                     static_cast<unsigned long long>(figures.f_blocks) * figures.f_frsize};
}

std::string DeviceStatusHelper::totalDiskCapacity() {
    auto figures = volumeFigures();
    if (!figures) {
        log("Total disk capacity is unavailable", logtag, LogLevel::warning);
        return "-1";
    }
    return std::to_string(figures->second);
}

std::string DeviceStatusHelper::availableDiskCapacity() {
    auto figures = volumeFigures();
    if (!figures) {
        log("Available disk capacity is unavailable", logtag, LogLevel::warning);
        return "-1";
    }
    return std::to_string(figures->first);
}

std::pair<std::string, std::string> DeviceStatusHelper::diskCapacities() {
    auto figures = volumeFigures();
    if (!figures) {
        log("Available disk capacity is unavailable", logtag, LogLevel::warning);
        log("Total disk capacity is unavailable", logtag, LogLevel::warning);
        return {"-1", "-1"};
    }
    return {std::to_string(figures->first), std::to_string(figures->second)};
}

}  // namespace tarn
