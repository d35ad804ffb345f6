#include <gmock/gmock.h>

#include <fstream>

#include "support/LoopbackServer.h"
#include "support/TestSupport.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/ConfigurationManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/PropertyList.h"

using namespace tarn;
using nlohmann::json;

class InitializeTest : public test::TarnTest {
  protected:
    /// The service file names `domain`; by default a port where nothing listens.
    void writeGoodServiceFile(bool binary = false, std::string domain = "http://127.0.0.1:1") {
        test::writeServiceFile(bundleDir(),
                               {{"DOMAIN", domain},
                                {"CLIENT_ID", "file-id"},
                                {"CLIENT_SECRET", "file-secret"},
                                {"EXTRA", 1}},
                               binary);
    }
    /// Initialises as the host would for `actor` (none: a guest); the standard output.
    std::string run(std::optional<std::string> actor = std::nullopt) {
        testing::internal::CaptureStdout();
        Tarn::shared().initialize(TarnInitConfig(Bundle::main(), "HostApp", std::move(actor),
                                                 "http://host-value", std::nullopt, "host-id",
                                                 "host-secret", false, true, false));
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(InitializeTest, BadServiceFilesFailWithTheExactLinesAndPersistNothing) {
    struct Case {
        const char* name;
        std::optional<std::string> content;
        bool loadFails;
        bool link = false;
    };
    for (const Case& c : std::vector<Case>{
             {"missing", std::nullopt, true},
             {"root array", writePropertyList(json::array({"a"})), true},
             {"domain a number",
              writePropertyList({{"DOMAIN", 5}, {"CLIENT_ID", "a"}, {"CLIENT_SECRET", "b"}}),
              false},
             {"secret missing", writePropertyList({{"DOMAIN", "http://x"}, {"CLIENT_ID", "a"}}),
              false},
             {"unreadable bytes", "\x01\x02 not a plist", true},
             // Reading /proc/self/mem at offset 0 fails with an I/O error, even for root.
             {"unreadable file", "/proc/self/mem", true, true}}) {
        SCOPED_TRACE(c.name);
        simulateNewProcess();
        std::filesystem::remove_all(bundleDir());
        std::filesystem::create_directories(bundleDir());
        auto file = bundleDir() / "TarnService-Info.plist";
        if (c.link)
            std::filesystem::create_symlink(*c.content, file);
        else if (c.content)
            std::ofstream(file) << *c.content;
        test::LogCapture logs;
        auto out = run("actor-1");
        if (c.loadFails) {
            EXPECT_THAT(out, testing::HasSubstr("Failed to load the TarnService-Info file.\n"));
        }
        EXPECT_THAT(out, testing::HasSubstr("Configuration error: Missing required information\n"));
        EXPECT_TRUE(logs.contains("Tarn: SDK not fetched client knowledge!;"));
        EXPECT_EQ(ConfigManager::shared().getInitializeStatus(),
                  InitializeStatusType::initializeFailed);
        EXPECT_FALSE(std::filesystem::exists(dataDir() / "Preferences" / "standard.json"));
    }
}

// Before a configuration is stored the steps that need it end the process. Then the file wins
// over the host and a first run makes a guest; a second call without force is refused with the
// status; a later host actor replaces the stored one silently, and a run without one keeps it.
TEST_F(InitializeTest, TheFileWinsAFirstRunMakesAGuestAndLaterRunsKeepTheStoredActor) {
    EXPECT_DEATH(Tarn::shared().loadState(), "Fatal error: No stored configuration");
    EXPECT_DEATH(Tarn::shared().continueInitialization(), "Fatal error: No stored configuration");
    EXPECT_DEATH(Tarn::shared().requestAccessToken(), "Fatal error");
    // The server holds the token request, so it is still in flight when the test looks.
    test::LoopbackServer server;
    server.on("/core/auth/token", test::ScriptedAnswer::never());
    writeGoodServiceFile(/*binary=*/true, server.baseUrl());
    test::writeInfoPlist(bundleDir(), "com.example.host");
    run();
    auto& tarn = Tarn::shared();
    auto stored = tarn.configuration.get();
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->domainUrl, server.baseUrl());
    EXPECT_EQ(stored->clientId, "file-id");
    EXPECT_EQ(stored->clientSecret, "file-secret");
    EXPECT_EQ(processSettings().baseUrl.get(), server.baseUrl());
    EXPECT_EQ(tarn.tarnBundle.get(), "com.example.host");
    EXPECT_EQ(tarn.applicationName.get(), "HostApp");
    EXPECT_EQ(ConfigurationManager::shared().settings()["EXTRA"], 1);
    // An upper-case guest identifier, stored under both keys.
    auto& prefs = PreferencesManager::shared();
    auto guest = prefs.stringValue(PreferenceKey::guestActorId).value_or("");
    EXPECT_THAT(guest, testing::MatchesRegex("[0-9A-F-]{36}"));
    EXPECT_EQ(prefs.stringValue(PreferenceKey::actorId), guest);
    EXPECT_EQ(tarn.actorId.get(), guest);
    // No configuration block yet: every device switch is off, and the token request is in flight
    // under the long start-up time-out.
    EXPECT_FALSE(tarn.isWifiStatusRequired || tarn.isBatteryStatusRequired ||
                 tarn.isDiskCapacityRequired || tarn.isLocationRequired);
    EXPECT_EQ(prefs.boolValue(PreferenceKey::tokenStatus), false);
    EXPECT_EQ(processSettings().requestTimeout.load(), 3000);
    ASSERT_EQ(ConfigManager::shared().getInitializeStatus(), InitializeStatusType::initializing);
    EXPECT_FALSE(ConfigManager::shared().isInitialized());

    test::LogCapture logs;
    run("B");
    EXPECT_EQ(logs.lines(),
              std::vector<std::string>{"Tarn: SDK is already Initialized. If you changed the "
                                       "configuration, send the forceInitialize value to true. "
                                       "Initialize status: initializing;"});
    EXPECT_EQ(Tarn::shared().actorId.get(), guest);
    simulateNewProcess();
    run("A");
    EXPECT_EQ(PreferencesManager::shared().stringValue(PreferenceKey::actorId), "A");
    EXPECT_EQ(ConfigManager::shared().installationStatus.load(),
              InstallationStatus::alreadyInstalled);
    simulateNewProcess();
    run();
    EXPECT_EQ(Tarn::shared().actorId.get(), "A");
    EXPECT_FALSE(logs.contains("Tarn-ConfigManager: Tarn actorId successfully updated.;"));
}
