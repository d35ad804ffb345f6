#include "tarn/config/TarnState.h"

namespace tarn {

namespace {

using ActorChange = std::function<void(const std::string&, const std::string&)>;

Locked<std::function<void()>>& refreshRoutine() {
    static detail::NeverDestroyed<Locked<std::function<void()>>> routine;
    return *routine;
}

Locked<ActorChange>& actorChangeRoutine() {
    static detail::NeverDestroyed<Locked<ActorChange>> routine;
    return *routine;
}

}  // namespace

TarnState& TarnState::shared() {
    // Reset for tests together with the facade that refers to it.
    return detail::SharedInstance<TarnState, 400>::get();
}

void TarnState::refreshAccessToken() const {
    if (auto routine = refreshRoutine().get()) {
        routine();
    }
}

void TarnState::reportActorChange(const std::string& oldActorId,
                                  const std::string& newActorId) const {
    if (auto routine = actorChangeRoutine().get()) {
        routine(oldActorId, newActorId);
    }
}

void TarnState::setRefreshAccessToken(std::function<void()> routine) {
    refreshRoutine() = std::move(routine);
}

void TarnState::setReportActorChange(ActorChange routine) {
    actorChangeRoutine() = std::move(routine);
}

}  // namespace tarn
