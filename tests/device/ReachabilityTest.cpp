#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "support/TestSupport.h"
#include "tarn/device/Reachability.h"

using namespace tarn;
using namespace std::chrono_literals;

namespace {

/// A flags source driven by the test: flags are set by hand and `fire()` delivers the callback on
/// the attached queue, as the platform would after a change.
class ScriptedSource final : public ReachabilityFlagsSource {
  public:
    enum class Fail { none, flags, callback, queue };

    std::optional<ReachabilityFlags> getFlags() override {
        std::lock_guard lock(mutex_);
        return fail == Fail::flags ? std::nullopt : std::optional(flags_);
    }
    bool setCallback(std::function<void()> callback) override {
        std::lock_guard lock(mutex_);
        ++callbackSets;
        callback_ = std::move(callback);
        return fail != Fail::callback;
    }
    bool setDispatchQueue(std::shared_ptr<Executor> queue) override {
        std::lock_guard lock(mutex_);
        queue_ = std::move(queue);
        return fail != Fail::queue || !queue_;
    }
    std::int32_t lastError() const override { return 42; }

    void setFlags(ReachabilityFlags flags) {
        std::lock_guard lock(mutex_);
        flags_ = flags;
    }
    /// Delivers the callback on the attached queue; false when nothing is attached.
    bool fire() {
        std::lock_guard lock(mutex_);
        if (callback_ && queue_) {
            queue_->async(callback_);
        }
        return callback_ && queue_;
    }
    bool attached() {
        std::lock_guard lock(mutex_);
        return callback_ && queue_;
    }

    std::atomic<int> callbackSets{0};
    std::atomic<Fail> fail{Fail::none};

  private:
    std::mutex mutex_;
    ReachabilityFlags flags_ = 0;
    std::function<void()> callback_;
    std::shared_ptr<Executor> queue_;
};

class ReachabilityTest : public test::TarnTest {
  protected:
    void SetUp() override {
        TarnTest::SetUp();
        token_ = NotificationCenter::defaultCenter().addObserver(
            kReachabilityChanged, [this](const Notification& n) {
                auto* monitor = std::any_cast<std::shared_ptr<Reachability>>(&n.object);
                lastObject_ = monitor ? monitor->get() : nullptr;
                ++posted_;
            });
    }
    void TearDown() override {
        NotificationCenter::defaultCenter().removeObserver(token_);
        TarnTest::TearDown();
    }
    /// Lets the monitor's queue and the manual main queue settle.
    void settle(Reachability& monitor) {
        for (int i = 0; i < 5; ++i) {
            (void)monitor.flags();  // a round trip through the serial queue
            queue().runPending();
        }
    }

    NotificationCenter::Token token_{};
    std::atomic<int> posted_{0};
    const Reachability* lastObject_ = nullptr;
};

}  // namespace

TEST_F(ReachabilityTest, ScriptedChangesAnnounceOnceAndStartingTwiceDoesNothing) {
    auto source = std::make_shared<ScriptedSource>();
    source->setFlags(kReachabilityReachable);
    auto monitor = Reachability::create(source);
    int reachable = 0, unreachable = 0;
    monitor->whenReachable = [&](Reachability& r) {
        EXPECT_TRUE(queue().isCurrent());
        EXPECT_EQ(&r, monitor.get());
        ++reachable;
    };
    monitor->whenUnreachable = [&](Reachability&) { ++unreachable; };

    monitor->startNotifier();
    EXPECT_TRUE(monitor->notifierRunning());
    settle(*monitor);
    EXPECT_EQ(reachable, 1);  // the first reading counts as a change
    EXPECT_EQ(posted_, 1);
    EXPECT_EQ(lastObject_, monitor.get());
    EXPECT_EQ(monitor->description(), "-R -------");
    EXPECT_EQ(monitor->connection(), Connection::wifi);

    int sets = source->callbackSets;
    monitor->startNotifier();
    EXPECT_EQ(source->callbackSets, sets);

    // Reachable -> unreachable.
    source->setFlags(0);
    ASSERT_TRUE(source->fire());
    settle(*monitor);
    EXPECT_EQ(unreachable, 1);
    EXPECT_EQ(reachable, 1);
    EXPECT_EQ(posted_, 2);
    EXPECT_EQ(monitor->currentReachabilityString(), "No Connection");

    // The same flags again: nothing.
    ASSERT_TRUE(source->fire());
    ASSERT_TRUE(source->fire());
    settle(*monitor);
    EXPECT_EQ(unreachable, 1);
    EXPECT_EQ(posted_, 2);
    EXPECT_EQ(queue().pendingCount(), 0u);

    // Stopped: detached, flags kept.
    monitor->stopNotifier();
    EXPECT_FALSE(monitor->notifierRunning());
    EXPECT_FALSE(source->fire());
    EXPECT_EQ(monitor->flags(), ReachabilityFlags{0});
}

