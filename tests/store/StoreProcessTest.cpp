// The store across processes: what one process saved, the next one finds; and a writer killed at
// random moments never corrupts the file nor loses an event it saw committed.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "store/RawDatabase.h"
#include "support/TestSupport.h"
#include "tarn/store/ConversionManager.h"
#include "tarn/store/CoreDataManager.h"

extern char** environ;

namespace tarn::test {
namespace {

class StoreProcessTest : public TarnTest {};

TEST_F(StoreProcessTest, NewProcessFindsEverythingAnEarlierOneSaved) {
    constexpr int kEvents = 50;
    constexpr int kMarkers = 3;
    std::string output;
    ASSERT_EQ(runHelper({"store_save", dataDir().string(), std::to_string(kEvents),
                         std::to_string(kMarkers)},
                        &output),
              0)
        << output;

    // Events come back oldest first, text unchanged.
    for (int i = 0; i < kEvents; ++i) {
        std::vector<std::optional<std::string>> calls;
        CoreDataManager::shared().popOldestEvent(
            [&](std::optional<std::string> text) { calls.push_back(std::move(text)); });
        ASSERT_EQ(calls.size(), 1u);
        nlohmann::json expected = {{"name", "e" + std::to_string(i)}, {"seq", i}};
        EXPECT_EQ(calls[0], expected.dump());
    }
    // Markers come back newest first, with their far-future times exactly as written.
    for (int i = kMarkers - 1; i >= 0; --i) {
        std::optional<ConversionItem> found;
        CoreDataManager::shared().findConversion(
            "purchase", "alice", [&](std::optional<ConversionItem> item) { found = item; });
        ASSERT_TRUE(found);
        EXPECT_EQ(found->communicationCode, "code-" + std::to_string(i));
        EXPECT_EQ(found->conversionName, "purchase");
        ASSERT_TRUE(found->time);
        EXPECT_EQ(found->time->secondsSince1970, 1712345678901.0 + i);
    }
    EXPECT_EQ(ConversionManager::shared().checkConversion("purchase", "alice"), std::nullopt);
}

/// Starts the crash-loop helper with its reports on the write end of a pipe (descriptor 3) and its
/// standard output discarded.
pid_t startWriter(const std::filesystem::path& data, int round, int reportFd) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, reportFd, 3);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::string program = helperProgram();
    std::vector<std::string> args = {program, "store_crash_loop", data.string(), "3",
                                     std::to_string(round)};
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

TEST_F(StoreProcessTest, WriterKilledAtRandomMomentsKeepsEveryReportedEvent) {
    constexpr int kRounds = 40;
    std::mt19937 random(std::random_device{}());
    auto file = CoreDataManager::databasePath();
    // How long a writer takes to report its first save on this machine, as loaded as it is now.
    auto firstSave = [&](int round) {
        int pipefd[2];
        EXPECT_EQ(::pipe2(pipefd, O_CLOEXEC), 0);
        auto start = std::chrono::steady_clock::now();
        pid_t pid = startWriter(dataDir(), round, pipefd[1]);
        ::close(pipefd[1]);
        std::int64_t value = 0;
        EXPECT_EQ(::read(pipefd[0], &value, sizeof value), static_cast<ssize_t>(sizeof value));
        auto took = std::chrono::steady_clock::now() - start;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        ::close(pipefd[0]);
        return std::chrono::duration_cast<std::chrono::microseconds>(took).count();
    };
    // Early kills land in start-up and the file's creation, later ones amid saves.
    std::uniform_int_distribution<std::int64_t> delayUs(0, 3 * firstSave(-1) + 20000);
    std::int64_t totalReported = 0;
    for (int round = 0; round < kRounds; ++round) {
        int pipefd[2];
        ASSERT_EQ(::pipe2(pipefd, O_CLOEXEC), 0);
        pid_t pid = startWriter(dataDir(), round, pipefd[1]);
        ASSERT_GT(pid, 0);
        ::close(pipefd[1]);
        std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
        ASSERT_EQ(::kill(pid, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;

        std::int64_t reported = 0;
        std::int64_t value = 0;
        while (::read(pipefd[0], &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
            EXPECT_EQ(value, reported + 1);
            reported = value;
        }
        ::close(pipefd[0]);
        totalReported += reported;

        RawDatabase raw(file);
        ASSERT_EQ(raw.column("PRAGMA integrity_check"), std::vector<std::string>{"ok"})
            << "round " << round;
        if (reported == 0)
            continue;
        auto where =
            " FROM EventQueue WHERE json_extract(event, '$.round') = " + std::to_string(round) +
            " AND json_extract(event, '$.seq') <= " + std::to_string(reported);
        EXPECT_EQ(raw.integer("SELECT count(DISTINCT json_extract(event, '$.seq'))" + where),
                  reported)
            << "round " << round;
    }
    EXPECT_GT(totalReported, 0) << "no round got as far as a saved event";
    RecordProperty("reported_events", std::to_string(totalReported));
}

}  // namespace
}  // namespace tarn::test
