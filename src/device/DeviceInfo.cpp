#include "tarn/device/DeviceInfo.h"

#include <unistd.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "device/KernelAnnouncements.h"
#include "tarn/core/Shared.h"
#include "tarn/device/DeviceModel.h"
#include "tarn/device/DeviceStatusHelper.h"

namespace tarn {

namespace {

std::mutex& providerMutex() {
    static detail::NeverDestroyed<std::mutex> m;
    return *m;
}

std::shared_ptr<DeviceInfoProvider>& providerSlot() {
    static detail::NeverDestroyed<std::shared_ptr<DeviceInfoProvider>> p;
    return *p;
}

/// The time zone identifier that TZ names (without a leading ':' and, for a path, the part after
/// "zoneinfo/"); none when TZ is unset or empty.
std::optional<std::string> timeZoneFromEnvironment() {
    const char* tz = std::getenv("TZ");
    if (!tz || !*tz) {
        return std::nullopt;
    }
    std::string value = *tz == ':' ? tz + 1 : tz;
    if (auto at = value.find("zoneinfo/"); at != std::string::npos) {
        return value.substr(at + 9);
    }
    if (value.empty()) {
        return std::nullopt;
    }
    return value;
}

/// A device identifier scoped to this library, in the manner of a vendor identifier: the
/// name-based (SHA-1, version 5) UUID of "TarniOSCommonKit" in the namespace of the machine's
/// systemd machine identifier (/etc/machine-id, else /var/lib/dbus/machine-id), as upper-case
/// text. It stays the same for every process on the machine and does not expose the machine
/// identifier itself. "" when neither file holds 32 hexadecimal digits.
std::string vendorDeviceIdentifier() {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        std::ifstream in(path);
        std::string id;
        if (!in || !std::getline(in, id) || id.size() != 32 ||
            id.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            continue;
        }
        uuid_t machine;
        for (std::size_t i = 0; i < 16; ++i) {
            machine[i] = static_cast<unsigned char>(std::stoul(id.substr(i * 2, 2), nullptr, 16));
        }
        static constexpr char kVendor[] = "TarniOSCommonKit";
        uuid_t derived;
        ::uuid_generate_sha1(derived, machine, kVendor, sizeof kVendor - 1);
        char text[37];
        ::uuid_unparse_upper(derived, text);
        return text;
    }
    return "";
}

/// The Linux provider: battery, network and disks from `DeviceStatusHelper`, the model name and OS
/// version computed once per process, the device identifier computed once, and no location
/// source. The time zone is TZ's when set (looked at on every call), else the one the files in
/// /etc name, kept until inotify announces a change of "localtime" or "timezone" there.
class LinuxDeviceInfoProvider final : public DeviceInfoProvider {
  public:
    std::string batteryLevel() override { return DeviceStatusHelper::shared().batteryLevel(); }
    std::optional<std::string> networkStatus() override {
        return DeviceStatusHelper::shared().networkStatus();
    }
    std::string availableDiskCapacity() override {
        return DeviceStatusHelper::shared().availableDiskCapacity();
    }
    std::string totalDiskCapacity() override {
        return DeviceStatusHelper::shared().totalDiskCapacity();
    }
    std::pair<std::string, std::string> diskCapacities() override {
        return DeviceStatusHelper::shared().diskCapacities();
    }
    std::string deviceId() override {
        static const auto* id = new std::string(vendorDeviceIdentifier());
        return *id;
    }
    std::string modelName() override { return tarn::modelName(); }
    std::string osVersion() override { return tarn::osVersion(); }
    std::string timeZone() override {
        if (auto zone = timeZoneFromEnvironment()) {
            return *zone;
        }
        return timeZoneFiles_->get([] { return detail::timeZoneFromFiles("/etc"); });
    }
    std::optional<std::pair<double, double>> location() override { return std::nullopt; }

  private:
    std::unique_ptr<detail::AnnouncedValue> timeZoneFiles_ = detail::makeTimeZoneFileCache("/etc");
};

}  // namespace

std::shared_ptr<DeviceInfoProvider> makePlatformDeviceInfoProvider() {
    return std::make_shared<LinuxDeviceInfoProvider>();
}

std::shared_ptr<DeviceInfoProvider> deviceInfoProvider() {
    std::lock_guard lock(providerMutex());
    auto& slot = providerSlot();
    if (!slot) {
        slot = makePlatformDeviceInfoProvider();
    }
    return slot;
}

void setDeviceInfoProvider(std::shared_ptr<DeviceInfoProvider> provider) {
    std::lock_guard lock(providerMutex());
    providerSlot() = std::move(provider);
}

}  // namespace tarn
