// Consent and erasure in real host processes (the helper program) against a loopback server: what
// leaves the process and what stays on disk with consent required, granted, refused, across
// restarts; erasing while host threads send; and `tarn inspect` on the data folder left behind.
#include <algorithm>
#include <filesystem>

#include "support/ChildProcess.h"
#include "support/PipelineFixture.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

bool has(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

class ConsentProcessTest : public PipelineTest {
  protected:
    void SetUp() override {
        PipelineTest::SetUp();
        answerWithQueueDelay(0.02);
    }
    void answerWithQueueDelay(double seconds) {
        server_->on(kInAppPath,
                    ScriptedAnswer::json(200, R"({"inAppCommunicationCommands":[],)"
                                              R"("configuration":{"eventQueueDelay":)" +
                                                  std::to_string(seconds) + "}}"));
    }
    /// Runs the host helper with `script`; its exit code, its output in `output`.
    int host(const std::string& script, std::string* output = nullptr) {
        std::string out;
        int code = runHelper({"consent_host", dataDir().string(), bundleDir().string(), script},
                             &out);
        if (output)
            *output = out;
        return code;
    }
    /// The files in the data folder that hold anything: opening the preference store to read the
    /// answer leaves its empty lock file, which carries nothing.
    std::vector<std::string> libraryFiles() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(dataDir())) {
            if (!entry.is_regular_file())
                continue;
            auto name = entry.path().filename().string();
            if (name.size() > 5 && name.substr(name.size() - 5) == ".lock" && entry.file_size() == 0)
                continue;
            found.push_back(fs::relative(entry.path(), dataDir()).string());
        }
        return found;
    }
    /// Every file in the data folder, lock files included.
    std::vector<std::string> allFiles() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(dataDir()))
            if (entry.is_regular_file())
                found.push_back(fs::relative(entry.path(), dataDir()).string());
        return found;
    }
};

TEST_F(ConsentProcessTest, RequiredConsentGatesEverythingAndTheAnswerSurvivesRestarts) {
    std::string out;
    // 1. Consent required and never given: a whole session stores and sends nothing.
    ASSERT_EQ(host("require,init,token:push-token-before-consent-0001,send:before_a,"
                   "send:before_b,sleep:1500,say-consent",
                   &out),
              0)
        << out;
    EXPECT_EQ(server_->totalCount(), 0u);
    EXPECT_EQ(storedEventCount(), 0);
    EXPECT_TRUE(libraryFiles().empty()) << libraryFiles().front();
    EXPECT_EQ(occurrences(out, "Tarn-Consent: Tracking is off"), 1u) << out;
    EXPECT_NE(out.find("consent notAsked"), std::string::npos) << out;

    // 2. A new launch: an event before the grant is not kept; the grant runs the start-up.
    ASSERT_EQ(host("require,init,send:before_grant,sleep:300,grant,wait-sent:sdk_initialize,"
                   "send:after_grant,wait-sent:after_grant,say-consent",
                   &out),
              0)
        << out;
    auto names = receivedNames();
    EXPECT_TRUE(has(names, "install"));
    EXPECT_TRUE(has(names, "sdk_initialize"));
    EXPECT_TRUE(has(names, "after_grant"));
    EXPECT_FALSE(has(names, "before_grant"));
    EXPECT_FALSE(has(names, "before_a"));
    EXPECT_EQ(server_->count(kTokenPath), 1u);
    EXPECT_EQ(server_->count(kInAppPath), 1u);
    EXPECT_NE(out.find("consent granted"), std::string::npos) << out;

    // 3. The answer survives a restart: no new question, no second install.
    ASSERT_EQ(host("require,init,wait-sent:sdk_initialize,send:third,wait-sent:third,say-consent",
                   &out),
              0)
        << out;
    names = receivedNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "install"), 1);
    EXPECT_TRUE(has(names, "third"));
    EXPECT_EQ(occurrences(out, "Tracking is off"), 0u) << out;

    // 4. Denial with events waiting (a slow queue): they are deleted, nothing more is sent.
    answerWithQueueDelay(5);
    const auto before = server_->totalCount();
    ASSERT_EQ(host("require,init,wait-init,send:waiting_1,send:waiting_2,send:waiting_3,deny,"
                   "send:after_deny,token:push-token-after-deny-0002,sleep:1500,say-consent",
                   &out),
              0)
        << out;
    names = receivedNames();
    for (const char* name : {"waiting_1", "waiting_2", "waiting_3", "after_deny"})
        EXPECT_FALSE(has(names, name)) << name;
    EXPECT_EQ(storedEventCount(), 0);
    EXPECT_NE(out.find("consent denied"), std::string::npos) << out;
    // At most the token, the fetch and the one event a tick may have taken before the denial.
    EXPECT_LE(server_->totalCount() - before, 3u);

    // 5. A new launch that does not even require consent keeps the user's "no".
    const auto afterDenial = server_->totalCount();
    ASSERT_EQ(host("init,send:denied_launch,token:push-token-denied-launch-3,sleep:1500,"
                   "say-consent",
                   &out),
              0)
        << out;
    EXPECT_EQ(server_->totalCount(), afterDenial);
    EXPECT_EQ(storedEventCount(), 0);
    EXPECT_NE(out.find("consent denied"), std::string::npos) << out;
    EXPECT_EQ(occurrences(out, "Tarn-Consent: Tracking is off"), 1u) << out;
}

