#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "support/TestSupport.h"
#include "tarn/device/DeviceInfo.h"
#include "tarn/device/DeviceModel.h"
#include "tarn/device/DeviceStatusHelper.h"
#include "tarn/device/Reachability.h"

using namespace tarn;

namespace {

class DeviceStatusTest : public test::TarnTest {};

void writeSupply(const std::filesystem::path& root, const std::string& name,
                 const std::map<std::string, std::string>& files) {
    auto folder = root / "class" / "power_supply" / name;
    std::filesystem::create_directories(folder);
    for (const auto& [file, value] : files) {
        std::ofstream(folder / file) << value << "\n";
    }
}

}  // namespace

TEST_F(DeviceStatusTest, NetworkCapabilityRawValues) {
    EXPECT_EQ(rawValue(NetworkCapability::wifi), "WIFI");
    EXPECT_EQ(rawValue(NetworkCapability::cellular), "CELLULAR");
    EXPECT_EQ(rawValue(NetworkCapability::none), "NONE");
    for (auto capability :
         {NetworkCapability::wifi, NetworkCapability::cellular, NetworkCapability::none}) {
        EXPECT_EQ(networkCapabilityFromRawValue(rawValue(capability)), capability);
    }
    EXPECT_EQ(networkCapabilityFromRawValue("wifi"), std::nullopt);
    EXPECT_EQ(networkCapabilityFromRawValue("WIFI "), std::nullopt);
    EXPECT_EQ(networkCapabilityFromRawValue(""), std::nullopt);
}

TEST_F(DeviceStatusTest, BatteryFromSysfsAndUnknownLevel) {
    EXPECT_EQ(DeviceStatusHelper::batteryLevelText(0.456f), "45");
    EXPECT_EQ(DeviceStatusHelper::batteryLevelText(-1.0f), "-100");
    EXPECT_EQ(DeviceStatusHelper::batteryLevelText(1.0f), "100");

    auto& helper = DeviceStatusHelper::shared();
    auto root = temp_->path() / "sys";
    helper.setSysfsRoot(root);
    // No power-supply class at all, then only a mains adapter and a peripheral's battery.
    EXPECT_EQ(helper.batteryLevel(), "-100");
    writeSupply(root, "AC", {{"type", "Mains"}, {"online", "1"}});
    writeSupply(root, "hid-mouse-battery",
                {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "12"}});
    writeSupply(root, "BAT0", {{"type", "Battery"}, {"present", "0"}, {"capacity", "99"}});
    EXPECT_EQ(helper.batteryLevel(), "-100");
    // 53 percent is one that a float detour through 0.53 would turn into 52.
    writeSupply(root, "BAT1", {{"type", "Battery"}, {"present", "1"}, {"capacity", "53"}});
    EXPECT_EQ(helper.batteryLevel(), "53");
    writeSupply(root, "BAT1", {{"type", "Battery"}, {"capacity", "garbage"}});
    writeSupply(root, "BAT2", {{"type", "Battery"}, {"capacity", "7"}});
    EXPECT_EQ(helper.batteryLevel(), "7");

    // This machine's own sysfs.
    helper.setSysfsRoot("/sys");
    auto real = DeviceStatusHelper::readBatteryCapacity("/sys");
    auto level = helper.batteryLevel();
    if (real) {
        EXPECT_EQ(level, std::to_string(*real));
    } else {
        EXPECT_EQ(level, "-100");
    }
}

TEST_F(DeviceStatusTest, BatteryLevelOutOfRangeIsFatal) {
    EXPECT_DEATH(DeviceStatusHelper::batteryLevelText(std::nanf("")), "Battery level");
    EXPECT_DEATH(DeviceStatusHelper::batteryLevelText(1e30f), "Battery level");
}

TEST_F(DeviceStatusTest, DiskCapacitiesOfRootAndUnavailableVolume) {
    test::LogCapture logs;
    auto& helper = DeviceStatusHelper::shared();
    auto total = std::stoull(helper.totalDiskCapacity());
    auto available = std::stoull(helper.availableDiskCapacity());
    EXPECT_GT(total, 0u);
    EXPECT_GT(available, 0u);
    EXPECT_LE(available, total);
    // Both at once, as an event's body reads them: the same volume figures.
    auto [bothAvailable, bothTotal] = makePlatformDeviceInfoProvider()->diskCapacities();
    EXPECT_EQ(std::stoull(bothTotal), total);
    EXPECT_GT(std::stoull(bothAvailable), 0u);
    EXPECT_TRUE(logs.lines().empty());

    helper.setVolumePath(temp_->path() / "no-such-volume");
    EXPECT_EQ(helper.totalDiskCapacity(), "-1");
    EXPECT_EQ(helper.availableDiskCapacity(), "-1");
    EXPECT_EQ(helper.diskCapacities(), (std::pair<std::string, std::string>{"-1", "-1"}));
    EXPECT_EQ(logs.lines(), (std::vector<std::string>{
                                "Tarn-DeviceStatusHelper: Total disk capacity is unavailable;",
                                "Tarn-DeviceStatusHelper: Available disk capacity is unavailable;",
                                "Tarn-DeviceStatusHelper: Available disk capacity is unavailable;",
                                "Tarn-DeviceStatusHelper: Total disk capacity is unavailable;"}));
}

