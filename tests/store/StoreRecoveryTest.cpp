// An unreadable database is moved aside and replaced at start-up, so later events are kept and
// sent; a writer killed at random moments never corrupts the file nor loses an event it saw
// committed; and every file the store and the preference store create is private to the user.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <thread>

#include "store/StoreSchema.h"
#include "support/PipelineFixture.h"
#include "support/RawDatabase.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

std::string readAll(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

unsigned modeOf(const std::filesystem::path& file) {
    struct stat st {};
    return ::stat(file.c_str(), &st) == 0 ? st.st_mode & 0777 : 01000;
}

/// Names beside the database that start with "<database>.corrupt-", sorted.
std::vector<std::string> movedAside(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        auto name = entry.path().filename().string();
        if (name.rfind(std::string(CoreDataManager::kDatabaseFileName) + ".corrupt-", 0) == 0)
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The parameter: a store truncated to half its length (as a full disk or a copy leaves it),
// or else a file of garbage.
class CorruptStoreTest : public PipelineTest, public testing::WithParamInterface<bool> {};

TEST_P(CorruptStoreTest, IsMovedAsideAndEveryLaterEventIsStoredAndSent) {
    const auto file = CoreDataManager::databasePath();
    if (GetParam()) {
        ASSERT_EQ(RawDatabase(file).exec(std::string(store::kSchemaV1) +
                                         "PRAGMA user_version = 1; WITH RECURSIVE n(i) AS (SELECT "
                                         "1 UNION ALL SELECT i + 1 FROM n WHERE i < 600) INSERT "
                                         "INTO EventQueue (event, timestamp) SELECT "
                                         "json_object('name', 'old', 'pad', "
                                         "hex(randomblob(40))), i FROM n"),
                  "");
        std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
    } else {
        std::ofstream(file, std::ios::binary) << std::string(8192, 'x');
    }
    const auto damaged = readAll(file);
    // Earlier moved-aside copies: the oldest one goes, so that only the newest few are kept.
    const std::string stale = file.string() + ".corrupt-20200101T000000Z";
    for (const char* stamp : {"20200101T000000Z", "20210101T000000Z", "20220101T000000Z"})
        std::ofstream(file.string() + ".corrupt-" + stamp) << "old";
    std::ofstream(stale + "-wal") << "old";
    std::ofstream(file.string() + "-wal") << "log of the damaged file";

    LogCapture logs;
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    constexpr int kEvents = 20;
    for (int i = 0; i < kEvents; ++i)
        TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "after-" + std::to_string(i));
    ASSERT_TRUE(drainUntil(kEvents + 2)) << server_->count(kEventPath);
    EXPECT_EQ(receivedNames().front(), "install");
    EXPECT_EQ(receivedNames().back(), "after-" + std::to_string(kEvents - 1));
    EXPECT_EQ(storedEventCount(), 0);

    const std::string reason =
        GetParam() ? "database disk image is malformed" : "file is not a database";
    EXPECT_EQ(logs.count("Tarn-CoreDataManager: ❌ Loading of store failed:" + reason + ";"), 1u);
    auto moved = movedAside(dataDir());
    ASSERT_EQ(moved.size(), CoreDataManager::kKeptUnreadableStores + 2)  // with its -shm and -wal
        << testing::PrintToString(moved);
    EXPECT_FALSE(std::filesystem::exists(stale));
    EXPECT_FALSE(std::filesystem::exists(stale + "-wal"));
    // The newest copy is this run's: the damaged bytes untouched, its log beside it, both private.
    const auto copy = dataDir() / moved[CoreDataManager::kKeptUnreadableStores - 1];
    EXPECT_EQ(moved.back(), copy.filename().string() + "-wal");
    EXPECT_EQ(readAll(copy), damaged);
    EXPECT_EQ(readAll(copy.string() + "-wal"), "log of the damaged file");
    EXPECT_EQ(modeOf(copy), 0600u);
    EXPECT_EQ(modeOf(copy.string() + "-wal"), 0600u);
    EXPECT_TRUE(logs.contains("Tarn-CoreDataManager: The unreadable store was moved to " +
                              copy.string() + "; a new store is created.;"));

    // The next process opens the new store as it is.
    simulateNewProcess();
    LogCapture later;
    EXPECT_TRUE(CoreDataManager::shared().isStoreLoaded());
    EXPECT_FALSE(later.containsText("Loading of store failed"));
    EXPECT_EQ(movedAside(dataDir()).size(), moved.size());
}

INSTANTIATE_TEST_SUITE_P(Damages, CorruptStoreTest, testing::Bool(),
                         [](const auto& info) { return info.param ? "Truncated" : "Garbage"; });

class StoreFilesTest : public TarnTest {};

TEST_F(StoreFilesTest, EveryCreatedFileIsPrivateWhateverTheUmask) {
    const auto previous = ::umask(0);  // SQLite and plain creation would make 0666/0644 files
    const auto file = CoreDataManager::databasePath();
    const std::filesystem::path wal = file.string() + "-wal";
    CoreDataManager::shared().saveEventToQueue(R"({"name":"e"})", Date::now(), {{"name", "e"}});
    auto prefs = PreferenceStore::standard();
    prefs->set("actorId", "A");
    for (const auto& created :
         {file, wal, std::filesystem::path(file.string() + "-shm"), prefs->file(),
          std::filesystem::path(prefs->file().string() + ".lock")}) {
        ASSERT_TRUE(std::filesystem::exists(created)) << created;
        EXPECT_EQ(modeOf(created), 0600u) << created;
    }
    // Files left with wider modes by an earlier release are narrowed when they are next opened.
    simulateNewProcess();
    ::chmod(file.c_str(), 0644);
    ::chmod(wal.c_str(), 0644);
    EXPECT_TRUE(CoreDataManager::shared().isStoreLoaded());
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(wal), 0600u);
    ::umask(previous);
}

