// The actor identifier and the push tokens: what is accepted, where it is kept, what is logged.

#include <fstream>

#include "support/PipelineFixture.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"

using namespace tarn;

class IdentityTest : public test::TarnTest {};

TEST_F(IdentityTest, ActorIdRefusesBlanksKeepsSpacesFollowsTheInstallationAndTokensAreStored) {
    auto& config = ConfigManager::shared();
    auto& prefs = PreferencesManager::shared();
    test::LogCapture logs;
    EXPECT_EQ(config.resolveActorId(std::string(" ")), " ");  // whitespace counts as given
    EXPECT_EQ(config.installationStatus.load(), InstallationStatus::firstTimeInstallation);
    auto guest = config.resolveActorId(std::nullopt);
    EXPECT_EQ(prefs.stringValue(PreferenceKey::guestActorId), guest);
    EXPECT_EQ(prefs.storedActorId(), guest);

    config.updateActorId("b");
    EXPECT_FALSE(logs.contains("Tarn-ConfigManager: Tarn actorId successfully updated.;"));
    config.updateActorId("  \n");
    config.updateActorId("");
    EXPECT_EQ(logs.count("Tarn-ConfigManager: Tarn actorId cannot be updated with empty or only "
                         "whitespace string!;"),
              2u);
    EXPECT_EQ(Tarn::shared().actorId.get(), "b");
    config.updateActorId(" a ");
    EXPECT_TRUE(logs.contains("Tarn-ConfigManager: Tarn actorId successfully updated.;"));
    EXPECT_EQ(Tarn::shared().actorId.get(), " a ");
    EXPECT_EQ(prefs.stringValue(PreferenceKey::actorId), " a ");
    EXPECT_EQ(config.resolveActorId(std::string("")), " a ");
    EXPECT_EQ(config.installationStatus.load(), InstallationStatus::alreadyInstalled);
    EXPECT_EQ(prefs.storedActorId(), " a ");
    // Push tokens are stored first, the APNs one as lower-case hex.
    testing::internal::CaptureStdout();
    Tarn::shared().setApnsToken({0x0A, 0xFF});
    testing::internal::GetCapturedStdout();
    Tarn::shared().setPushToken("push-1");
    Tarn::shared().setPushToken("push-2");
    EXPECT_EQ(Tarn::shared().tarnApnsToken.get(), "0aff");
    EXPECT_EQ(prefs.stringValue(PreferenceKey::apnsToken), "0aff");
    EXPECT_EQ(prefs.stringValue(PreferenceKey::pushToken), "push-2");
    EXPECT_TRUE(logs.contains("Tarn: Tarn apns token set complete;"));
    EXPECT_EQ(logs.count("Tarn: Push token set complete;"), 2u);
}

TEST_F(IdentityTest, AppGroupStoreIsSharedWithASecondProcess) {
    auto& prefs = PreferencesManager::shared();
    prefs.appGroupSuiteName = std::string("group.com.example.shared");
    prefs.useAppGroup = true;
    ConfigManager::shared().updateActorId("group-actor");
    EXPECT_FALSE(PreferenceStore::standard()->string("actorId"));  // not in the standard store
    std::string out;
    EXPECT_EQ(test::runHelper({"get_actor", dataDir().string(), "group.com.example.shared"}, &out),
              0);
    EXPECT_EQ(out, "Actor ID: group-actor\n");
    EXPECT_EQ(test::runHelper({"get_actor", dataDir().string(), "group.com.other"}, &out), 1);
    EXPECT_EQ(out, "Actor ID bulunamadı.\n");
}

// The preference folder's path runs through a regular file, so no identity can be written (even
// as root); the database folder stays writable. With a host identifier, and as a guest.
class UnsavedIdentityTest : public test::PipelineTest,
                            public testing::WithParamInterface<std::optional<std::string>> {};

TEST_P(UnsavedIdentityTest, IsKeptForTheProcessOnEveryEventAndSaidOnce) {
    std::ofstream(dataDir() / "Preferences") << "not a folder";
    test::LogCapture logs;
    ASSERT_EQ(initializeAndWait(hostConfig(GetParam())), InitializeStatusType::initialized);
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "one");
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "two");
    ASSERT_TRUE(drainUntil(4));
    const auto actor = Tarn::shared().actorId.get();
    EXPECT_FALSE(actor.empty());
    EXPECT_EQ(actor, GetParam().value_or(actor));
    for (const auto& event : receivedEvents())
        EXPECT_EQ(event["actorId"], actor) << event["name"];
    EXPECT_EQ(logs.count("Tarn-ConfigManager: The actor identifier could not be saved in the "
                         "preference store; it is kept in memory for this process and a later run "
                         "may not know it.;"),
              1u);
}

INSTANTIATE_TEST_SUITE_P(HostAndGuest, UnsavedIdentityTest,
                         testing::Values(std::optional<std::string>("actor-1"), std::nullopt),
                         [](const auto& info) { return info.param ? "Host" : "Guest"; });
