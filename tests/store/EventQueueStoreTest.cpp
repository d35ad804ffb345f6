// The event queue of the local store: order, failure paths, an unusable store, and use from several
// threads, all against a real database file in the test's data folder.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include "store/RawDatabase.h"
#include "support/TestSupport.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

using Popped = std::vector<std::optional<std::string>>;

nlohmann::json event(const std::string& name, int seq = 0) {
    return {{"name", name}, {"seq", seq}};
}

void save(const nlohmann::json& body, double timestamp) {
    CoreDataManager::shared().saveEventToQueue(body.dump(), Date{timestamp}, body);
}

Popped popOnce() {
    Popped calls;
    CoreDataManager::shared().popOldestEvent(
        [&](std::optional<std::string> text) { calls.push_back(std::move(text)); });
    return calls;
}

std::string nameOf(const std::optional<std::string>& text) {
    if (!text)
        return "<none>";
    auto name = nlohmann::json::parse(*text).at("name");
    return name.is_string() ? name.get<std::string>() : name.dump();
}

class EventQueueStoreTest : public TarnTest {};

TEST_F(EventQueueStoreTest, PopsOldestFirstAndDeletesWhatItHands) {
    LogCapture logs;
    auto& store = CoreDataManager::shared();
    EXPECT_EQ(popOnce(), Popped{std::nullopt}) << "an empty queue answers once, with nothing";

    save(event("third"), 300.5);
    save(event("first"), 100.25);
    save(event("second"), 200.0);
    store.saveEventToQueue("{}", Date{400}, nlohmann::json::object());  // no name: no notice
    save({{"name", 42}}, 500);
    EXPECT_TRUE(logs.contains("Tarn-QueueManager: third has been saved to the queue.;"));
    EXPECT_TRUE(logs.contains("Tarn-QueueManager: 42 has been saved to the queue.;"));
    EXPECT_EQ(logs.count("Tarn-QueueManager:  has been saved to the queue.;"), 0u);

    // A record without text (written by hand) is handed as nothing and still removed.
    {
        RawDatabase raw(CoreDataManager::databasePath());
        ASSERT_EQ(raw.exec("INSERT INTO EventQueue (event, timestamp) VALUES (NULL, 250)"), "");
        EXPECT_EQ(raw.integer("PRAGMA user_version"), CoreDataManager::kSchemaVersion);
        EXPECT_EQ(raw.column("PRAGMA journal_mode").at(0), "wal");
    }
    std::vector<std::string> order;
    for (int i = 0; i < 6; ++i) {
        auto calls = popOnce();
        ASSERT_EQ(calls.size(), 1u);
        order.push_back(calls[0] && *calls[0] == "{}" ? "{}" : nameOf(calls[0]));
    }
    EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "<none>", "third", "{}", "42"}));
    EXPECT_EQ(popOnce(), Popped{std::nullopt});
    RawDatabase raw(CoreDataManager::databasePath());
    EXPECT_EQ(raw.integer("SELECT count(*) FROM EventQueue"), 0);
    for (const auto& line : logs.lines()) {
        EXPECT_EQ(line.find("Fetch or delete error"), std::string::npos) << line;
    }
}

