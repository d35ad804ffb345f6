// The event queue of the local store: order, failure paths, an unusable store, use from several
// threads, all against a real database file in the test's data folder.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <set>
#include <thread>

#include "support/RawDatabase.h"
#include "support/TestSupport.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/store/ConversionManager.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

using Popped = std::vector<std::optional<std::string>>;
using Rows = std::vector<std::string>;

std::string event(const std::string& name, int seq = 0) {
    return nlohmann::json{{"name", name}, {"seq", seq}}.dump();
}

void save(const std::string& text, double timestamp) {
    CoreDataManager::shared().saveEventToQueue(text, Date{timestamp}, nlohmann::json::parse(text));
}

/// Every answer of `times` pops.
Popped pop(int times = 1) {
    Popped calls;
    while (times-- > 0)
        CoreDataManager::shared().popOldestEvent(
            [&](std::optional<std::string> text) { calls.push_back(std::move(text)); });
    return calls;
}

const std::string kSaveError =
    "Tarn-ConversionManager: inapp_open conversion couldn't save. Save Error: An error occurred "
    "while saving the conversion event!;";
const std::string kFetchError =
    "Tarn-ConversionManager: purchase is not a conversion event. Fetch Error: An error occurred "
    "while fetching the conversion event!;";

class EventQueueStoreTest : public TarnTest {};

TEST_F(EventQueueStoreTest, PopsOldestFirstDeletesWhatItHandsAndPopsFromItsCompletion) {
    LogCapture logs;
    EXPECT_EQ(pop(), Popped{std::nullopt}) << "an empty queue answers once, with nothing";
    save(event("third"), 300.5);
    save(event("first"), 100.25);
    save(event("second"), 200.0);
    save("{}", 400);  // no name: no notice
    save(R"({"name":42})", 500);
    EXPECT_TRUE(logs.contains("Tarn-QueueManager: third has been saved to the queue.;"));
    EXPECT_TRUE(logs.contains("Tarn-QueueManager: 42 has been saved to the queue.;"));
    EXPECT_EQ(logs.count("Tarn-QueueManager:  has been saved to the queue.;"), 0u);

    // A record without text (written by hand) is handed as nothing and still removed; each pop
    // answers exactly once, the last finds the queue empty.
    RawDatabase raw(CoreDataManager::databasePath());
    ASSERT_EQ(raw.exec("INSERT INTO EventQueue (event, timestamp) VALUES (NULL, 250)"), "");
    EXPECT_EQ(raw.integer("PRAGMA user_version"), CoreDataManager::kSchemaVersion);
    EXPECT_EQ(pop(7), (Popped{event("first"), event("second"), std::nullopt, event("third"), "{}",
                              R"({"name":42})", std::nullopt}));
    EXPECT_EQ(raw.integer("SELECT count(*) FROM EventQueue"), 0);
    EXPECT_FALSE(logs.containsText("Fetch or delete error"));

    // A pop, and a save, from inside a completion take the next record and write.
    save(event("a"), 1);
    save(event("b"), 2);
    Popped seen;
    CoreDataManager::shared().popOldestEvent([&](std::optional<std::string> outer) {
        seen.push_back(outer);
        CoreDataManager::shared().popOldestEvent(
            [&](std::optional<std::string> inner) { seen.push_back(inner); });
        save(event("c"), 3);
    });
    EXPECT_EQ(seen, (Popped{event("a"), event("b")}));
    EXPECT_EQ(pop(), Popped{event("c")});
    EXPECT_EQ(pop(), Popped{std::nullopt});
}

