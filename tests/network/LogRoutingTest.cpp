// The host's log handler in a running library: lines from the host's thread, the main queue's
// thread (timers) and the HTTP threads all reach it with their levels, and a handler that calls
// back into the library (logs, sets itself again, asks the store from another thread and waits)
// never waits on a lock the library holds.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "support/PipelineFixture.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/MainQueue.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

/// Ends the process with a failure when not disarmed in time: a deadlocked thread would otherwise
/// hold the test until ctest's own limit, and keep it from ending at all.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds limit)
        : thread_([this, limit] {
              std::unique_lock lock(mutex_);
              if (!changed_.wait_for(lock, limit, [this] { return disarmed_; })) {
                  std::fprintf(stderr, "deadlock: the scenario did not end within %lds\n",
                               static_cast<long>(limit.count()));
                  ::_exit(1);
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard lock(mutex_);
            disarmed_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool disarmed_ = false;
    std::thread thread_;
};

struct Seen {
    LogLevel level;
    std::string line;
    std::string thread;  // "host", "main-queue" or "http"
};

/// What the handler saw, shared with it (it may outlive the test's scope on another thread).
struct Routed {
    std::mutex mutex;
    std::vector<Seen> seen;
    std::vector<std::string> stalled;  // lines during which the store could not be reached
    std::vector<Seen> snapshot() {
        std::lock_guard lock(mutex);
        return seen;
    }
};

/// A handler as a demanding host might write one: it records the line, logs a line of its own,
/// sets itself again, and asks the store and the facade from another thread, waiting for the
/// answer.
std::shared_ptr<LogHandler> demandingHandler(std::shared_ptr<Routed> routed, std::thread::id host) {
    auto self = std::make_shared<LogHandler>();
    *self = [routed, host, weak = std::weak_ptr<LogHandler>(self)](LogLevel level,
                                                                   std::string_view line) {
        std::string thread = std::this_thread::get_id() == host ? "host"
                             : mainQueue()->isCurrent()         ? "main-queue"
                                                                : "http";
        {
            std::lock_guard lock(routed->mutex);
            routed->seen.push_back({level, std::string(line), thread});
        }
        if (line.starts_with("Tarn-Test:"))
            return;
        log("handled: " + std::string(line), "Tarn-Test:", LogLevel::debug);
        if (auto me = weak.lock())
            setLogHandler(*me);
        auto answered = std::make_shared<std::promise<void>>();
        auto answer = answered->get_future();
        std::thread([answered] {
            CoreDataManager::shared().isStoreLoaded();
            (void)Tarn::shared().actorId.get();
            (void)ConfigManager::shared().getInitializeStatus();
            answered->set_value();
        }).detach();
        if (answer.wait_for(3s) != std::future_status::ready) {
            std::lock_guard lock(routed->mutex);
            routed->stalled.push_back(std::string(line));
        }
    };
    return self;
}

class LogRoutingTest : public PipelineTest {
  protected:
    void TearDown() override {
        setLogHandler(nullptr);
        PipelineTest::TearDown();
    }
};

TEST_F(LogRoutingTest, EveryLineReachesTheHandlerWithItsLevelFromEveryThreadAndItMayCallBack) {
    Watchdog watchdog(45s);
    auto routed = std::make_shared<Routed>();
    auto handler = demandingHandler(routed, std::this_thread::get_id());
    setLogHandler(*handler);

    // A store that cannot be opened (a folder where its file should be): the failure is logged
    // under the store's lock.
    std::filesystem::create_directories(CoreDataManager::databasePath());
    {
        LogCapture records;
        EXPECT_FALSE(CoreDataManager::shared().isStoreLoaded());
        TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "before_store");
        ASSERT_TRUE(records.containsText("Loading of store failed"));
    }
    std::filesystem::remove_all(CoreDataManager::databasePath());

    // A running library on its own main queue thread against the loopback server.
    simulateNewProcess();
    LogCapture records;
    setMainQueue(std::make_shared<ThreadExecutor>());
    server_->onRequest(kEventPath, [](const RecordedRequest& request) {
        bool fail = request.body.find("\"route_fail\"") != std::string::npos;
        return ScriptedAnswer::json(fail ? 400 : 200, "{}");
    });
    // A popup on "route_popup", presented on the main queue, where no in-app screen is installed.
    auto popup = nlohmann::json::parse(R"({"name": "Popup", "expireDate": 0, "template": "POPUP",
        "uuid": "route-1", "code": "code-route-1", "maxShowCount": 5,
        "triggeringEventName": "route_popup", "bgColor": "#FFFFFF",
        "title": {"text": "Hello", "color": "#FF0000"}, "body": {"text": "Body", "color": "#000000"},
        "images": [], "subInAppCommunication": {"buttons": []}})");
    server_->on(kInAppPath, ScriptedAnswer::json(
                                200, nlohmann::json{{"inAppCommunicationCommands", {popup}},
                                                    {"configuration", nlohmann::json::object()}}
                                         .dump()));
    Tarn::shared().initialize(hostConfig("route-actor"));
    auto logged = [&](const char* text) {
        for (auto end = std::chrono::steady_clock::now() + 20s;
             std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(10ms))
            if (records.containsText(text))
                return true;
        return false;
    };
    ASSERT_TRUE(logged("name: sdk_initialize")) << testing::PrintToString(records.lines());
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "route_probe");
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "route_fail");
    TarnEvent::shared().sendCustomEvent(nullptr, std::nullopt, "route_popup");
    ASSERT_TRUE(logged("In app view not found"));
    ASSERT_TRUE(logged("name: route_probe"));
    ASSERT_TRUE(logged("the route_fail event was called"));

    // Every record posted so far reaches the handler (lines held under a lock a moment later).
    auto missing = [&] {
        std::map<std::string, int> owed;
        for (const auto& line : records.lines())
            ++owed[line];
        for (const auto& seen : routed->snapshot())
            --owed[seen.line];
        std::vector<std::string> left;
        for (const auto& [line, count] : owed)
            if (count > 0)
                left.push_back(line);
        return left;
    };
    for (auto end = std::chrono::steady_clock::now() + 5s;
         !missing().empty() && std::chrono::steady_clock::now() < end;)
        std::this_thread::sleep_for(10ms);
    setLogHandler(nullptr);
    EXPECT_EQ(missing(), std::vector<std::string>{});

    auto seen = routed->snapshot();
    std::map<std::string, int> threads;
    std::string all;
    for (const auto& s : seen) {
        ++threads[s.thread];
        all += std::string(logLevelName(s.level)) + " " + s.thread + " " + s.line + "\n";
    }
    auto levelOf = [&](const std::string& start) -> std::string {
        for (const auto& s : seen)
            if (s.line.starts_with(start))
                return logLevelName(s.level);
        return "absent";
    };
    EXPECT_EQ(levelOf("Tarn-CoreDataManager: ❌ Loading of store failed:"), "error") << all;
    EXPECT_EQ(levelOf("Tarn: checkAuthToken;"), "debug") << all;
    EXPECT_EQ(levelOf("Tarn-InAppManager: Tarn Sdk initialized succesfully.;"), "info") << all;
    EXPECT_EQ(levelOf("Tarn-QueueManager: route_probe has been saved to the queue.;"), "debug")
        << all;
    EXPECT_EQ(levelOf("Tarn-QueueManager: Sent event, request id :"), "debug") << all;
    EXPECT_EQ(levelOf("Tarn-QueueManager: An error occurred when the route_fail event"), "error")
        << all;
    EXPECT_EQ(levelOf("Tarn-Test: handled: Tarn: checkAuthToken;"), "debug") << all;
    EXPECT_EQ(levelOf("Tarn-InAppManager: In app view not found;"), "error") << all;
    EXPECT_GT(threads["host"], 0) << all;
    EXPECT_GT(threads["main-queue"], 0) << all;
    EXPECT_GT(threads["http"], 0) << all;
    std::lock_guard lock(routed->mutex);
    EXPECT_EQ(routed->stalled, std::vector<std::string>{}) << "the handler ran under a lock";
}

}  // namespace
}  // namespace tarn::test
