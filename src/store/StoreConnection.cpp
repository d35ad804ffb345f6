#include "store/StoreConnection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "store/StoreRecovery.h"
#include "store/StoreSchema.h"
#include "tarn/core/Log.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::store {

namespace {

/// The schema version this release writes and reads.
constexpr int kSchemaVersion = CoreDataManager::kSchemaVersion;

/// Makes the database file and whatever companions exist private to the user. The main file is
/// created here with mode 0600 before SQLite opens it, so no umask can widen it, and SQLite gives
/// the -wal and -shm files it creates later the main file's mode. Files left by an earlier release
/// with wider modes are narrowed. Failures are left for the open to report.
void makeFilesPrivate(const std::filesystem::path& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::fchmod(fd, 0600);
        ::close(fd);
    }
    for (const char* suffix : kCompanionSuffixes) {
        auto companion = path.string() + suffix;
        if (::access(companion.c_str(), F_OK) == 0) {
            ::chmod(companion.c_str(), 0600);
        }
    }
}

}  // namespace

bool Connection::ensureOpen(const std::string& logtag) {
    if (attempted) {
        return db != nullptr;
    }
    attempted = true;
    const auto path = CoreDataManager::databasePath();
    auto error = open(path);
    if (!error) {
        return true;
    }
    const bool corrupt = meansCorruption(openFailure);
    loadError = *error;
    close();
    log("❌ Loading of store failed:" + loadError, logtag, LogLevel::error);
    if (!corrupt) {
        return false;
    }
    // The file cannot be read: keep it for a person to look at and start a new, empty store, so
    // that the events of this and every later run are kept.
    if (!moveUnreadableAside(path, CoreDataManager::kKeptUnreadableStores, logtag)) {
        return false;
    }
    if (auto again = open(path)) {
        loadError = *again;
        close();
        log("❌ Loading of store failed:" + loadError, logtag, LogLevel::error);
        return false;
    }
    loadError.clear();
    return true;
}

Error Connection::open(const std::filesystem::path& path) {
    openFailure = SQLITE_OK;
    makeFilesPrivate(path);
    int rc =
        sqlite3_open_v2(path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        openFailure = rc;
        std::string reason = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        return reason + " (" + path.string() + ")";
    }
    sqlite3_busy_timeout(db, busyTimeoutMs);
    // Until the file has passed its check, closing the connection must not checkpoint a log into
    // it nor delete that log: an unreadable file is moved aside with its log as it was found.
    sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    std::error_code ec;
    auto size = std::filesystem::file_size(path, ec);
    if (ec || size <= kFullCheckLimit) {
        if (auto error = quickCheck(db, openFailure)) {
            return error;
        }
    }
    this->path = path;
    // Write-ahead log with NORMAL sync: see tarn/store/CoreDataManager.h for why this survives any
    // process kill.
    if (auto error = exec("PRAGMA journal_mode = WAL")) {
        return error;
    }
    if (auto error = exec("PRAGMA synchronous = NORMAL")) {
        return error;
    }
    // No checkpoint inside a commit: the hook (which replaces SQLite's automatic checkpoint) hands
    // it to the checkpoint thread instead.
    sqlite3_wal_hook(db, &Connection::onWalCommit, this);
    if (auto error = migrate()) {
        return error;
    }
    const std::pair<const char*, sqlite3_stmt**> statements[] = {
        {"INSERT INTO EventQueue (event, timestamp) VALUES (?, ?)", &insertEvent},
        {"INSERT INTO EventQueue (event, timestamp) SELECT ?1, ?2 WHERE NOT EXISTS "
         "(SELECT 1 FROM ConversionEntity WHERE actorId = ?3 AND convertionName = ?4 "
         "AND time > ?5)",
         &insertEventUnlessMarked},
        {"SELECT id, event FROM EventQueue ORDER BY timestamp, id LIMIT ?", &selectOldest},
        {"DELETE FROM EventQueue WHERE id = ?", &deleteEvent},
        {"INSERT INTO ConversionEntity (actorId, communicationCode, convertionName, time) "
         "VALUES (?, ?, ?, ?)",
         &insertConversion},
        {"SELECT id, communicationCode, convertionName, time FROM ConversionEntity "
         "WHERE actorId = ? AND convertionName = ? AND time > ? "
         "ORDER BY time DESC, id DESC LIMIT ?",
         &selectConversion},
        {"DELETE FROM ConversionEntity WHERE id = ?", &deleteConversion},
        {"SELECT id FROM ConversionEntity WHERE time <= ?", &selectExpired},
        {"SELECT actorId, convertionName FROM ConversionEntity "
         "WHERE actorId IS NOT NULL AND convertionName IS NOT NULL",
         &selectMarkerKeys},
        {"PRAGMA data_version", &dataVersion},
        {"BEGIN IMMEDIATE", &beginImmediate},
        {"COMMIT", &commit},
    };
    for (const auto& [sql, stmt] : statements) {
        if (auto error = prepare(sql, stmt)) {
            return error;
        }
    }
    sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    return std::nullopt;
}

