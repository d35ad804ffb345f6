#pragma once
// A key-value preference store kept in one file per store name, in the manner of the phone's user
// defaults.
//
// The standard store is "<data folder>/Preferences/standard.json"; an app group's store is
// "<data folder>/Preferences/<group name>.json", so every process of the group that uses the same
// data folder reads and writes the same file. Each write takes an exclusive file lock, reads the
// file afresh (so another process's values are kept), writes a temporary file and renames it over
// the old one: a crash never leaves a torn file. Files are created with mode 0600. Reads re-read
// the file only when it has changed on disk.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace tarn {

class PreferenceStore {
  public:
    /// The standard store of this data folder.
    static std::shared_ptr<PreferenceStore> standard();
    /// The store of an app group, or nullptr when that store cannot be opened (an empty name, a
    /// name with a path separator, or a folder that cannot be created).
    static std::shared_ptr<PreferenceStore> suite(const std::string& name);

    explicit PreferenceStore(std::filesystem::path file);

    /// The stored value, of whatever type, or none.
    std::optional<nlohmann::json> object(const std::string& key);
    std::optional<std::string> string(const std::string& key);
    std::optional<bool> boolean(const std::string& key);
    std::optional<std::int64_t> integer(const std::string& key);

    void set(const std::string& key, const std::string& value) { setValue(key, value); }
    void set(const std::string& key, const char* value) { setValue(key, std::string(value)); }
    void set(const std::string& key, bool value) { setValue(key, value); }
    void set(const std::string& key, std::int64_t value) { setValue(key, value); }
    void set(const std::string& key, int value) { setValue(key, static_cast<std::int64_t>(value)); }
    void remove(const std::string& key);

    const std::filesystem::path& file() const { return file_; }

  private:
    void setValue(const std::string& key, nlohmann::json value);
    void refreshLocked();
    nlohmann::json readFileLocked();
    bool writeFileLocked(const nlohmann::json& values);

    std::filesystem::path file_;
    std::mutex mutex_;
    nlohmann::json values_ = nlohmann::json::object();
    struct Stamp {
        std::int64_t mtimeNs = -1;
        std::int64_t size = -1;
        std::uint64_t inode = 0;
        bool operator==(const Stamp&) const = default;
    } stamp_;
};

}  // namespace tarn
