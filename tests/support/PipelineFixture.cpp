#include "support/PipelineFixture.h"

#include <thread>

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
    // The library goes first, closing its kept-alive connections, so the server stops at once.
    TarnTest::TearDown();
    server_->stop();
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
    pumpUntil([] {
        return ConfigManager::shared().getInitializeStatus() != InitializeStatusType::initializing;
    });
    return ConfigManager::shared().getInitializeStatus();
}

bool PipelineTest::drainUntil(std::size_t n) {
    return pumpUntil([&] { return server_->count(kEventPath) >= n; });
}

std::vector<nlohmann::json> PipelineTest::receivedEvents() const {
    std::vector<nlohmann::json> events;
    for (const auto& request : server_->requests(kEventPath)) {
        events.push_back(nlohmann::json::parse(request.body));
    }
    return events;
}

std::vector<std::string> PipelineTest::receivedNames() const {
    std::vector<std::string> names;
    for (const auto& event : receivedEvents()) {
        names.push_back(event.value("name", ""));
    }
    return names;
}

int PipelineTest::storedEventCount() const {
    if (!std::filesystem::exists(CoreDataManager::databasePath())) {
        return 0;
    }
    sqlite3* db = nullptr;
    int count = -1;
    if (sqlite3_open_v2(CoreDataManager::databasePath().c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) == SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM EventQueue", -1, &stmt, nullptr) ==
                SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW) {
            count = sqlite3_column_int(stmt, 0);
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return count;
}

std::vector<nlohmann::json> PipelineTest::storedEvents() const {
    std::vector<nlohmann::json> events;
    if (!std::filesystem::exists(CoreDataManager::databasePath())) {
        return events;
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(CoreDataManager::databasePath().c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) == SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT event FROM EventQueue ORDER BY timestamp", -1, &stmt,
                               nullptr) == SQLITE_OK) {
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
                events.push_back(nlohmann::json::parse(text ? text : "null", nullptr, false));
            }
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return events;
}

void PipelineTest::insertRawEvent(const std::string& text, double timestamp) const {
    sqlite3* db = nullptr;
    sqlite3_open(CoreDataManager::databasePath().c_str(), &db);
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO EventQueue (event, timestamp) VALUES (?, ?)", -1, &stmt,
                       nullptr);
    sqlite3_bind_text(stmt, 1, text.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_double(stmt, 2, timestamp);
    sqlite3_step(stmt);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
}

}  // namespace tarn::test
