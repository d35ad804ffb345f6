#include <ctime>

#include "base/LogLineBatch.h"
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
