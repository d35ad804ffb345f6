// `tarn inspect`: what the library keeps on this device, read without changing anything.
#include <sqlite3.h>

#include <ctime>
#include <filesystem>
#include <set>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "tarn/config/Consent.h"
#include "tarn/config/Preferences.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::cli {

namespace {

/// A token as far as it may be shown: its last four characters when it is long enough that they
/// give nothing away, and its length.
std::string maskToken(const std::string& token) {
    std::string shown = "****";
    if (token.size() >= 12) {
        shown += token.substr(token.size() - 4);
    }
    return shown + " (" + std::to_string(token.size()) + " characters)";
}

/// `seconds` since 1970 as UTC "YYYY-MM-DDThh:mm:ssZ".
std::string dateText(double seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

/// The rows of `sql` (every column as text, NULL as none), from the database opened read-only.
std::vector<std::vector<std::optional<std::string>>> query(sqlite3* db, const char* sql,
                                                           std::string& error) {
    std::vector<std::vector<std::optional<std::string>>> rows;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(db);
        return rows;
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        std::vector<std::optional<std::string>> row;
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
            if (sqlite3_column_type(stmt, i) == SQLITE_NULL) {
                row.emplace_back();
            } else {
                row.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, i)));
            }
        }
        rows.push_back(std::move(row));
    }
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    return rows;
}

}  // namespace

