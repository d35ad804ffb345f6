// Several processes of one application sharing one data folder, and so one store: instances that
// store events while the others send them to a `tarn serve` (every event must arrive exactly once),
// a store held locked by another process when it loads, and checkpoints while other processes
// write and read the same file.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "support/ChildProcess.h"
#include "support/PipelineFixture.h"
#include "support/RawDatabase.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kLoadFailed = "Tarn-CoreDataManager: ❌ Loading of store failed:";
const std::string kLockedLoad = kLoadFailed + "database is locked";

/// Reads whatever `process` has written (for at most `wait`), so that its pipes never fill.
void drain(ChildProcess& process, std::chrono::milliseconds wait = 10ms) {
    bool polled = false;
    process.pumpUntil([&] { return std::exchange(polled, true); }, wait);
}

std::size_t countLines(const std::string& text, const std::string& prefix) {
    std::size_t n = 0;
    for (std::size_t at = text.find(prefix); at != std::string::npos;
         at = text.find(prefix, at + prefix.size()))
        ++n;
    return n;
}

std::size_t countLines(const LogCapture& logs, const std::string& prefix) {
    std::size_t n = 0;
    for (const auto& line : logs.lines())
        n += line.rfind(prefix, 0) == 0;
    return n;
}

/// `tarn serve` on a free port with the library's credentials, a short queue delay in its
/// configuration, and every accepted event appended to a file; its output goes to a file.
class Serve {
  public:
    explicit Serve(const std::filesystem::path& folder) : events_(folder / "events.jsonl") {
        auto inapp = folder / "inapp.json";
        std::ofstream(inapp) << R"({"inAppCommunicationCommands":[],)"
                             << R"("configuration":{"eventQueueDelay":0.001}})";
        auto output = folder / "serve.out";
        std::vector<std::string> args = {tarnExecutable(), "serve", "--port", "0", "--inapp",
                                         inapp.string(), "--events-file", events_.string(),
                                         "--client-id", "client-id", "--client-secret",
                                         "client-secret", "--keep", "100"};
        if ((pid_ = fork()) == 0) {
            int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            std::vector<char*> argv;
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        const std::string prefix = "tarn serve: listening on ";
        for (auto end = Clock::now() + 10s; baseUrl_.empty() && Clock::now() < end;) {
            std::ifstream in(output);
            std::string line;
            if (std::getline(in, line) && line.rfind(prefix, 0) == 0)
                baseUrl_ = line.substr(prefix.size());
            else
                std::this_thread::sleep_for(20ms);
        }
    }
    ~Serve() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    const std::string& baseUrl() const { return baseUrl_; }

    /// How often each (instance, seq) of the events named `name` has arrived so far.
    std::map<std::pair<int, int>, int> arrivals(const std::string& name) const {
        std::map<std::pair<int, int>, int> seen;
        std::ifstream in(events_);
        for (std::string line; std::getline(in, line);) {
            auto body = nlohmann::json::parse(line, nullptr, false);
            if (!body.is_object() || body.value("name", "") != name)
                continue;
            const auto& parameters = body["parameters"];
            ++seen[{parameters.value("instance", -1), parameters.value("seq", -1)}];
        }
        return seen;
    }

  private:
    std::filesystem::path events_;
    std::string baseUrl_;
    pid_t pid_ = -1;
};

class SharedStoreProcessTest : public TarnTest {
  protected:
    void SetUp() override {
        TarnTest::SetUp();
        ::signal(SIGPIPE, SIG_IGN);  // an instance that ended early is reported by its status
        if (tarnExecutable().empty())
            GTEST_SKIP() << "the tarn command is not part of this build";
        serve_ = std::make_unique<Serve>(temp_->path());
        ASSERT_FALSE(serve_->baseUrl().empty());
        writeServiceFile(bundleDir(), {{"DOMAIN", serve_->baseUrl()},
                                       {"CLIENT_ID", "client-id"},
                                       {"CLIENT_SECRET", "client-secret"}});
        writeInfoPlist(bundleDir(), "com.example.host");
    }
    void TearDown() override {
        serve_.reset();
        TarnTest::TearDown();
    }

