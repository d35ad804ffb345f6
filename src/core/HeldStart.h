#pragma once
// An initialisation that waits for the user's consent (tarn/core/Privacy.h).
#include <optional>
#include <string>

namespace tarn::detail {

/// Notes that `initialize` (with this app group) is to run once consent is granted.
void holdInitialization(const std::optional<std::string>& appGroupID);
/// Forgets a held initialisation.
void dropHeldInitialization();

}  // namespace tarn::detail
