// A host process that ends while the library is busy: events being sent from a host thread, the
// queue draining, requests held open by the server, an answer still being parsed. Every way of
// ending the process must be clean (no crash, no sanitizer report) and prompt.
#include <algorithm>
#include <cstdlib>
#include <functional>

#include "support/ChildProcess.h"
#include "support/PipelineFixture.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

int fromEnvironment(const char* name, int fallback) {
    int value = std::getenv(name) ? std::atoi(std::getenv(name)) : 0;
    return value > 0 ? value : fallback;
}

/// Starts the helper with `args`, waits for its "ready" line and for `busy` to hold, then tells it
/// to end its process and expects a clean, prompt end without any completion; the time it took.
Milliseconds expectCleanExit(std::vector<std::string> args, const std::function<bool()>& busy) {
    args.insert(args.begin(), helperProgram());
    ChildProcess child(args);
    bool completion = false;
    // Its log lines go to standard output at a high rate: only a short tail is kept.
    auto tailHolds = [&](const char* line) {
        completion |= child.out.find("completion\n") != std::string::npos;
        bool found = child.out.find(line) != std::string::npos;
        child.out.erase(0, child.out.size() - std::min<std::size_t>(child.out.size(), 64));
        return found;
    };
    EXPECT_TRUE(child.pumpUntil([&] { return tailHolds("ready\n"); }, 60s));
    EXPECT_TRUE(child.pumpUntil([&] { return tailHolds("") && busy(); }, 60s));  // trims, then asks
    auto start = std::chrono::steady_clock::now();
    child.finishInput("\n");
    // A hung child is killed after a while (-1), so the test fails instead of hanging.
    EXPECT_EQ(child.wait(30s), 0) << "128 + signal, or -1 when it hung";
    Milliseconds took = std::chrono::steady_clock::now() - start;
    for (const char* report : {"Sanitizer", "runtime error:", "ERROR:"})
        EXPECT_THAT(child.err, Not(HasSubstr(report)));
    // The server never answered: no completion may have run, before or during exit. The goal is
    // far lower (tens of milliseconds); the bound leaves room for a loaded machine and sanitizers.
    EXPECT_FALSE(completion || tailHolds("completion\n"));
    EXPECT_LT(took, 5s);
    return took;
}

}  // namespace

class ExitTest : public PipelineTest {
  protected:
    /// A server of its own for one child: a stopped server releases the requests it held, so
    /// each run starts with every server thread free.
    std::unique_ptr<LoopbackServer> serverForChild(const std::string& inAppAnswer) {
        auto server = std::make_unique<LoopbackServer>();
        server->on(kTokenPath, ScriptedAnswer::json(200, tokenAnswer()));
        server->on(kInAppPath, ScriptedAnswer::json(200, inAppAnswer));
        server->on(kEventPath, ScriptedAnswer::never());
        server->on("/hold", ScriptedAnswer::never());
        writeServiceFile(bundleDir(), {{"DOMAIN", server->baseUrl()},
                                       {"CLIENT_ID", "client-id"},
                                       {"CLIENT_SECRET", "client-secret"}});
        return server;
    }
};

TEST_F(ExitTest, EveryWayOfEndingTheProcessIsCleanWhileTheLibraryIsBusy) {
    // A fast drain, so that event requests pile up on the server alongside the held ones, and no
    // request times out while held. The server answers on 8 threads: beyond that, requests wait
    // unrecorded (but still in flight) in its queue.
    const std::string answer =
        R"({"configuration": {"eventQueueDelay": 0.02, "apiRequestTimeout": 600}})";
    const int requests = fromEnvironment("TARN_EXIT_REQUESTS", 4);
    const int runs = fromEnvironment("TARN_EXIT_RUNS", 10);
    for (const std::string kind : {"return", "exit", "quick_exit"}) {
        Milliseconds slowest{0}, total{0};
        for (int run = 0; run < runs; ++run) {
            SCOPED_TRACE(kind + " run " + std::to_string(run));
            auto server = serverForChild(answer);
            // Six requests (held ones, drained events) are open on the server; with its threads
            // taken, the rest wait in flight unanswered.
            auto took = expectCleanExit(
                {"exit_while_busy", dataDir().string(), bundleDir().string(), kind,
                 std::to_string(requests), "1"},
                [&] { return server->count("/hold") + server->count(kEventPath) >= 6; });
            slowest = std::max(slowest, took);
            total += took;
        }
        std::printf("[ exit ] %-10s %d runs, %d requests held: mean %.1f ms, slowest %.1f ms\n",
                    kind.c_str(), runs, requests, total.count() / runs, slowest.count());
    }
}

TEST_F(ExitTest, AnAnswerStillBeingParsedDoesNotHoldTheExit) {
    // About 8 MB of communications: decoding it takes far longer than an exit may.
    nlohmann::json items = nlohmann::json::array();
    for (int i = 0; i < 9000; ++i)
        items.push_back({{"name", std::string(900, 'x')},
                         {"expireDate", 0},
                         {"template", "POPUP"},
                         {"triggeringEventName", "never"},
                         {"maxShowCount", 1},
                         {"uuid", "c" + std::to_string(i)},
                         {"code", "code-c" + std::to_string(i)}});
    const std::string answer = nlohmann::json{{"inAppCommunicationCommands", items}}.dump();
    ASSERT_GT(answer.size(), 8'000'000u);
    for (int run = 0; run < 3; ++run) {
        auto server = serverForChild(answer);
        std::optional<std::chrono::steady_clock::time_point> asked;
        SCOPED_TRACE("parse run " + std::to_string(run));
        auto took = expectCleanExit(
            {"exit_while_busy", dataDir().string(), bundleDir().string(), "return", "0", "0"}, [&] {
                // Leave the answer time to arrive; decoding then runs.
                if (!asked && server->count(kInAppPath) >= 1)
                    asked = std::chrono::steady_clock::now();
                return asked && std::chrono::steady_clock::now() - *asked > 200ms;
            });
        std::printf("[ exit ] parsing   run %d: %.1f ms\n", run, took.count());
    }
}
