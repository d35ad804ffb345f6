#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "support/TestSupport.h"
#include "tarn/device/Reachability.h"

using namespace tarn;

namespace {

/// A flags source driven by the test: `fire()` delivers the callback on the attached queue, as the
/// platform would after a change (false when nothing is attached); `fail` makes one call fail.
class ScriptedSource final : public ReachabilityFlagsSource {
  public:
    enum class Fail { none, flags, callback, queue };
    std::optional<ReachabilityFlags> getFlags() override {
        return fail == Fail::flags ? std::nullopt : std::optional(flags.load());
    }
    bool setCallback(std::function<void()> callback) override {
        std::lock_guard lock(mutex_);
        callback_ = std::move(callback);
        return fail != Fail::callback;
    }
    bool setDispatchQueue(std::shared_ptr<Executor> queue) override {
        std::lock_guard lock(mutex_);
        queue_ = std::move(queue);
        return fail != Fail::queue || !queue_;
    }
    std::int32_t lastError() const override { return 42; }
    bool fire() {
        std::lock_guard lock(mutex_);
        if (callback_ && queue_)
            queue_->async(callback_);
        return callback_ && queue_;
    }

    std::atomic<ReachabilityFlags> flags{0};
    std::atomic<Fail> fail{Fail::none};

  private:
    std::mutex mutex_;
    std::function<void()> callback_;
    std::shared_ptr<Executor> queue_;
};

using ReachabilityTest = test::TarnTest;

}  // namespace

TEST_F(ReachabilityTest, ScriptedChangesAnnounceOnceAndFailuresLeaveTheMonitorStopped) {
    using Fail = ScriptedSource::Fail;
    auto source = std::make_shared<ScriptedSource>();
    source->flags = kReachabilityReachable;
    auto monitor = Reachability::create(source);
    int reachable = 0, unreachable = 0;
    monitor->whenReachable = [&](Reachability& r) {
        EXPECT_TRUE(queue().isCurrent());
        EXPECT_EQ(&r, monitor.get());
        ++reachable;
    };
    monitor->whenUnreachable = [&](Reachability&) { ++unreachable; };
    auto settle = [&] {  // a round trip through the monitor's queue, then the main queue's work
        for (int i = 0; i < 5; ++i) {
            (void)monitor->flags();
            queue().runPending();
        }
    };

    monitor->startNotifier();
    EXPECT_TRUE(monitor->notifierRunning());
    settle();
    EXPECT_EQ(reachable, 1);  // the first reading counts as a change
    EXPECT_EQ(monitor->connection(), Connection::wifi);
    source->fail = Fail::callback;
    EXPECT_NO_THROW(monitor->startNotifier());  // already running: the source is left alone
    source->fail = Fail::none;

    // Reachable -> unreachable, then the same flags twice more: announced once.
    source->flags = 0;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(source->fire());
    settle();
    EXPECT_EQ(unreachable, 1);
    EXPECT_EQ(reachable, 1);
    EXPECT_EQ(queue().pendingCount(), 0u);
    monitor->stopNotifier();  // detached, flags kept
    EXPECT_FALSE(monitor->notifierRunning());
    EXPECT_FALSE(source->fire());
    EXPECT_EQ(monitor->flags(), ReachabilityFlags{0});

    using Kind = ReachabilityError::Kind;
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
        EXPECT_FALSE(source->fire());  // detached again
    }
    EXPECT_EQ(monitor->connection(), Connection::unavailable);  // reading never throws
    EXPECT_THROW(Reachability::create(std::string()), ReachabilityError);
}

// The flag letters, the connection rule, and a numeric loopback host, which is local.
TEST_F(ReachabilityTest, FlagTextAndConnectionRule) {
    EXPECT_EQ(Reachability::flagsDescription(0x7003f), "WR ctiCDld");
    const auto R = kReachabilityReachable, W = kReachabilityIsWWAN,
               c = kReachabilityConnectionRequired, C = kReachabilityConnectionOnTraffic,
               D = kReachabilityConnectionOnDemand, i = kReachabilityInterventionRequired;
    using enum Connection;
    // {flags, on a device, cellular allowed, expected}
    const std::vector<std::tuple<std::optional<ReachabilityFlags>, bool, bool, Connection>> rows = {
        {std::nullopt, true, true, unavailable},
        {W, true, true, unavailable},
        {R | W, true, true, cellular},
        {R | W, true, false, unavailable},
        {R | W, false, true, wifi},
        {R | c, true, true, unavailable},
        {R | c | C, true, true, wifi},
        {R | c | D | i, true, true, unavailable}};
    for (auto [flags, device, mayUseCellular, expected] : rows) {
        EXPECT_EQ(Reachability::connectionForFlags(flags, device, mayUseCellular), expected)
            << Reachability::flagsDescription(flags) << device << mayUseCellular;
    }
    auto loopback = Reachability::create(std::string("127.0.0.1"));
    EXPECT_EQ(loopback->connection(), Connection::wifi);
    EXPECT_EQ(loopback->description(), "-R -----ld");
}