TEST_F(ReachabilityTest, FailuresThrowAndLeaveTheMonitorStopped) {
    using Fail = ScriptedSource::Fail;
    using Kind = ReachabilityError::Kind;
    auto source = std::make_shared<ScriptedSource>();
    auto monitor = Reachability::create(source);
    for (auto [fail, kind] : {std::pair{Fail::callback, Kind::unableToSetCallback},
                              std::pair{Fail::queue, Kind::unableToSetDispatchQueue},
                              std::pair{Fail::flags, Kind::unableToGetFlags}}) {
        source->fail = fail;
        try {
            monitor->startNotifier();
            ADD_FAILURE() << "no error";
        } catch (const ReachabilityError& error) {
            EXPECT_EQ(error.kind, kind);
        }
        EXPECT_FALSE(monitor->notifierRunning());
        EXPECT_FALSE(source->attached());
    }
    // Reading never fails: unknown flags are "No Connection".
    EXPECT_EQ(monitor->connection(), Connection::unavailable);
    EXPECT_THROW(Reachability::create(std::string()), ReachabilityError);
}

TEST_F(ReachabilityTest, FlagTextAndConnectionRule) {
    EXPECT_EQ(Reachability::flagsDescription(0x7003f), "WR ctiCDld");
    const auto R = kReachabilityReachable, W = kReachabilityIsWWAN,
               c = kReachabilityConnectionRequired, C = kReachabilityConnectionOnTraffic,
               D = kReachabilityConnectionOnDemand, i = kReachabilityInterventionRequired;
    using enum Connection;
    // {flags, on a device, cellular allowed, expected}
    for (auto [flags, device, mayUseCellular, expected] :
         std::vector<std::tuple<std::optional<ReachabilityFlags>, bool, bool, Connection>>{
             {std::nullopt, true, true, unavailable},
             {W, true, true, unavailable},
             {R | W, true, true, cellular},
             {R | W, true, false, unavailable},
             {R | W, false, true, wifi},
             {R | c, true, true, unavailable},
             {R | c | C, true, true, wifi},
             {R | c | D | i, true, true, unavailable}}) {
        EXPECT_EQ(Reachability::connectionForFlags(flags, device, mayUseCellular), expected)
            << Reachability::flagsDescription(flags) << device << mayUseCellular;
    }
}

// The real Linux source on this machine: starts, reads, stops; a numeric loopback host is local.
TEST_F(ReachabilityTest, RealMonitorOnThisMachine) {
    auto monitor = Reachability::create();
    EXPECT_NO_THROW(monitor->startNotifier());
    EXPECT_TRUE(monitor->notifierRunning());
    auto flags = monitor->flags();
    ASSERT_TRUE(flags);
    EXPECT_EQ(monitor->connection() != Connection::unavailable,
              (*flags & kReachabilityReachable) != 0);
    EXPECT_TRUE(pumpUntil([&] { return posted_ == 1; }));
    EXPECT_NO_THROW(monitor->stopNotifier());
    EXPECT_FALSE(monitor->notifierRunning());

    auto loopback = Reachability::create(std::string("127.0.0.1"));
    EXPECT_EQ(loopback->connection(), Connection::wifi);
    EXPECT_EQ(loopback->description(), "-R -----ld");
}

namespace {

/// Runs a command as a child with piped standard input and output, reading its output by lines.
class ChildProcess {
  public:
    explicit ChildProcess(std::vector<std::string> argv) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            std::vector<char*> args;
            for (auto& a : argv)
                args.push_back(a.data());
            args.push_back(nullptr);
            ::execvp(args[0], args.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        stdin_ = in[1];
        stdout_ = out[0];
    }
    ~ChildProcess() {
        closeInput();
        if (pid_ > 0 && !waited_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (stdout_ >= 0)
            ::close(stdout_);
    }
    void writeLine(const std::string& line) {
        std::string text = line + "\n";
        [[maybe_unused]] auto written = ::write(stdin_, text.data(), text.size());
    }
    void closeInput() {
        if (stdin_ >= 0)
            ::close(stdin_);
        stdin_ = -1;
    }
    /// Reads lines until one starts with `prefix`; all lines read are kept in `seen`.
    bool waitForLine(const std::string& prefix, std::chrono::milliseconds timeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            auto newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                std::string line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                seen.push_back(line);
                if (line.rfind(prefix, 0) == 0)
                    return true;
                continue;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return false;
            pollfd fd{stdout_, POLLIN, 0};
            if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0)
                return false;
            char chunk[512];
            auto n = ::read(stdout_, chunk, sizeof chunk);
            if (n <= 0)
                return false;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        waited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::vector<std::string> seen;

  private:
    pid_t pid_ = -1;
    int stdin_ = -1, stdout_ = -1;
    bool waited_ = false;
    std::string buffer_;
};

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& l : lines)
        text += l + "\n";
    return text;
}

int run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

}  // namespace

