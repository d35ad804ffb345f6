#pragma once
// The device facts that every event body carries, behind a seam a host can fill.
//
// The library installs a provider backed by the real Linux sources; a host on another platform (a
// phone adapter) or a test installs its own with `setDeviceInfoProvider`. Every call may come from
// any thread that builds an event.

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tarn/core/Export.h"

namespace tarn {

/// The device facts that event bodies carry (identifier, model, system version, time zone, disk,
/// battery, network). The default reads them from the running Linux system; tests install their own
/// with `setDeviceInfoProvider`.
class TARN_API DeviceInfoProvider {
  public:
    virtual ~DeviceInfoProvider() = default;
    /// Whole percent of charge as text; "-100" when the level is unknown.
    virtual std::string batteryLevel() = 0;
    /// "WIFI", "CELLULAR" or "NONE"; none when no value is available.
    virtual std::optional<std::string> networkStatus() = 0;
    /// Free bytes of the volume holding "/", as text, or "-1".
    virtual std::string availableDiskCapacity() = 0;
    /// Total bytes of that volume, as text, or "-1".
    virtual std::string totalDiskCapacity() = 0;
    /// Both figures as an event's body takes them: `availableDiskCapacity`, then
    /// `totalDiskCapacity`. A provider that reads the two at once overrides this.
    virtual std::pair<std::string, std::string> diskCapacities() {
        auto available = availableDiskCapacity();
        return {std::move(available), totalDiskCapacity()};
    }
    /// The vendor identifier of the device as UUID text, or "" when there is none.
    virtual std::string deviceId() = 0;
    /// The marketing model name.
    virtual std::string modelName() = 0;
    /// The operating system's version text.
    virtual std::string osVersion() = 0;
    /// Identifier of the current time zone (for example "Europe/Istanbul").
    virtual std::string timeZone() = 0;
    /// Latitude and longitude, only while location use is authorised and a position is known.
    virtual std::optional<std::pair<double, double>> location() = 0;
};

/// The provider in use (the library's own by default).
TARN_API std::shared_ptr<DeviceInfoProvider> deviceInfoProvider();
/// Installs a provider; nullptr goes back to the library's own.
TARN_API void setDeviceInfoProvider(std::shared_ptr<DeviceInfoProvider> provider);
/// The library's own provider for this platform.
TARN_API std::shared_ptr<DeviceInfoProvider> makePlatformDeviceInfoProvider();

}  // namespace tarn
