#include "tarn/store/CoreDataManager.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "store/StoreSchema.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/store/ConversionManager.h"

namespace tarn {

namespace {

constexpr const char* kQueueLogTag = "Tarn-QueueManager:";
/// Markers at or before now minus this many seconds are purged, whatever the conversion period.
constexpr double kConversionPurgeAge = 86400.0;

using Error = std::optional<std::string>;

std::string describe(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::optional<std::string> columnText(sqlite3_stmt* stmt, int column) {
    if (sqlite3_column_type(stmt, column) == SQLITE_NULL) {
        return std::nullopt;
    }
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    return std::string(text ? text : "",
                       static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)));
}

std::optional<Date> columnDate(sqlite3_stmt* stmt, int column) {
    if (sqlite3_column_type(stmt, column) == SQLITE_NULL) {
        return std::nullopt;
    }
    return Date{sqlite3_column_double(stmt, column)};
}

/// Binds without copying: `text` must outlive the statement's use.
void bindText(sqlite3_stmt* stmt, int index, const std::string& text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void bindText(sqlite3_stmt* stmt, int index, const std::optional<std::string>& text) {
    if (text) {
        bindText(stmt, index, *text);
    } else {
        sqlite3_bind_null(stmt, index);
    }
}

void bindDate(sqlite3_stmt* stmt, int index, const std::optional<Date>& date) {
    if (date) {
        sqlite3_bind_double(stmt, index, date->secondsSince1970);
    } else {
        sqlite3_bind_null(stmt, index);
    }
}

/// Files SQLite keeps beside the database, named by appending these to its path.
constexpr const char* kCompanionSuffixes[] = {"-wal", "-shm", "-journal"};
/// Files up to this size are checked page by page when opened (about 60 ms of one core at the
/// limit, some 130,000 queued events). A larger file, which only a device that stayed offline for
/// very long can hold, skips that check so that opening it cannot stall the host's first call
/// for seconds; reading its schema and preparing the statements still find most damage.
constexpr std::uintmax_t kFullCheckLimit = 32u << 20;
/// What a moved-aside store's name carries between the database's name and its UTC time.
constexpr const char* kCorruptInfix = ".corrupt-";

/// True for the failures that mean the file's content cannot be trusted (as opposed to a folder
/// that cannot be written, a lock held elsewhere or a newer schema, which leave the file alone).
bool meansCorruption(int code) {
    code &= 0xff;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

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

std::string utcStamp() {
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return text;
}

/// Removes the oldest moved-aside stores (and their companions) beyond the newest `keep`. Their
/// names end in a fixed-width UTC time, so name order is age order.
void pruneMovedAside(const std::filesystem::path& path, std::size_t keep) {
    const std::string prefix = path.filename().string() + kCorruptInfix;
    std::vector<std::filesystem::path> stores;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(path.parent_path(), ec), end; !ec && it != end;
         it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.rfind(prefix, 0) != 0) {
            continue;
        }
        bool companion = false;
        for (const char* suffix : kCompanionSuffixes) {
            std::string_view tail(suffix);
            companion =
                companion || (name.size() > tail.size() &&
                              name.compare(name.size() - tail.size(), tail.size(), tail) == 0);
        }
        if (!companion) {
            stores.push_back(it->path());
        }
    }
    if (stores.size() <= keep) {
        return;
    }
    std::sort(stores.begin(), stores.end());
    for (std::size_t i = 0; i + keep < stores.size(); ++i) {
        std::filesystem::remove(stores[i], ec);
        for (const char* suffix : kCompanionSuffixes) {
            std::filesystem::remove(stores[i].string() + suffix, ec);
        }
    }
}

/// Renames the database and its companions to "<name>.corrupt-<UTC time>[-<n>]" plus the same
/// suffixes, so SQLite still opens the moved copy together with its log. Returns the new path, or
/// the reason it could not be moved.
std::pair<std::optional<std::filesystem::path>, std::string> moveAside(
    const std::filesystem::path& path) {
    std::string base = path.string() + kCorruptInfix + utcStamp();
    std::string target = base;
    for (int n = 2; ::access(target.c_str(), F_OK) == 0 && n < 1000; ++n) {
        target = base + "-" + std::to_string(n);
    }
    if (::rename(path.c_str(), target.c_str()) != 0) {
        return {std::nullopt, std::strerror(errno)};
    }
    ::chmod(target.c_str(), 0600);
    for (const char* suffix : kCompanionSuffixes) {
        auto from = path.string() + suffix;
        if (::access(from.c_str(), F_OK) != 0) {
            continue;
        }
        auto to = target + suffix;
        // A log left beside a new, empty database would be replayed into it: it must go too.
        if (::rename(from.c_str(), to.c_str()) != 0) {
            return {std::nullopt, std::strerror(errno)};
        }
        ::chmod(to.c_str(), 0600);
    }
    return {std::filesystem::path(target), {}};
}

/// The write-ahead log is checkpointed once it holds this many pages (SQLite's own default).
constexpr int kCheckpointPages = 1000;
/// A log this long is copied back by the committing caller itself, so that an unbroken stream of
/// commits, or a checkpoint thread that is not scheduled in time, cannot grow it further (some
/// 16 MB of log).
constexpr int kLogPagesCap = 4 * kCheckpointPages;
/// A log this long stops a pass of the checkpoint thread that still holds the checkpoint, so that
/// the committing caller gets it (some 24 MB of log). Below this, a caller that finds the thread
/// at work leaves the copy to it and goes on: taking it over costs that caller the whole copy.
constexpr int kLogPagesHardCap = kLogPagesCap + kLogPagesCap / 2;

/// The key of a marker in the in-memory mirror: actor and name, unambiguous for any bytes.
std::string markerKey(const std::string& actorId, const std::string& name) {
    std::string key = std::to_string(actorId.size());
    key += ':';
    key += actorId;
    key += name;
    return key;
}

/// Copies the write-ahead log back into the database file on a thread of its own, through a
/// connection of its own, so that no caller of the store waits for the copy or its fsyncs. A
/// passive checkpoint takes no lock that a writer needs: commits go on meanwhile.
///
/// The log starts over only once a checkpoint has copied all of it before the next commit; after
/// any pause in the events that is the case. Under an unbroken stream of commits each pass leaves
/// behind what was committed while it ran, so the thread starts the next pass at once. The bound on
/// the log's length is kept by the commit hook (`kLogPagesCap`); once the log has reached it the
/// thread starts no pass of its own, and once it reaches `kLogPagesHardCap` a pass still running is
/// ended (`takeOver`), so that its passes, slow when the disk is busy, cannot keep taking the
/// checkpoint away from the committing caller.
class Checkpointer {
  public:
    ~Checkpointer() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    /// Called after every commit on the store's connection with the pages in the log; asks for a
    /// checkpoint once they reach the next mark. Cheap; never waits for a checkpoint.
    void committed(const std::filesystem::path& path, int pages) {
        if (pages < logPages_.exchange(pages, std::memory_order_relaxed)) {
            // The log started over: the next request comes after a full threshold of pages.
            nextRequest_.store(kCheckpointPages, std::memory_order_relaxed);
        }
        if (pages < nextRequest_.load(std::memory_order_relaxed) || pages >= kLogPagesCap) {
            return;
        }
        {
            std::lock_guard lock(mutex_);
            if (stop_) {
                return;
            }
            requested_ = true;
            if (path_.empty()) {
                path_ = path;
            }
            if (!thread_.joinable()) {
                thread_ = std::thread([this] { run(); });
            }
        }
        wake_.notify_one();
    }

