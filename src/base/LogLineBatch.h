#pragma once
// Lines printed by one host call, written together.

#include <cstddef>

namespace tarn::detail {

/// While a batch lives, the lines this thread prints (`printLine`, and so `log`) are held back
/// and written together, in the order they were printed, in one write when the outermost batch on
/// the thread ends: a call that logs three lines costs one system call instead of three. Only the
/// printing waits; "TarnLogNotification" is still posted at once. Lines of other threads are not
/// held, and a batch's lines are never split or interleaved with theirs. Open a batch only around
/// library work that returns promptly and runs no host code that waits on other threads.
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

}  // namespace tarn::detail
