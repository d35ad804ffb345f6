#pragma once
// Battery, network and disk facts of the device, each as text ready for an event's attributes.

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"

namespace tarn {

/// The kind of network connection as reported with events.
enum class NetworkCapability { wifi, cellular, none };
/// "WIFI", "CELLULAR" or "NONE".
TARN_API std::string rawValue(NetworkCapability capability);
/// The case whose raw value is exactly `raw` (case-sensitive); none for any other text.
TARN_API std::optional<NetworkCapability> networkCapabilityFromRawValue(std::string_view raw);

namespace detail {
class AnnouncedValue;
}

/// The device facts. The battery level under the real /sys is kept until the kernel announces a
/// power-supply change (a uevent), so it is never older than the last announcement; the network
/// status comes from the default route's reading, kept likewise; the disk figures, which the kernel
/// does not announce, are read on every call. Every call may come from any thread; messages are
/// logged under `logtag`.
class TARN_API DeviceStatusHelper {
  public:
    /// The one instance, created on first use and never destroyed.
    static DeviceStatusHelper& shared();

    DeviceStatusHelper();
    ~DeviceStatusHelper();

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-DeviceStatusHelper:";

    /// Whole percent of charge as decimal text. On Linux: the "capacity" of the first power supply
    /// (in name order) under `<sysfs root>`/class/power_supply whose "type" is "Battery", which is
    /// not marked absent ("present" 0) and does not belong to a peripheral ("scope" Device). No
    /// such battery means the level is unknown: "-100". Under "/sys" the reading is kept until
    /// the kernel announces a power-supply change; under any other root it is fresh.
    std::string batteryLevel();
    /// "WIFI", "CELLULAR" or "NONE": what a new reachability monitor for the default route would
    /// read (its `connection()`), from the process's kept default-route reading, on the calling
    /// thread. No monitor is made, so the reading posts no "reachabilityChanged".
    std::string networkStatus();
    /// Total bytes of the volume holding the volume path ("/"), or "-1" with the log line "Total
    /// disk capacity is unavailable".
    std::string totalDiskCapacity();
    /// Free bytes of that volume available to the process (`statvfs` f_bavail, so blocks kept for
    /// the super-user do not count), or "-1" with "Available disk capacity is unavailable".
    std::string availableDiskCapacity();
    /// Free and total bytes, in this order, from one reading of the volume; on failure "-1" for
    /// both and the two log lines, "Available disk capacity is unavailable" first.
    std::pair<std::string, std::string> diskCapacities();

    /// The sysfs root read for the battery ("/sys"). Tests and hosts with an unusual layout change
    /// it; any thread.
    void setSysfsRoot(std::filesystem::path root) { sysfsRoot_ = std::move(root); }
    /// The path whose volume the disk figures describe ("/"). The figures are read through a
    /// descriptor of that directory opened at the first reading and kept until the path is set
    /// again (a path that is not a directory, or cannot be opened, is looked up on every reading).
    void setVolumePath(std::filesystem::path path);

    /// The text of a charge level from 0.0 to 1.0, or -1.0 when unknown: the level times 100 as a
    /// float, truncated toward zero. A non-finite or out-of-range product ends the process.
    static std::string batteryLevelText(float level);
    /// The whole-percent charge of the battery under `sysfsRoot`, none when no battery is known.
    static std::optional<int> readBatteryCapacity(const std::filesystem::path& sysfsRoot);

  private:
    Locked<std::filesystem::path> sysfsRoot_{std::filesystem::path("/sys")};
    /// Free bytes available to the process and total bytes of the volume; none on failure.
    std::optional<std::pair<unsigned long long, unsigned long long>> volumeFigures();

    std::mutex volumeMutex_;
    std::filesystem::path volumePath_{"/"};  // volumeMutex_
    int volumeFd_ = -1;                      // volumeMutex_; -1 until opened
    std::unique_ptr<detail::AnnouncedValue> powerSupplies_;
};

}  // namespace tarn