    /// Ends a pass of the thread that is running (SQLite stops copying at the next page) and
    /// waits until it has, so that the committing caller, whose log has reached the cap, gets the
    /// checkpoint at once instead of after a pass that a busy disk can make last seconds. An
    /// interrupt that reaches the pass before SQLite has begun it is cleared by SQLite, so it is
    /// sent again every millisecond until the pass is over.
    void takeOver() {
        std::unique_lock lock(mutex_);
        while (passDb_) {
            sqlite3_interrupt(passDb_);
            passEnded_.wait_for(lock, std::chrono::milliseconds(1));
        }
    }

  private:
    void run() {
        sqlite3* db = nullptr;
        std::unique_lock lock(mutex_);
        while (true) {
            wake_.wait(lock, [this] { return stop_ || requested_; });
            if (stop_) {
                break;
            }
            requested_ = false;
            auto path = path_;
            lock.unlock();
            // A connection checkpoints only once it has read the file and so found the log.
            if (!db &&
                (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                                 nullptr) != SQLITE_OK ||
                 sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr,
                              nullptr) != SQLITE_OK)) {
                sqlite3_close_v2(db);  // tried again at the next request
                db = nullptr;
            }
            if (db) {
                lock.lock();
                passDb_ = db;
                lock.unlock();
                checkpoint(db);
                lock.lock();
                passDb_ = nullptr;
                lock.unlock();
                passEnded_.notify_all();
            }
            lock.lock();
        }
        lock.unlock();
        if (db) {
            sqlite3_close_v2(db);
        }
    }

    void checkpoint(sqlite3* db) {
        if (logPages_.load(std::memory_order_relaxed) >= kLogPagesCap) {
            return;  // the committing caller copies the log back now
        }
        int log = 0;
        int copied = 0;
        if (sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, &log, &copied) !=
            SQLITE_OK) {
            return;  // another checkpoint is running, or the file is gone: asked again later
        }
        int pages = logPages_.load(std::memory_order_relaxed);
        if (pages <= copied || pages < log) {
            // All copied (or the log started over meanwhile): the next mark is a full threshold
            // of new pages.
            nextRequest_.store(kCheckpointPages, std::memory_order_relaxed);
            return;
        }
        nextRequest_.store(pages + kCheckpointPages / 4, std::memory_order_relaxed);
        const bool progressed = copied > lastCopied_ || log < lastLog_;
        lastCopied_ = copied;
        lastLog_ = log;
        if (!progressed) {
            return;  // a reader of another connection holds the rest back: wait for the next mark
        }
        // Commits went on during the pass: the next pass starts at once and copies only what
        // they added, so that the log is caught up with, and starts over, as soon as the commits
        // pause, and a committing caller that reaches the cap finds little left to copy.
        std::lock_guard lock(mutex_);
        requested_ = true;
    }

    std::atomic<int> logPages_{0};
    std::atomic<int> nextRequest_{kCheckpointPages};
    /// The log's length and the pages copied back, as the thread's last pass left them.
    int lastLog_ = 0;
    int lastCopied_ = 0;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable passEnded_;
    /// The thread's connection while it runs a pass (guarded by `mutex_`).
    sqlite3* passDb_ = nullptr;
    std::filesystem::path path_;
    bool requested_ = false;
    bool stop_ = false;
    std::thread thread_;
};