TEST_F(ConsentProcessTest, ErasureWhileFourThreadsSendLeavesNothingAndTheNextStartIsAFirstRun) {
    std::string first;
    ASSERT_EQ(host("init,wait-sent:sdk_initialize,token:push-token-to-erase-000123,say-actor,"
                   "erase-under-load",
                   &first),
              0)
        << first;
    EXPECT_NE(first.find("erased 1"), std::string::npos) << first;
    auto files = allFiles();
    EXPECT_TRUE(files.empty()) << files.front();

    std::string second;
    ASSERT_EQ(host("init,wait-sent:install,say-actor", &second), 0) << second;
    auto actorOf = [](const std::string& out) {
        auto at = out.find("\nactor ");
        return at == std::string::npos ? std::string()
                                       : out.substr(at + 7, out.find('\n', at + 1) - at - 7);
    };
    EXPECT_FALSE(actorOf(first).empty()) << first;
    EXPECT_FALSE(actorOf(second).empty()) << second;
    EXPECT_NE(actorOf(first), actorOf(second));
    auto names = receivedNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "install"), 2);
}

TEST_F(ConsentProcessTest, InspectListsQueuedEventsAndNeverPrintsATokenInFull) {
    const std::string token = "PushTokenSecretValue-98a7";
    ASSERT_EQ(host("token:" + token + ",send:shop_view,send:purchase_done,say-consent"), 0);
    ASSERT_EQ(storedEventCount(), 2);

    auto text = runTarn({"inspect", dataDir().string()});
    ASSERT_EQ(text->wait(), 0) << text->err;
    EXPECT_NE(text->out.find("Queued events: 2"), std::string::npos) << text->out;
    EXPECT_NE(text->out.find("shop_view"), std::string::npos) << text->out;
    EXPECT_NE(text->out.find("purchase_done"), std::string::npos) << text->out;
    EXPECT_NE(text->out.find("Push token: ****98a7 (25 characters)"), std::string::npos)
        << text->out;
    EXPECT_NE(text->out.find("Consent: notAsked"), std::string::npos) << text->out;
    EXPECT_EQ(text->out.find(token), std::string::npos);
    EXPECT_EQ(text->out.find(token.substr(0, 12)), std::string::npos);

    auto json = runTarn({"inspect", "--json", dataDir().string()});
    ASSERT_EQ(json->wait(), 0) << json->err;
    EXPECT_EQ(json->out.find(token.substr(0, 12)), std::string::npos);
    auto report = nlohmann::json::parse(json->out);
    ASSERT_EQ(report["queuedEvents"].size(), 2u);
    EXPECT_EQ(report["queuedEvents"][0]["name"], "shop_view");
    EXPECT_EQ(report["queuedEvents"][1]["name"], "purchase_done");
    EXPECT_TRUE(report["queuedEvents"][0]["time"].is_string());
    EXPECT_EQ(report["consent"], "notAsked");
    EXPECT_TRUE(report["tokens"]["apnsToken"].is_null());
    // Reading changed nothing.
    EXPECT_EQ(storedEventCount(), 2);
}

}  // namespace
}  // namespace tarn::test