/// Brings the file to `kSchemaVersion` inside one write transaction, so that a process killed
/// half-way leaves either the old layout or the new one. A file written by a newer release is not
/// touched: the store stays unloaded rather than risk that release's data.
Error Connection::migrate() {
    auto readVersion = [this](int& version) -> Error {
        sqlite3_stmt* stmt = nullptr;
        if (auto error = prepare("PRAGMA user_version", &stmt)) {
            return error;
        }
        int rc = sqlite3_step(stmt);
        version = rc == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : 0;
        Error error;
        if (rc != SQLITE_ROW) {
            openFailure = sqlite3_extended_errcode(db);
            error = errorMessage();
        }
        sqlite3_finalize(stmt);
        return error;
    };
    int version = 0;
    if (auto error = readVersion(version)) {
        return error;
    }
    if (version == kSchemaVersion) {
        return std::nullopt;
    }
    if (auto error = exec("BEGIN IMMEDIATE")) {
        return error;
    }
    Error error = readVersion(version);  // another process may have migrated meanwhile
    if (!error && version > kSchemaVersion) {
        error = "The store's schema version " + std::to_string(version) +
                " is newer than this library reads (" + std::to_string(kSchemaVersion) + ")";
    }
    if (!error && version < 1) {
        error = exec(store::kSchemaV1);
    }
    // Later versions add their steps here, each from the version before it.
    if (!error && version != kSchemaVersion) {
        error = exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    }
    if (!error) {
        error = exec("COMMIT");
    }
    if (error && !sqlite3_get_autocommit(db)) {
        exec("ROLLBACK");
    }
    return error;
}

Error Connection::prepare(const char* sql, sqlite3_stmt** stmt) {
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, stmt, nullptr) != SQLITE_OK) {
        openFailure = sqlite3_extended_errcode(db);
        return errorMessage();
    }
    return std::nullopt;
}

Error Connection::exec(const char* sql) {
    char* message = nullptr;
    if (int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message); rc != SQLITE_OK) {
        openFailure = rc;
        std::string reason = message ? message : errorMessage();
        sqlite3_free(message);
        return reason;
    }
    return std::nullopt;
}

Error Connection::runToDone(sqlite3_stmt* stmt) {
    StatementUse use{stmt};
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        return errorMessage();
    }
    return std::nullopt;
}

Error Connection::flushPending() {
    for (auto id : pendingEventDeletes) {
        sqlite3_bind_int64(deleteEvent, 1, id);
        if (auto error = runToDone(deleteEvent)) {
            return error;
        }
    }
    for (auto id : pendingConversionDeletes) {
        sqlite3_bind_int64(deleteConversion, 1, id);
        if (auto error = runToDone(deleteConversion)) {
            return error;
        }
    }
    return std::nullopt;
}

Error Connection::write(bool singleStatement, const std::function<Error()>& steps) {
    bool flush = !pendingEventDeletes.empty() || !pendingConversionDeletes.empty();
    if (singleStatement && !flush) {
        return steps();
    }
    if (auto error = runToDone(beginImmediate)) {
        return error;
    }
    Error error = steps();
    if (!error && flush) {
        error = flushPending();
    }
    if (!error) {
        error = runToDone(commit);
    }
    if (error) {
        if (!sqlite3_get_autocommit(db)) {
            exec("ROLLBACK");
        }
        return error;
    }
    if (flush) {
        pendingEventDeletes.clear();
        pendingConversionDeletes.clear();
    }
    return std::nullopt;
}

int Connection::onWalCommit(void* context, sqlite3* db, const char* schema, int pages) {
    auto* store = static_cast<Connection*>(context);
    store->checkpointer->committed(store->path, pages);
    if (pages >= kLogPagesCap) {
        // The checkpoint thread has not caught up (an unbroken stream of commits, or it was not
        // scheduled): this commit's caller copies the log back itself, once, so the log's length
        // stays bounded whatever the scheduler does. A pass of the thread still running keeps
        // the checkpoint from it; once the log reaches the hard cap that pass is ended first.
        if (pages >= kLogPagesHardCap) {
            store->checkpointer->takeOver();
        }
        sqlite3_wal_checkpoint_v2(db, schema, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    }
    return SQLITE_OK;
}

void Connection::close() {
    for (auto** stmt : {&insertEvent, &insertEventUnlessMarked, &selectOldest, &deleteEvent,
                        &insertConversion, &selectConversion, &deleteConversion, &selectExpired,
                        &selectMarkerKeys, &dataVersion, &beginImmediate, &commit}) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    if (db) {
        sqlite3_close_v2(db);
        db = nullptr;
    }
}

}  // namespace tarn::store