// Another connection (another process sharing the file) holds the write lock, so every commit of
// the store fails with "database is locked" while reads go on; then a delete the file refuses, a
// real failure of a pop's save step.
TEST_F(EventQueueStoreTest, FailedCommitsHandNothingTwiceAndCatchUpLater) {
    LogCapture logs;
    auto& store = CoreDataManager::shared();
    auto& conversions = ConversionManager::shared();
    save(event("kept"), 1);
    save(event("next"), 2);
    Tarn::shared().actorId = "alice";
    conversions.armConversion("msg-1", "purchase", "inapp_open");
    store.saveConversion({"expired", "purchase", Date{1.0}}, "inapp_open", nullptr);
    store.setBusyTimeout(std::chrono::milliseconds(20));
    RawDatabase blocker(CoreDataManager::databasePath());
    ASSERT_EQ(blocker.exec("BEGIN IMMEDIATE"), "");

    // A pop takes its event under the write lock: with the lock held elsewhere it takes nothing
    // (the other connection may be taking that very event) and the event stays queued. A failed
    // event save is silent and loses it.
    EXPECT_EQ(pop(), Popped{std::nullopt});
    EXPECT_EQ(logs.count("Tarn-CoreDataManager: Fetch or delete error: database is locked;"), 1u);
    auto before = logs.lines().size();
    save(event("lost"), 3);
    EXPECT_EQ(logs.lines().size(), before);

    // A marker whose consumption fails is reported as a fetch error and stays taken.
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);
    EXPECT_TRUE(logs.contains(kFetchError));
    bool saved = false;
    store.saveConversion({"msg-2", "purchase", Date{1}}, "inapp_open", [&] { saved = true; });
    EXPECT_FALSE(saved);
    EXPECT_TRUE(logs.contains(kSaveError));
    store.deleteExpiredConversions();
    EXPECT_TRUE(logs.contains("Tarn-CoreDataManager: Delete error: database is locked;"));
    ASSERT_EQ(blocker.exec("ROLLBACK"), "");
    EXPECT_EQ(blocker.integer("SELECT count(*) FROM EventQueue"), 2);

    // The file refuses to delete "kept": the pop hands it, then nothing; the record stays in the
    // file, and this process does not hand it again.
    ASSERT_EQ(blocker.exec("CREATE TRIGGER refuse BEFORE DELETE ON EventQueue "
                           "WHEN json_extract(old.event, '$.name') = 'kept' "
                           "BEGIN SELECT RAISE(ABORT, 'delete refused'); END"),
              "");
    EXPECT_EQ(pop(), (Popped{event("kept"), std::nullopt}));
    EXPECT_TRUE(logs.contains("Tarn-CoreDataManager: Fetch or delete error: delete refused;"));
    EXPECT_EQ(blocker.integer("SELECT count(*) FROM EventQueue"), 2);

    // Once the file deletes again, the next write commits every pending delete with it.
    ASSERT_EQ(blocker.exec("DROP TRIGGER refuse"), "");
    EXPECT_EQ(pop(), Popped{event("next")});
    EXPECT_EQ(blocker.integer("SELECT count(*) FROM EventQueue"), 0);
    EXPECT_EQ(pop(), Popped{std::nullopt});
    EXPECT_EQ(conversions.checkConversion("purchase"), std::nullopt);
    save(event("after"), 4);
    EXPECT_EQ(blocker.column("SELECT json_extract(event, '$.name') FROM EventQueue"),
              Rows{"after"});
    EXPECT_EQ(blocker.integer("SELECT count(*) FROM ConversionEntity"), 0);
    conversions.armConversion("msg-3", "other", "inapp_open");
    EXPECT_EQ(blocker.column("SELECT communicationCode FROM ConversionEntity"), Rows{"msg-3"});
    EXPECT_EQ(pop(), Popped{event("after")});
}

