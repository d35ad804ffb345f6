#include "base/ForkGeneration.h"

#include <pthread.h>

#include <atomic>

namespace tarn::detail {

namespace {

std::atomic<unsigned> forks{0};

}  // namespace

unsigned forkGeneration() {
    static const bool counting = [] {
        ::pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });
        return true;
    }();
    (void)counting;
    return forks.load(std::memory_order_relaxed);
}

}  // namespace tarn::detail
