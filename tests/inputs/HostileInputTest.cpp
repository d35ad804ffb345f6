// Input the library does not control (service and Info.plist files, preference files, strings from
// the host, answers from the server) never ends the host's process and never throws.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

#include "core/InputSafety.h"
#include "support/TestSupport.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/config/ConfigurationManager.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/PropertyList.h"
#include "tarn/push/TarnSliderPushHelper.h"

using namespace tarn;
namespace fs = std::filesystem;

namespace {

/// A binary property list of one dictionary entry, written by libplist, with the last character of
/// the key (or of the value) turned into NUL. "é" makes libplist store both as UTF-16.
std::string binaryPlistWithNul(bool inKey) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "CLIENT_IDéK", plist_new_string("secretéV"));
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &out, &length);
    std::string bytes(out, length);
    std::free(out);
    plist_free(dict);
    auto unit = bytes.find(std::string("\0", 1) + (inKey ? "K" : "V"));
    EXPECT_NE(unit, std::string::npos);
    bytes[unit + 1] = '\0';
    return bytes;
}

/// JSON text of `depth` arrays inside one another (built as text: dumping a value that deep would
/// itself recurse that deep).
std::string deepArrays(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

nlohmann::json nestedArrays(std::size_t depth) {
    nlohmann::json value = "leaf";
    for (std::size_t i = 0; i < depth; ++i) {
        value = nlohmann::json::array({std::move(value)});
    }
    return value;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

class HostileInputTest : public test::TarnTest {};

TEST(InputSafety, Utf8ExcerptsDepthAndClamping) {
    EXPECT_TRUE(isValidUtf8("plain \xC3\xA7 \xF0\x9F\x98\x80"));
    for (std::string bad : {"\xff", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"}) {
        EXPECT_FALSE(isValidUtf8(bad)) << bad;
    }
    EXPECT_EQ(validUtf8("fcm-token-\xff"), "fcm-token-\xEF\xBF\xBD");
    EXPECT_EQ(validUtf8("a\xE2\x82"
                        "b"),
              "a\xEF\xBF\xBD\xEF\xBF\xBD"
              "b");

    EXPECT_EQ(excerpt("short"), "short");
    // Cut on a character boundary: the two-byte "ç" straddling byte 64 is left out whole.
    std::string longText = std::string(63, 'x') + "\xC3\xA7" + std::string(100, 'y');
    EXPECT_EQ(excerpt(longText), std::string(63, 'x') + "\xE2\x80\xA6");

    EXPECT_FALSE(jsonNestingExceeds(nestedArrays(kMaxNestingDepth - 1).dump()));
    EXPECT_TRUE(jsonNestingExceeds(nestedArrays(kMaxNestingDepth + 1).dump()));
    // Brackets inside strings (escaped quotes included) are not nesting.
    EXPECT_FALSE(jsonNestingExceeds("[\"" + std::string(500, '[') + "\\\"" + "\"]"));

    EXPECT_EQ(clampNumber(std::nan(""), 1, 2, 1.5), 1.5);
    EXPECT_EQ(clampNumber(std::numeric_limits<double>::infinity(), 1, 2, 1.5), 2);
    EXPECT_EQ(clampNumber(-1e300, 1, 2, 1.5), 1);
    EXPECT_TRUE(parseJsonBounded(deepArrays(1000000)).is_discarded());
    EXPECT_EQ(parseJsonBounded(R"({"name":"e"})")["name"], "e");
}

TEST_F(HostileInputTest, PropertyListsWithNulOrDeepNestingAreMalformedFiles) {
    std::string error;
    for (bool inKey : {true, false}) {
        EXPECT_FALSE(parsePropertyList(binaryPlistWithNul(inKey), &error));
        EXPECT_EQ(error, "a string holds a NUL character");
    }
    // Deeper than the bound, in both forms; at the bound it reads.
    EXPECT_FALSE(
        parsePropertyList(writePropertyList(nestedArrays(kMaxNestingDepth + 1), true), &error));
    EXPECT_NE(error.find("nested more than 128 deep"), std::string::npos) << error;
    std::string deepXml = "<?xml version=\"1.0\"?><plist>";
    for (int i = 0; i < 100000; ++i)
        deepXml += "<array>";
    for (int i = 0; i < 100000; ++i)
        deepXml += "</array>";
    EXPECT_FALSE(parsePropertyList(deepXml + "</plist>", &error));
    EXPECT_TRUE(parsePropertyList(writePropertyList(nestedArrays(kMaxNestingDepth - 1), true)));

    // An offset table that points at one long string over and over (no writer makes one) is
    // refused rather than read once per entry.
    std::string overlapping = std::string("bplist00") + "\x5F\x10\x64" + std::string(100, 'a');
    const std::size_t tableOffset = overlapping.size();
    overlapping += std::string(5000, '\x08');  // 5000 one-byte offsets of the same string
    std::string trailer(32, '\0');
    trailer[6] = 1;
    trailer[7] = 1;
    trailer[14] = static_cast<char>(5000 >> 8);  // the number of objects
    trailer[15] = static_cast<char>(5000 & 0xFF);
    trailer[30] = static_cast<char>(tableOffset >> 8);  // where the offset table starts
    trailer[31] = static_cast<char>(tableOffset & 0xFF);
    EXPECT_FALSE(parsePropertyList(overlapping + trailer, &error));
    EXPECT_EQ(error, "string objects overlap");

    // The service file: the one failure line and no settings.
    std::ofstream(bundleDir() / "TarnService-Info.plist", std::ios::binary)
        << binaryPlistWithNul(true);
    testing::internal::CaptureStdout();
    const auto& settings = ConfigurationManager::shared().settings();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Failed to load the TarnService-Info file.\n");
    EXPECT_TRUE(settings.empty());

    // The bundle's Info.plist: no identifier, no crash.
    std::ofstream(bundleDir() / "Info.plist", std::ios::binary) << binaryPlistWithNul(false);
    EXPECT_FALSE(Bundle(bundleDir()).bundleIdentifier());
}

TEST_F(HostileInputTest, DeepPreferenceFilesAreSetAsideAndTheStoreStaysSmall) {
    auto folder = dataDir() / "Preferences";
    fs::create_directories(folder);
    auto file = folder / "standard.json";
    // Fetched anew after every simulated new process, which replaces the shared instances.
    auto prefs = [] { return &PreferencesManager::shared(); };
    for (std::size_t depth : {std::size_t{200}, std::size_t{1000000}}) {
        SCOPED_TRACE(depth);
        simulateNewProcess();
        std::string deep = R"({"actorId": "kept-aside", "x": )" + deepArrays(depth) + "}";
        std::ofstream(file) << deep;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(prefs()->stringValue(PreferenceKey::actorId));
        EXPECT_NE(testing::internal::GetCapturedStderr().find("is unreadable; moved aside"),
                  std::string::npos);
        // Nothing is lost: the unreadable file is kept beside the new one.
        EXPECT_EQ(readFile(file.string() + ".corrupt"), deep);
        prefs()->set(PreferenceKey::actorId, std::string("actor-1"));
        EXPECT_LT(fs::file_size(file), 100u);
    }
    // Nesting within the bound is kept and written back at a size in proportion to it.
    simulateNewProcess();
    std::ofstream(file) << R"({"x": )" << nestedArrays(100).dump() << "}";
    prefs()->set(PreferenceKey::pushToken, std::string("t"));
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::pushToken), "t");
    EXPECT_LT(fs::file_size(file), 30000u);
}

TEST_F(HostileInputTest, HostStringsThatAreNotUtf8AreReplacedNotThrown) {
    const std::string replaced = "\xEF\xBF\xBD";
    testing::internal::CaptureStdout();
    Tarn::shared().setPushToken("fcm-token-\xff");
    ConfigManager::shared().updateActorId("actor-\xC3");
    testing::internal::GetCapturedStdout();
    auto prefs = [] { return &PreferencesManager::shared(); };
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::pushToken), "fcm-token-" + replaced);
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::actorId), "actor-" + replaced);
    EXPECT_EQ(Tarn::shared().actorId.get(), "actor-" + replaced);
    // The file on disk is valid JSON that the next process reads back.
    simulateNewProcess();
    auto stored = nlohmann::json::parse(readFile(dataDir() / "Preferences" / "standard.json"));
    EXPECT_EQ(stored["pushToken"], "fcm-token-" + replaced);

    // Through initialisation: the actor and the application name.
    test::writeServiceFile(
        bundleDir(),
        {{"DOMAIN", "http://127.0.0.1:1"}, {"CLIENT_ID", "id"}, {"CLIENT_SECRET", "secret"}});
    testing::internal::CaptureStdout();
    Tarn::shared().initialize(TarnInitConfig(Bundle::main(), "App\xfe", "host-\xff",
                                             "http://host-value", std::nullopt, "id", "secret",
                                             false, false, true));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(prefs()->stringValue(PreferenceKey::actorId), "host-" + replaced);
    EXPECT_EQ(Tarn::shared().configuration.get()->applicationName, "App" + replaced);
}