// An event that completes a marker: the look-up, the consumption and the insert as one write, a
// marker armed by another connection found by it, and the step-by-step road taken whole when the
// write lock is held elsewhere.
TEST_F(EventQueueStoreTest, CombinedSaveConsumesMarkersAndFallsBackWholeUnderAForeignLock) {
    LogCapture logs;
    auto& store = CoreDataManager::shared();
    std::vector<std::optional<std::string>> codes;
    auto saveEvent = [&](const std::string& name, bool writable = true) {
        store.saveEventCompletingConversion(
            name, "alice",
            [&](const std::optional<std::string>& code) -> std::optional<std::string> {
                codes.push_back(code);
                return writable ? std::optional(event(name, code ? 1 : 0)) : std::nullopt;
            });
    };
    RawDatabase other(CoreDataManager::databasePath());
    Tarn::shared().actorId = "alice";
    ConversionManager::shared().armConversion("msg-1", "purchase", "inapp_open");
    saveEvent("purchase");
    saveEvent("purchase");
    // Another process arms a marker: the next event finds it although this connection's mirror
    // has not seen it; an event whose body cannot be written still consumes it (its body is asked
    // for again, with the code, once the file has answered).
    ASSERT_EQ(other.exec("INSERT INTO ConversionEntity (actorId, communicationCode, "
                         "convertionName, time) VALUES ('alice', 'msg-2', 'purchase', 1e12)"),
              "");
    saveEvent("purchase", false);
    EXPECT_EQ(codes, (std::vector<std::optional<std::string>>{"msg-1", std::nullopt, std::nullopt,
                                                              "msg-2"}));
    EXPECT_EQ(logs.lines(),
              (Rows{"Tarn-ConversionManager: Conversion event saved with name: purchase;",
                    "Tarn-ConversionManager: purchase is a conversion event;",
                    "Tarn-QueueManager: purchase has been saved to the queue.;",
                    "Tarn-ConversionManager: purchase is not a conversion event. Not Found: "
                    "Requestted item was not found in conversion database!;",
                    "Tarn-QueueManager: purchase has been saved to the queue.;",
                    "Tarn-ConversionManager: purchase is a conversion event;"}));
    EXPECT_EQ(other.integer("SELECT count(*) FROM ConversionEntity"), 0);
    EXPECT_EQ(pop(2), (Popped{event("purchase", 1), event("purchase", 0)}));
    // With a body that can be written, the insert made for an event without a marker leaves it
    // out when the file holds one after all; it is stored once, with the code.
    ASSERT_EQ(other.exec("INSERT INTO ConversionEntity (actorId, communicationCode, "
                         "convertionName, time) VALUES ('alice', 'msg-4', 'purchase', 1e12)"),
              "");
    codes.clear();
    saveEvent("purchase");
    EXPECT_EQ(codes, (std::vector<std::optional<std::string>>{std::nullopt, "msg-4"}));
    EXPECT_EQ(other.integer("SELECT count(*) FROM ConversionEntity"), 0);
    EXPECT_EQ(pop(2), (Popped{event("purchase", 1), std::nullopt}));

    // Under a foreign write lock nothing of the combined write remains: the steps run one by one,
    // the marker's consumption fails as a fetch error and the event is lost, as on their own.
    ConversionManager::shared().armConversion("msg-3", "purchase", "inapp_open");
    store.setBusyTimeout(std::chrono::milliseconds(20));
    ASSERT_EQ(other.exec("BEGIN IMMEDIATE"), "");
    codes.clear();
    auto before = logs.lines().size();
    saveEvent("purchase");
    EXPECT_EQ(codes, (std::vector<std::optional<std::string>>{std::nullopt}));
    EXPECT_EQ(logs.lines().size(), before + 1);
    EXPECT_TRUE(logs.contains(kFetchError));
    ASSERT_EQ(other.exec("ROLLBACK"), "");
    saveEvent("purchase");
    EXPECT_EQ(codes, (std::vector<std::optional<std::string>>{std::nullopt, std::nullopt}));
    EXPECT_EQ(other.integer("SELECT count(*) FROM ConversionEntity"), 0);
    EXPECT_EQ(pop(2), (Popped{event("purchase", 0), std::nullopt}));
}

// A store that cannot be opened, yet whose file must not be replaced: the library runs on without
// it, logs the failure once, every operation fails on its own, and the file stays as it was.
TEST_F(EventQueueStoreTest, UnusableStoreLogsOnceAndEveryOperationFailsOnItsOwn) {
    const std::string newer = "The store's schema version 7 is newer than this library reads (1)";
    for (const std::string reason : {"unable to open database file", newer.c_str()}) {
        SCOPED_TRACE(reason);
        resetSharedInstancesForTesting();
        setDataDirectory(dataDir());
        if (reason == newer) {
            ASSERT_EQ(RawDatabase(CoreDataManager::databasePath())
                          .exec("CREATE TABLE Future (x); INSERT INTO Future VALUES (1); "
                                "PRAGMA user_version = 7"),
                      "");
        } else {  // the folder's path runs through a regular file
            std::ofstream(temp_->path() / "not-a-folder") << "x";
            setDataDirectory(temp_->path() / "not-a-folder" / "data");
        }
        LogCapture logs;
        auto& store = CoreDataManager::shared();
        EXPECT_FALSE(store.isStoreLoaded());
        Tarn::shared().actorId = "actor";
        save(event("e"), 1);
        EXPECT_EQ(pop(), Popped{std::nullopt});
        bool saved = false;
        store.saveConversion({"code", "purchase", Date{1}}, "inapp_open", [&] { saved = true; });
        EXPECT_FALSE(saved);
        int answers = 0;
        store.findConversion("purchase", "actor", [&](std::optional<ConversionItem> found) {
            ++answers;
            EXPECT_FALSE(found);
        });
        EXPECT_EQ(answers, 1);
        store.deleteExpiredConversions();

        const std::string failed = "Tarn-CoreDataManager: ❌ Loading of store failed:" + reason;
        auto lines = logs.lines();
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [&](const std::string& l) { return l.rfind(failed, 0) == 0; }),
                  1);
        for (const auto& text :
             {"Tarn-CoreDataManager: Fetch or delete error: The store is not loaded: " + reason,
              "Tarn-CoreDataManager: Delete error: The store is not loaded: " + reason, kSaveError,
              kFetchError})
            EXPECT_TRUE(logs.containsText(text)) << text;
        EXPECT_FALSE(logs.containsText("moved"));
    }
    // The newer release's file is untouched.
    RawDatabase raw(CoreDataManager::databasePath());
    EXPECT_EQ(raw.integer("PRAGMA user_version"), 7);
    EXPECT_EQ(raw.integer("SELECT count(*) FROM Future"), 1);
}

