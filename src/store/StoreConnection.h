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

#include "base/LogLineBatch.h"
#include "store/Checkpointer.h"
#include "store/Statement.h"

namespace tarn::store {

/// The connection, its prepared statements, and the record ids that this process treats as
/// deleted although their delete has not been committed yet (the equivalent of deletions that a
/// failed save leaves pending in a managed-object context). Pending ids are never handed out again
/// and are deleted with the next write that commits.
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

    /// Opens the store on first use; true when it is usable. An unreadable file is moved aside
    /// and a new one created (store/StoreRecovery.h). Caller holds `mutex`.
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

  private:
    static int onWalCommit(void* context, sqlite3* db, const char* schema, int pages);
    Error open(const std::filesystem::path& path);
    Error migrate();
    Error prepare(const char* sql, sqlite3_stmt** stmt);
    Error flushPending();
};

}  // namespace tarn::store
