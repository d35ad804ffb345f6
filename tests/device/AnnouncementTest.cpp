// Caches kept until inotify announces a change, over real files in a temporary folder: one look
// at the announcements per pass, and a forked child that watches on descriptors of its own.

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "device/KernelAnnouncements.h"
#include "support/TestSupport.h"

using namespace tarn;
namespace fs = std::filesystem;

namespace {

/// A folder with a "localtime" link, its cache, and a count of the cache's readings.
struct ZoneFolder {
    explicit ZoneFolder(const fs::path& path, const std::string& zone) : path(path) {
        fs::create_directories(path);
        link(zone);
        cache = detail::makeTimeZoneFileCache(path);
    }
    /// Points "localtime" at `zone` the way tools do it: a new link renamed over the old one.
    void link(const std::string& zone) const {
        fs::create_symlink("/usr/share/zoneinfo/" + zone, path / "localtime.new");
        fs::rename(path / "localtime.new", path / "localtime");
    }
    std::string get() {
        return cache->get([this] {
            ++reads;
            return detail::timeZoneFromFiles(path);
        });
    }

    fs::path path;
    std::unique_ptr<detail::AnnouncedValue> cache;
    int reads = 0;
};

}  // namespace

using AnnouncementTest = test::TarnTest;

// Inside a pass the announcements are looked at once, so the facts read together are those of one
// moment; the next pass sees everything announced in between, for every cache at once. Without a
// pass every reading looks for itself.
TEST_F(AnnouncementTest, APassSeesOneMomentAndTheNextPassSeesEveryChangeInBetween) {
    ZoneFolder a(temp_->path() / "a", "Europe/Istanbul");
    ZoneFolder b(temp_->path() / "b", "Asia/Tokyo");
    ASSERT_TRUE(a.cache->watching());
    ASSERT_TRUE(b.cache->watching());
    EXPECT_EQ(a.get(), "Europe/Istanbul");
    EXPECT_EQ(b.get(), "Asia/Tokyo");
    {
        detail::AnnouncementPass pass;
        EXPECT_EQ(a.get(), "Europe/Istanbul");
        a.link("Europe/Paris");
        EXPECT_EQ(a.get(), "Europe/Istanbul");
        {
            detail::AnnouncementPass inner;
            EXPECT_EQ(a.get(), "Europe/Istanbul");
        }
        EXPECT_EQ(b.get(), "Asia/Tokyo");
        b.link("America/Lima");
    }
    EXPECT_EQ(a.reads, 1);
    EXPECT_EQ(b.reads, 1);
    {
        detail::AnnouncementPass pass;
        EXPECT_EQ(b.get(), "America/Lima");
        EXPECT_EQ(a.get(), "Europe/Paris");
        EXPECT_EQ(a.get(), "Europe/Paris");
    }
    EXPECT_EQ(a.reads, 2);
    EXPECT_EQ(b.reads, 2);
    // Nothing announced: the next pass reads nothing again.
    {
        detail::AnnouncementPass pass;
        EXPECT_EQ(a.get(), "Europe/Paris");
        EXPECT_EQ(b.get(), "America/Lima");
    }
    EXPECT_EQ(a.reads, 2);
    EXPECT_EQ(b.reads, 2);

    a.link("Australia/Perth");
    EXPECT_EQ(a.get(), "Australia/Perth");
    a.link("Africa/Cairo");
    EXPECT_EQ(a.get(), "Africa/Cairo");
    EXPECT_EQ(b.get(), "America/Lima");
    EXPECT_EQ(a.reads, 4);
    EXPECT_EQ(b.reads, 2);
}

// A change announced before a fork, and one the child makes, reach both processes: the child reads
// on descriptors of its own and takes nothing from its parent's.
TEST_F(AnnouncementTest, AForkedChildWatchesOnItsOwnAndTheParentStillSeesEveryChange) {
    ZoneFolder zone(temp_->path() / "etc", "Europe/Istanbul");
    ASSERT_TRUE(zone.cache->watching());
    EXPECT_EQ(zone.get(), "Europe/Istanbul");
    zone.link("Asia/Tokyo");  // announced, not yet read by the parent

    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // What the child sees, as one line: the value and the reading count after each step.
        ::close(report[0]);
        std::string seen;
        auto step = [&] {
            auto value = zone.get();
            seen += " " + value + " " + std::to_string(zone.reads);
        };
        step();
        step();
        seen += zone.cache->watching() ? " watching" : " unwatched";
        zone.link("America/Lima");
        step();
        {
            detail::AnnouncementPass pass;
            step();
            zone.link("Europe/Paris");
            step();
        }
        step();
        [[maybe_unused]] auto written = ::write(report[1], seen.data(), seen.size());
        ::_exit(0);
    }
    ::close(report[1]);
    std::string seen;
    char buffer[256];
    for (ssize_t n; (n = ::read(report[0], buffer, sizeof buffer)) > 0;)
        seen.append(buffer, static_cast<std::size_t>(n));
    ::close(report[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(seen,
              " Asia/Tokyo 2 Asia/Tokyo 2 watching America/Lima 3 America/Lima 3 America/Lima 3 "
              "Europe/Paris 4");

    // Everything the child drained on its own descriptor was announced to the parent's as well.
    EXPECT_EQ(zone.get(), "Europe/Paris");
    EXPECT_EQ(zone.reads, 2);
    EXPECT_EQ(zone.get(), "Europe/Paris");
    zone.link("Africa/Cairo");
    EXPECT_EQ(zone.get(), "Africa/Cairo");
    EXPECT_EQ(zone.reads, 3);
}
