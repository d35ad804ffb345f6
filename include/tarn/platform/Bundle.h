#pragma once
// A bundle: a folder of resources with an optional Info.plist that names it.

#include <filesystem>
#include <optional>
#include <string>

#include "tarn/core/Export.h"

namespace tarn {

/// A folder of resources. Its identifier is the "CFBundleIdentifier" string of an "Info.plist"
/// (XML or binary) at the folder's top, when there is one.
class TARN_API Bundle {
  public:
    Bundle() = default;
    /// A bundle whose files are in `folder`.
    explicit Bundle(std::filesystem::path folder);

    /// The host application's bundle: the folder named by `setMain`, else the folder named by the
    /// environment variable TARN_MAIN_BUNDLE, else the folder of the running executable.
    static Bundle main();
    /// Names the host's main bundle folder (call it before initialising the library); an empty
    /// path goes back to the default.
    static void setMain(const std::filesystem::path& folder);

    /// The bundle's folder.
    const std::filesystem::path& path() const { return folder_; }
    /// "CFBundleIdentifier" of the Info.plist, or none.
    std::optional<std::string> bundleIdentifier() const;
    /// "CFBundleName" of the Info.plist, or none.
    std::optional<std::string> bundleName() const;
    /// The path of the regular file "<name>.<ext>" in the folder, or none when it does not exist.
    std::optional<std::filesystem::path> pathForResource(const std::string& name,
                                                         const std::string& ext) const;

  private:
    std::optional<std::string> infoString(const char* key) const;
    std::filesystem::path folder_;
};

}  // namespace tarn