/// Resets a statement and drops its bindings when it leaves scope.
struct StatementUse {
    sqlite3_stmt* stmt;
    ~StatementUse() {
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
};

}  // namespace

/// The connection, its prepared statements, and the record ids that this process treats as
/// deleted although their delete has not been committed yet (the equivalent of deletions that a
/// failed save leaves pending in a managed-object context). Pending ids are never handed out again
/// and are deleted with the next write that commits.
class CoreDataManager::Store {
  public:
    ~Store() {
        checkpointer.reset();
        close();
    }

    std::recursive_mutex mutex;
    sqlite3* db = nullptr;
    bool attempted = false;
    std::string loadError;
    /// SQLite's code for the last failure while opening (corruption is told apart by it).
    int openFailure = SQLITE_OK;
    int busyTimeoutMs = 1000;

    sqlite3_stmt* insertEvent = nullptr;
    /// The event's insert when no live marker of the actor for its name is in the file.
    sqlite3_stmt* insertEventUnlessMarked = nullptr;
    sqlite3_stmt* selectOldest = nullptr;
    sqlite3_stmt* deleteEvent = nullptr;
    sqlite3_stmt* insertConversion = nullptr;
    sqlite3_stmt* selectConversion = nullptr;
    sqlite3_stmt* deleteConversion = nullptr;
    sqlite3_stmt* selectExpired = nullptr;
    sqlite3_stmt* selectMarkerKeys = nullptr;
    sqlite3_stmt* dataVersion = nullptr;
    sqlite3_stmt* beginImmediate = nullptr;
    sqlite3_stmt* commit = nullptr;