// The crash-loop helper reports each save it saw committed as 8 bytes on descriptor 3.
class StoreProcessTest : public TarnTest {};

TEST_F(StoreProcessTest, WriterKilledAtRandomMomentsKeepsEveryReportedEvent) {
    std::mt19937 random(std::random_device{}());
    std::int64_t maxDelayUs = 0, totalReported = 0;
    // Round -1 measures how long a writer takes to report its first save on this machine, as
    // loaded as it is now; kills then land in start-up, the file's creation and amid saves.
    for (int round = -1; round < 40; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int pipefd[2];
        ASSERT_EQ(::pipe2(pipefd, O_CLOEXEC), 0);
        auto start = std::chrono::steady_clock::now();
        pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(pipefd[1], 3);
            ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
            execHelperProgram({"store_crash_loop", dataDir().string(), "3", std::to_string(round)});
        }
        ASSERT_GT(pid, 0);
        ::close(pipefd[1]);
        std::int64_t reported = 0, value = 0;
        if (round < 0) {
            EXPECT_EQ(::read(pipefd[0], &reported, sizeof reported), ssize_t(sizeof reported));
            maxDelayUs = 20000 + 3 * std::chrono::duration_cast<std::chrono::microseconds>(
                                         std::chrono::steady_clock::now() - start)
                                         .count();
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(
                std::uniform_int_distribution<std::int64_t>(0, maxDelayUs)(random)));
        }
        ASSERT_EQ(::kill(pid, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;
        while (::read(pipefd[0], &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
            EXPECT_EQ(value, reported + 1);
            reported = value;
        }
        ::close(pipefd[0]);
        totalReported += round < 0 ? 0 : reported;

        RawDatabase raw(CoreDataManager::databasePath());
        ASSERT_EQ(raw.column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
        EXPECT_EQ(raw.integer("SELECT count(DISTINCT json_extract(event, '$.seq')) FROM "
                              "EventQueue WHERE json_extract(event, '$.round') = " +
                              std::to_string(round) +
                              " AND json_extract(event, '$.seq') <= " + std::to_string(reported)),
                  reported);
    }
    EXPECT_GT(totalReported, 0) << "no round got as far as a saved event";
    RecordProperty("reported_events", std::to_string(totalReported));
}

}  // namespace
}  // namespace tarn::test