namespace {

/// Threads of this process and its open descriptors.
std::pair<std::size_t, std::size_t> threadsAndDescriptors() {
    auto count = [](const char* folder) {
        std::size_t n = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder))
            ++n;
        return n;
    };
    return {count("/proc/self/task"), count("/proc/self/fd")};
}

}  // namespace

// Monitors made, started, stopped and released 200 times on the machine's own routing state, and
// one monitor's notifier started and stopped 200 times: the process then has the threads (each
// monitor's queue, each running notifier's watcher) and descriptors (each watcher's netlink socket
// and wake-up descriptor) it had after one such cycle.
TEST_F(ReachabilityTest, RepeatedMonitorsAndNotifierStartsHoldWhatOneDid) {
    auto settled = [](std::size_t threads) {
        // A released monitor's queue thread ends on its own, shortly after.
        for (int i = 0; i < 500 && threadsAndDescriptors().first != threads; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return threadsAndDescriptors();
    };
    auto cycle = [&](int kind) {
        auto monitor =
            kind == 3 ? Reachability::create(std::string("127.0.0.1")) : Reachability::create();
        if (kind != 2)
            monitor->startNotifier();  // a watcher thread, a netlink socket, a wake-up descriptor
        (void)monitor->connection();
        if (kind == 0)
            monitor->stopNotifier();
        // kind 1 and 3: released while running, the destructor stops it; kind 2: never started.
    };
    std::thread([] {}).join();  // a sanitizer's helper thread, if any, starts with the first one
    const auto before = threadsAndDescriptors();
    cycle(0);
    queue().runPending();  // the first reading's announcement, for a monitor already gone
    // The process's one routing reading keeps a socket of its own from the first use on.
    const auto afterOne = settled(before.first);
    EXPECT_EQ(afterOne.first, before.first);
    for (int i = 0; i < 200; ++i)
        cycle(i % 4);
    queue().runPending();
    EXPECT_EQ(settled(afterOne.first), afterOne);

    auto monitor = Reachability::create();
    const auto withMonitor = settled(afterOne.first + 1);  // the monitor's queue
    for (int i = 0; i < 200; ++i) {
        monitor->startNotifier();
        monitor->startNotifier();  // running: nothing more is made
        ASSERT_TRUE(monitor->notifierRunning());
        monitor->stopNotifier();
    }
    queue().runPending();
    EXPECT_EQ(threadsAndDescriptors(), withMonitor);
    monitor.reset();
    EXPECT_EQ(settled(afterOne.first), afterOne);
    EXPECT_EQ(queue().pendingCount(), 0u);
}

namespace {

/// The helper program running `command` inside network namespace `ns` on pipes; every line it
/// printed is kept in `seen`. Both commands end when their input closes.
struct NamespaceChild {
    NamespaceChild(const std::string& ns, const char* command) {
        int in[2] = {-1, -1}, out[2] = {-1, -1};
        std::string program = test::helperProgram();
        if (::pipe2(in, O_CLOEXEC) == 0 && ::pipe2(out, O_CLOEXEC) == 0 && (pid = ::fork()) == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            ::execlp("ip", "ip", "netns", "exec", ns.c_str(), program.c_str(), command, nullptr);
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        input = in[1];
        output = out[0];
    }
    ~NamespaceChild() {
        if (pid > 0)
            ::kill(pid, SIGKILL);
        finish();
        ::close(output);
    }
    /// The next line it prints that starts with `prefix`; empty when none comes within ten seconds.
    std::string next(const std::string& prefix = "") {
        for (std::string text;; text.clear()) {
            pollfd fd{output, POLLIN, 0};
            for (char c; ::poll(&fd, 1, 10000) > 0 && ::read(output, &c, 1) == 1 && c != '\n';)
                text += c;
            seen += text + "\n";
            if (text.empty() || text.starts_with(prefix))
                return text;
        }
    }
    bool waitFor(const std::string& prefix) { return !next(prefix).empty(); }
    std::string ask() {
        [[maybe_unused]] auto written = ::write(input, "read\n", 5);
        return next();
    }
    /// Closes its input and waits for it; its exit code.
    int finish() {
        int status = -1;
        ::close(std::exchange(input, -1));
        if (pid > 0)
            ::waitpid(std::exchange(pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t pid = -1;
    int input = -1, output = -1;
    std::string seen;
};

}  // namespace

// Inside a fresh network namespace (only namespace-local addresses, no traffic leaves it), a
// watching monitor announces each change of a veth pair's links and addresses, and one process
// reading the status again and again sees every change, as does one reading it for event bodies:
// the reading kept between changes never hides one.
TEST_F(ReachabilityTest, NamespaceChangesReachTheWatcherAndEveryReading) {
    std::string ns = "tarn-reach-" + std::to_string(::getpid());
    auto ip = [&](const std::string& commands) {  // ';' separates commands, run as one batch
        return std::system(
            ("echo '" + commands + "' | tr ';' '\\n' | ip -n " + ns + " -batch - >/dev/null 2>&1")
                .c_str());
    };
    if (std::system(("ip netns add " + ns + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "network namespaces are not permitted here (ip netns add failed)";
    std::shared_ptr<void> cleanup(
        nullptr, [&](void*) { (void)std::system(("ip netns delete " + ns).c_str()); });
    ASSERT_EQ(ip("link set lo up"), 0);

    NamespaceChild reader(ns, "network_status_repeat");
    NamespaceChild bodies(ns, "body_network_status_repeat");
    EXPECT_EQ(reader.ask(), "NONE");  // only loopback
    EXPECT_EQ(bodies.ask(), "NONE");
    NamespaceChild watcher(ns, "reachability_watch");
    // The first reading is announced on the helper's main queue, before or after "started".
    ASSERT_TRUE(watcher.waitFor("started")) << watcher.seen;
    ASSERT_TRUE(watcher.seen.find("changed No Connection -- -------\n") != std::string::npos ||
                watcher.waitFor("changed No Connection -- -------"))
        << watcher.seen;

    ASSERT_EQ(ip("link add tarnv0 type veth peer name tarnv1"), 0);
    EXPECT_EQ(reader.ask(), "NONE");  // links down, no addresses
    EXPECT_EQ(bodies.ask(), "NONE");
    ASSERT_EQ(ip("addr add 10.231.7.1/24 dev tarnv0;addr add 10.231.7.2/24 dev tarnv1;"
                 "link set tarnv1 up;link set tarnv0 up"),
              0);
    EXPECT_TRUE(watcher.waitFor("changed WiFi -R ------d")) << watcher.seen;
    EXPECT_EQ(reader.ask(), "WIFI");
    EXPECT_EQ(reader.ask(), "WIFI");
    EXPECT_EQ(bodies.ask(), "WIFI");

    // Up and running, but no address and no default route.
    ASSERT_EQ(ip("addr flush dev tarnv0;addr flush dev tarnv1"), 0);
    EXPECT_EQ(reader.ask(), "NONE");
    EXPECT_EQ(bodies.ask(), "NONE");
    EXPECT_TRUE(watcher.waitFor("changed No Connection")) << watcher.seen;
    ASSERT_EQ(ip("addr add 10.231.7.1/24 dev tarnv0;addr add 10.231.7.2/24 dev tarnv1"), 0);
    EXPECT_EQ(reader.ask(), "WIFI");
    EXPECT_EQ(bodies.ask(), "WIFI");
    EXPECT_TRUE(watcher.waitFor("changed WiFi")) << watcher.seen;

    ASSERT_EQ(ip("link set tarnv0 down;link set tarnv1 down"), 0);
    EXPECT_EQ(reader.ask(), "NONE");
    EXPECT_EQ(bodies.ask(), "NONE");
    EXPECT_TRUE(watcher.waitFor("changed No Connection")) << watcher.seen;
    ASSERT_EQ(ip("link set tarnv0 up;link set tarnv1 up"), 0);
    EXPECT_TRUE(watcher.waitFor("changed WiFi")) << watcher.seen;
    EXPECT_EQ(reader.ask(), "WIFI");
    EXPECT_EQ(bodies.ask(), "WIFI");

    EXPECT_EQ(reader.finish(), 0);
    EXPECT_EQ(bodies.finish(), 0);
    EXPECT_EQ(watcher.finish(), 0);
    EXPECT_TRUE(watcher.waitFor("stopped")) << watcher.seen;
}