    /// How many markers the file holds for each actor and name (`markerKey`), so that the look-up
    /// made for every event asks the file only when a marker may match. Loaded on first use and
    /// again whenever a look-up finds that another connection (another process sharing the file)
    /// has committed; kept current by this connection's own arms, consumes and purges. It may
    /// count a marker that is no longer there (the file then answers). Between look-ups it may miss
    /// a marker another connection has armed: an event that relies on it being absent is inserted
    /// only if the file agrees (`insertEventUnlessMarked`).
    std::unordered_map<std::string, std::size_t> markerCounts;
    bool markersLoaded = false;
    std::int64_t markersVersion = 0;

    std::unique_ptr<Checkpointer> checkpointer = std::make_unique<Checkpointer>();
    std::filesystem::path path;

    std::unordered_set<std::int64_t> pendingEventDeletes;
    std::unordered_set<std::int64_t> pendingConversionDeletes;
    /// Events handed to a pop completion that is still running (a pop from inside it must not
    /// hand the same record again).
    std::unordered_set<std::int64_t> eventsInFlight;

    /// Opens the store on first use; true when it is usable. Caller holds `mutex`.
    bool ensureOpen(const std::string& logtag);
    void close();

    std::string errorMessage() const { return db ? sqlite3_errmsg(db) : loadError; }
    std::string unavailable() const { return "The store is not loaded: " + loadError; }

    Error exec(const char* sql);
    /// Steps a write statement to completion.
    Error runToDone(sqlite3_stmt* stmt);
    /// Runs `steps` and the pending deletes as one committed transaction. A single statement with
    /// nothing pending runs in SQLite's implicit transaction; otherwise BEGIN IMMEDIATE ... COMMIT,
    /// rolled back on any failure (the pending ids then stay pending).
    Error write(bool singleStatement, const std::function<Error()>& steps);

    /// What `saveInOneTransaction` did; nothing when it stored nothing and left the file as it was.
    struct CombinedSave {
        bool conversionFound = false;
        bool eventSaved = false;
    };
    /// The look-up, consumption and insert of `saveEventCompletingConversion` as one write
    /// transaction. When the mirror knows no marker for the event, that is one conditional insert
    /// in SQLite's implicit transaction; the whole transaction follows only if the file holds one.
    /// Any failure rolls all of it back and answers nothing. Caller holds `mutex`.
    std::optional<CombinedSave> saveInOneTransaction(
        const std::string& eventName, const std::string& actorId,
        const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build);
    /// Finds the newest live marker of `actorId` for `eventName` (time after `cutoff`) that is
    /// not pending deletion. False when the file could not be read.
    bool selectMarker(const std::string& actorId, const std::string& eventName, Date cutoff,
                      std::optional<std::int64_t>& id, std::optional<ConversionItem>& found);

    /// False only when the file certainly holds no marker of `actorId` for `name`.
    bool mayHoldMarker(const std::string& actorId, const std::string& name);
    void markerArmed(const std::string& actorId, const std::optional<std::string>& name);
    void markerConsumed(const std::string& actorId, const std::string& name);

  private:
    static int onWalCommit(void* context, sqlite3* db, const char* schema, int pages);
    Error loadMarkers();
    Error open(const std::filesystem::path& path);
    Error quickCheck();
    Error migrate();
    Error prepare(const char* sql, sqlite3_stmt** stmt);
    Error flushPending();
};

bool CoreDataManager::Store::ensureOpen(const std::string& logtag) {
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
    log("❌ Loading of store failed:" + loadError, logtag);
    if (!corrupt) {
        return false;
    }
    // The file cannot be read: keep it for a person to look at and start a new, empty store, so
    // that the events of this and every later run are kept.
    auto [moved, reason] = moveAside(path);
    if (!moved) {
        log("The unreadable store could not be moved aside: " + reason, logtag);
        return false;
    }
    pruneMovedAside(path, kKeptUnreadableStores);
    log("The unreadable store was moved to " + moved->string() + "; a new store is created.",
        logtag);
    if (auto again = open(path)) {
        loadError = *again;
        close();
        log("❌ Loading of store failed:" + loadError, logtag);
        return false;
    }
    loadError.clear();
    return true;
}

Error CoreDataManager::Store::open(const std::filesystem::path& path) {
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
        if (auto error = quickCheck()) {
            return error;
        }
    }
    this->path = path;
    // Write-ahead log with NORMAL sync: see the header for why this survives any process kill.
    if (auto error = exec("PRAGMA journal_mode = WAL")) {
        return error;
    }
    if (auto error = exec("PRAGMA synchronous = NORMAL")) {
        return error;
    }
    // No checkpoint inside a commit: the hook (which replaces SQLite's automatic checkpoint) hands
    // it to the checkpoint thread instead.
    sqlite3_wal_hook(db, &Store::onWalCommit, this);
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

