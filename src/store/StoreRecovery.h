#pragma once
// What the store does with a database file it cannot read: how such a file is told apart from
// other failures to open, and how it is moved aside, with its companions, so that a new, empty
// store takes its place (see "Opening" in tarn/store/CoreDataManager.h). Used by the store's
// connection (store/StoreConnection.h) while it opens the file.

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace tarn::store {

/// Files SQLite keeps beside the database, named by appending these to its path.
inline constexpr const char* kCompanionSuffixes[] = {"-wal", "-shm", "-journal"};

/// Files up to this size are checked page by page when opened (about 60 ms of one core at the
/// limit, some 130,000 queued events). A larger file, which only a device that stayed offline for
/// very long can hold, skips that check so that opening it cannot stall the host's first call
/// for seconds; reading its schema and preparing the statements still find most damage.
inline constexpr std::uintmax_t kFullCheckLimit = 32u << 20;

/// True for the failures that mean the file's content cannot be trusted (as opposed to a folder
/// that cannot be written, a lock held elsewhere or a newer schema, which leave the file alone).
bool meansCorruption(int code);

/// Reads every page of the file open on `db` once (`PRAGMA quick_check`): a file that is not a
/// database, or that a disk or copy truncated, fails here rather than on some later write. Answers
/// the reason, and sets `failure` to SQLite's code for it (`SQLITE_CORRUPT` when the check itself
/// finds damage); nothing when the file passed.
std::optional<std::string> quickCheck(sqlite3* db, int& failure);

/// Moves the unreadable store at `path` aside, with its companions, to
/// "<name>.corrupt-<UTC time>[-<n>]" plus the same suffixes (so SQLite still opens the moved copy
/// together with its log), keeps only the newest `keep` such copies, and logs under `logtag` where
/// it went. False, with a line saying why, when it could not be moved.
bool moveUnreadableAside(const std::filesystem::path& path, std::size_t keep,
                         const std::string& logtag);

}  // namespace tarn::store
