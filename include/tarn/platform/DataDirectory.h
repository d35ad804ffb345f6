#pragma once
// The folder where the library keeps everything it persists: the preference stores and the local
// database.
//
// Chosen in this order: the folder given to `setDataDirectory`; the environment variable
// TARN_DATA_DIR; "$XDG_DATA_HOME/TarniOSCommonKit"; "$HOME/.local/share/TarniOSCommonKit";
// "/tmp/TarniOSCommonKit-<uid>" as a last resort. Two processes of one app group share their
// group's preference store when they use the same data folder.

#include <filesystem>

#include "tarn/core/Export.h"

namespace tarn {

/// The data folder (created, mode 0700, when missing).
TARN_API std::filesystem::path dataDirectory();
/// Points every persisted file of the library at `folder`; an empty path goes back to the
/// default. Call it before the library's first use (tests call it with a temporary folder).
TARN_API void setDataDirectory(const std::filesystem::path& folder);

}  // namespace tarn