/// Reads every page of the file once (`PRAGMA quick_check`): a file that is not a database, or that
/// a disk or copy truncated, fails here rather than on some later write. Runs once per open.
Error CoreDataManager::Store::quickCheck() {
    sqlite3_stmt* stmt = nullptr;
    if (auto error = prepare("PRAGMA quick_check(1)", &stmt)) {
        return error;
    }
    Error error;
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW) {
        openFailure = sqlite3_extended_errcode(db);
        error = errorMessage();
    } else if (auto verdict = columnText(stmt, 0); verdict != "ok") {
        openFailure = SQLITE_CORRUPT;
        error = "The store failed its integrity check: " + verdict.value_or("");
    }
    sqlite3_finalize(stmt);
    return error;
}

/// Brings the file to `kSchemaVersion` inside one write transaction, so that a process killed
/// half-way leaves either the old layout or the new one. A file written by a newer release is not
/// touched: the store stays unloaded rather than risk that release's data.
Error CoreDataManager::Store::migrate() {
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

Error CoreDataManager::Store::prepare(const char* sql, sqlite3_stmt** stmt) {
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, stmt, nullptr) != SQLITE_OK) {
        openFailure = sqlite3_extended_errcode(db);
        return errorMessage();
    }
    return std::nullopt;
}

Error CoreDataManager::Store::exec(const char* sql) {
    char* message = nullptr;
    if (int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message); rc != SQLITE_OK) {
        openFailure = rc;
        std::string reason = message ? message : errorMessage();
        sqlite3_free(message);
        return reason;
    }
    return std::nullopt;
}

Error CoreDataManager::Store::runToDone(sqlite3_stmt* stmt) {
    StatementUse use{stmt};
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        return errorMessage();
    }
    return std::nullopt;
}

