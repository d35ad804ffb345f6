#include "support/PipelineFixture.h"

#include "support/RawDatabase.h"

#include <charconv>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {

std::string tokenAnswer(const std::string& token, const std::string& type) {
    return nlohmann::json{{"access_token", token},   {"expires_in", 300},
                          {"refresh_expires_in", 0}, {"token_type", type},
                          {"not-before-policy", 0},  {"scope", "profile"}}
        .dump();
}

void PipelineTest::SetUp() {
    TarnTest::SetUp();
    server_ = std::make_unique<LoopbackServer>();
    server_->on(kTokenPath, ScriptedAnswer::json(200, tokenAnswer()));
    server_->on(kInAppPath, ScriptedAnswer::json(200, "{}"));
    server_->on(kEventPath, ScriptedAnswer::json(200, "{}"));
    writeServiceFile(bundleDir(), {{"DOMAIN", server_->baseUrl()},
                                   {"CLIENT_ID", "client-id"},
                                   {"CLIENT_SECRET", "client-secret"}});
    writeInfoPlist(bundleDir(), "com.example.host");
}

void PipelineTest::TearDown() {
    TarnTest::TearDown();  // the library closes its kept-alive connections first
    server_.reset();
}

TarnInitConfig PipelineTest::hostConfig(std::optional<std::string> actorId, bool force,
                                        bool lifecycleAuto, bool activityTracking) const {
    return TarnInitConfig(Bundle(bundleDir()), "HostApp", std::move(actorId), std::nullopt,
                          std::nullopt, std::nullopt, std::nullopt, lifecycleAuto, activityTracking,
                          force);
}

InitializeStatusType PipelineTest::initializeAndWait(const TarnInitConfig& config) {
    Tarn::shared().initialize(config);
    auto& manager = ConfigManager::shared();
    pumpUntil([&] { return manager.getInitializeStatus() != InitializeStatusType::initializing; });
    return manager.getInitializeStatus();
}

std::vector<nlohmann::json> PipelineTest::receivedEvents() const {
    std::vector<nlohmann::json> events;
    for (const auto& request : server_->requests(kEventPath))
        events.push_back(nlohmann::json::parse(request.body));
    return events;
}

std::vector<std::string> PipelineTest::receivedNames() const {
    std::vector<std::string> names;
    for (const auto& event : receivedEvents())
        names.push_back(event.value("name", ""));
    return names;
}

int PipelineTest::storedEventCount() const {
    if (!std::filesystem::exists(CoreDataManager::databasePath()))
        return 0;
    try {
        return static_cast<int>(RawDatabase(CoreDataManager::databasePath())
                                    .integer("SELECT count(*) FROM EventQueue"));
    } catch (const std::exception&) {
        return -1;
    }
}

std::vector<nlohmann::json> PipelineTest::storedEvents() const {
    std::vector<nlohmann::json> events;
    if (!std::filesystem::exists(CoreDataManager::databasePath()))
        return events;
    for (const auto& text : RawDatabase(CoreDataManager::databasePath())
                                .column("SELECT event FROM EventQueue ORDER BY timestamp"))
        events.push_back(nlohmann::json::parse(text, nullptr, false));
    return events;
}

void PipelineTest::insertRawEvent(const std::string& text, double timestamp) const {
    char number[32];
    *std::to_chars(number, number + sizeof number - 1, timestamp).ptr = '\0';  // exact digits
    char* sql = sqlite3_mprintf("INSERT INTO EventQueue (event, timestamp) VALUES (%Q, %s)",
                                text.c_str(), number);
    RawDatabase(CoreDataManager::databasePath()).exec(sql);
    sqlite3_free(sql);
}

}  // namespace tarn::test
