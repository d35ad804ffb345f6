#include "tarn/device/DeviceInfo.h"

#include <sys/utsname.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

namespace tarn {

namespace {

std::mutex& providerMutex() {
    static std::mutex m;
    return m;
}

std::shared_ptr<DeviceInfoProvider>& providerSlot() {
    static std::shared_ptr<DeviceInfoProvider> p;
    return p;
}

/// Reports only what this process can know without the device subsystem's sources: no battery,
/// no network reading, no disk figures, no vendor identifier and no location.
class BasicDeviceInfoProvider final : public DeviceInfoProvider {
  public:
    BasicDeviceInfoProvider() {
        utsname names{};
        if (::uname(&names) == 0) {
            machine_ = names.machine;
            release_ = names.release;
        }
        if (const char* tz = std::getenv("TZ"); tz && *tz) {
            timeZone_ = *tz == ':' ? tz + 1 : tz;
        } else if (std::ifstream in("/etc/timezone"); in && std::getline(in, timeZone_)) {
        } else {
            timeZone_ = "UTC";
        }
    }
    std::string batteryLevel() override { return "-100"; }
    std::optional<std::string> networkStatus() override { return std::nullopt; }
    std::string availableDiskCapacity() override { return "-1"; }
    std::string totalDiskCapacity() override { return "-1"; }
    std::string deviceId() override { return ""; }
    std::string modelName() override { return machine_; }
    std::string osVersion() override { return release_; }
    std::string timeZone() override { return timeZone_; }
    std::optional<std::pair<double, double>> location() override { return std::nullopt; }

  private:
    std::string machine_;
    std::string release_;
    std::string timeZone_;
};

}  // namespace

std::shared_ptr<DeviceInfoProvider> makePlatformDeviceInfoProvider() {
    return std::make_shared<BasicDeviceInfoProvider>();
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
