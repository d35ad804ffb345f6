#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "device/KernelAnnouncements.h"
#include "support/TestSupport.h"
#include "tarn/device/DeviceInfo.h"
#include "tarn/device/DeviceStatusHelper.h"
#include "tarn/device/Reachability.h"

using namespace tarn;
namespace fs = std::filesystem;

using DeviceStatusTest = test::TarnTest;

TEST_F(DeviceStatusTest, BatteryFromSysfsAndUnknownLevel) {
    EXPECT_EQ(DeviceStatusHelper::batteryLevelText(0.456f), "45");
    EXPECT_EQ(DeviceStatusHelper::batteryLevelText(-1.0f), "-100");
    EXPECT_DEATH(DeviceStatusHelper::batteryLevelText(std::nanf("")), "Battery level");

    auto& helper = DeviceStatusHelper::shared();
    auto root = temp_->path() / "sys";
    helper.setSysfsRoot(root);
    auto supply = [&](const std::string& name, const std::map<std::string, std::string>& files) {
        fs::create_directories(root / "class" / "power_supply" / name);
        for (const auto& [file, value] : files)
            std::ofstream(root / "class" / "power_supply" / name / file) << value << "\n";
    };
    // No power-supply class, then only a mains adapter, a peripheral's and an absent battery.
    EXPECT_EQ(helper.batteryLevel(), "-100");
    supply("AC", {{"type", "Mains"}, {"online", "1"}});
    supply("hid-mouse-battery", {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "12"}});
    supply("BAT0", {{"type", "Battery"}, {"present", "0"}, {"capacity", "99"}});
    EXPECT_EQ(helper.batteryLevel(), "-100");
    // 53 percent is one that a float detour through 0.53 would turn into 52.
    supply("BAT1", {{"type", "Battery"}, {"present", "1"}, {"capacity", "53"}});
    EXPECT_EQ(helper.batteryLevel(), "53");
    supply("BAT1", {{"type", "Battery"}, {"capacity", "garbage"}});
    supply("BAT2", {{"type", "Battery"}, {"capacity", "7"}});
    EXPECT_EQ(helper.batteryLevel(), "7");
}

// The machine's own figures: disk capacities of the root volume (both at once, as an event's body
// reads them, the same figures), model, network status read without leaving work on the main queue
// (its values as links change: ReachabilityTest's namespace run), device identifier, time zone.
TEST_F(DeviceStatusTest, LinuxProviderReportsTheMachineAndAnUnavailableVolume) {
    test::LogCapture logs;
    auto& helper = DeviceStatusHelper::shared();
    auto provider = makePlatformDeviceInfoProvider();
    auto total = std::stoull(helper.totalDiskCapacity());
    auto available = std::stoull(helper.availableDiskCapacity());
    EXPECT_GT(available, 0u);
    EXPECT_LE(available, total);
    auto [bothAvailable, bothTotal] = provider->diskCapacities();
    EXPECT_EQ(std::stoull(bothTotal), total);
    EXPECT_GT(std::stoull(bothAvailable), 0u);
    queue().runPending();
    auto status = provider->networkStatus();
    EXPECT_EQ(queue().pendingCount(), 0u);
    EXPECT_TRUE(logs.lines().empty());
    // The answer of a default-route monitor of its own.
    auto monitored = Reachability::create()->connection();
    EXPECT_EQ(status, monitored == Connection::unavailable ? "NONE"
                      : monitored == Connection::wifi      ? "WIFI"
                                                           : "CELLULAR");

    // The device identifier: stable upper-case text of a name-based (version 5) UUID, not the
    // machine identifier itself.
    auto id = provider->deviceId();
    std::string machineId;
    std::ifstream("/etc/machine-id") >> machineId;
    if (machineId.size() == 32) {
        ASSERT_EQ(id.size(), 36u) << id;
        EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << id;
        EXPECT_EQ(id[14], '5') << id;
        EXPECT_EQ(makePlatformDeviceInfoProvider()->deviceId(), id);
        std::erase(id, '-');
        EXPECT_STRCASENE(id.c_str(), machineId.c_str());
    }
    ::setenv("TZ", "/usr/share/zoneinfo/Asia/Tokyo", 1);
    EXPECT_EQ(provider->timeZone(), "Asia/Tokyo");
    ::unsetenv("TZ");

    // The figures follow the volume path as it is set: another file system (proc has no blocks),
    // a plain file, and back to the root.
    auto totalByPath = [](const fs::path& path) {
        struct statvfs figures {};
        EXPECT_EQ(::statvfs(path.c_str(), &figures), 0) << path;
        return std::to_string(static_cast<unsigned long long>(figures.f_blocks) * figures.f_frsize);
    };
    std::ofstream(temp_->path() / "plain") << "not a folder\n";
    for (const fs::path& path : {fs::path("/proc"), temp_->path() / "plain", fs::path("/")}) {
        helper.setVolumePath(path);
        EXPECT_EQ(helper.totalDiskCapacity(), totalByPath(path)) << path;
        EXPECT_EQ(helper.diskCapacities().second, totalByPath(path)) << path;
    }
    EXPECT_EQ(helper.totalDiskCapacity(), std::to_string(total));

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

TEST_F(DeviceStatusTest, TimeZoneFilesAreReadAgainOnlyWhenInotifyAnnouncesAChange) {
    auto etc = temp_->path() / "etc";
    fs::create_directories(etc);
    fs::create_symlink("/usr/share/zoneinfo/Europe/Istanbul", etc / "localtime");
    auto cache = detail::makeTimeZoneFileCache(etc);
    ASSERT_TRUE(cache->watching());
    int reads = 0;
    auto read = [&] {
        ++reads;
        return detail::timeZoneFromFiles(etc);
    };
    EXPECT_EQ(cache->get(read), "Europe/Istanbul");
    EXPECT_EQ(cache->get(read), "Europe/Istanbul");
    EXPECT_EQ(reads, 1);
    // Replaced the way tools do it: a new link renamed over the old one.
    fs::create_symlink("/usr/share/zoneinfo/Asia/Tokyo", etc / "localtime.new");
    fs::rename(etc / "localtime.new", etc / "localtime");
    EXPECT_EQ(cache->get(read), "Asia/Tokyo");
    // Another file in the folder announces nothing of interest.
    std::ofstream(etc / "hostname") << "box\n";
    EXPECT_EQ(cache->get(read), "Asia/Tokyo");
    EXPECT_EQ(reads, 2);
    // No link: the "timezone" file names the zone.
    fs::remove(etc / "localtime");
    std::ofstream(etc / "timezone") << "America/Lima\n";
    EXPECT_EQ(cache->get(read), "America/Lima");

    // With the folder gone the watch ends: every read is fresh from then on.
    fs::remove_all(etc);
    EXPECT_EQ(cache->get(read), "UTC");
    EXPECT_FALSE(cache->watching());
    int before = reads;
    cache->get(read);
    cache->get(read);
    EXPECT_EQ(reads, before + 2);
}
