#pragma once
// The library's one on-device database: events waiting to be sent and conversion markers.
//
// Sources (src/store/): CoreDataManager.cpp holds these operations; StoreConnection the SQLite
// connection, its prepared statements and write transactions; Checkpointer the checkpoint thread;
// StoreRecovery the handling of an unreadable file. The store sits on the platform seams and the
// base utilities, beside config and device, under the network.
//
// Storage. One SQLite file, "TarnDatabase.sqlite" in the library's data folder (`dataDirectory()`,
// the folder of the preference stores), with two tables: `EventQueue` (`event` text, `timestamp`)
// and `ConversionEntity` (`actorId`, `communicationCode`, `convertionName`, `time`). Dates
// are stored as REAL seconds since 1970, so every value, including the millisecond-as-second times
// of conversion markers, reads back exactly as it was written. The file carries a schema version
// (`PRAGMA user_version`) so that a later release can migrate it.
//
// Durability. The file runs in write-ahead-log mode with `synchronous = NORMAL`. A commit is
// complete once its frames are in the log, which lives in the operating system's cache as soon as
// the write returns: a process killed at any moment (SIGKILL included) keeps every committed record
// and never leaves a torn file, and the next open replays the log. Only a power cut or kernel crash
// before the next checkpoint could drop the last few commits, never corrupt the file; `FULL` would
// close that gap at the cost of an fsync per event, which the event path cannot afford.
//
// Checkpoints. Copying the log back into the file (and the fsyncs that go with it) takes
// milliseconds, so it never runs inside a caller's commit: SQLite's automatic checkpoint is
// replaced by a hook that, once the log holds 1000 pages, wakes a checkpoint thread of the store's
// own. That thread runs passive checkpoints through a second connection, which takes no lock a
// commit needs. The log starts over after a checkpoint that no commit overtook, which any pause
// between events allows. Should the log still reach 4000 pages (some 16 MB: an unbroken stream
// of commits, or a checkpoint thread that was not scheduled in time), the commit that finds it so
// long copies it back itself, so the log stays bounded whatever the scheduler does; that caller
// waits for the copy (at 6000 pages a pass of the thread still running is stopped first, so that
// the copy cannot be held off by it), and the thread starts no pass of its own until the log has
// started over. A log left behind by a process that ended is replayed by the next open.
//
// Conversion look-ups. Every event asks for a matching marker; the store keeps a count of its
// markers by actor and name in memory and reads the file only when one may match. The file stays
// the truth: the counts are read again whenever another connection (another process sharing the
// data folder) has committed (`PRAGMA data_version`).
//
// Several processes. Any number of processes (instances of one application, the processes of an
// app group that share a data folder) may use the file at once. Taking the oldest event is one
// write transaction from the fetch to the delete (`BEGIN IMMEDIATE`), so each stored event is
// handed to exactly one process; a pop that cannot get the write lock within the busy time-out
// hands nothing and leaves the event queued. A marker is consumed only by the process whose delete
// removed it (the next newest is looked up otherwise). The marker counts are checked against
// `PRAGMA data_version` before each use; the pending and in-flight record ids concern only what
// this process has handed out itself. A record whose delete failed after it was handed out (a disk
// failure, not a lock) stays in the file and another process may still send it.
//
// Opening. The store is opened once per process, on the first operation. The schema is compiled
// into the library, so there is no data-model resource that could be missing and opening the store
// never ends the process. Every failure to open logs "❌ Loading of store failed:" with the reason.
// - A file whose content cannot be read (not a database, truncated by a disk or a copy, or failing
//   SQLite's `PRAGMA quick_check`, which reads each page once per open and never on the event path;
//   files above 32 MiB skip that check to bound the open's cost, see `kFullCheckLimit`)
//   is then moved aside, with its -wal, -shm and -journal files, to
//   "TarnDatabase.sqlite.corrupt-<UTC time as YYYYMMDDThhmmssZ>" (plus the same suffixes, so SQLite
//   opens the copy with its log), one more line names the new path, and a new, empty store is
//   created in its place: the events of this run and every later one are kept. Only the
//   `kKeptUnreadableStores` newest moved-aside copies are kept; older ones are deleted, so a disk
//   that keeps corrupting the file cannot fill up with copies. A file that is found unreadable
//   only after it was opened is not moved; the next process's open finds it. Another process that
//   already had the damaged file open goes on with the moved copy until it restarts.
// - A lock held by another process (it is creating the file, or keeps it locked): the open waits
//   for it within the busy time-out, retrying the steps SQLite answers "locked" at once; if the
//   store still cannot load, the line is logged and the next operation loads again, with its own
//   bounded wait, so operations never spin on it and the store is used as soon as the lock is gone.
// - Any other failure (a folder that cannot be written, a file written by a newer release) leaves
//   the library running without a store: each later operation fails on its own with its own log
//   line, and no stored byte is touched.
//
// Files. The database and its -wal and -shm files are private to the user (mode 0600), whatever
// the process's umask: the database file is created with that mode before SQLite opens it, SQLite
// gives its companions the database's mode, and files left with wider modes are narrowed on open.
// Moved-aside copies keep mode 0600 too.
//
// Threads. Every call is synchronous on the calling thread and safe from any thread: one connection
// is guarded by a recursive lock. Completions run on the calling thread. The completion of
// `popOldestEvent` runs while the lock is held (the record must not be handed out twice), so other
// threads' calls wait for it; calls into the store from inside it, on the same thread, are allowed.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Date.h"
#include "tarn/core/Export.h"
#include "tarn/store/ConversionItem.h"

