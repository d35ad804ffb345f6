#include "support/PipelineFixture.h"

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {

namespace {

/// Runs `sql` on the store's file (read-only unless `bind` sets parameters) and hands each row to
/// `row`; false when the file cannot be read.
bool eachStoredRow(const char* sql, const std::function<void(sqlite3_stmt*)>& row,
                   const std::function<void(sqlite3_stmt*)>& bind = nullptr) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    bool ok = sqlite3_open_v2(CoreDataManager::databasePath().c_str(), &db,
                              bind ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY,
                              nullptr) == SQLITE_OK &&
              sqlite3_busy_timeout(db, 2000) == SQLITE_OK &&
              sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK;
    if (ok && bind)
        bind(stmt);
    int step = SQLITE_DONE;
    while (ok && (step = sqlite3_step(stmt)) == SQLITE_ROW)
        row(stmt);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return ok && step == SQLITE_DONE;
}

}  // namespace

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
    int count = 0;
    if (!std::filesystem::exists(CoreDataManager::databasePath()))
        return 0;
    return eachStoredRow("SELECT 1 FROM EventQueue", [&](sqlite3_stmt*) { ++count; }) ? count : -1;
}

std::vector<nlohmann::json> PipelineTest::storedEvents() const {
    std::vector<nlohmann::json> events;
    if (std::filesystem::exists(CoreDataManager::databasePath()))
        eachStoredRow("SELECT event FROM EventQueue ORDER BY timestamp", [&](sqlite3_stmt* stmt) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
            events.push_back(nlohmann::json::parse(text ? text : "null", nullptr, false));
        });
    return events;
}

void PipelineTest::insertRawEvent(const std::string& text, double timestamp) const {
    eachStoredRow(
        "INSERT INTO EventQueue (event, timestamp) VALUES (?, ?)", [](sqlite3_stmt*) {},
        [&](sqlite3_stmt* stmt) {
            sqlite3_bind_text(stmt, 1, text.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_double(stmt, 2, timestamp);
        });
}

}  // namespace tarn::test
