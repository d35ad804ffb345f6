#include <gtest/gtest.h>

#include <fstream>

#include "support/TestSupport.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/ConfigurationManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/PropertyList.h"

using namespace tarn;

namespace {

TarnInitConfig hostConfig(std::optional<std::string> actor = std::nullopt, bool force = false) {
    return TarnInitConfig(Bundle::main(), "HostApp", std::move(actor), "http://host-value",
                          std::nullopt, "host-id", "host-secret", false, true, force);
}

}  // namespace

class InitializeTest : public test::TarnTest {
  protected:
    void writeGoodServiceFile(bool binary = false) {
        test::writeServiceFile(bundleDir(),
                               {{"DOMAIN", "http://127.0.0.1:1"},
                                {"CLIENT_ID", "file-id"},
                                {"CLIENT_SECRET", "file-secret"},
                                {"EXTRA", 1}},
                               binary);
    }
    std::string run(const TarnInitConfig& config) {
        testing::internal::CaptureStdout();
        Tarn::shared().initialize(config);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(InitializeTest, BadServiceFilesFailWithTheExactLinesAndPersistNothing) {
    struct Case {
        std::string name;
        std::function<void(const std::filesystem::path&)> write;
        bool loadFails;
    };
    std::vector<Case> cases = {
        {"missing", [](const auto&) {}, true},
        {"root array",
         [](const auto& dir) {
             std::ofstream(dir / "TarnService-Info.plist")
                 << writePropertyList(nlohmann::json::array({"a"}));
         },
         true},
        {"domain a number",
         [](const auto& dir) {
             test::writeServiceFile(dir,
                                    {{"DOMAIN", 5}, {"CLIENT_ID", "a"}, {"CLIENT_SECRET", "b"}});
         },
         false},
        {"secret missing",
         [](const auto& dir) {
             test::writeServiceFile(dir, {{"DOMAIN", "http://x"}, {"CLIENT_ID", "a"}});
         },
         false},
        {"unreadable bytes",
         [](const auto& dir) {
             std::ofstream(dir / "TarnService-Info.plist") << "\x01\x02 not a plist";
         },
         true},
        {"unreadable file",
         [](const auto& dir) {
             // Reading /proc/self/mem at offset 0 fails with an I/O error, even for root.
             std::filesystem::create_symlink("/proc/self/mem", dir / "TarnService-Info.plist");
         },
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        simulateNewProcess();
        std::filesystem::remove_all(bundleDir());
        std::filesystem::create_directories(bundleDir());
        c.write(bundleDir());
        test::LogCapture logs;
        auto out = run(hostConfig("actor-1"));
        if (c.loadFails) {
            EXPECT_NE(out.find("Failed to load the TarnService-Info file.\n"), std::string::npos)
                << out;
        }
        EXPECT_NE(out.find("Configuration error: Missing required information\n"),
                  std::string::npos);
        EXPECT_TRUE(logs.contains("Tarn: SDK not fetched client knowledge!;"));
        EXPECT_EQ(ConfigManager::shared().getInitializeStatus(),
                  InitializeStatusType::initializeFailed);
        EXPECT_FALSE(std::filesystem::exists(dataDir() / "Preferences" / "standard.json"));
    }
}

TEST_F(InitializeTest, TheFileWinsOverTheHostAndAFirstRunMakesAGuest) {
    writeGoodServiceFile(/*binary=*/true);
    test::writeInfoPlist(bundleDir(), "com.example.host");
    run(hostConfig());
    auto& tarn = Tarn::shared();
    auto stored = tarn.configuration.get();
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->domainUrl, "http://127.0.0.1:1");
    EXPECT_EQ(stored->clientId, "file-id");
    EXPECT_EQ(stored->clientSecret, "file-secret");
    EXPECT_EQ(processSettings().baseUrl.get(), "http://127.0.0.1:1");
    EXPECT_EQ(tarn.tarnBundle.get(), "com.example.host");
    EXPECT_EQ(ConfigurationManager::shared().settings()["EXTRA"], 1);

    // First run without a host actor: a guest identifier, stored under both keys.
    auto& prefs = PreferencesManager::shared();
    auto guest = prefs.stringValue(PreferenceKey::guestActorId);
    ASSERT_TRUE(guest);
    EXPECT_EQ(guest->size(), 36u);
    EXPECT_EQ(*guest, [&] {
        auto u = *guest;
        for (auto& c : u)
            c = static_cast<char>(toupper(c));
        return u;
    }());
    EXPECT_EQ(prefs.stringValue(PreferenceKey::actorId), guest);
    EXPECT_EQ(tarn.actorId.get(), *guest);
    EXPECT_EQ(ConfigManager::shared().installationStatus.load(),
              InstallationStatus::firstTimeInstallation);

    // No configuration block yet: every device switch is off, defaults are in force, and the
    // token request runs under the long start-up time-out.
    EXPECT_FALSE(tarn.isWifiStatusRequired);
    EXPECT_FALSE(tarn.isBatteryStatusRequired);
    EXPECT_FALSE(tarn.isDiskCapacityRequired);
    EXPECT_FALSE(tarn.isLocationRequired);
    // The token request to the (unreachable) server is in flight.
    EXPECT_EQ(prefs.boolValue(PreferenceKey::tokenStatus), false);
    EXPECT_EQ(processSettings().requestTimeout.load(), 3000);
    EXPECT_EQ(processSettings().conversionOffset.load(), -86400.0);
    EXPECT_EQ(tarn.applicationName.get(), "HostApp");
}

TEST_F(InitializeTest, ASecondCallWithoutForceIsRefusedWithTheStatus) {
    writeGoodServiceFile();
    run(hostConfig("A"));
    ASSERT_EQ(ConfigManager::shared().getInitializeStatus(), InitializeStatusType::initializing);
    EXPECT_FALSE(ConfigManager::shared().isInitialized());
    test::LogCapture logs;
    run(hostConfig("B"));
    EXPECT_TRUE(logs.contains(
        "Tarn: SDK is already Initialized. If you changed the configuration, send the "
        "forceInitialize value to true. Initialize status: initializing;"));
    EXPECT_EQ(Tarn::shared().actorId.get(), "A");
    EXPECT_EQ(logs.lines().size(), 1u);
}

TEST_F(InitializeTest, ASecondRunKeepsTheStoredActorAndCountsAsInstalled) {
    writeGoodServiceFile();
    run(hostConfig("first"));
    simulateNewProcess();
    run(hostConfig());
    EXPECT_EQ(Tarn::shared().actorId.get(), "first");
    EXPECT_EQ(ConfigManager::shared().installationStatus.load(),
              InstallationStatus::alreadyInstalled);
    simulateNewProcess();
    test::LogCapture logs;
    run(hostConfig("second"));  // a different host actor replaces it silently
    EXPECT_EQ(PreferencesManager::shared().stringValue(PreferenceKey::actorId), "second");
    EXPECT_FALSE(logs.contains("Tarn-ConfigManager: Tarn actorId successfully updated.;"));
}

TEST_F(InitializeTest, StepsThatNeedTheStoredConfigurationEndTheProcessWithoutIt) {
    EXPECT_DEATH(Tarn::shared().loadState(), "Fatal error: No stored configuration");
    EXPECT_DEATH(Tarn::shared().continueInitialization(), "Fatal error: No stored configuration");
    EXPECT_DEATH(Tarn::shared().requestAccessToken(), "Fatal error");
}
