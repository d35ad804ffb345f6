#pragma once
// Reads the host's service configuration file "TarnService-Info.plist" from the main bundle.

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"

namespace tarn {

/// Reads "TarnService-Info.plist" (XML or binary) from `Bundle::main()` once, on first use. A
/// missing, unreadable or malformed file, or one whose root is not a dictionary, prints "Failed to
/// load the TarnService-Info file." and leaves `settings` empty.
class TARN_API ConfigurationManager {
  public:
    /// The one instance, created on first use and never destroyed.
    static ConfigurationManager& shared();

    /// The file's root dictionary (values as `parsePropertyList` gives them), or an empty object.
    const nlohmann::json& settings() const { return settings_; }

    /// Reads the file into `settings`. Run once by the shared instance's creation.
    void loadSettings();

    ConfigurationManager();

  private:
    nlohmann::json settings_ = nlohmann::json::object();
};

}  // namespace tarn
