#include <ctime>

#include "base/LogLineBatch.h"
#include "support/PipelineFixture.h"
#include "support/TestSupport.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"

using namespace tarn;

class LogTest : public test::TarnTest {};

TEST_F(LogTest, PostsTheRecordPrintsTheLineDatesItInLocalTimeAndFatalErrorsAbort) {
    std::vector<TarnLog> records;
    NotificationCenter::defaultCenter().addObserver(
        kTarnLogNotification,
        [&](const Notification& n) { records.push_back(std::any_cast<TarnLog>(n.object)); });
    testing::internal::CaptureStdout();
    log("x");
    log("", std::string("Tarn:"));
    log("checkAuthToken", std::string("Tarn:"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Tarn x;\nTarn: ;\nTarn: checkAuthToken;\n");
    ASSERT_EQ(records.size(), 3u);
    EXPECT_FALSE(records[0].sector);
    EXPECT_EQ(records[0].logMessage, "x");
    EXPECT_EQ(records[1].sector, "Tarn:");

    std::tm when{};
    strptime("2024-02-01 09:05:03", "%Y-%m-%d %H:%M:%S", &when);
    when.tm_isdst = -1;
    records[2].logDate = std::chrono::system_clock::from_time_t(std::mktime(&when));
    EXPECT_EQ(records[2].getFullMessageWithDate(), "01-02-2024 09:05:03 --- Tarn: checkAuthToken;");
    EXPECT_DEATH(fatalError("Invalid url", "TarniOSCommonKit/Endpoint", 23),
                 "TarniOSCommonKit/Endpoint:23: Fatal error: Invalid url");
}

// Batches of log lines opened again and again, large and small and nested: every line is written
// exactly once, nothing stays held between batches, and the room a thread keeps for held lines
// after 200 rounds is what it was after one, and never more than the kept bound.
TEST_F(LogTest, RepeatedBatchesWriteEachLineOnceAndKeepNoMoreRoomThanOne) {
    using detail::LogLineBatch;
    const std::string text(1000, 'a');
    std::size_t expectedBytes = 0;
    auto batch = [&](int lines) {
        LogLineBatch outer;
        for (int i = 0; i < lines; ++i) {
            LogLineBatch inner;  // nested: written when the outer one ends
            log(text, std::string("Tarn:"));
            expectedBytes += text.size() + 8;  // "Tarn: " ... ";\n"
        }
        EXPECT_EQ(LogLineBatch::heldOnThisThread().bytes,
                  static_cast<std::size_t>(lines) * (text.size() + 8));
    };
    auto round = [&] {
        batch(20);  // 20 KB held: more than is kept between batches
        EXPECT_EQ(LogLineBatch::heldOnThisThread().bytes, 0u);
        EXPECT_LE(LogLineBatch::heldOnThisThread().capacity, 16u * 1024);
        batch(3);
        EXPECT_EQ(LogLineBatch::heldOnThisThread().bytes, 0u);
    };
    testing::internal::CaptureStdout();
    round();
    const auto afterOne = LogLineBatch::heldOnThisThread();
    for (int i = 0; i < 200; ++i)
        round();
    const auto afterMany = LogLineBatch::heldOnThisThread();
    auto written = testing::internal::GetCapturedStdout();
    EXPECT_EQ(afterMany.bytes, 0u);
    EXPECT_EQ(afterMany.capacity, afterOne.capacity);
    EXPECT_LE(afterMany.capacity, 16u * 1024);
    EXPECT_EQ(written.size(), expectedBytes);
}

// A host process that writes nothing itself, run with each TARN_LOG: its standard output holds
// the library's lines when nothing is set, only the error lines with "error", nothing at all with
// "off" (the process still sees every record through "TarnLogNotification": it waits on them), and
// every line after one warning for a value that names no level.
class LogOutputTest : public test::PipelineTest {
  protected:
    void SetUp() override {
        PipelineTest::SetUp();
        server_->onRequest(test::kEventPath, [](const test::RecordedRequest& request) {
            bool fail = request.body.find("\"log_fail\"") != std::string::npos;
            return test::ScriptedAnswer::json(fail ? 400 : 200, "{}");
        });
    }
    /// The host's standard output with TARN_LOG set to `value` (none: unset).
    std::string run(const char* value) {
        if (value)
            ::setenv("TARN_LOG", value, 1);
        std::string out;
        int code = test::runHelper({"log_host", dataDir().string(), bundleDir().string()}, &out);
        ::unsetenv("TARN_LOG");
        EXPECT_EQ(code, 0) << (value ? value : "unset") << "\n" << out;
        std::filesystem::remove_all(dataDir());  // the next run starts afresh
        std::filesystem::create_directories(dataDir());
        return out;
    }
};

TEST_F(LogOutputTest, TarnLogOffLeavesTheHostsStandardOutputUntouched) {
    const std::string sent = "Tarn-QueueManager: Sent event, request id :";
    const std::string failed =
        "Tarn-QueueManager: An error occurred when the log_fail event was called.";
    const std::string checking = "Tarn: checkAuthToken;\n";
    const std::string actor = "Actor ID: log-actor\n";

    auto everything = run(nullptr);
    for (const auto& line : {sent, failed, checking, actor})
        EXPECT_NE(everything.find(line), std::string::npos) << line << "\n" << everything;

    EXPECT_EQ(run("off"), "");

    auto errors = run("error");
    EXPECT_NE(errors.find(failed), std::string::npos) << errors;
    for (const auto& line : {sent, checking, actor})
        EXPECT_EQ(errors.find(line), std::string::npos) << line << "\n" << errors;

    auto info = run("INFO");
    EXPECT_NE(info.find(actor), std::string::npos) << info;
    EXPECT_EQ(info.find(checking), std::string::npos) << "a debug line:\n" << info;

    auto unknown = run("loud");
    EXPECT_EQ(unknown.rfind("Tarn: TARN_LOG=\"loud\" is not one of off, error, warning, info, "
                            "debug; every line is logged;\n",
                            0),
              0u)
        << unknown;
    EXPECT_EQ(unknown.find("TARN_LOG", 10), std::string::npos) << "said once:\n" << unknown;
    for (const auto& line : {sent, failed, checking, actor})
        EXPECT_NE(unknown.find(line), std::string::npos) << line << "\n" << unknown;
}