int runInspect(const InspectOptions& options) {
    namespace fs = std::filesystem;
    fs::path folder = options.folder.empty() ? dataDirectory() : fs::path(options.folder);
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        emit(stderr, "tarn inspect: " + folder.string() + " is not a folder\n");
        return 1;
    }
    nlohmann::json report;
    report["folder"] = folder.string();
    int status = 0;

    // Preferences: read the file as it stands (the store would make it when missing).
    nlohmann::json prefs = nlohmann::json::object();
    auto prefsFile = folder / "Preferences" / "standard.json";
    report["preferencesFile"] = fs::exists(prefsFile, ec) ? nlohmann::json(prefsFile.string())
                                                          : nlohmann::json(nullptr);
    if (fs::exists(prefsFile, ec)) {
        std::string text, error;
        if (readWholeFile(prefsFile.string(), text, error)) {
            auto parsed = nlohmann::json::parse(text, nullptr, false);
            if (parsed.is_object()) {
                prefs = std::move(parsed);
            } else {
                emit(stderr, "tarn inspect: " + prefsFile.string() + " is not a JSON object\n");
                status = 1;
            }
        } else {
            emit(stderr, "tarn inspect: " + error + "\n");
            status = 1;
        }
    }
    auto text = [&](const char* key) -> nlohmann::json {
        auto it = prefs.find(key);
        return it != prefs.end() && it->is_string() ? *it : nlohmann::json(nullptr);
    };
    report["identity"] = {{"actorId", text(rawValue(PreferenceKey::actorId))},
                          {"guestActorId", text(rawValue(PreferenceKey::guestActorId))}};
    nlohmann::json tokens = nlohmann::json::object();
    for (auto key : {PreferenceKey::pushToken, PreferenceKey::apnsToken}) {
        auto value = text(rawValue(key));
        tokens[rawValue(key)] = value.is_string() ? nlohmann::json(maskToken(value))
                                                  : nlohmann::json(nullptr);
    }
    report["tokens"] = tokens;
    auto consent = text(ConsentManager::kPreferenceKey);
    report["consent"] = consent.is_string() ? consent : nlohmann::json(rawValue(ConsentState::notAsked));
    // Show counts are the integers kept under a communication's uuid.
    const std::set<std::string> fixed = {"apnsToken", "pushToken", "actorId", "tokenStatus",
                                         "guestActorId", ConsentManager::kPreferenceKey};
    nlohmann::json showCounts = nlohmann::json::object();
    for (const auto& [key, value] : prefs.items()) {
        if (!fixed.count(key) && value.is_number_integer()) {
            showCounts[key] = value;
        }
    }
    report["showCounts"] = showCounts;

    // The database, opened read-only: nothing is created, replayed into the file or deleted.
    nlohmann::json events = nlohmann::json::array();
    nlohmann::json markers = nlohmann::json::array();
    auto dbFile = folder / CoreDataManager::kDatabaseFileName;
    report["databaseFile"] =
        fs::exists(dbFile, ec) ? nlohmann::json(dbFile.string()) : nlohmann::json(nullptr);
    if (fs::exists(dbFile, ec)) {
        sqlite3* db = nullptr;
        std::string error;
        if (sqlite3_open_v2(dbFile.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW,
                            nullptr) != SQLITE_OK) {
            error = db ? sqlite3_errmsg(db) : "cannot open";
        } else {
            sqlite3_busy_timeout(db, 1000);
            for (auto& row : query(db, "SELECT event, timestamp FROM EventQueue ORDER BY timestamp",
                                   error)) {
                auto body = nlohmann::json::parse(row[0].value_or(""), nullptr, false);
                nlohmann::json name = nullptr;
                if (body.is_object() && body.contains("name") && body["name"].is_string()) {
                    name = body["name"];
                }
                double at = row[1] ? std::stod(*row[1]) : 0;
                events.push_back({{"name", name}, {"time", dateText(at)}});
            }
            for (auto& row : query(db,
                                   "SELECT actorId, communicationCode, convertionName, time FROM "
                                   "ConversionEntity ORDER BY time",
                                   error)) {
                markers.push_back({{"actorId", row[0] ? nlohmann::json(*row[0]) : nullptr},
                                   {"communicationCode", row[1] ? nlohmann::json(*row[1]) : nullptr},
                                   {"conversionName", row[2] ? nlohmann::json(*row[2]) : nullptr},
                                   {"time", row[3] ? nlohmann::json(std::stod(*row[3])) : nullptr}});
            }
        }
        sqlite3_close_v2(db);
        if (!error.empty()) {
            emit(stderr, "tarn inspect: " + dbFile.string() + ": " + error + "\n");
            status = 1;
        }
    }
    report["queuedEvents"] = events;
    report["conversionMarkers"] = markers;

    if (options.json) {
        emit(stdout, report.dump(2) + "\n");
        return status;
    }
    auto show = [](const nlohmann::json& value) {
        return value.is_null() ? std::string("-")
                               : value.is_string() ? value.get<std::string>() : value.dump();
    };
    std::string out = "Data folder: " + folder.string() + "\n";
    out += "Actor: " + show(report["identity"]["actorId"]) + "\n";
    out += "Guest actor: " + show(report["identity"]["guestActorId"]) + "\n";
    out += "Push token: " + show(tokens["pushToken"]) + "\n";
    out += "APNs token: " + show(tokens["apnsToken"]) + "\n";
    out += "Consent: " + show(report["consent"]) + "\n";
    out += "Queued events: " + std::to_string(events.size()) + "\n";
    if (!events.empty()) {
        Table table({"NAME", "TIME"});
        for (const auto& event : events) {
            table.add({show(event["name"]), show(event["time"])});
        }
        out += table.render();
    }
    out += "Conversion markers: " + std::to_string(markers.size()) + "\n";
    if (!markers.empty()) {
        Table table({"ACTOR", "CODE", "EVENT"});
        for (const auto& marker : markers) {
            table.add({show(marker["actorId"]), show(marker["communicationCode"]),
                       show(marker["conversionName"])});
        }
        out += table.render();
    }
    out += "In-app show counts: " + std::to_string(showCounts.size()) + "\n";
    if (!showCounts.empty()) {
        Table table({"COMMUNICATION", "SHOWS LEFT"});
        for (const auto& [key, value] : showCounts.items()) {
            table.add({key, value.dump()});
        }
        out += table.render();
    }
    emit(stdout, out);
    return status;
}

}  // namespace tarn::cli
