#include "tarn/platform/PreferenceStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>

#include "base/InputSafety.h"
#include "base/LogLineBatch.h"
#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/DataDirectory.h"

namespace tarn {

namespace {

constexpr const char* kLogTag = "Tarn-PreferenceStore:";

/// Holds an flock on "<file>.lock" for its lifetime.
class FileLock {
  public:
    FileLock(const std::filesystem::path& file, int operation) {
        auto lockPath = file.string() + ".lock";
        // A link planted in the lock file's place is not followed: the lock is then not held.
        fd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd_ >= 0) {
            ::fchmod(fd_, 0600);
            while (::flock(fd_, operation) != 0 && errno == EINTR) {
            }
        }
    }
    ~FileLock() {
        if (fd_ >= 0) {
            ::flock(fd_, LOCK_UN);
            ::close(fd_);
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

  private:
    int fd_ = -1;
};

/// A temporary file older than this is left over whatever process wrote it: a write takes
/// milliseconds.
constexpr auto kTemporaryFileMaxAge = std::chrono::minutes(1);

bool processIsAlive(pid_t pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

/// Removes the temporary files "<file>.tmp.<pid>" that writers killed between writing and renaming
/// left behind: those of a process that is gone, and any older than `kTemporaryFileMaxAge`. Runs
/// under the file's exclusive lock, which every writer holds while its temporary file exists.
void removeLeftoverTemporaries(const std::filesystem::path& file) {
    const std::string prefix = file.filename().string() + ".tmp.";
    std::error_code ec;
    if (!std::filesystem::is_directory(file.parent_path(), ec)) {
        return;
    }
    FileLock lock(file, LOCK_EX);
    const auto oldest = std::filesystem::file_time_type::clock::now() - kTemporaryFileMaxAge;
    for (std::filesystem::directory_iterator it(file.parent_path(), ec), end; !ec && it != end;
         it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        auto digits = name.substr(prefix.size());
        if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::error_code timeError;
        auto written = std::filesystem::last_write_time(it->path(), timeError);
        bool old = !timeError && written < oldest;
        if (old || !processIsAlive(static_cast<pid_t>(std::stol(digits)))) {
            std::filesystem::remove(it->path(), timeError);
        }
    }
}

/// One store per file for the life of the process. Keeping them (a process uses one or two) lets
/// a read of an unchanged file cost one `stat` instead of a locked read and parse of the whole file
/// on every call; a change on disk is still seen through the file's stamp.
std::shared_ptr<PreferenceStore> storeFor(const std::filesystem::path& file) {
    // Never destroyed: the stores are read and written from any thread until the process is gone.
    static detail::NeverDestroyed<std::mutex> mutex;
    static detail::NeverDestroyed<std::map<std::filesystem::path, std::shared_ptr<PreferenceStore>>>
        storesHolder;
    auto& stores = *storesHolder;
    std::lock_guard lock(*mutex);
    auto& store = stores[file];
    if (!store) {
        removeLeftoverTemporaries(file);
        store = std::make_shared<PreferenceStore>(file);
    }
    return store;
}

/// The folder of the standard store: "Preferences" in the application's data folder, or a path
/// where nothing can be written when that folder is refused.
std::filesystem::path preferencesFolder() {
    auto folder = dataDirectory() / "Preferences";
    if (!ensurePrivateFolder(folder)) {
        return refusedFolderPath() / "Preferences";
    }
    return folder;
}

/// Whether `folder` is a usable folder of the library's own (made, mode 0700, when missing).
bool ensureFolder(const std::filesystem::path& folder) {
    std::error_code ec;
    return ensurePrivateFolder(folder) && std::filesystem::is_directory(folder, ec);
}

/// `ensureFolder` for opening a store: each folder is checked on its first use in the process
/// only, since a read needs no folder (a missing file reads as empty). Every write checks its
/// folder again (`PreferenceStore::setValue`), so a folder removed meanwhile is made anew before it
/// is written to.
bool ensureFolderOnce(const std::filesystem::path& folder) {
    static detail::NeverDestroyed<std::mutex> mutex;
    static detail::NeverDestroyed<std::set<std::string>> seenHolder;
    auto& seen = *seenHolder;
    {
        std::lock_guard lock(*mutex);
        if (seen.count(folder.native())) {
            return true;
        }
    }
    if (!ensureFolder(folder)) {
        return false;
    }
    std::lock_guard lock(*mutex);
    seen.insert(folder.native());
    return true;
}

}  // namespace

std::shared_ptr<PreferenceStore> PreferenceStore::standard() {
    return storeFor(preferencesFolder() / "standard.json");
}

std::shared_ptr<PreferenceStore> PreferenceStore::suite(const std::string& name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        return nullptr;
    }
    auto folder = appGroupDirectory(name);
    if (!ensureFolderOnce(folder)) {
        return nullptr;
    }
    return storeFor(folder / "Preferences.json");
}

PreferenceStore::PreferenceStore(std::filesystem::path file) : file_(std::move(file)) {}

PreferenceStore::Stamp PreferenceStore::currentStamp() const {
    struct stat st {};
    if (::lstat(file_.c_str(), &st) != 0) {
        return Stamp{};
    }
    return Stamp{static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                 static_cast<std::int64_t>(st.st_size), static_cast<std::uint64_t>(st.st_ino)};
}

nlohmann::json PreferenceStore::readFileLocked() {
    stamp_ = currentStamp();
    if (stamp_ == Stamp{}) {
        return nlohmann::json::object();
    }
    int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (errno == ELOOP) {
            reportPlantedLinkLocked();
        }
        return nlohmann::json::object();
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) != 0;) {
        if (n < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    // A file nested deeper than any value the library stores is refused before parsing: writing
    // it back indented would grow it quadratically, and a deep enough one overflows the stack.
    auto parsed = parseJsonBounded(text);
    if (parsed.is_discarded() || !parsed.is_object()) {
        // Keep the unreadable file aside rather than overwrite it with the next write.
        std::error_code ec;
        std::filesystem::rename(file_, file_.string() + ".corrupt", ec);
        log("The preference file " + file_.string() + " is unreadable; it was moved aside to " +
                file_.string() + ".corrupt",
            kLogTag, LogLevel::error);
        stamp_ = Stamp{};
        return nlohmann::json::object();
    }
    return parsed;
}

void PreferenceStore::refreshLocked() {
    if (currentStamp() == stamp_) {
        return;
    }
    FileLock lock(file_, LOCK_SH);
    values_ = readFileLocked();
    applyUnsavedLocked(values_);
}

void PreferenceStore::applyUnsavedLocked(nlohmann::json& values) const {
    for (const auto& [key, value] : unsaved_.items()) {
        if (value.is_null()) {
            values.erase(key);
        } else {
            values[key] = value;
        }
    }
}

bool PreferenceStore::writeLocked(const std::string& key, const nlohmann::json& value) {
    if (!ensurePrivateFolder(file_.parent_path())) {
        // A refused folder (see DataDirectory.h) is neither read nor written through.
        if (value.is_null()) {
            values_.erase(key);
        } else {
            values_[key] = value;
        }
        unsaved_[key] = value;
        return false;
    }
    FileLock lock(file_, LOCK_EX);
    auto current = readFileLocked();
    applyUnsavedLocked(current);  // an earlier change that could not be written goes with this one
    if (value.is_null()) {
        current.erase(key);
    } else {
        current[key] = value;
    }
    bool saved = writeFileLocked(current);
    if (saved) {
        stamp_ = currentStamp();  // the file just written is what `current` holds
        unsaved_ = nlohmann::json::object();
    } else {
        // The write failed (for example a folder that cannot be written): the change is kept in
        // memory for this process and written with the next write that succeeds.
        unsaved_[key] = value;
    }
    values_ = std::move(current);
    return saved;
}

void PreferenceStore::reportPlantedLinkLocked() {
    if (linkReported_) {
        return;
    }
    linkReported_ = true;
    log("The preference file " + file_.string() +
            " is a symbolic link, which is not followed; it is neither read nor written",
        kLogTag, LogLevel::error);
}

bool PreferenceStore::writeFileLocked(const nlohmann::json& values) {
    // A symbolic link in the file's place is refused rather than replaced or followed.
    struct stat st {};
    if (::lstat(file_.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        reportPlantedLinkLocked();
        return false;
    }
    auto tmp = file_.string() + ".tmp." + std::to_string(::getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return false;
    }
    ::fchmod(fd, 0600);  // a file of that name left by an earlier process keeps its mode otherwise
    // Values are validated on the way in; replacing bad bytes here only keeps a stray one from
    // throwing out of the library.
    auto text = values.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
    const char* p = text.data();
    std::size_t left = text.size();
    bool ok = true;
    while (left > 0) {
        ssize_t w = ::write(fd, p, left);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            ok = false;
            break;
        }
        p += w;
        left -= static_cast<std::size_t>(w);
    }
    ok = ok && ::fdatasync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(tmp.c_str(), file_.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

// Each public call opens a log hold before it locks: a line logged under the lock (a planted link,
// an unreadable file) is written, and its notification posted, only after the lock is released, so
// a log handler or observer that reads preferences cannot deadlock on it.

bool PreferenceStore::setValue(const std::string& key, nlohmann::json value) {
    detail::LogLineBatch linesAfterUnlock;
    std::lock_guard guard(mutex_);
    return writeLocked(key, value);
}

bool PreferenceStore::remove(const std::string& key) {
    detail::LogLineBatch linesAfterUnlock;
    std::lock_guard guard(mutex_);
    return writeLocked(key, nullptr);
}

bool PreferenceStore::removeAll() {
    detail::LogLineBatch linesAfterUnlock;
    std::lock_guard guard(mutex_);
    values_ = nlohmann::json::object();
    unsaved_ = nlohmann::json::object();
    std::error_code ec;
    if (!std::filesystem::exists(file_.parent_path(), ec)) {
        stamp_ = Stamp{};
        return true;
    }
    FileLock lock(file_, LOCK_EX);
    bool removed = ::unlink(file_.c_str()) == 0 || errno == ENOENT;
    // The lock file goes too, while it is still held: nothing of the store is left behind.
    ::unlink((file_.string() + ".lock").c_str());
    stamp_ = currentStamp();
    return removed;
}

std::optional<nlohmann::json> PreferenceStore::object(const std::string& key) {
    detail::LogLineBatch linesAfterUnlock;
    std::lock_guard guard(mutex_);
    refreshLocked();
    auto it = values_.find(key);
    if (it == values_.end()) {
        return std::nullopt;
    }
    return *it;
}

std::optional<std::string> PreferenceStore::string(const std::string& key) {
    auto value = object(key);
    if (value && value->is_string()) {
        return value->get<std::string>();
    }
    return std::nullopt;
}

std::optional<bool> PreferenceStore::boolean(const std::string& key) {
    auto value = object(key);
    if (value && value->is_boolean()) {
        return value->get<bool>();
    }
    return std::nullopt;
}

std::optional<std::int64_t> PreferenceStore::integer(const std::string& key) {
    auto value = object(key);
    if (value && value->is_number_integer()) {
        return value->get<std::int64_t>();
    }
    return std::nullopt;
}

}  // namespace tarn