namespace tarn {

/// The local SQLite store: the offline event queue and the pending conversions (see above).
class TARN_API CoreDataManager {
  public:
    /// The one instance, created on first use.
    static CoreDataManager& shared();

    CoreDataManager();
    ~CoreDataManager();
    CoreDataManager(const CoreDataManager&) = delete;
    CoreDataManager& operator=(const CoreDataManager&) = delete;

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-CoreDataManager:";

    /// Name of the database file inside the data folder.
    static constexpr const char* kDatabaseFileName = "TarnDatabase.sqlite";
    /// Schema version this release writes and reads.
    static constexpr int kSchemaVersion = 1;
    /// How many moved-aside unreadable stores are kept beside the database (the newest ones).
    static constexpr std::size_t kKeptUnreadableStores = 3;

    /// Path of the database file.
    static std::filesystem::path databasePath();

    /// Stores one event body (`eventJson`) with its `timestamp`. On success logs, under
    /// "Tarn-QueueManager:", the `name` of `eventDictionary` followed by " has been saved to the
    /// queue." (nothing when the dictionary has no name). A failure is not reported: the event is
    /// lost.
    void saveEventToQueue(const std::string& eventJson, Date timestamp,
                          const nlohmann::json& eventDictionary);

    /// Takes the oldest event (by timestamp) out of the queue, inside one write transaction that
    /// keeps every other process from taking it too (nothing is handed, with "Fetch or delete
    /// error: " and the reason, when the write lock is not had within the busy time-out).
    /// `completion` receives its JSON text, or nothing when the queue is empty or the record holds
    /// no text; it runs inside that transaction, before the record is deleted, so when that delete cannot be committed it is called a second time, with nothing,
    /// after "Fetch or delete error: " and the reason is logged. A record whose delete failed is
    /// not handed out again by this process and is deleted with the next successful write.
    void popOldestEvent(const std::function<void(std::optional<std::string>)>& completion);

    /// Stores a conversion marker for the current actor (`Tarn::shared().actorId`). `onSaved` runs
    /// once it is committed; on failure "<eventName> conversion couldn't save. Save Error: ..." is
    /// logged under "Tarn-ConversionManager:" and `onSaved` is not called.
    void saveConversion(const ConversionItem& item, const std::string& eventName,
                        const std::function<void()>& onSaved);

    /// Finds the newest marker of `actorId` for `eventName` whose time is later than now plus the
    /// conversion offset (`processSettings().conversionOffset`), consumes it and hands it to
    /// `completion`; otherwise hands nothing. Logs the outcome under "Tarn-ConversionManager:".
    /// When the consumed marker's delete cannot be committed, the fetch-error message is logged,
    /// nothing is handed, and the marker counts as consumed for the rest of this process (its
    /// delete goes with the next successful write). `completion` is called exactly once, after the
    /// store's lock is released.
    void findConversion(const std::string& eventName, const std::string& actorId,
                        const std::function<void(std::optional<ConversionItem>)>& completion);

    /// Stores one event that may complete a conversion marker: what `findConversion` for
    /// `eventName` and `actorId` followed by `saveEventToQueue` do, with the same log lines in the
    /// same order, in one write transaction, so that an event costs one lock round on the file
    /// instead of two. `build` receives the code of the marker the event consumes (nothing when
    /// none matches) and returns the body text, or nothing to store no event (the marker stays
    /// consumed). `build` runs on the calling thread while the store is locked and must not wait
    /// for another thread's use of the store. The event's timestamp is taken after `build`.
    /// When the combined transaction cannot be used (no store, the write lock held by another
    /// connection beyond the busy time-out, a failed statement) it is rolled back whole, nothing
    /// is logged for it, and the two steps run one after the other as on their own (`build` is
    /// then called a second time).
    void saveEventCompletingConversion(
        const std::string& eventName, const std::string& actorId,
        const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build);

    /// Deletes every marker whose time is at or before now minus one day (a fixed period, not the
    /// conversion period). When the deletes cannot be committed, "Delete error: " and the reason
    /// are logged and those markers count as deleted for the rest of this process.
    void deleteExpiredConversions();

    /// Deletes every queued event (the markers stay). Returns how many were deleted, or none when
    /// the store could not be used.
    std::optional<std::int64_t> deleteAllEvents();
    /// Closes the store and deletes its files (the database with its -wal, -shm and -journal
    /// files). Until `reopenAfterErase` every operation fails as on a store that cannot be loaded,
    /// so that a call racing the erasure cannot make the file anew. Waits for an operation of
    /// another thread to end; called from inside a pop's completion it does nothing and answers
    /// false. True when no file is left.
    bool eraseFiles();
    /// Lets the next operation open (and create) the store again after `eraseFiles`.
    void reopenAfterErase();
    /// How long a write, a pop or a load waits for another connection's lock on the file before it
    /// fails (one second by default). Only another connection to the file, such as a second process
    /// sharing the data folder, can hold that lock.
    void setBusyTimeout(std::chrono::milliseconds timeout);

    /// True once the store has been opened successfully (opens it when not yet tried).
    bool isStoreLoaded();

  private:
    class Store;
    std::unique_ptr<Store> store_;
};

}  // namespace tarn
