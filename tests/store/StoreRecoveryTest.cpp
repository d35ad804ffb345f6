// An unreadable database is moved aside and replaced at start-up, so later events are kept and
// sent; and every file the store and the preference store create is private to the user.
#include <sys/stat.h>

#include <fstream>

#include "store/RawDatabase.h"
#include "store/StoreSchema.h"
#include "support/PipelineFixture.h"
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

/// Paths beside the database whose names start with "<database>.corrupt-".
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

struct Damage {
    const char* name;
    const char* reason;  // what the failed open logs
    void (*apply)(const std::filesystem::path& file);
};

void writeGarbage(const std::filesystem::path& file) {
    std::ofstream(file, std::ios::binary) << std::string(8192, 'x');
}

/// A queue of a few hundred events cut to half its length, as a full disk or a copy leaves it.
void truncateStore(const std::filesystem::path& file) {
    {
        RawDatabase raw(file);
        ASSERT_EQ(raw.exec(std::string(store::kSchemaV1) +
                           "PRAGMA user_version = 1;"
                           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                           "WHERE i < 600) INSERT INTO EventQueue (event, timestamp) SELECT "
                           "json_object('name', 'old', 'pad', hex(randomblob(40))), i FROM n"),
                  "");
    }
    std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
}

class CorruptStoreTest : public PipelineTest, public testing::WithParamInterface<Damage> {};

TEST_P(CorruptStoreTest, IsMovedAsideAndEveryLaterEventIsStoredAndSent) {
    const auto file = CoreDataManager::databasePath();
    GetParam().apply(file);
    const auto damaged = readAll(file);
    // Earlier moved-aside copies: the oldest one goes, so that only the newest few are kept.
    const std::string stale = file.string() + ".corrupt-20200101T000000Z";
    for (const char* stamp : {"20200101T000000Z", "20210101T000000Z", "20220101T000000Z"}) {
        std::ofstream(file.string() + ".corrupt-" + stamp) << "old";
    }
    std::ofstream(stale + "-wal") << "old";
    std::ofstream(file.string() + "-wal") << "log of the damaged file";

    LogCapture logs;
    ASSERT_EQ(initializeAndWait(hostConfig("actor-1")), InitializeStatusType::initialized);
    constexpr int kEvents = 20;
    for (int i = 0; i < kEvents; ++i) {
        TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "after-" + std::to_string(i));
    }
    ASSERT_TRUE(drainUntil(kEvents + 2)) << server_->count(kEventPath);
    auto names = receivedNames();
    EXPECT_EQ(names.front(), "install");
    EXPECT_EQ(names.back(), "after-" + std::to_string(kEvents - 1));
    EXPECT_EQ(storedEventCount(), 0);

    EXPECT_EQ(logs.count(std::string("Tarn-CoreDataManager: ❌ Loading of store failed:") +
                         GetParam().reason + ";"),
              1u);
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

INSTANTIATE_TEST_SUITE_P(Damages, CorruptStoreTest,
                         testing::Values(Damage{"Garbage", "file is not a database", writeGarbage},
                                         Damage{"Truncated", "database disk image is malformed",
                                                truncateStore}),
                         [](const auto& info) { return std::string(info.param.name); });

class StoreFilesTest : public TarnTest {};

TEST_F(StoreFilesTest, EveryCreatedFileIsPrivateWhateverTheUmask) {
    const auto previous = ::umask(0);  // SQLite and plain creation would make 0666/0644 files
    const auto file = CoreDataManager::databasePath();
    nlohmann::json body = {{"name", "e"}};
    CoreDataManager::shared().saveEventToQueue(body.dump(), Date::now(), body);
    auto prefs = PreferenceStore::standard();
    prefs->set("actorId", "A");
    for (const auto& created : {file, std::filesystem::path(file.string() + "-wal"),
                                std::filesystem::path(file.string() + "-shm"), prefs->file(),
                                std::filesystem::path(prefs->file().string() + ".lock")}) {
        ASSERT_TRUE(std::filesystem::exists(created)) << created;
        EXPECT_EQ(modeOf(created), 0600u) << created;
    }

    // Files left with wider modes by an earlier release are narrowed when they are next opened.
    simulateNewProcess();
    for (const auto& wide : {file, std::filesystem::path(file.string() + "-wal")}) {
        ::chmod(wide.c_str(), 0644);
    }
    EXPECT_TRUE(CoreDataManager::shared().isStoreLoaded());
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.string() + "-wal"), 0600u);
    ::umask(previous);
}

}  // namespace
}  // namespace tarn::test