    /// Starts `instances` processes of the application on one new data folder, `staggerMs` apart,
    /// numbered from `firstId`; each stores `count` events while the others send. Every event must
    /// arrive exactly once.
    void runInstances(int instances, int count, int staggerMs, int firstId) {
        SCOPED_TRACE(std::to_string(instances) + " instances, " + std::to_string(staggerMs) +
                     " ms apart");
        auto data = temp_->path() / ("data-" + std::to_string(firstId));
        std::filesystem::create_directories(data);
        std::vector<std::unique_ptr<ChildProcess>> processes;
        std::string output;  // every line the instances logged
        std::vector<std::string> outputs(static_cast<std::size_t>(instances));
        auto drainAll = [&] {
            for (std::size_t i = 0; i < processes.size(); ++i) {
                drain(*processes[i]);
                output += processes[i]->out;
                outputs[i] += processes[i]->out;
                processes[i]->out.clear();
            }
        };
        for (int i = 0; i < instances; ++i) {
            if (i > 0)
                for (auto until = Clock::now() + std::chrono::milliseconds(staggerMs);
                     Clock::now() < until;)
                    drainAll();
            processes.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{
                helperProgram(), "queue_instance", data.string(), bundleDir().string(),
                std::to_string(firstId + i), std::to_string(count)}));
        }
        const std::size_t expected = static_cast<std::size_t>(instances * count);
        auto ours = [&] {
            std::map<std::pair<int, int>, int> mine;
            for (const auto& [key, times] : serve_->arrivals("shared_queue"))
                if (key.first >= firstId && key.first < firstId + instances)
                    mine[key] = times;
            return mine;
        };
        auto queued = [&]() -> std::int64_t {
            auto file = data / CoreDataManager::kDatabaseFileName;
            try {
                return std::filesystem::exists(file)
                           ? RawDatabase(file).integer("SELECT count(*) FROM EventQueue")
                           : -1;
            } catch (const std::exception&) {
                return -1;  // not created yet
            }
        };
        // Every event has arrived and the shared queue is empty; then a moment for any send still
        // on its way, which could only be a second copy.
        auto deadline = Clock::now() + 25s;
        while (Clock::now() < deadline &&
               (countLines(output, "queue_instance: stored") < static_cast<std::size_t>(instances) ||
                ours().size() < expected || queued() > 0))
            drainAll();
        for (auto until = Clock::now() + 300ms; Clock::now() < until;)
            drainAll();
        for (std::size_t i = 0; i < processes.size(); ++i) {
            auto& p = processes[i];
            p->finishInput("\n");
            outputs[i] += p->out;
            output += p->out;
            auto& own = outputs[i];
            EXPECT_EQ(p->wait(10s), 0)
                << p->err << own.substr(own.size() > 4000 ? own.size() - 4000 : 0);
        }

        auto arrived = ours();
        EXPECT_EQ(arrived.size(), expected) << "events never delivered";
        for (int i = firstId; i < firstId + instances; ++i)
            for (int seq = 0; seq < count; ++seq)
                EXPECT_EQ(arrived[std::make_pair(i, seq)], 1) << "instance " << i << " seq " << seq;
        EXPECT_EQ(queued(), 0);
        // Every instance loaded the store at once and never failed to take an event.
        EXPECT_EQ(countLines(output, kLoadFailed), 0u);
        EXPECT_EQ(countLines(output, "Fetch or delete error"), 0u);
        // Each instance asked for its own token, none found another's request in flight.
        EXPECT_EQ(countLines(output, "pending Authorization!"), 0u);
        EXPECT_EQ(countLines(output, "shared_queue has been saved to the queue."), expected)
            << "a save was lost";
    }

    std::unique_ptr<Serve> serve_;
};

TEST_F(SharedStoreProcessTest, TwoInstancesStartedAtOnceAndStaggeredSendEveryEventExactlyOnce) {
    runInstances(2, 150, 0, 100);
    runInstances(2, 150, 150, 200);
}

TEST_F(SharedStoreProcessTest, FourInstancesStartedAtOnceAndStaggeredSendEveryEventExactlyOnce) {
    runInstances(4, 75, 0, 100);
    runInstances(4, 75, 100, 200);
}

// Another process holds the file locked (it is creating the store) for longer than one busy wait.
class LockedStoreTest : public PipelineTest {
  protected:
    /// Starts a process that creates the store and holds it with BEGIN EXCLUSIVE for `ms`.
    std::unique_ptr<ChildProcess> lockStore(int ms) {
        auto locker = std::make_unique<ChildProcess>(std::vector<std::string>{
            helperProgram(), "store_lock", dataDir().string(), std::to_string(ms)});
        EXPECT_EQ(locker->readLine(10s).value_or(""), "locked") << locker->err;
        return locker;
    }
};

// The first load waits for the lock within the busy time-out (one second) and fails; the next
// operation loads the store once the lock is gone, and every event stored meanwhile is sent.
TEST_F(LockedStoreTest, EventsStoredWhileTheStoreIsLockedAtLoadArriveOnceTheLockIsGone) {
    LogCapture logs;
    auto locker = lockStore(1500);
    for (int seq = 0; seq < 20; ++seq)
        TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "held",
                                            nlohmann::json{{"seq", seq}});
    EXPECT_EQ(locker->wait(10s), 0) << locker->err;
    EXPECT_EQ(countLines(logs, kLockedLoad), 1u);

    ASSERT_EQ(initializeAndWait(hostConfig("actor")), InitializeStatusType::initialized);
    auto held = [&] {
        std::map<int, int> seen;
        for (const auto& body : receivedEvents())
            if (body.value("name", "") == "held")
                ++seen[body["parameters"].value("seq", -1)];
        return seen;
    };
    EXPECT_TRUE(pumpUntil([&] { return held().size() == 20; }));
    pumpUntil([] { return false; }, 0.05, 300ms);  // a second copy would come now
    auto seen = held();
    for (int seq = 0; seq < 20; ++seq)
        EXPECT_EQ(seen[seq], 1) << seq;
    EXPECT_EQ(countLines(logs, kLoadFailed), 1u);
    EXPECT_FALSE(logs.containsText("Fetch or delete error"));
    EXPECT_FALSE(logs.containsText("moved"));
}