TEST_F(EventQueueStoreTest, SeveralThreadsSaveWhileAnotherPops) {
    constexpr int kThreads = 4, kPerThread = 300;
    std::multiset<std::string> expected, seen;
    std::atomic<int> writing{kThreads};
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kPerThread; ++i)
            expected.insert(event("t" + std::to_string(t), i));
        writers.emplace_back([t, &writing] {
            for (int i = 0; i < kPerThread; ++i)
                save(event("t" + std::to_string(t), i), Date::now().secondsSince1970);
            --writing;
        });
    }
    auto drainOne = [&] {
        auto popped = pop();
        if (popped.size() == 1 && popped[0])
            seen.insert(*popped[0]);
        return popped.size() == 1 && popped[0];
    };
    while (writing.load() > 0)
        drainOne();
    for (auto& w : writers)
        w.join();
    while (drainOne()) {
    }
    EXPECT_EQ(seen, expected);
}

// Only the store's own checkpoint thread copies the log back; 6,000 records of about 1 KB fill it
// several times over.
TEST_F(EventQueueStoreTest, TheLogIsCopiedBackOffTheWritersThreadAndStaysBounded) {
    const std::string padding(900, 'x');
    auto path = CoreDataManager::databasePath();
    auto fileSize = [](const std::filesystem::path& file) {
        std::error_code ec;
        auto size = std::filesystem::file_size(file, ec);
        return ec ? 0 : size;
    };
    for (int i = 0; i < 6000; ++i)
        CoreDataManager::shared().saveEventToQueue(
            nlohmann::json{{"name", "e"}, {"seq", i}, {"pad", padding}}.dump(), Date{1.0 * i},
            nlohmann::json::object());
    // The file ends up holding them (about 6 MB), while the log was started over rather than grown
    // to hold every page written (some 60 MB: each commit logs the table's and the index's page).
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (fileSize(path) < 5'000'000 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(fileSize(path), 5'000'000u);
    EXPECT_LT(fileSize(path.string() + "-wal"), 30'000'000u);
    EXPECT_EQ(RawDatabase(path).integer("SELECT count(*) FROM EventQueue"), 6000);
}

// A reader of another connection whose snapshot ends inside the log holds the rest of the copy
// back: the checkpoint thread stops trying once a pass copies nothing new, rather than spinning
// until the reader is done.
TEST_F(EventQueueStoreTest, AReaderHoldingTheLogBackDoesNotKeepTheCheckpointThreadBusy) {
    const std::string padding(900, 'x');
    auto path = CoreDataManager::databasePath();
    auto save = [&](int count) {
        for (int i = 0; i < count; ++i)
            CoreDataManager::shared().saveEventToQueue(
                nlohmann::json{{"name", "e"}, {"seq", i}, {"pad", padding}}.dump(), Date{1.0 * i},
                nlohmann::json::object());
    };
    save(100);  // below the mark that asks for a checkpoint
    RawDatabase reader(path);
    ASSERT_EQ(reader.exec("BEGIN"), "");
    ASSERT_EQ(reader.integer("SELECT count(*) FROM EventQueue"), 100);
    save(500);  // past the mark, and far below the cap where the writer takes over
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto cpuSeconds = [] {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    const double before = cpuSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_LT(cpuSeconds() - before, 0.1);
    ASSERT_EQ(reader.exec("COMMIT"), "");
}

}  // namespace
}  // namespace tarn::test
