// Input the library does not control (service and Info.plist files, preference files, strings from
// the host, answers from the server) never ends the host's process and never throws.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>

#include "base/InputSafety.h"
#include "support/TestSupport.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/ConfigurationManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/NotificationCenter.h"
#include "tarn/platform/PropertyList.h"
#include "tarn/push/TarnSliderPushHelper.h"

using namespace tarn;
namespace fs = std::filesystem;

namespace {

/// A binary property list of one dictionary entry with the last character of the key (or of the
/// value) turned into NUL. "é" makes the writer store both as UTF-16.
std::string binaryPlistWithNul(bool inKey) {
    auto bytes = writePropertyList(nlohmann::json{{"CLIENT_IDéK", "secretéV"}}, true);
    auto unit = bytes.find(std::string("\0", 1) + (inKey ? "K" : "V"));
    EXPECT_NE(unit, std::string::npos);
    bytes[unit + 1] = '\0';
    return bytes;
}

/// JSON text of `depth` arrays inside one another around `leaf` (built as text: dumping a value
/// that deep would itself recurse that deep).
std::string deepArrays(std::size_t depth, const std::string& leaf = "") {
    return std::string(depth, '[') + leaf + std::string(depth, ']');
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

using HostileInputTest = test::TarnTest;

TEST(InputSafety, Utf8ExcerptsNestingAndDecodeErrorsOfAnswers) {
    for (std::string bad : {"\xff", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"})
        EXPECT_FALSE(isValidUtf8(bad)) << bad;
    EXPECT_EQ(validUtf8("a\xE2\x82"
                        "b \xC3\xA7 \xF0\x9F\x98\x80"),
              "a\xEF\xBF\xBD\xEF\xBF\xBD"
              "b \xC3\xA7 \xF0\x9F\x98\x80");
    // Cut on a character boundary: the two-byte "ç" straddling byte 64 is left out whole.
    EXPECT_EQ(excerpt(std::string(63, 'x') + "\xC3\xA7" + std::string(100, 'y')),
              std::string(63, 'x') + "\xE2\x80\xA6");
    EXPECT_FALSE(jsonNestingExceeds(deepArrays(kMaxNestingDepth - 1, "0")));
    EXPECT_TRUE(jsonNestingExceeds(deepArrays(kMaxNestingDepth + 1, "0")));
    // Brackets inside strings (escaped quotes included) are not nesting.
    EXPECT_FALSE(jsonNestingExceeds("[\"" + std::string(500, '[') + "\\\"" + "\"]"));
    EXPECT_EQ(clampNumber(std::nan(""), 1, 2, 1.5), 1.5);

    // A 1 MB field with a raw control character at its end: the parser quotes the whole token.
    std::string field(1 << 20, 'x');
    auto broken = decodeAppCommunication(R"({"inAppCommunicationCommands": ")" + field + "\x01\"}");
    ASSERT_FALSE(broken.ok());
    auto text = broken.error().localizedDescription();
    EXPECT_LT(text.size(), 512u);
    EXPECT_NE(text.find("last read: '\"xxxx"), std::string::npos) << text;
    EXPECT_NE(text.find("\xE2\x80\xA6'"), std::string::npos) << text;

    auto refused =
        decodeAppCommunication(R"({"inAppCommunicationCommands": )" + deepArrays(100000) + "}");
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(refused.error().localizedDescription().find("nested more than 128 deep"),
              std::string::npos);
    // The same bound holds for a push item handed to the slider helper.
    SliderNotificationValue push(
        nlohmann::json{{"data", R"({"uuid": "p", "images": )" + deepArrays(100000) + "}"}});
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(push).empty());
}

TEST_F(HostileInputTest, PropertyListsWithNulOrDeepNestingAreMalformedFiles) {
    std::string error;
    for (bool inKey : {true, false}) {
        EXPECT_FALSE(parsePropertyList(binaryPlistWithNul(inKey), &error));
        EXPECT_EQ(error, "a string holds a NUL character");
    }
    // Deeper than the bound, in both forms; at the bound it reads.
    auto nested = [](std::size_t depth) { return nlohmann::json::parse(deepArrays(depth, "0")); };
    EXPECT_FALSE(parsePropertyList(writePropertyList(nested(kMaxNestingDepth + 1), true), &error));
    EXPECT_NE(error.find("nested more than 128 deep"), std::string::npos) << error;
    std::string deepXml = "<?xml version=\"1.0\"?><plist>";
    for (int i = 0; i < 100000; ++i)
        deepXml += "<array>";
    EXPECT_FALSE(parsePropertyList(deepXml + "</plist>", &error));
    EXPECT_TRUE(parsePropertyList(writePropertyList(nested(kMaxNestingDepth - 1), true)));

    // An offset table that points at one long string over and over (no writer makes one) is
    // refused rather than read once per entry.
    // Trailer: one-byte offsets and references, 5000 objects, the offset table at byte 111.
    const std::string trailer(
        "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\x13\x88\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x6F", 32);
    auto overlapping = "bplist00\x5F\x10\x64" + std::string(100, 'a') + std::string(5000, '\x08');
    EXPECT_FALSE(parsePropertyList(overlapping + trailer, &error));
    EXPECT_EQ(error, "string objects overlap");

    // The service file: the one failure line and no settings. The bundle's Info.plist: no
    // identifier.
    std::ofstream(bundleDir() / "TarnService-Info.plist", std::ios::binary)
        << binaryPlistWithNul(true);
    testing::internal::CaptureStdout();
    const auto& settings = ConfigurationManager::shared().settings();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Failed to load the TarnService-Info file.\n");
    EXPECT_TRUE(settings.empty());
    std::ofstream(bundleDir() / "Info.plist", std::ios::binary) << binaryPlistWithNul(false);
    EXPECT_FALSE(Bundle(bundleDir()).bundleIdentifier());
}

TEST_F(HostileInputTest, DeepPreferenceFilesAreSetAsideAndTheStoreStaysSmall) {
    auto file = dataDir() / "Preferences" / "standard.json";
    fs::create_directories(file.parent_path());
    // Fetched anew after every simulated new process, which replaces the shared instances.
    auto prefs = [] { return &PreferencesManager::shared(); };
    for (std::size_t depth : {std::size_t{200}, std::size_t{1000000}}) {
        SCOPED_TRACE(depth);
        simulateNewProcess();
        std::string deep = R"({"actorId": "kept-aside", "x": )" + deepArrays(depth) + "}";
        std::ofstream(file) << deep;
        test::LogCapture logs;
        // An observer of the records and a log handler that read the store as the line arrives
        // run after its lock is released (under it, they would wait for themselves forever).
        std::vector<std::optional<std::string>> seenByObserver, seenByHandler;
        auto token = NotificationCenter::defaultCenter().addObserver(
            nullptr, kTarnLogNotification, [&](const Notification&) {
                seenByObserver.push_back(prefs()->stringValue(PreferenceKey::actorId));
            });
        setLogHandler([&](LogLevel, std::string_view) {
            seenByHandler.push_back(prefs()->stringValue(PreferenceKey::pushToken));
        });
        EXPECT_FALSE(prefs()->stringValue(PreferenceKey::actorId));
        setLogHandler(nullptr);
        NotificationCenter::defaultCenter().removeObserver(token);
        EXPECT_EQ(seenByObserver.size(), 1u);
        EXPECT_EQ(seenByHandler.size(), 1u);
        EXPECT_TRUE(logs.contains("Tarn-PreferenceStore: The preference file " + file.string() +
                                  " is unreadable; it was moved aside to " + file.string() +
                                  ".corrupt;"));
        // Nothing is lost: the unreadable file is kept beside the new one.
        EXPECT_EQ(readFile(file.string() + ".corrupt"), deep);
        prefs()->set(PreferenceKey::actorId, std::string("actor-1"));
        EXPECT_LT(fs::file_size(file), 100u);
    }
    // Nesting within the bound is kept and written back at a size in proportion to it.
    simulateNewProcess();
    std::ofstream(file) << R"({"x": )" << deepArrays(100, "0") << "}";
    prefs()->set(PreferenceKey::pushToken, std::string("t"));
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::pushToken), "t");
    EXPECT_LT(fs::file_size(file), 30000u);
}

