#include "store/StoreConnection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>
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
/// with wider modes are narrowed. No file is opened through a symbolic link: SQLite refuses a
/// database file that is one (`SQLITE_OPEN_NOFOLLOW`) but would follow a companion that is one,
/// so such a companion is the reason returned. Other failures are left for the open to report.
Error makeFilesPrivate(const std::filesystem::path& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd >= 0) {
        ::fchmod(fd, 0600);
        ::close(fd);
    }
    for (const char* suffix : kCompanionSuffixes) {
        auto companion = path.string() + suffix;
        struct stat st {};
        if (::lstat(companion.c_str(), &st) != 0) {
            continue;
        }
        if (S_ISLNK(st.st_mode)) {
            return "The store's file " + companion + " is a symbolic link, which is not followed";
        }
        int companionFd = ::open(companion.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (companionFd >= 0) {
            ::fchmod(companionFd, 0600);
            ::close(companionFd);
        }
    }
    return std::nullopt;
}

/// True for the failures that mean another connection holds the file.
bool meansLocked(int code) {
    code &= 0xff;
    return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

}  // namespace

bool Connection::ensureOpen(const std::string& logtag) {
    if (db) {
        return true;
    }
    if (attempted && !reloadWhenUsed) {
        return false;
    }
    attempted = true;
    reloadWhenUsed = false;
    const auto path = CoreDataManager::databasePath();
    auto error = openWaiting(path);
    if (!error) {
        loadError.clear();
        return true;
    }
    const bool corrupt = meansCorruption(openFailure);
    loadError = *error;
    close();
    log("❌ Loading of store failed:" + loadError, logtag, LogLevel::error);
    if (meansLocked(openFailure)) {
        // Another process holds the file (it is creating it, or keeps a long transaction): the
        // next operation tries again, after its own bounded wait.
        reloadWhenUsed = true;
        return false;
    }
    if (!corrupt) {
        return false;
    }
    // The file cannot be read: keep it for a person to look at and start a new, empty store, so
    // that the events of this and every later run are kept.
    if (!moveUnreadableAside(path, CoreDataManager::kKeptUnreadableStores, logtag)) {
        return false;
    }
    if (auto again = openWaiting(path)) {
        loadError = *again;
        reloadWhenUsed = meansLocked(openFailure);
        close();
        log("❌ Loading of store failed:" + loadError, logtag, LogLevel::error);
        return false;
    }
    loadError.clear();
    return true;
}

Error Connection::openWaiting(const std::filesystem::path& path) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(busyTimeoutMs);
    while (true) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        auto error = open(path, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (!error || !meansLocked(openFailure) || Clock::now() >= deadline) {
            return error;
        }
        // Some steps of an open are answered "locked" at once rather than after SQLite's wait
        // (the switch to the write-ahead log, recovering a log another process left): start over
        // after a short pause.
        close();
        std::this_thread::sleep_for(
            std::min(std::chrono::milliseconds(5),
                     std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())));
    }
}

Error Connection::open(const std::filesystem::path& path, int busyMs) {
    openFailure = SQLITE_OK;
    if (auto error = makeFilesPrivate(path)) {
        openFailure = SQLITE_CANTOPEN;
        return error;
    }
    int rc = sqlite3_open_v2(
        path.c_str(), &db,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
        nullptr);
    if (rc != SQLITE_OK) {
        openFailure = rc;
        std::string reason = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        return reason + " (" + path.string() + ")";
    }
    // The open's waits share one bound; the connection's own time-out is set once it is open.
    sqlite3_busy_timeout(db, busyMs);
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
    sqlite3_busy_timeout(db, busyTimeoutMs);
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
    if (inTransaction()) {
        return steps();  // the enclosing transaction commits it, or rolls it back
    }
    bool flush = !pendingEventDeletes.empty() || !pendingConversionDeletes.empty();
    if (singleStatement && !flush) {
        return steps();
    }
    if (auto error = begin()) {
        return error;
    }
    return end(steps());
}

Error Connection::end(Error error) {
    bool flush = !pendingEventDeletes.empty() || !pendingConversionDeletes.empty();
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
        // Whatever was deleted inside is back in the file: this process has handed it out
        // already, so it stays taken here and goes with the next write that commits.
        pendingEventDeletes.insert(eventsDeletedInTransaction.begin(),
                                   eventsDeletedInTransaction.end());
        pendingConversionDeletes.insert(conversionsDeletedInTransaction.begin(),
                                        conversionsDeletedInTransaction.end());
    } else if (flush) {
        pendingEventDeletes.clear();
        pendingConversionDeletes.clear();
    }
    eventsDeletedInTransaction.clear();
    conversionsDeletedInTransaction.clear();
    return error;
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
