#pragma once
// Runs the built `tarn` executable as a user would: arguments in, standard output and error out,
// an exit status at the end.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tarn::test {

/// Path of the built `tarn` executable, or empty when the command is not part of this build.
std::string tarnExecutable();

/// A running `tarn` process with its standard output and standard error on pipes.
class CliProcess {
  public:
    explicit CliProcess(const std::vector<std::string>& args,
                        const std::vector<std::string>& env = {});
    /// Kills the process if it still runs.
    ~CliProcess();
    CliProcess(const CliProcess&) = delete;
    CliProcess& operator=(const CliProcess&) = delete;

    /// The next line of standard output (without its newline), or none when the output ends or
    /// `timeout` passes first.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    /// Sends `signal` to the process.
    void signal(int signal);
    /// Waits for the end, reading both outputs to their ends; the exit status, 128 + signal when
    /// killed by one, or -1 when `timeout` passed (the process is then killed).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));

    /// Everything read from standard output so far (lines returned by readLine included).
    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }

  private:
    bool pump(std::chrono::milliseconds timeout);
    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    std::size_t lineStart_ = 0;
    std::optional<int> status_;
};

/// Runs `tarn` with `args` to its end; returns the exit status and fills the outputs.
int runTarn(const std::vector<std::string>& args, std::string* out = nullptr,
            std::string* err = nullptr,
            std::chrono::milliseconds timeout = std::chrono::seconds(60));

}  // namespace tarn::test
