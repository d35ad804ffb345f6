#pragma once
// Lines written by one host call, written together; lines logged under a lock, written after it.

#include <cstddef>
#include <functional>

namespace tarn::detail {

/// Opens and closes a hold on this thread's lines. While a hold is open, the lines this thread
/// writes (`printLine`, and so `log`) are held back, in order, and written (to standard output or
/// handed to the host's log handler) when the outermost hold on the thread closes; so are the
/// "TarnLogNotification" posts of the records logged meanwhile (`runAfterLogHold`), which go
/// first. Lines of other threads are not held.
void holdLogLines();
void releaseLogLines();

/// Runs `task` now when no hold is open on this thread, else when the outermost one closes (before
/// the held lines are written). For work that may run host code, such as posting a log record to
/// observers, which must not run under a lock of the library's.
void runAfterLogHold(std::function<void()> task);

/// A hold for the life of a scope: a call that logs three lines costs one system call instead of
/// three, and a batch's lines are never split or interleaved with other threads'. Open a batch
/// only around library work that returns promptly and runs no host code that waits on other
/// threads.
class LogLineBatch {
  public:
    LogLineBatch();
    ~LogLineBatch();
    LogLineBatch(const LogLineBatch&) = delete;
    LogLineBatch& operator=(const LogLineBatch&) = delete;

    /// Diagnostics for this thread: the bytes of lines held back now, and the room kept for them.
    struct Held {
        std::size_t bytes;
        std::size_t capacity;
    };
    static Held heldOnThisThread();
};

/// A mutex whose holder's lines wait until it is unlocked: the host's log handler, which may call
/// back into the library, never runs while the lock is held. Use it for any lock of the library's
/// under which lines are logged. Meets the Lockable requirements of `Mutex`.
template <class Mutex>
class LogHoldingMutex {
  public:
    void lock() {
        mutex_.lock();
        holdLogLines();
    }
    bool try_lock() {
        if (!mutex_.try_lock()) {
            return false;
        }
        holdLogLines();
        return true;
    }
    void unlock() {
        mutex_.unlock();
        releaseLogLines();  // after the unlock: the lines go out with the lock free
    }

  private:
    Mutex mutex_;
};

}  // namespace tarn::detail
