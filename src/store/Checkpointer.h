#pragma once
// The store's checkpoint thread: copies the write-ahead log back into the database file so that
// no caller of the store waits for that copy (see "Checkpoints" in tarn/store/CoreDataManager.h).
// Used only by the store's connection (store/StoreConnection.h), which calls `committed` from its
// commit hook.

#include <sqlite3.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

namespace tarn::store {

/// The write-ahead log is checkpointed once it holds this many pages (SQLite's own default).
inline constexpr int kCheckpointPages = 1000;
/// A log this long is copied back by the committing caller itself, so that an unbroken stream of
/// commits, or a checkpoint thread that is not scheduled in time, cannot grow it further (some
/// 16 MB of log).
inline constexpr int kLogPagesCap = 4 * kCheckpointPages;
/// A log this long stops a pass of the checkpoint thread that still holds the checkpoint, so that
/// the committing caller gets it (some 24 MB of log). Below this, a caller that finds the thread
/// at work leaves the copy to it and goes on: taking it over costs that caller the whole copy.
inline constexpr int kLogPagesHardCap = kLogPagesCap + kLogPagesCap / 2;

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
///
/// Other processes sharing the file keep connections and checkpoint threads of their own. Their
/// readers hold back the part of the log after their snapshot (a pass that copies nothing new
/// waits for the next mark, it does not spin); their checkpoints make this one's answer
/// SQLITE_BUSY at once (asked again at the next mark). SQLite copies only frames that every reader
/// has passed and starts the log over only when no reader uses it, so no page is lost whatever
/// the processes do; the log a process leaves behind is replayed by the next connection's open.
///
/// The thread starts with the first request and is stopped and joined by the destructor.
class Checkpointer {
  public:
    Checkpointer() = default;
    ~Checkpointer();
    Checkpointer(const Checkpointer&) = delete;
    Checkpointer& operator=(const Checkpointer&) = delete;

    /// Called after every commit on the store's connection with the pages in the log; asks for a
    /// checkpoint once they reach the next mark. Cheap; never waits for a checkpoint.
    void committed(const std::filesystem::path& path, int pages);

    /// Ends a pass of the thread that is running (SQLite stops copying at the next page) and
    /// waits until it has, so that the committing caller, whose log has reached the cap, gets the
    /// checkpoint at once instead of after a pass that a busy disk can make last seconds. An
    /// interrupt that reaches the pass before SQLite has begun it is cleared by SQLite, so it is
    /// sent again every millisecond until the pass is over.
    void takeOver();

  private:
    void run();
    void checkpoint(sqlite3* db);

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

}  // namespace tarn::store
