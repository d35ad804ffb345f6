#include "tarn/core/Shared.h"

#include <algorithm>
#include <vector>

namespace tarn {
namespace detail {
namespace {

struct ResetEntry {
    int order;
    std::function<void()> reset;
};

// Never destroyed: an instance first used while the process exits still registers here.
std::mutex& registryMutex() {
    static NeverDestroyed<std::mutex> m;
    return *m;
}

std::vector<ResetEntry>& registry() {
    static NeverDestroyed<std::vector<ResetEntry>> entries;
    return *entries;
}

}  // namespace

void registerSharedReset(int order, std::function<void()> reset) {
    std::lock_guard lock(registryMutex());
    registry().push_back({order, std::move(reset)});
}

}  // namespace detail

void resetSharedInstancesForTesting() {
    std::vector<detail::ResetEntry> entries;
    {
        std::lock_guard lock(detail::registryMutex());
        entries = detail::registry();
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.order < b.order; });
    for (auto& entry : entries) {
        entry.reset();
    }
}

}  // namespace tarn
