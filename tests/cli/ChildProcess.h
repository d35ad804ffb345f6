#pragma once
// A second process run as a user would: arguments in, standard input, output and error on pipes,
// an exit status at the end. Header-only, so the exit tests share it with the command's tests.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::test {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

/// Path of the built `tarn` executable, or empty when the command is not part of this build.
inline std::string tarnExecutable() {
#ifdef TARN_CLI_PATH
    return TARN_CLI_PATH;
#else
    return {};
#endif
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
        if (pid_ == 0)
            execv(raw[0], raw.data()), _exit(127);
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
        char buffer[65536];
        std::string* sinks[3] = {nullptr, &out, &err};
        while (!done()) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p[3] = {{-1, 0, 0}, {fds_[1], POLLIN, 0}, {fds_[2], POLLIN, 0}};
            if (left.count() <= 0 || (fds_[1] < 0 && fds_[2] < 0))
                return false;
            // Short polls, so that `done` is asked again while the outputs stay quiet.
            if (poll(p, 3, static_cast<int>(std::min<long>(left.count(), 10))) <= 0)
                continue;
            for (int i = 1; i < 3; ++i) {
                if (p[i].fd < 0 || !(p[i].revents & (POLLIN | POLLHUP | POLLERR)))
                    continue;
                ssize_t n = read(p[i].fd, buffer, sizeof buffer);
                if (n > 0)
                    sinks[i]->append(buffer, static_cast<std::size_t>(n));
                else
                    close(fds_[i]), fds_[i] = -1;
            }
        }
        return true;
    }
    /// The next line of standard output, or none when it ends or `timeout` passes first.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout) {
        if (!pumpUntil([&] { return out.find('\n', lineStart_) != std::string::npos; }, timeout))
            return std::nullopt;
        auto end = out.find('\n', lineStart_);
        std::string line = out.substr(lineStart_, end - lineStart_);
        lineStart_ = end + 1;
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
    std::size_t lineStart_ = 0;
    std::optional<int> status_;
};

/// Runs `tarn` with `args` to its end.
struct TarnRun {
    int status;
    std::string out, err;
};
inline TarnRun runTarn(std::vector<std::string> args,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    args.insert(args.begin(), tarnExecutable());
    ChildProcess tarn(args);
    int status = tarn.wait(timeout);
    return {status, tarn.out, tarn.err};
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
