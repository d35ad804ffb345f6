#pragma once
// Forks of this process, counted for per-process state that a child must not share with its
// parent (random bytes already handed out, descriptors that would take the parent's messages).

namespace tarn::detail {

/// How many forks this process has come from since counting began. The first call starts the
/// count (a `pthread_atfork` handler run in each child), so a value read in a child differs from
/// every value its parent read before the fork. One relaxed atomic load; any thread.
unsigned forkGeneration();

}  // namespace tarn::detail
