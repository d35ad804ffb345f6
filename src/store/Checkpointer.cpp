#include "store/Checkpointer.h"

#include <chrono>

namespace tarn::store {

Checkpointer::~Checkpointer() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Checkpointer::committed(const std::filesystem::path& path, int pages) {
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

void Checkpointer::takeOver() {
    std::unique_lock lock(mutex_);
    while (passDb_) {
        sqlite3_interrupt(passDb_);
        passEnded_.wait_for(lock, std::chrono::milliseconds(1));
    }
}

void Checkpointer::run() {
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
            (sqlite3_open_v2(path.c_str(), &db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                             nullptr) != SQLITE_OK ||
             sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr) !=
                 SQLITE_OK)) {
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

void Checkpointer::checkpoint(sqlite3* db) {
    if (logPages_.load(std::memory_order_relaxed) >= kLogPagesCap) {
        return;  // the committing caller copies the log back now
    }
    int log = 0;
    int copied = 0;
    int rc = sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, &log, &copied);
    int pages = logPages_.load(std::memory_order_relaxed);
    if (rc != SQLITE_OK) {
        // Another connection's checkpoint is running (another process sharing the file: a
        // passive checkpoint never waits for it), or the file is gone. Asked again at the next
        // mark rather than at every commit, which would only find that checkpoint again.
        nextRequest_.store(pages + kCheckpointPages / 4, std::memory_order_relaxed);
        return;
    }
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

}  // namespace tarn::store
