// A host process that ends while the library is busy: events being sent from a host thread, the
// queue draining, requests held open by the server, an answer still being parsed. Every way of
// ending the process must be clean (no crash, no sanitizer report) and prompt.
#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "support/PipelineFixture.h"

using namespace tarn;
using namespace tarn::test;
using namespace std::chrono_literals;

namespace {

/// How one run of the helper ended.
struct ExitOutcome {
    bool ready = false;
    /// The condition to wait for before ending held.
    bool busy = false;
    bool exitedNormally = false;
    int exitCode = -1;
    int signal = 0;
    std::string standardError;
    bool completionRan = false;
    std::chrono::duration<double, std::milli> exitTime{0};
};

/// Starts the helper with `args`, waits for its "ready" line and for `beforeGo` to hold, then
/// tells it to end its process and measures how long that takes.
ExitOutcome runUntilExit(const std::vector<std::string>& args,
                         const std::function<bool()>& beforeGo) {
    ExitOutcome outcome;
    int in[2], out[2], err[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0 || ::pipe(err) != 0)
        return outcome;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
            ::close(fd);
        execHelperProgram(args);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);

    // Both outputs are read until the end, so the child never blocks on a full pipe (its log
    // lines go to standard output at a high rate).
    std::atomic<bool> ready{false};
    std::atomic<bool> completion{false};
    std::string errors;
    std::thread reader([&] {
        std::string tail;
        pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
        int open = 2;
        char buffer[65536];
        while (open > 0 && ::poll(fds, 2, -1) > 0) {
            for (auto& p : fds) {
                if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR)))
                    continue;
                ssize_t n = ::read(p.fd, buffer, sizeof buffer);
                if (n <= 0) {
                    ::close(p.fd);
                    p.fd = -1;
                    --open;
                    continue;
                }
                if (p.fd == err[0]) {
                    errors.append(buffer, static_cast<std::size_t>(n));
                    continue;
                }
                tail.append(buffer, static_cast<std::size_t>(n));
                if (tail.find("ready\n") != std::string::npos)
                    ready = true;
                if (tail.find("completion\n") != std::string::npos)
                    completion = true;
                if (tail.size() > 64)
                    tail.erase(0, tail.size() - 64);
            }
        }
    });

    auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!ready && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    outcome.ready = ready;
    while (outcome.ready && !(outcome.busy = beforeGo()) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);

    auto start = std::chrono::steady_clock::now();
    (void)!::write(in[1], "\n", 1);
    ::close(in[1]);
    int status = 0;
    // A hung child is killed after a while, so the test fails instead of hanging.
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() - start > 30s) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(1ms);
    }
    outcome.exitTime = std::chrono::steady_clock::now() - start;
    reader.join();
    outcome.exitedNormally = WIFEXITED(status);
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    outcome.standardError = errors;
    outcome.completionRan = completion;
    return outcome;
}

bool reportsSanitizerError(const std::string& text) {
    return text.find("Sanitizer") != std::string::npos ||
           text.find("runtime error:") != std::string::npos ||
           text.find("ERROR:") != std::string::npos;
}

int requestsInFlight() {
    if (const char* count = std::getenv("TARN_EXIT_REQUESTS"); count && std::atoi(count) > 0)
        return std::atoi(count);
    return 4;
}

int runsPerKind() {
    if (const char* runs = std::getenv("TARN_EXIT_RUNS"); runs && std::atoi(runs) > 0)
        return std::atoi(runs);
    return 10;
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

    void expectClean(const ExitOutcome& outcome, const std::string& kind, int run) {
        SCOPED_TRACE(kind + " run " + std::to_string(run));
        EXPECT_TRUE(outcome.ready);
        EXPECT_TRUE(outcome.busy);
        EXPECT_TRUE(outcome.exitedNormally) << "signal " << outcome.signal;
        EXPECT_EQ(outcome.exitCode, 0);
        EXPECT_FALSE(reportsSanitizerError(outcome.standardError)) << outcome.standardError;
        // The server never answered: no completion may have run, before or during exit.
        EXPECT_FALSE(outcome.completionRan);
        // The goal is far lower (tens of milliseconds); the bound leaves room for a loaded
        // machine and sanitizers.
        EXPECT_LT(outcome.exitTime, 5s);
    }
};

TEST_F(ExitTest, EveryWayOfEndingTheProcessIsCleanWhileTheLibraryIsBusy) {
    // A fast drain, so that event requests pile up on the server alongside the held ones, and no
    // request times out while held. The server answers on 8 threads: beyond that, requests wait
    // unrecorded (but still in flight) in its queue.
    const std::string answer =
        R"({"configuration": {"eventQueueDelay": 0.02, "apiRequestTimeout": 600}})";
    const int requests = requestsInFlight();
    for (const std::string kind : {"return", "exit", "quick_exit"}) {
        std::chrono::duration<double, std::milli> slowest{0}, total{0};
        const int runs = runsPerKind();
        for (int run = 0; run < runs; ++run) {
            auto server = serverForChild(answer);
            auto outcome =
                runUntilExit({"exit_while_busy", dataDir().string(), bundleDir().string(), kind,
                              std::to_string(requests), "1"},
                             [&] {
                                 // Six requests (held ones, drained events) are
                                 // open on the server; with its threads taken, the
                                 // rest wait in flight unanswered.
                                 return server->count("/hold") + server->count(kEventPath) >= 6;
                             });
            server->stop();
            expectClean(outcome, kind, run);
            slowest = std::max(slowest, outcome.exitTime);
            total += outcome.exitTime;
        }
        std::printf("[ exit ] %-10s %d runs, %d requests held: mean %.1f ms, slowest %.1f ms\n",
                    kind.c_str(), runs, requests, total.count() / runs, slowest.count());
    }
}

TEST_F(ExitTest, AnAnswerStillBeingParsedDoesNotHoldTheExit) {
    // About 8 MB of communications: decoding it takes far longer than an exit may.
    nlohmann::json items = nlohmann::json::array();
    std::string filler(900, 'x');
    while (items.size() < 9000) {
        auto uuid = "c" + std::to_string(items.size());
        items.push_back({{"uuid", uuid},
                         {"code", "code-" + uuid},
                         {"name", filler},
                         {"expireDate", 0},
                         {"template", "POPUP"},
                         {"triggeringEventName", "never"},
                         {"maxShowCount", 1}});
    }
    const std::string answer = nlohmann::json{{"inAppCommunicationCommands", items}}.dump();
    ASSERT_GT(answer.size(), 8'000'000u);
    for (int run = 0; run < 3; ++run) {
        auto server = serverForChild(answer);
        std::optional<std::chrono::steady_clock::time_point> asked;
        auto outcome = runUntilExit(
            {"exit_while_busy", dataDir().string(), bundleDir().string(), "return", "0", "0"}, [&] {
                // Leave the answer time to arrive; decoding then runs.
                if (!asked && server->count(kInAppPath) >= 1)
                    asked = std::chrono::steady_clock::now();
                return asked && std::chrono::steady_clock::now() - *asked > 200ms;
            });
        server->stop();
        expectClean(outcome, "parse", run);
        std::printf("[ exit ] parsing   run %d: %.1f ms\n", run, outcome.exitTime.count());
    }
}
