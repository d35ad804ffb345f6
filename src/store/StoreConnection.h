#pragma once
// The store's one SQLite connection: opening the file (its modes, its check, write-ahead-log mode,
// the schema's migration), the prepared statements every operation uses, and write transactions.
// The manager (tarn/store/CoreDataManager.h) holds one and builds the queue and conversion
// operations on it; the checkpoint thread (store/Checkpointer.h) and the handling of an unreadable
// file (store/StoreRecovery.h) serve it.

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/LogLineBatch.h"
#include "store/Checkpointer.h"
#include "store/Statement.h"

namespace tarn::store {

/// The connection, its prepared statements, and the record ids that this process treats as
/// deleted although their delete has not been committed yet (the equivalent of deletions that a
/// failed save leaves pending in a managed-object context). Pending ids are never handed out again
/// and are deleted with the next write that commits.
///
/// Several processes (instances of one application, or the processes of an app group) may hold a
/// connection to the same file at once. SQLite's locks keep the file consistent; what this class
/// adds for them:
/// - Opening waits for another process's lock within the busy time-out (retrying the steps that
///   SQLite answers "locked" at once, such as the switch to the write-ahead log while another
///   process makes the same switch); a load that still fails for a lock is tried again by the next
///   operation, each attempt waiting within the same bound, so no operation spins on it.
/// - A write that must be atomic across processes runs inside `BEGIN IMMEDIATE`, which waits
///   within the busy time-out for the file's one write lock. Operations of this process nested in
///   it (a pop's completion that saves or pops again) run inside it and commit with it.
/// - Nothing in memory is taken for the file's content without a check: see the manager's marker
///   mirror (checked against `PRAGMA data_version`) and the pending and in-flight ids, which
///   concern only what this process has handed out itself.
class Connection {
  public:
    Connection() = default;
    ~Connection() {
        checkpointer.reset();
        close();
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Guards everything here. The lines logged under it go out once it is released.
    detail::LogHoldingMutex<std::recursive_mutex> mutex;
    sqlite3* db = nullptr;
    bool attempted = false;
    /// The last load failed because another connection held the file: the next operation loads
    /// again (a load that failed for any other reason is not repeated).
    bool reloadWhenUsed = false;
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

    std::unique_ptr<Checkpointer> checkpointer = std::make_unique<Checkpointer>();
    std::filesystem::path path;

    std::unordered_set<std::int64_t> pendingEventDeletes;
    std::unordered_set<std::int64_t> pendingConversionDeletes;
    /// Records deleted by statements that succeeded inside the open write transaction: they
    /// become pending should that transaction not commit.
    std::vector<std::int64_t> eventsDeletedInTransaction;
    std::vector<std::int64_t> conversionsDeletedInTransaction;

    /// Opens the store on first use, and again after a load that another connection's lock made
    /// fail; true when it is usable. An unreadable file is moved aside and a new one created
    /// (store/StoreRecovery.h). Caller holds `mutex`.
    bool ensureOpen(const std::string& logtag);
    void close();

    std::string errorMessage() const { return db ? sqlite3_errmsg(db) : loadError; }
    std::string unavailable() const { return "The store is not loaded: " + loadError; }

    Error exec(const char* sql);
    /// Steps a write statement to completion.
    Error runToDone(sqlite3_stmt* stmt);
    /// Runs `steps` and the pending deletes as one committed transaction. A single statement with
    /// nothing pending runs in SQLite's implicit transaction; otherwise BEGIN IMMEDIATE ... COMMIT,
    /// rolled back on any failure (the pending ids then stay pending). Inside a transaction this
    /// connection has open, `steps` run in it and commit with it.
    Error write(bool singleStatement, const std::function<Error()>& steps);

    /// True while this connection has a transaction open.
    bool inTransaction() const { return db && !sqlite3_get_autocommit(db); }
    /// BEGIN IMMEDIATE: waits within the busy time-out for the file's write lock.
    Error begin() { return runToDone(beginImmediate); }
    /// Ends the transaction `begin` opened: with `error` unset, deletes the pending records and
    /// commits; otherwise, or when that fails, rolls back, and the records deleted inside become
    /// pending. Answers the first failure.
    Error end(Error error);
    /// Notes records deleted inside the open transaction (nothing outside one).
    void deletedEvent(std::int64_t id) {
        if (inTransaction()) {
            eventsDeletedInTransaction.push_back(id);
        }
    }
    void deletedConversion(std::int64_t id) {
        if (inTransaction()) {
            conversionsDeletedInTransaction.push_back(id);
        }
    }

  private:
    static int onWalCommit(void* context, sqlite3* db, const char* schema, int pages);
    /// Opens the file, retrying while another connection's lock answers "locked", until
    /// `busyTimeoutMs` has passed.
    Error openWaiting(const std::filesystem::path& path);
    Error open(const std::filesystem::path& path, int busyMs);
    Error migrate();
    Error prepare(const char* sql, sqlite3_stmt** stmt);
    Error flushPending();
};

}  // namespace tarn::store
