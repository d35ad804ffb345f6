#pragma once
// Caches of device facts that the kernel announces when they change.
//
// Each cache keeps one reading and a non-blocking descriptor on which the kernel announces
// changes: a kernel uevent socket for power supplies, an inotify watch for the time zone files.
// A read first drains the descriptor (one system call when nothing is pending) and reads the
// fact again only when something relevant was announced. So a cached value is never older than
// the system's last announcement, and costs no reading of its own while nothing changes. When
// the descriptor cannot be opened (no permission, no such facility) every read is fresh.
//
// The descriptors live as long as the cache; the caches belong to process-wide instances that
// are never destroyed, so no thread and no exit-time work is involved.

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace tarn::detail {

/// One cached text, re-read when `announced` reports a change.
class AnnouncedValue {
  public:
    /// What one message read from the descriptor means for this fact.
    enum class News { none, changed, watchLost };
    /// `fd` is the non-blocking descriptor (-1: no announcements, read every time); `relevant`
    /// classifies each message read from it. After `watchLost` every read is fresh.
    AnnouncedValue(int fd, std::function<News(const char* message, std::size_t size)> relevant);
    ~AnnouncedValue();
    AnnouncedValue(const AnnouncedValue&) = delete;
    AnnouncedValue& operator=(const AnnouncedValue&) = delete;

    /// The cached value, or `read()` when something was announced since the last reading (or
    /// when there are no announcements). Any thread; `read` runs under this cache's lock.
    std::string get(const std::function<std::string()>& read);
    /// True when changes are announced to this cache.
    bool watching() const;

  private:
    bool drainAnnouncements();

    int fd_;
    std::function<News(const char*, std::size_t)> relevant_;
    mutable std::mutex mutex_;
    bool lost_ = false;
    std::optional<std::string> value_;
};

/// A cache announced by the kernel's power-supply uevents (added, removed or changed batteries
/// and adapters).
std::unique_ptr<AnnouncedValue> makePowerSupplyCache();

/// A cache announced by inotify when "localtime" or "timezone" in `folder` is created, replaced,
/// written, removed or re-linked.
std::unique_ptr<AnnouncedValue> makeTimeZoneFileCache(const std::filesystem::path& folder);

/// The time zone identifier from the files in `folder` ("/etc"): the zone that "localtime" links
/// to, else the first line of "timezone", else "UTC".
std::string timeZoneFromFiles(const std::filesystem::path& folder);

}  // namespace tarn::detail