// While the lock outlasts every wait, each operation tries to load the store once, waits its
// busy time-out and fails on its own: the load is retried, and nothing spins or floods the log.
// Once the lock is gone, the next operation loads the store.
TEST_F(LockedStoreTest, AStoreThatStaysLockedIsTriedAgainByEachOperationWithoutSpinning) {
    LogCapture logs;
    CoreDataManager::shared().setBusyTimeout(100ms);
    auto locker = lockStore(1500);
    int pops = 0;
    const auto start = Clock::now();
    while (Clock::now() - start < 800ms) {
        TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "locked_out");
        CoreDataManager::shared().popOldestEvent([](std::optional<std::string>) {});
        ++pops;
    }
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    const auto failures = countLines(logs, kLockedLoad);
    EXPECT_GE(failures, 4u) << "the load is tried again";
    EXPECT_LE(failures, static_cast<std::size_t>(waited / 100ms) + 1) << "each try waits";
    EXPECT_EQ(countLines(logs, "Tarn-CoreDataManager: Fetch or delete error: The store is not "
                               "loaded: database is locked"),
              static_cast<std::size_t>(pops));

    EXPECT_EQ(locker->wait(10s), 0) << locker->err;
    CoreDataManager::shared().setBusyTimeout(1000ms);
    EXPECT_TRUE(CoreDataManager::shared().isStoreLoaded());
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "after_lock");
    std::optional<std::string> popped;
    CoreDataManager::shared().popOldestEvent([&](std::optional<std::string> t) { popped = t; });
    ASSERT_TRUE(popped);
    EXPECT_EQ(nlohmann::json::parse(*popped).value("name", ""), "after_lock");
    EXPECT_EQ(countLines(logs, kLoadFailed), failures);
}

// Two processes write the store, each with its own checkpoint thread, while this process holds a
// read snapshot of the file: neither writer's checkpoint thread spins while the reader holds the
// log back, and every record written by either is there afterwards.
class SharedStoreCheckpointTest : public TarnTest {};

TEST_F(SharedStoreCheckpointTest, WritersOfSeveralProcessesAndAForeignReaderLoseNothingAndDoNotSpin) {
    const auto path = CoreDataManager::databasePath();
    CoreDataManager::shared().saveEventToQueue(R"({"name":"first"})", Date::now(),
                                               nlohmann::json::object());
    RawDatabase reader(path);
    ASSERT_EQ(reader.exec("BEGIN"), "");
    ASSERT_EQ(reader.integer("SELECT count(*) FROM EventQueue"), 1);

    constexpr int kPerWriter = 700;
    std::vector<std::unique_ptr<ChildProcess>> writers;
    for (const char* name : {"a", "b"})
        writers.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{helperProgram(), "store_fill", dataDir().string(), name,
                                     std::to_string(kPerWriter), "500"}));
    for (auto& w : writers) {
        auto idle = w->readLine(60s);
        idle = idle == "stored" ? w->readLine(10s) : idle;
        ASSERT_TRUE(idle && idle->rfind("idle_cpu_ms=", 0) == 0) << w->err;
        EXPECT_LT(std::stol(idle->substr(12)), 100) << "a checkpoint thread spins";
    }
    ASSERT_EQ(reader.exec("COMMIT"), "");
    for (auto& w : writers) {
        w->finishInput("\n");
        EXPECT_EQ(w->wait(10s), 0) << w->err;
    }

    EXPECT_EQ(reader.column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
    std::map<std::string, std::set<int>> seqs;
    int popped = 0;
    for (bool more = true; more;)
        CoreDataManager::shared().popOldestEvent([&](std::optional<std::string> text) {
            more = text.has_value();
            if (!text)
                return;
            ++popped;
            auto body = nlohmann::json::parse(*text);
            if (body.contains("writer"))
                seqs[body["writer"]].insert(body["seq"].get<int>());
        });
    EXPECT_EQ(popped, 1 + 2 * kPerWriter);
    EXPECT_EQ(seqs["a"].size(), static_cast<std::size_t>(kPerWriter));
    EXPECT_EQ(seqs["b"].size(), static_cast<std::size_t>(kPerWriter));
}

}  // namespace
}  // namespace tarn::test