TEST_F(HostileInputTest, HostStringsThatAreNotUtf8AreReplacedOnlyInThePreferenceStore) {
    const std::string replaced = "\xEF\xBF\xBD";
    auto prefs = [] { return &PreferencesManager::shared(); };
    Tarn::shared().setPushToken("fcm-token-\xff");
    ConfigManager::shared().updateActorId("actor-\xC3");
    // The stored copies are valid UTF-8; the values in memory are the host's bytes.
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::actorId), "actor-" + replaced);
    EXPECT_EQ(Tarn::shared().actorId.get(), "actor-\xC3");
    EXPECT_EQ(Tarn::shared().tarnPushToken.get(), "fcm-token-\xff");
    // The file on disk is valid JSON that the next process reads back.
    simulateNewProcess();
    auto stored = nlohmann::json::parse(readFile(dataDir() / "Preferences" / "standard.json"));
    EXPECT_EQ(stored["pushToken"], "fcm-token-" + replaced);

    // Through initialisation: the stored actor is replaced, the application name kept.
    test::writeServiceFile(
        bundleDir(),
        {{"DOMAIN", "http://127.0.0.1:1"}, {"CLIENT_ID", "id"}, {"CLIENT_SECRET", "secret"}});
    Tarn::shared().initialize(TarnInitConfig(Bundle::main(), "App\xfe", "host-\xff",
                                             "http://host-value", std::nullopt, "id", "secret",
                                             false, false, true));
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::actorId), "host-" + replaced);
    EXPECT_EQ(Tarn::shared().configuration.get()->applicationName, "App\xfe");
}