TEST_F(HostileInputTest, ServerTuningValuesAreClampedBeforeUse) {
    Tarn::shared().configuration =
        TarnInitConfig(Bundle::main(), "App", "actor", "http://x", std::nullopt, "id", "secret",
                       false, false, false);
    auto& settings = processSettings();
    settings.configurationFetched = true;  // as after the configuration fetch has answered
    auto apply = [&](const std::string& configuration) {
        auto answer = decodeAppCommunication(R"({"configuration": )" + configuration + "}");
        ASSERT_TRUE(answer.ok()) << answer.error().localizedDescription();
        TarnSession::shared().setAppCommunication(answer.value());
        testing::internal::CaptureStdout();
        Tarn::shared().loadState();
        testing::internal::GetCapturedStdout();
    };
    apply(R"({"eventQueueDelay": 1e10, "apiRequestTimeout": 9223372036854775807,
              "apiRequestRetryCount": 9223372036854775807, "conversionTimeout": 9223372036854775807})");
    EXPECT_EQ(settings.queueDelay.load(), 86400.0);
    EXPECT_EQ(settings.requestTimeout.load(), 86400);
    EXPECT_EQ(settings.requestRetryCount.load(), 10);
    EXPECT_EQ(settings.conversionOffset.load(), -10.0 * 366 * 86400);
    apply(R"({"eventQueueDelay": -3, "apiRequestTimeout": -1, "apiRequestRetryCount": -5,
              "conversionTimeout": -9223372036854775807})");
    EXPECT_EQ(settings.queueDelay.load(), 0.001);
    EXPECT_EQ(settings.requestTimeout.load(), 1);
    EXPECT_EQ(settings.requestRetryCount.load(), 0);
    EXPECT_EQ(settings.conversionOffset.load(), 0.0);
    // Values in range are used as given.
    apply(R"({"eventQueueDelay": 0.05, "apiRequestTimeout": 7, "apiRequestRetryCount": 0,
              "conversionTimeout": 1500})");
    EXPECT_EQ(settings.queueDelay.load(), 0.05);
    EXPECT_EQ(settings.requestTimeout.load(), 7);
    EXPECT_EQ(settings.requestRetryCount.load(), 0);
    EXPECT_EQ(settings.conversionOffset.load(), -1.0);
}

TEST_F(HostileInputTest, DecodeErrorsQuoteAnExcerptAndDeepAnswersAreRefused) {
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
