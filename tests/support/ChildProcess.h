#pragma once
// A second process run as a user would: arguments in, standard input, output and error on pipes,
// an exit status at the end. Header-only; the command's tests and the exit tests use it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#ifndef TARN_CLI_PATH
#define TARN_CLI_PATH ""  // the command is not part of this build
#endif

namespace tarn::test {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

/// Path of the built `tarn` executable, or empty when the command is not part of this build.
inline std::string tarnExecutable() {
    return TARN_CLI_PATH;
}

class ChildProcess {
  public:
    /// Starts `argv[0]` with `argv`.
    explicit ChildProcess(const std::vector<std::string>& argv) {
        int pipes[3][2];  // standard input, output, error; the child keeps one end of each
        for (auto& p : pipes)
            if (pipe2(p, O_CLOEXEC) != 0)
                throw std::runtime_error("pipe failed");
        std::vector<char*> raw;
        for (const auto& a : argv)
            raw.push_back(const_cast<char*>(a.c_str()));
        raw.push_back(nullptr);
        if ((pid_ = fork()) < 0)
            throw std::runtime_error("fork failed");
        for (int i = 0; i < 3; ++i) {
            if (pid_ == 0)
                dup2(pipes[i][i == 0 ? 0 : 1], i);
            else
                close(pipes[i][i == 0 ? 0 : 1]), fds_[i] = pipes[i][i == 0 ? 1 : 0];
        }
        if (pid_ == 0) {
            // The child keeps no other descriptor of the test (such as the lock a build tool
            // holds around the test run) and ends with the test, so a test that dies cannot leave
            // it running with that lock held.
            ::close_range(3, ~0U, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            execv(raw[0], raw.data()), _exit(127);
        }
    }
    /// Kills the process if it still runs.
    ~ChildProcess() {
        if (!status_)
            kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
        for (int fd : fds_)
            if (fd >= 0)
                close(fd);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Writes `text` to standard input and closes it.
    void finishInput(const std::string& text) {
        (void)!write(fds_[0], text.data(), text.size());
        close(fds_[0]);
        fds_[0] = -1;
    }
    /// Reads the outputs into `out` and `err` until `done` holds (true), or they end or `timeout`
    /// passes first (false). `done` may trim `out`.
    template <typename Done>
    bool pumpUntil(Done done, std::chrono::milliseconds timeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        std::string* sinks[3] = {nullptr, &out, &err};
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline || (fds_[1] < 0 && fds_[2] < 0))
                return false;
            // Short polls, so that `done` is asked again while the outputs stay quiet.
            pollfd p[2] = {{fds_[1], POLLIN, 0}, {fds_[2], POLLIN, 0}};
            if (poll(p, 2, 10) <= 0)
                continue;
            for (int i = 1; i < 3; ++i) {
                char buffer[65536];
                ssize_t n = 0;
                if (p[i - 1].fd < 0 || !p[i - 1].revents)
                    continue;
                if ((n = read(fds_[i], buffer, sizeof buffer)) > 0)
                    sinks[i]->append(buffer, static_cast<std::size_t>(n));
                else
                    close(fds_[i]), fds_[i] = -1;
            }
        }
        return true;
    }
    /// Takes the next line off standard output, or none when it ends or `timeout` passes first.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout) {
        if (!pumpUntil([&] { return out.find('\n') != std::string::npos; }, timeout))
            return std::nullopt;
        std::string line = out.substr(0, out.find('\n'));
        out.erase(0, line.size() + 1);
        return line;
    }
    void signal(int signal) { kill(pid_, signal); }
    /// Reads both outputs to their ends; the exit status, 128 + signal when killed by one, or -1
    /// when `timeout` passed first (the process is then killed).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
        if (!status_) {
            pumpUntil([] { return false; }, timeout);
            bool ended = fds_[1] < 0 && fds_[2] < 0;
            if (!ended)
                kill(pid_, SIGKILL);
            int raw = 0;
            waitpid(pid_, &raw, 0);
            status_ = !ended ? -1 : WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        }
        return *status_;
    }

    std::string out, err;

  private:
    pid_t pid_ = -1;
    int fds_[3] = {-1, -1, -1};
    std::optional<int> status_;
};

/// Runs `tarn` with `args` to its end; `wait()` then gives its exit status at once.
inline std::unique_ptr<ChildProcess> runTarn(
    std::vector<std::string> args, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    args.insert(args.begin(), tarnExecutable());
    auto tarn = std::make_unique<ChildProcess>(args);
    tarn->wait(timeout);
    return tarn;
}

/// The command's tests: skipped when the command is not part of this build.
class CliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (tarnExecutable().empty())
            GTEST_SKIP() << "the tarn command is not part of this build";
    }
};

}  // namespace tarn::test