TEST_F(DeviceStatusTest, NetworkStatusAgreesWithDefaultRouteMonitor) {
    auto status = DeviceStatusHelper::shared().networkStatus();
    ASSERT_TRUE(networkCapabilityFromRawValue(status)) << status;
    auto monitor = Reachability::create();
    auto connection = monitor->connection();
    EXPECT_EQ(status, connection == Connection::unavailable ? "NONE"
                      : connection == Connection::wifi      ? "WIFI"
                                                            : "CELLULAR");
    // The monitor's first reading is announced on the main queue; a released monitor announces
    // nothing, and reading the status leaves nothing behind on the main queue.
    int posted = 0;
    auto token = NotificationCenter::defaultCenter().addObserver(
        kReachabilityChanged, [&](const Notification&) { ++posted; });
    EXPECT_EQ(queue().pendingCount(), 1u);
    monitor.reset();
    queue().runPending();
    EXPECT_EQ(posted, 0);
    DeviceStatusHelper::shared().networkStatus();
    EXPECT_EQ(queue().pendingCount(), 0u);
    NotificationCenter::defaultCenter().removeObserver(token);
}

TEST_F(DeviceStatusTest, LinuxProviderReportsTheMachine) {
    auto provider = makePlatformDeviceInfoProvider();
    EXPECT_EQ(provider->modelName(), modelName());
    EXPECT_EQ(provider->osVersion(), osVersion());
    EXPECT_EQ(provider->totalDiskCapacity(), DeviceStatusHelper::shared().totalDiskCapacity());
    EXPECT_EQ(provider->batteryLevel(), DeviceStatusHelper::shared().batteryLevel());
    ASSERT_TRUE(provider->networkStatus());
    EXPECT_TRUE(networkCapabilityFromRawValue(*provider->networkStatus()));
    EXPECT_FALSE(provider->location());

    // The device identifier: upper-case UUID text, stable, and not the machine identifier itself.
    auto id = provider->deviceId();
    std::string machineId;
    std::ifstream("/etc/machine-id") >> machineId;
    if (machineId.size() == 32) {
        // 8-4-4-4-12 upper-case hexadecimal digits of a version 5 (name-based, SHA-1) UUID.
        ASSERT_EQ(id.size(), 36u) << id;
        for (std::size_t i = 0; i < id.size(); ++i) {
            bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            EXPECT_TRUE(dash ? id[i] == '-'
                             : std::string("0123456789ABCDEF").find(id[i]) != std::string::npos)
                << id;
        }
        EXPECT_EQ(id[14], '5') << id;
        EXPECT_EQ(makePlatformDeviceInfoProvider()->deviceId(), id);
        std::string bare = id;
        bare.erase(std::remove(bare.begin(), bare.end(), '-'), bare.end());
        std::transform(bare.begin(), bare.end(), bare.begin(), ::tolower);
        EXPECT_NE(bare, machineId);
    }

    // Time zone: TZ in both of its forms, then the system's own setting.
    ::setenv("TZ", ":Europe/Istanbul", 1);
    EXPECT_EQ(provider->timeZone(), "Europe/Istanbul");
    ::setenv("TZ", "/usr/share/zoneinfo/Asia/Tokyo", 1);
    EXPECT_EQ(provider->timeZone(), "Asia/Tokyo");
    ::unsetenv("TZ");
    std::error_code ec;
    auto link = std::filesystem::read_symlink("/etc/localtime", ec).string();
    if (!ec && link.find("zoneinfo/") != std::string::npos) {
        EXPECT_EQ(provider->timeZone(), link.substr(link.find("zoneinfo/") + 9));
    } else {
        EXPECT_FALSE(provider->timeZone().empty());
    }

    // The installed provider is this one unless a host replaces it.
    EXPECT_EQ(deviceInfoProvider()->modelName(), modelName());
}