// A monitor inside a fresh network namespace announces a veth pair's links going down and up. Only
// namespace-local addresses are used; no traffic leaves the namespace.
TEST_F(ReachabilityTest, NamespaceLinkChangesAreAnnounced) {
    std::string ns = "tarn-reach-" + std::to_string(::getpid());
    if (run("ip netns add " + ns) != 0) {
        GTEST_SKIP() << "network namespaces are not permitted here (ip netns add failed)";
    }
    struct Cleanup {
        std::string ns;
        ~Cleanup() { run("ip netns delete " + ns); }
    } cleanup{ns};
    ASSERT_EQ(run("ip -n " + ns + " link set lo up"), 0);

    // Only loopback: no network.
    std::string status;
    {
        ChildProcess child({"ip", "netns", "exec", ns, test::helperProgram(), "network_status"});
        ASSERT_TRUE(child.waitForLine("", 10s));
        status = child.seen.front();
        EXPECT_EQ(child.wait(), 0);
    }
    EXPECT_EQ(status, "NONE");

    ChildProcess watcher({"ip", "netns", "exec", ns, test::helperProgram(), "reachability_watch"});
    ASSERT_TRUE(watcher.waitForLine("started", 10s)) << joined(watcher.seen);
    // The first reading is announced on the helper's main queue, which may print it before or
    // after "started".
    bool announcedFirst = std::find(watcher.seen.begin(), watcher.seen.end(),
                                    "changed No Connection -- -------") != watcher.seen.end();
    ASSERT_TRUE(announcedFirst || watcher.waitForLine("changed No Connection -- -------", 10s))
        << joined(watcher.seen);

    ASSERT_EQ(run("ip -n " + ns + " link add tarnv0 type veth peer name tarnv1"), 0);
    ASSERT_EQ(run("ip -n " + ns + " addr add 10.231.7.1/24 dev tarnv0"), 0);
    ASSERT_EQ(run("ip -n " + ns + " addr add 10.231.7.2/24 dev tarnv1"), 0);
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv0 up"), 0);
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv1 up"), 0);
    EXPECT_TRUE(watcher.waitForLine("changed WiFi -R ------d", 10s)) << joined(watcher.seen);

    ASSERT_EQ(run("ip -n " + ns + " link set tarnv0 down"), 0);
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv1 down"), 0);
    EXPECT_TRUE(watcher.waitForLine("changed No Connection", 10s)) << joined(watcher.seen);

    ASSERT_EQ(run("ip -n " + ns + " link set tarnv0 up"), 0);
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv1 up"), 0);
    EXPECT_TRUE(watcher.waitForLine("changed WiFi", 10s)) << joined(watcher.seen);

    {
        ChildProcess child({"ip", "netns", "exec", ns, test::helperProgram(), "network_status"});
        ASSERT_TRUE(child.waitForLine("", 10s));
        EXPECT_EQ(child.seen.front(), "WIFI");
        EXPECT_EQ(child.wait(), 0);
    }

    watcher.closeInput();
    EXPECT_TRUE(watcher.waitForLine("stopped", 10s)) << joined(watcher.seen);
    EXPECT_EQ(watcher.wait(), 0);
}

// One process reading the status again and again sees every change of links and addresses: the
// reading it keeps between changes never hides one.
TEST_F(ReachabilityTest, NetworkStatusFollowsChangesWithinOneProcess) {
    std::string ns = "tarn-status-" + std::to_string(::getpid());
    if (run("ip netns add " + ns) != 0) {
        GTEST_SKIP() << "network namespaces are not permitted here (ip netns add failed)";
    }
    struct Cleanup {
        std::string ns;
        ~Cleanup() { run("ip netns delete " + ns); }
    } cleanup{ns};
    ASSERT_EQ(run("ip -n " + ns + " link set lo up"), 0);

    ChildProcess reader(
        {"ip", "netns", "exec", ns, test::helperProgram(), "network_status_repeat"});
    auto read = [&] {
        reader.seen.clear();
        reader.writeLine("read");
        return reader.waitForLine("", 10s) ? reader.seen.back() : std::string("(no answer)");
    };
    EXPECT_EQ(read(), "NONE");
    EXPECT_EQ(read(), "NONE");

    ASSERT_EQ(run("ip -n " + ns + " link add tarnv0 type veth peer name tarnv1"), 0);
    EXPECT_EQ(read(), "NONE");  // links down, no addresses
    ASSERT_EQ(run("ip -n " + ns + " addr add 10.231.8.1/24 dev tarnv0"), 0);
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv1 up"), 0);
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv0 up"), 0);
    EXPECT_EQ(read(), "WIFI");
    EXPECT_EQ(read(), "WIFI");

    ASSERT_EQ(run("ip -n " + ns + " addr del 10.231.8.1/24 dev tarnv0"), 0);
    EXPECT_EQ(read(), "NONE");  // up and running, but no address and no default route

    ASSERT_EQ(run("ip -n " + ns + " addr add 10.231.8.1/24 dev tarnv0"), 0);
    EXPECT_EQ(read(), "WIFI");
    ASSERT_EQ(run("ip -n " + ns + " link set tarnv0 down"), 0);
    EXPECT_EQ(read(), "NONE");

    reader.closeInput();
    EXPECT_EQ(reader.wait(), 0);
}
