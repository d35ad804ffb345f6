// The library's lines in Qt's logging: a second run of this program (Qt reads QT_LOGGING_RULES
// when the application starts) routes lines of every level from the GUI thread and another thread
// and reports what its Qt message handler received.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "tarn/core/Log.h"
#include "tarn/qt/QtLogging.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

struct Received {
    std::mutex mutex;
    std::vector<std::string> lines;
};
Received received;

const char* typeName(QtMsgType type) {
    switch (type) {
        case QtDebugMsg:
            return "debug";
        case QtInfoMsg:
            return "info";
        case QtWarningMsg:
            return "warning";
        case QtCriticalMsg:
            return "critical";
        case QtFatalMsg:
            return "fatal";
    }
    return "?";
}

void capture(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    std::lock_guard lock(received.mutex);
    received.lines.push_back(std::string(typeName(type)) + "|" +
                             (context.category ? context.category : "") + "|" +
                             (QThread::currentThread() == qApp->thread() ? "gui" : "other") + "|" +
                             message.toStdString());
}

// The second run's part (run only when the parent asks for it): routes, logs, reports.
TEST(QtLogRouting, DISABLED_RoutedRun) {
    if (!std::getenv("TARN_QT_LOG_CHILD"))
        GTEST_SKIP();
    qInstallMessageHandler(capture);
    qt::routeLogsToQtLogging();
    log("route failed", "Tarn-QtLog:", LogLevel::error);
    log("route degraded", "Tarn-QtLog:", LogLevel::warning);
    log("route normal", "Tarn-QtLog:");
    std::thread([] { log("route detail", "Tarn-QtLog:", LogLevel::debug); }).join();
    printLine("bare line", LogLevel::warning);
    qInstallMessageHandler(nullptr);
    setLogHandler(nullptr);
    std::lock_guard lock(received.mutex);
    for (const auto& line : received.lines)
        std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

/// Runs the routed part with `rules` as QT_LOGGING_RULES; its standard output.
std::string routedRun(const char* rules) {
    ::setenv("TARN_QT_LOG_CHILD", "1", 1);
    ::setenv("QT_LOGGING_RULES", rules, 1);
    ChildProcess child({"/proc/self/exe", "--gtest_also_run_disabled_tests",
                        "--gtest_filter=QtLogRouting.DISABLED_RoutedRun", "--gtest_brief=1"});
    ::unsetenv("TARN_QT_LOG_CHILD");
    ::unsetenv("QT_LOGGING_RULES");
    child.finishInput("");
    EXPECT_EQ(child.wait(30s), 0) << child.err;
    return child.out;
}

TEST(QtLogRouting, EachLevelGoesToItsQtTypeUnderTheTarnCategoryAndTheRulesDecide) {
    auto all = routedRun("");
    for (const char* line :
         {"critical|tarn|gui|Tarn-QtLog: route failed;",
          "warning|tarn|gui|Tarn-QtLog: route degraded;", "info|tarn|gui|Tarn-QtLog: route normal;",
          "debug|tarn|other|Tarn-QtLog: route detail;", "warning|tarn|gui|bare line"})
        EXPECT_NE(all.find(std::string(line) + "\n"), std::string::npos) << line << "\n" << all;
    EXPECT_EQ(all.find("route normal", all.find("route normal") + 1), std::string::npos)
        << "each line once, and not printed besides:\n"
        << all;

    auto quiet = routedRun("tarn.debug=false;tarn.info=false");
    EXPECT_NE(quiet.find("critical|tarn|gui|Tarn-QtLog: route failed;\n"), std::string::npos)
        << quiet;
    EXPECT_NE(quiet.find("warning|tarn|gui|Tarn-QtLog: route degraded;\n"), std::string::npos)
        << quiet;
    EXPECT_EQ(quiet.find("route normal"), std::string::npos) << quiet;
    EXPECT_EQ(quiet.find("route detail"), std::string::npos) << quiet;

    auto none = routedRun("tarn=false");
    EXPECT_EQ(none.find("Tarn-QtLog"), std::string::npos) << none;
    EXPECT_EQ(qt::logCategory().categoryName(), std::string("tarn"));
}

}  // namespace
}  // namespace tarn::test
