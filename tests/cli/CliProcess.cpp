#include "CliProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace tarn::test {

std::string tarnExecutable() {
#ifdef TARN_CLI_PATH
    return TARN_CLI_PATH;
#else
    return {};
#endif
}

CliProcess::CliProcess(const std::vector<std::string>& args, const std::vector<std::string>& env) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::string program = tarnExecutable();
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (const auto& e : env) {
            putenv(const_cast<char*>(e.c_str()));
        }
        std::vector<char*> raw;
        for (auto& a : argv) {
            raw.push_back(const_cast<char*>(a.c_str()));
        }
        raw.push_back(nullptr);
        execv(program.c_str(), raw.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
}

CliProcess::~CliProcess() {
    if (!status_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (outFd_ >= 0) {
        close(outFd_);
    }
    if (errFd_ >= 0) {
        close(errFd_);
    }
}

bool CliProcess::pump(std::chrono::milliseconds timeout) {
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    int ready = poll(fds, 2, static_cast<int>(timeout.count()));
    if (ready <= 0) {
        return false;
    }
    bool any = false;
    char buffer[65536];
    int* fdsOwned[2] = {&outFd_, &errFd_};
    std::string* sinks[2] = {&out_, &err_};
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
            continue;
        }
        ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
            sinks[i]->append(buffer, static_cast<std::size_t>(n));
            any = true;
        } else if (n == 0) {
            close(*fdsOwned[i]);
            *fdsOwned[i] = -1;
            any = true;
        }
    }
    return any;
}

std::optional<std::string> CliProcess::readLine(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        auto newline = out_.find('\n', lineStart_);
        if (newline != std::string::npos) {
            std::string line = out_.substr(lineStart_, newline - lineStart_);
            lineStart_ = newline + 1;
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || (outFd_ < 0 && errFd_ < 0)) {
            return std::nullopt;
        }
        if (outFd_ < 0) {
            return std::nullopt;
        }
        pump(left);
    }
}

void CliProcess::signal(int signal) {
    if (!status_ && pid_ > 0) {
        kill(pid_, signal);
    }
}

int CliProcess::wait(std::chrono::milliseconds timeout) {
    if (status_) {
        return *status_;
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (outFd_ >= 0 || errFd_ >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            status_ = -1;
            return -1;
        }
        pump(left);
    }
    int raw = 0;
    waitpid(pid_, &raw, 0);
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return *status_;
}

int runTarn(const std::vector<std::string>& args, std::string* out, std::string* err,
            std::chrono::milliseconds timeout) {
    CliProcess process(args);
    int status = process.wait(timeout);
    if (out) {
        *out = process.out();
    }
    if (err) {
        *err = process.err();
    }
    return status;
}

}  // namespace tarn::test