TEST_F(EventQueueStoreTest, PopFromInsideItsCompletionTakesTheNextRecord) {
    save(event("a"), 1);
    save(event("b"), 2);
    std::vector<std::string> seen;
    CoreDataManager::shared().popOldestEvent([&](std::optional<std::string> outer) {
        seen.push_back(nameOf(outer));
        CoreDataManager::shared().popOldestEvent(
            [&](std::optional<std::string> inner) { seen.push_back(nameOf(inner)); });
        save(event("c"), 3);  // writing from inside the completion works too
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(popOnce(), Popped{event("c").dump()});
    EXPECT_EQ(popOnce(), Popped{std::nullopt});
}

// Another connection holds the file's write lock, so every commit of the store fails with
// "database is locked" while reads go on: a real failure of the save step.
TEST_F(EventQueueStoreTest, FailedDeleteHandsTheEventThenNothing) {
    LogCapture logs;
    auto& store = CoreDataManager::shared();
    save(event("kept"), 1);
    save(event("next"), 2);
    store.setBusyTimeout(std::chrono::milliseconds(20));

    RawDatabase blocker(CoreDataManager::databasePath());
    ASSERT_EQ(blocker.exec("BEGIN IMMEDIATE"), "");

    auto calls = popOnce();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(nameOf(calls[0]), "kept");
    EXPECT_EQ(calls[1], std::nullopt);
    EXPECT_TRUE(logs.contains("Tarn-CoreDataManager: Fetch or delete error: database is locked;"));

    // A failed event save is silent, and the event is lost.
    auto before = logs.lines().size();
    save(event("lost"), 3);
    EXPECT_EQ(logs.lines().size(), before);

    // The record whose delete failed is not handed out again by this process.
    calls = popOnce();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(nameOf(calls[0]), "next");
    EXPECT_EQ(calls[1], std::nullopt);
    EXPECT_EQ(popOnce(), Popped{std::nullopt});

    // Once the lock is gone, the next write commits the pending deletes with it.
    ASSERT_EQ(blocker.exec("ROLLBACK"), "");
    EXPECT_EQ(blocker.integer("SELECT count(*) FROM EventQueue"), 2);
    save(event("after"), 4);
    EXPECT_EQ(blocker.column("SELECT json_extract(event, '$.name') FROM EventQueue"),
              std::vector<std::string>{"after"});
    EXPECT_EQ(popOnce(), Popped{event("after").dump()});
}

// A store that cannot be opened, yet whose file must not be replaced: the library runs on without
// it, logs the failure once, every operation fails on its own, and the file stays as it was.
TEST_F(EventQueueStoreTest, UnusableStoreLogsOnceAndEveryOperationFailsOnItsOwn) {
    struct Case {
        const char* name;
        std::string reason;
        std::function<void()> prepare;
    } cases[] = {
        {"folder through a regular file", "unable to open database file",
         [&] {
             std::ofstream(temp_->path() / "not-a-folder") << "x";
             setDataDirectory(temp_->path() / "not-a-folder" / "data");
         }},
        {"schema of a newer release",
         "The store's schema version 7 is newer than this library reads (1)",
         [] {
             RawDatabase raw(CoreDataManager::databasePath());
             ASSERT_EQ(raw.exec("CREATE TABLE Future (x); INSERT INTO Future VALUES (1); "
                                "PRAGMA user_version = 7"),
                       "");
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        resetSharedInstancesForTesting();
        setDataDirectory(dataDir());
        c.prepare();
        LogCapture logs;
        auto& store = CoreDataManager::shared();
        EXPECT_FALSE(store.isStoreLoaded());
        const std::string failed = "Tarn-CoreDataManager: ❌ Loading of store failed:" + c.reason;
        EXPECT_TRUE(logs.containsText(failed));

        Tarn::shared().actorId = "actor";
        save(event("e"), 1);
        EXPECT_EQ(popOnce(), Popped{std::nullopt});
        EXPECT_TRUE(logs.containsText(
            "Tarn-CoreDataManager: Fetch or delete error: The store is not loaded: " + c.reason));
        bool saved = false;
        store.saveConversion({"code", "purchase", Date{1}}, "inapp_open", [&] { saved = true; });
        EXPECT_FALSE(saved);
        EXPECT_TRUE(
            logs.contains("Tarn-ConversionManager: inapp_open conversion couldn't save. Save "
                          "Error: An error occurred while saving the conversion event!;"));
        int answers = 0;
        store.findConversion("purchase", "actor", [&](std::optional<ConversionItem> found) {
            ++answers;
            EXPECT_FALSE(found);
        });
        EXPECT_EQ(answers, 1);
        EXPECT_TRUE(
            logs.contains("Tarn-ConversionManager: purchase is not a conversion event. Fetch "
                          "Error: An error occurred while fetching the conversion event!;"));
        store.deleteExpiredConversions();
        EXPECT_TRUE(
            logs.containsText("Tarn-CoreDataManager: Delete error: The store is not "
                              "loaded: " +
                              c.reason));
        auto lines = logs.lines();
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [&](const std::string& l) { return l.rfind(failed, 0) == 0; }),
                  1);
        EXPECT_FALSE(logs.containsText("moved"));
    }
    // The newer release's file is untouched.
    RawDatabase raw(CoreDataManager::databasePath());
    EXPECT_EQ(raw.integer("PRAGMA user_version"), 7);
    EXPECT_EQ(raw.integer("SELECT count(*) FROM Future"), 1);
}

TEST_F(EventQueueStoreTest, SeveralThreadsSaveWhileAnotherPops) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 300;
    std::atomic<int> writersDone{0};
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t, &writersDone] {
            for (int i = 0; i < kPerThread; ++i) {
                auto body = event("t" + std::to_string(t), i);
                CoreDataManager::shared().saveEventToQueue(body.dump(), Date::now(), body);
            }
            ++writersDone;
        });
    }
    std::multiset<std::string> seen;
    auto drainOne = [&] {
        bool got = false;
        CoreDataManager::shared().popOldestEvent([&](std::optional<std::string> text) {
            if (text) {
                seen.insert(*text);
                got = true;
            }
        });
        return got;
    };
    while (writersDone.load() < kThreads) {
        drainOne();
    }
    for (auto& w : writers) {
        w.join();
    }
    while (drainOne()) {
    }
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kPerThread));
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kPerThread; ++i) {
            EXPECT_EQ(seen.count(event("t" + std::to_string(t), i).dump()), 1u);
        }
    }
}

}  // namespace
TEST_F(EventQueueStoreTest, TheLogIsCopiedBackOffTheWritersThreadAndStaysBounded) {
    // Nobody but the store's own checkpoint thread copies the log back into the file here; the
    // writes below fill it several times over.
    const std::string padding(900, 'x');
    auto path = CoreDataManager::databasePath();
    auto wal = std::filesystem::path(path.string() + "-wal");
    auto fileSize = [](const std::filesystem::path& file) {
        std::error_code ec;
        auto size = std::filesystem::file_size(file, ec);
        return ec ? 0 : size;
    };
    for (int i = 0; i < 6000; ++i) {
        CoreDataManager::shared().saveEventToQueue(
            nlohmann::json{{"name", "e"}, {"seq", i}, {"pad", padding}}.dump(), Date{1.0 * i},
            nlohmann::json::object());
    }
    // 6,000 records of about 1 KB: the file ends up holding them (about 6 MB)...
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (fileSize(path) < 5'000'000 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_GE(fileSize(path), 5'000'000u);
    // ...while the log was started over rather than grown to hold every page written (some
    // 60 MB: each commit logs the table's and the index's page).
    EXPECT_LT(fileSize(wal), 30'000'000u);
    RawDatabase raw(path);
    EXPECT_EQ(raw.integer("SELECT count(*) FROM EventQueue"), 6000);
}

}  // namespace tarn::test
