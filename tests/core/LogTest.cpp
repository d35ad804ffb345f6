#include <ctime>

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
