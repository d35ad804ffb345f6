#pragma once
// A headless Chromium driven through its DevTools protocol on a pipe (--remote-debugging-pipe:
// the browser reads commands from descriptor 3 and writes answers to descriptor 4, each message
// ending in a NUL byte). Enough of the protocol to open a page, run JavaScript in it and take a
// screenshot. The browser runs in a process group of its own and is killed with the object (or
// with the test process), so it never outlives a test.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace tarn::test {

class HeadlessBrowser {
  public:
    /// The browser executable, or empty when none is installed.
    static std::string executable();

    /// Starts the browser with a fresh profile in `profile`; `started()` says whether it answers.
    explicit HeadlessBrowser(const std::filesystem::path& profile);
    /// Closes the browser, killing its process group if it does not end at once.
    ~HeadlessBrowser();
    HeadlessBrowser(const HeadlessBrowser&) = delete;
    HeadlessBrowser& operator=(const HeadlessBrowser&) = delete;

    bool started() const { return started_; }
    /// Opens `url` in a new tab of `width` x `height` and waits for its load event.
    bool open(const std::string& url, int width = 1400, int height = 900);
    /// Runs `expression` in the page (promises are awaited) and returns its value; nullopt when
    /// it throws or the browser does not answer in time (`error` says which).
    std::optional<nlohmann::json> evaluate(const std::string& expression,
                                           std::string* error = nullptr);
    /// Evaluates `expression` until it is true or `timeout` passes.
    bool waitFor(const std::string& expression, std::chrono::milliseconds timeout);
    /// A PNG of the page as it is shown.
    std::string screenshot();

  private:
    std::optional<nlohmann::json> call(const std::string& method, nlohmann::json params,
                                       bool inSession,
                                       std::chrono::milliseconds timeout = std::chrono::seconds(15));
    bool send(const nlohmann::json& message);
    std::optional<nlohmann::json> receive(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int toBrowser_ = -1;
    int fromBrowser_ = -1;
    bool started_ = false;
    int nextId_ = 1;
    std::string buffer_;
    std::string session_;
};

}  // namespace tarn::test
