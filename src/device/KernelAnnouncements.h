#pragma once
// Caches of device facts that the kernel announces when they change.
//
// Each cache keeps one reading and a non-blocking descriptor on which the kernel announces
// changes: a routing netlink socket for links, addresses and routes, a kernel uevent socket for
// power supplies, an inotify watch for the time zone files. Every such descriptor of the process
// sits in one epoll set. A reading asks the set which descriptors have something pending (one
// `epoll_wait` that does not block), drains only those, and reads a fact again only when something
// relevant was announced. So a cached value is never older than the system's last announcement,
// and costs no reading of its own while nothing changes. When a descriptor cannot be opened (no
// permission, no such facility) every read of its fact is fresh.
//
// Inside an `AnnouncementPass` the set is asked once, at the first cached fact read, and every
// fact read in the pass uses that answer: the facts read together (an event's body) are those of
// one moment. Without a pass every reading asks the set itself.
//
// A forked child never reads its parent's descriptors (they are shared with the parent, whose
// announcements they would take): `detail::forkGeneration` counts forks, and the first reading in a
// child closes the inherited epoll set and descriptors and opens its own, with nothing cached.
//
// The set is a process-wide instance that is never destroyed; the descriptors live as long as
// their caches. No thread and no exit-time work is involved.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tarn::detail {

/// One descriptor on which changes of a fact are announced, as a member of the process's epoll
/// set. Not locked: its owner calls it under the lock that also guards the reading it keeps.
class AnnouncementChannel {
  public:
    /// What one message read from the descriptor means for this fact.
    enum class News { none, changed, watchLost };
    /// What happened since the last `check`.
    enum class Since {
        nothing,    // nothing relevant announced: a reading kept since the last check holds
        changed,    // something was (or may have been) announced: read again
        unwatched,  // no announcements (none to be had, or the watch ended): every read is fresh
    };
    using Open = std::function<int()>;
    using Classify = std::function<News(const char* message, std::size_t size)>;

    /// `open` gives a new non-blocking descriptor (-1 when there can be none) and is called again
    /// in a forked child; `classify` tells what each message read from it means. After
    /// `watchLost`, or a failure other than an overrun, every read is fresh.
    AnnouncementChannel(Open open, Classify classify);
    ~AnnouncementChannel();
    AnnouncementChannel(const AnnouncementChannel&) = delete;
    AnnouncementChannel& operator=(const AnnouncementChannel&) = delete;

    /// Drains the descriptor when the epoll set (or the current pass) reports it ready.
    Since check();
    /// True when changes are announced on this channel.
    bool watching() const { return fd_ >= 0; }

  private:
    void open();
    void close();
    bool drain();

    Open open_;
    Classify classify_;
    int fd_ = -1;
    std::uint64_t id_ = 0;     // this descriptor's key in the epoll set; never reused
    bool inSet_ = false;       // false: the set cannot report it, so it is drained every time
    unsigned generation_ = 0;  // the fork generation the descriptor was opened in
};

/// While one lives on a thread, the announcements of every cached fact read on that thread are
/// looked at once, at the first such reading, and the facts read are those of that moment. Passes
/// may nest; the outermost one decides.
class AnnouncementPass {
  public:
    AnnouncementPass();
    ~AnnouncementPass();
    AnnouncementPass(const AnnouncementPass&) = delete;
    AnnouncementPass& operator=(const AnnouncementPass&) = delete;
};

/// One cached text, re-read when its channel announces a change.
class AnnouncedValue {
  public:
    using News = AnnouncementChannel::News;
    AnnouncedValue(AnnouncementChannel::Open open, AnnouncementChannel::Classify classify);

    /// The cached value, or `read()` when something was announced since the last reading (or
    /// when there are no announcements). Any thread; `read` runs under this cache's lock.
    std::string get(const std::function<std::string()>& read);
    /// True when changes are announced to this cache.
    bool watching() const;

  private:
    mutable std::mutex mutex_;
    AnnouncementChannel channel_;
    std::optional<std::string> value_;
};

/// A channel announced by the kernel's routing netlink groups: links, IPv4 and IPv6 addresses,
/// IPv4 and IPv6 routes. Every message counts as a change.
std::unique_ptr<AnnouncementChannel> makeRoutingChannel();

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
