#pragma once
// The process's kept reading of the default route, shared by every default-route flags source.

#include <cstdint>
#include <optional>

#include "tarn/device/Reachability.h"

namespace tarn::detail {

/// The default route's flags as a default-route source's `getFlags()` gives them: kept until the
/// kernel announces a change of links, addresses or routes. None when they cannot be read; `error`
/// then holds the errno value. Any thread.
std::optional<ReachabilityFlags> defaultRouteFlags(std::int32_t& error);

}  // namespace tarn::detail