Error CoreDataManager::Store::flushPending() {
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

Error CoreDataManager::Store::write(bool singleStatement, const std::function<Error()>& steps) {
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

int CoreDataManager::Store::onWalCommit(void* context, sqlite3* db, const char* schema, int pages) {
    auto* store = static_cast<Store*>(context);
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

Error CoreDataManager::Store::loadMarkers() {
    markersLoaded = false;
    markerCounts.clear();
    {
        StatementUse use{dataVersion};
        if (sqlite3_step(dataVersion) != SQLITE_ROW) {
            return errorMessage();
        }
        markersVersion = sqlite3_column_int64(dataVersion, 0);
    }
    StatementUse use{selectMarkerKeys};
    int rc;
    while ((rc = sqlite3_step(selectMarkerKeys)) == SQLITE_ROW) {
        ++markerCounts[markerKey(*columnText(selectMarkerKeys, 0),
                                 *columnText(selectMarkerKeys, 1))];
    }
    if (rc != SQLITE_DONE) {
        markerCounts.clear();
        return errorMessage();
    }
    markersLoaded = true;
    return std::nullopt;
}

bool CoreDataManager::Store::mayHoldMarker(const std::string& actorId, const std::string& name) {
    if (markersLoaded) {
        StatementUse use{dataVersion};
        if (sqlite3_step(dataVersion) != SQLITE_ROW ||
            sqlite3_column_int64(dataVersion, 0) != markersVersion) {
            markersLoaded = false;  // another connection has committed
        }
    }
    if (!markersLoaded && loadMarkers()) {
        return true;  // the file answers
    }
    return markerCounts.count(markerKey(actorId, name)) > 0;
}

void CoreDataManager::Store::markerArmed(const std::string& actorId,
                                         const std::optional<std::string>& name) {
    if (markersLoaded && name) {
        ++markerCounts[markerKey(actorId, *name)];
    }
}

void CoreDataManager::Store::markerConsumed(const std::string& actorId, const std::string& name) {
    if (!markersLoaded) {
        return;
    }
    if (auto it = markerCounts.find(markerKey(actorId, name)); it != markerCounts.end()) {
        if (--it->second == 0) {
            markerCounts.erase(it);
        }
    }
}

void CoreDataManager::Store::close() {
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

CoreDataManager& CoreDataManager::shared() {
    return detail::SharedInstance<CoreDataManager, 500>::get();
}

CoreDataManager::CoreDataManager() : store_(std::make_unique<Store>()) {}

CoreDataManager::~CoreDataManager() = default;

std::filesystem::path CoreDataManager::databasePath() {
    return dataDirectory() / kDatabaseFileName;
}

void CoreDataManager::saveEventToQueue(const std::string& eventJson, Date timestamp,
                                       const nlohmann::json& eventDictionary) {
    {
        std::lock_guard lock(store_->mutex);
        if (!store_->ensureOpen(logtag)) {
            return;
        }
        auto error = store_->write(true, [&]() -> Error {
            sqlite3_bind_text(store_->insertEvent, 1, eventJson.data(),
                              static_cast<int>(eventJson.size()), SQLITE_STATIC);
            sqlite3_bind_double(store_->insertEvent, 2, timestamp.secondsSince1970);
            return store_->runToDone(store_->insertEvent);
        });
        if (error) {
            return;  // a failed save is not reported; the event is lost
        }
    }
    if (eventDictionary.is_object()) {
        if (auto it = eventDictionary.find("name"); it != eventDictionary.end()) {
            log(describe(*it) + " has been saved to the queue.", kQueueLogTag);
        }
    }
}

void CoreDataManager::popOldestEvent(
    const std::function<void(std::optional<std::string>)>& completion) {
    std::lock_guard lock(store_->mutex);
    auto& s = *store_;
    if (!s.ensureOpen(logtag)) {
        log("Fetch or delete error: " + s.unavailable(), logtag);
        completion(std::nullopt);
        return;
    }
    // Fetch the oldest record that is neither pending deletion nor being handed out already.
    std::optional<std::int64_t> id;
    std::optional<std::string> text;
    Error fetchError;
    {
        StatementUse use{s.selectOldest};
        auto skip = s.pendingEventDeletes.size() + s.eventsInFlight.size();
        sqlite3_bind_int64(s.selectOldest, 1, static_cast<sqlite3_int64>(skip + 1));
        int rc;
        while ((rc = sqlite3_step(s.selectOldest)) == SQLITE_ROW) {
            auto rowId = sqlite3_column_int64(s.selectOldest, 0);
            if (s.pendingEventDeletes.count(rowId) || s.eventsInFlight.count(rowId)) {
                continue;
            }
            id = rowId;
            text = columnText(s.selectOldest, 1);
            break;
        }
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
            fetchError = s.errorMessage();
        }
    }
    if (fetchError) {
        log("Fetch or delete error: " + *fetchError, logtag);
        completion(std::nullopt);
        return;
    }
    if (!id) {
        completion(std::nullopt);
        return;
    }
    // The completion sees the event before it is deleted; a failed delete calls it again.
    s.eventsInFlight.insert(*id);
    struct InFlight {
        Store& s;
        std::int64_t id;
        ~InFlight() { s.eventsInFlight.erase(id); }
    };
    {
        InFlight guard{s, *id};
        completion(std::move(text));
    }
    auto error = s.write(true, [&]() -> Error {
        sqlite3_bind_int64(s.deleteEvent, 1, *id);
        return s.runToDone(s.deleteEvent);
    });
    if (error) {
        s.pendingEventDeletes.insert(*id);
        log("Fetch or delete error: " + *error, logtag);
        completion(std::nullopt);
    }
}

void CoreDataManager::saveConversion(const ConversionItem& item, const std::string& eventName,
                                     const std::function<void()>& onSaved) {
    std::string actorId = Tarn::shared().actorId.get();
    Error error;
    {
        std::lock_guard lock(store_->mutex);
        auto& s = *store_;
        if (!s.ensureOpen(logtag)) {
            error = s.unavailable();
        } else {
            error = s.write(true, [&]() -> Error {
                bindText(s.insertConversion, 1, actorId);
                bindText(s.insertConversion, 2, item.communicationCode);
                bindText(s.insertConversion, 3, item.conversionName);
                bindDate(s.insertConversion, 4, item.time);
                return s.runToDone(s.insertConversion);
            });
            if (!error) {
                s.markerArmed(actorId, item.conversionName);
            }
        }
    }
    if (error) {
        log(eventName + " conversion couldn't save. " +
                "Save Error: An error occurred while saving the conversion event!",
            ConversionManager::kLogTag);
        return;
    }
    if (onSaved) {
        onSaved();
    }
}

namespace {

/// The line `findConversion` logs for its outcome.
void logConversionOutcome(const std::string& eventName, bool failed, bool found) {
    if (failed) {
        log(eventName + " is not a conversion event. " +
                "Fetch Error: An error occurred while fetching the conversion event!",
            ConversionManager::kLogTag);
    } else if (!found) {
        log(eventName + " is not a conversion event. " +
                "Not Found: Requestted item was not found in conversion database!",
            ConversionManager::kLogTag);
    } else {
        log(eventName + " is a conversion event", ConversionManager::kLogTag);
    }
}

Date conversionCutoff() {
    return Date::now().addingTimeInterval(processSettings().conversionOffset.load());
}

}  // namespace

bool CoreDataManager::Store::selectMarker(const std::string& actorId, const std::string& eventName,
                                          Date cutoff, std::optional<std::int64_t>& id,
                                          std::optional<ConversionItem>& found) {
    if (!mayHoldMarker(actorId, eventName)) {
        return true;
    }
    StatementUse use{selectConversion};
    bindText(selectConversion, 1, actorId);
    bindText(selectConversion, 2, eventName);
    sqlite3_bind_double(selectConversion, 3, cutoff.secondsSince1970);
    sqlite3_bind_int64(selectConversion, 4,
                       static_cast<sqlite3_int64>(pendingConversionDeletes.size() + 1));
    int rc;
    while ((rc = sqlite3_step(selectConversion)) == SQLITE_ROW) {
        auto rowId = sqlite3_column_int64(selectConversion, 0);
        if (pendingConversionDeletes.count(rowId)) {
            continue;
        }
        id = rowId;
        found = ConversionItem{columnText(selectConversion, 1), columnText(selectConversion, 2),
                               columnDate(selectConversion, 3)};
        break;
    }
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

void CoreDataManager::findConversion(
    const std::string& eventName, const std::string& actorId,
    const std::function<void(std::optional<ConversionItem>)>& completion) {
    Date cutoff = conversionCutoff();
    std::optional<ConversionItem> found;
    bool failed = false;
    {
        std::lock_guard lock(store_->mutex);
        auto& s = *store_;
        std::optional<std::int64_t> id;
        if (!s.ensureOpen(logtag)) {
            failed = true;
        } else {
            failed = !s.selectMarker(actorId, eventName, cutoff, id, found);
        }
        if (id) {
            // One marker is consumed by one matching event.
            auto error = s.write(true, [&]() -> Error {
                sqlite3_bind_int64(s.deleteConversion, 1, *id);
                return s.runToDone(s.deleteConversion);
            });
            if (error) {
                s.pendingConversionDeletes.insert(*id);
                failed = true;
                found.reset();
            } else {
                s.markerConsumed(actorId, eventName);
            }
        }
    }
    logConversionOutcome(eventName, failed, found.has_value());
    completion(std::move(found));
}

std::optional<CoreDataManager::Store::CombinedSave> CoreDataManager::Store::saveInOneTransaction(
    const std::string& eventName, const std::string& actorId,
    const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build) {
    if (!sqlite3_get_autocommit(db)) {
        return std::nullopt;  // inside a transaction of a caller further up
    }
    CombinedSave outcome;
    const Date cutoff = conversionCutoff();
    if (markersLoaded && pendingEventDeletes.empty() && pendingConversionDeletes.empty() &&
        markerCounts.count(markerKey(actorId, eventName)) == 0) {
        // The usual event completes nothing: one statement inserts it unless the file holds a
        // marker after all (armed by another connection since the mirror was read). A body that
        // cannot be written takes the whole transaction: a marker in the file is consumed even so.
        auto text = build(std::nullopt);
        if (text) {
            sqlite3_bind_text(insertEventUnlessMarked, 1, text->data(),
                              static_cast<int>(text->size()), SQLITE_STATIC);
            sqlite3_bind_double(insertEventUnlessMarked, 2, Date::now().secondsSince1970);
            bindText(insertEventUnlessMarked, 3, actorId);
            bindText(insertEventUnlessMarked, 4, eventName);
            sqlite3_bind_double(insertEventUnlessMarked, 5, cutoff.secondsSince1970);
            if (runToDone(insertEventUnlessMarked)) {
                return std::nullopt;
            }
            if (sqlite3_changes(db) > 0) {
                outcome.eventSaved = true;
                return outcome;
            }
            markersLoaded = false;  // the mirror is behind the file: read it again below
        }
    }
    std::optional<std::int64_t> markerId;
    auto error = write(false, [&]() -> Error {
        std::optional<ConversionItem> marker;
        if (!selectMarker(actorId, eventName, cutoff, markerId, marker)) {
            return errorMessage();
        }
        if (markerId) {
            sqlite3_bind_int64(deleteConversion, 1, *markerId);
            if (auto failed = runToDone(deleteConversion)) {
                return failed;
            }
        }
        outcome.conversionFound = marker.has_value();
        auto text = build(marker ? marker->communicationCode : std::nullopt);
        if (!text) {
            return std::nullopt;
        }
        sqlite3_bind_text(insertEvent, 1, text->data(), static_cast<int>(text->size()),
                          SQLITE_STATIC);
        sqlite3_bind_double(insertEvent, 2, Date::now().secondsSince1970);
        outcome.eventSaved = true;
        return runToDone(insertEvent);
    });
    if (error) {
        return std::nullopt;  // rolled back whole
    }
    if (markerId) {
        markerConsumed(actorId, eventName);
    }
    return outcome;
}

void CoreDataManager::saveEventCompletingConversion(
    const std::string& eventName, const std::string& actorId,
    const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build) {
    std::optional<Store::CombinedSave> done;
    {
        std::lock_guard lock(store_->mutex);
        if (store_->ensureOpen(logtag)) {
            done = store_->saveInOneTransaction(eventName, actorId, build);
        }
    }
    if (done) {
        logConversionOutcome(eventName, false, done->conversionFound);
        if (done->eventSaved) {
            log(eventName + " has been saved to the queue.", kQueueLogTag);
        }
        return;
    }
    // No store, the write lock held elsewhere or a failed statement: the two steps one by one,
    // with their own failures and messages.
    std::optional<std::string> code;
    findConversion(eventName, actorId, [&](std::optional<ConversionItem> marker) {
        if (marker) {
            code = marker->communicationCode;
        }
    });
    if (auto text = build(code)) {
        saveEventToQueue(*text, Date::now(), nlohmann::json{{"name", eventName}});
    }
}

void CoreDataManager::deleteExpiredConversions() {
    Date cutoff = Date::now().addingTimeInterval(-kConversionPurgeAge);
    std::lock_guard lock(store_->mutex);
    auto& s = *store_;
    if (!s.ensureOpen(logtag)) {
        log("Delete error: " + s.unavailable(), logtag);
        return;
    }
    std::vector<std::int64_t> expired;
    Error error;
    {
        StatementUse use{s.selectExpired};
        sqlite3_bind_double(s.selectExpired, 1, cutoff.secondsSince1970);
        int rc;
        while ((rc = sqlite3_step(s.selectExpired)) == SQLITE_ROW) {
            expired.push_back(sqlite3_column_int64(s.selectExpired, 0));
        }
        if (rc != SQLITE_DONE) {
            error = s.errorMessage();
        }
    }
    if (!error && !expired.empty()) {
        error = s.write(expired.size() == 1, [&]() -> Error {
            for (auto id : expired) {
                sqlite3_bind_int64(s.deleteConversion, 1, id);
                if (auto e = s.runToDone(s.deleteConversion)) {
                    return e;
                }
            }
            return std::nullopt;
        });
        if (error) {
            s.pendingConversionDeletes.insert(expired.begin(), expired.end());
        }
        s.markersLoaded = false;  // counted again at the next look-up
    }
    if (error) {
        log("Delete error: " + *error, logtag);
    }
}

void CoreDataManager::setBusyTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(store_->mutex);
    store_->busyTimeoutMs = static_cast<int>(timeout.count());
    if (store_->db) {
        sqlite3_busy_timeout(store_->db, store_->busyTimeoutMs);
    }
}

bool CoreDataManager::isStoreLoaded() {
    std::lock_guard lock(store_->mutex);
    return store_->ensureOpen(logtag);
}

}  // namespace tarn
