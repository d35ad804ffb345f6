#pragma once
// A key-value preference store kept in one file per store name, in the manner of the phone's user
// defaults.
//
// The standard store is "<data folder>/Preferences/standard.json"; an app group's store is
// "<group folder>/Preferences.json" (tarn/platform/DataDirectory.h: the group's folder is shared by
// every process of this user that names the group). Each write takes an exclusive file lock, reads
// the file afresh (so another process's values are kept), writes a temporary file and renames it
// over the old one: a crash never leaves a torn file. Files are created with mode 0600. Reads
// re-read the file only when it has changed on disk. No file is opened through a symbolic link: a
// store whose file is one reads as empty and cannot be written (said once on standard error).
//
// A change that cannot be written (a folder that cannot be written, a full disk) is kept in memory
// for the rest of the process: reads see it, and the next write that succeeds writes it too.
// Temporary files that a killed writer left behind ("<file>.tmp.<pid>" of a process that is gone,
// or older than a minute) are removed when the store is first opened in a process.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"

namespace tarn {

/// A key-value store in one JSON file, shared by the processes that open the same file (see above).
/// Every call is safe from any thread.
class TARN_API PreferenceStore {
  public:
    /// The standard store of this data folder.
    static std::shared_ptr<PreferenceStore> standard();
    /// The store of an app group, or nullptr when that store cannot be opened (an empty name, a
    /// name with a path separator, or a folder that cannot be created).
    static std::shared_ptr<PreferenceStore> suite(const std::string& name);

    /// A store kept in `file` (created on the first write).
    explicit PreferenceStore(std::filesystem::path file);

    /// The stored value, of whatever type, or none.
    std::optional<nlohmann::json> object(const std::string& key);
    /// The string under `key`, or none.
    std::optional<std::string> string(const std::string& key);
    /// The boolean under `key`, or none.
    std::optional<bool> boolean(const std::string& key);
    /// The integer under `key`, or none.
    std::optional<std::int64_t> integer(const std::string& key);

    /// Stores `value` under `key`. True when it was written to the file; false when it is kept in
    /// memory only (see above).
    bool set(const std::string& key, const std::string& value) { return setValue(key, value); }
    /// Stores a string under `key`; false when the file could not be written.
    bool set(const std::string& key, const char* value) {
        return setValue(key, std::string(value));
    }
    /// Stores a boolean under `key`; false when the file could not be written.
    bool set(const std::string& key, bool value) { return setValue(key, value); }
    /// Stores an integer under `key`; false when the file could not be written.
    bool set(const std::string& key, std::int64_t value) { return setValue(key, value); }
    /// Stores an integer under `key`; false when the file could not be written.
    bool set(const std::string& key, int value) {
        return setValue(key, static_cast<std::int64_t>(value));
    }
    /// Removes `key`; true when the file was written.
    bool remove(const std::string& key);
    /// Forgets every value, also those kept in memory only, and deletes the file (under the same
    /// lock as a write, so a write of another process lands wholly before or after it). True when
    /// no file is left.
    bool removeAll();

    /// The file the store is kept in.
    const std::filesystem::path& file() const { return file_; }

  private:
    bool setValue(const std::string& key, nlohmann::json value);
    /// Sets `key` to `value` (null: removes it) and writes the file.
    bool writeLocked(const std::string& key, const nlohmann::json& value);
    void applyUnsavedLocked(nlohmann::json& values) const;
    void refreshLocked();
    nlohmann::json readFileLocked();
    bool writeFileLocked(const nlohmann::json& values);
    /// Says once that the file is a symbolic link, which is never followed.
    void reportPlantedLinkLocked();

    std::filesystem::path file_;
    std::mutex mutex_;
    nlohmann::json values_ = nlohmann::json::object();
    /// Changes that could not be written, null for a removed key.
    nlohmann::json unsaved_ = nlohmann::json::object();
    bool linkReported_ = false;
    struct Stamp {
        std::int64_t mtimeNs = -1;
        std::int64_t size = -1;
        std::uint64_t inode = 0;
        bool operator==(const Stamp&) const = default;
    } stamp_;
    /// The file's stamp now (a default `Stamp` when there is no file).
    Stamp currentStamp() const;
};

}  // namespace tarn
