#include "tarn/core/Date.h"

#include <atomic>
#include <chrono>

namespace tarn {

namespace {

std::atomic<bool> pinned{false};
std::atomic<double> pinnedSeconds{0.0};

}  // namespace

Date Date::now() {
    if (pinned.load(std::memory_order_acquire)) {
        return Date{pinnedSeconds.load(std::memory_order_relaxed)};
    }
    using Seconds = std::chrono::duration<double>;
    return Date{
        std::chrono::duration_cast<Seconds>(std::chrono::system_clock::now().time_since_epoch())
            .count()};
}

void setNowForTesting(std::optional<Date> fixed) {
    if (fixed) {
        pinnedSeconds.store(fixed->secondsSince1970, std::memory_order_relaxed);
        pinned.store(true, std::memory_order_release);
    } else {
        pinned.store(false, std::memory_order_release);
    }
}

}  // namespace tarn