TEST_F(HostileInputTest, ServerTuningValuesAreBoundedOnlyWhereTheyWouldHangOrOverflow) {
    Tarn::shared().configuration =
        TarnInitConfig(Bundle::main(), "App", "actor", "http://x", std::nullopt, "id", "secret",
                       false, false, false);
    auto& settings = processSettings();
    settings.configurationFetched = true;  // as after the configuration fetch has answered
    // In: eventQueueDelay, apiRequestTimeout, apiRequestRetryCount, conversionTimeout. Out: the
    // queue delay, time-out, retry budget and conversion offset in force. The retry budget is
    // used as given; a time-out of zero or below counts as one second; the conversion offset
    // keeps its sign rule and is bounded to ten years either way.
    constexpr double kMax = 9223372036854775807.0;
    constexpr double kTenYears = 10.0 * 366 * 86400;
    for (const auto& [in, out] : std::vector<std::pair<std::string, std::vector<double>>>{
             {"1e10, 9223372036854775807, 9223372036854775807, 9223372036854775807",
              {86400, kMax, kMax, -kTenYears}},
             {"-3, -1, -5, -9223372036854775807", {0.001, 1, -5, kTenYears}},
             {"0.5, 0, 2, -1999", {0.5, 1, 2, 1}},
             {"0.05, 7, 0, 1500", {0.05, 7, 0, -1}}}) {  // in range: used as given
        SCOPED_TRACE(in);
        auto v = nlohmann::json::parse("[" + in + "]");
        nlohmann::json block = {{"eventQueueDelay", v[0]},
                                {"apiRequestTimeout", v[1]},
                                {"apiRequestRetryCount", v[2]},
                                {"conversionTimeout", v[3]}};
        auto answer = decodeAppCommunication(nlohmann::json{{"configuration", block}}.dump());
        ASSERT_TRUE(answer.ok()) << answer.error().localizedDescription();
        TarnSession::shared().setAppCommunication(answer.value());
        Tarn::shared().loadState();
        EXPECT_EQ((std::vector<double>{
                      settings.queueDelay.load(), double(settings.requestTimeout.load()),
                      double(settings.requestRetryCount.load()), settings.conversionOffset.load()}),
                  out);
    }
}
