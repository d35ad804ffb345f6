#include "support/HeadlessBrowser.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace tarn::test {

namespace {

std::string decodeBase64(const std::string& text) {
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z')
            return c - 'A';
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 26;
        if (c >= '0' && c <= '9')
            return c - '0' + 52;
        if (c == '+')
            return 62;
        if (c == '/')
            return 63;
        return -1;
    };
    std::string out;
    int bits = 0;
    unsigned accumulator = 0;
    for (char c : text) {
        int v = value(c);
        if (v < 0)
            continue;
        accumulator = (accumulator << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((accumulator >> bits) & 0xFF);
        }
    }
    return out;
}

}  // namespace

std::string HeadlessBrowser::executable() {
    for (const char* candidate : {"/usr/bin/chromium", "/usr/bin/chromium-browser"})
        if (access(candidate, X_OK) == 0)
            return candidate;
    return "";
}

HeadlessBrowser::HeadlessBrowser(const std::filesystem::path& profile) {
    std::string browser = executable();
    if (browser.empty())
        return;
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0)
        return;
    if (pipe2(fromChild, O_CLOEXEC) != 0) {
        close(toChild[0]), close(toChild[1]);
        return;
    }
    std::vector<std::string> args = {
        browser, "--headless=new", "--remote-debugging-pipe",
        // The tests run as root in a container, where Chromium's sandbox cannot start (it needs
        // user namespaces or a setuid helper); the pages it loads are the dev server's own.
        "--no-sandbox", "--user-data-dir=" + profile.string(), "--no-first-run",
        "--no-default-browser-check", "--disable-extensions", "--disable-background-networking",
        "--disable-component-update", "--disable-sync", "--disable-gpu", "--disable-dev-shm-usage",
        "--hide-scrollbars", "--mute-audio", "about:blank"};
    std::string log = (profile / "browser.log").string();
    std::vector<char*> raw;
    for (auto& a : args)
        raw.push_back(a.data());
    raw.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        // A group of its own, so that its helper processes can be ended with it; and it dies
        // with the test process.
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int in = fcntl(toChild[0], F_DUPFD, 10);
        int out = fcntl(fromChild[1], F_DUPFD, 10);
        int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, 0);
        dup2(logFd, 1);
        dup2(logFd, 2);
        dup2(in, 3);
        dup2(out, 4);
        close_range(5, ~0U, 0);
        execv(raw[0], raw.data());
        _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    toBrowser_ = toChild[1];
    fromBrowser_ = fromChild[0];
    if (pid_ < 0)
        return;
    setpgid(pid_, pid_);  // also from here, so the group exists whichever runs first
    started_ = call("Browser.getVersion", nlohmann::json::object(), false).has_value();
}

HeadlessBrowser::~HeadlessBrowser() {
    if (pid_ > 0) {
        if (started_)
            send({{"id", nextId_++}, {"method", "Browser.close"}});
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        bool ended = false;
        while (!ended && std::chrono::steady_clock::now() < deadline) {
            ended = waitpid(pid_, nullptr, WNOHANG) == pid_;
            if (!ended)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        // The browser's own helpers (renderer, GPU, zygote) share its group.
        kill(-pid_, SIGKILL);
        if (!ended)
            waitpid(pid_, nullptr, 0);
    }
    if (toBrowser_ >= 0)
        close(toBrowser_);
    if (fromBrowser_ >= 0)
        close(fromBrowser_);
}

bool HeadlessBrowser::send(const nlohmann::json& message) {
    std::string text = message.dump();
    text += '\0';
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(toBrowser_, text.data() + done, text.size() - done);
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<nlohmann::json> HeadlessBrowser::receive(
    std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        auto end = buffer_.find('\0');
        if (end != std::string::npos) {
            auto message = nlohmann::json::parse(buffer_.substr(0, end), nullptr, false);
            buffer_.erase(0, end + 1);
            return message;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd fd{fromBrowser_, POLLIN, 0};
        if (poll(&fd, 1, static_cast<int>(left.count())) <= 0)
            continue;
        char chunk[65536];
        ssize_t n = read(fromBrowser_, chunk, sizeof chunk);
        if (n <= 0)
            return std::nullopt;
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

std::optional<nlohmann::json> HeadlessBrowser::call(const std::string& method,
                                                    nlohmann::json params, bool inSession,
                                                    std::chrono::milliseconds timeout) {
    int id = nextId_++;
    nlohmann::json message = {{"id", id}, {"method", method}, {"params", std::move(params)}};
    if (inSession)
        message["sessionId"] = session_;
    if (!send(message))
        return std::nullopt;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto answer = receive(deadline);
        if (!answer)
            return std::nullopt;
        // Events (no "id") and answers to earlier calls are skipped.
        if (answer->is_object() && answer->value("id", -1) == id) {
            if (answer->contains("error"))
                return std::nullopt;
            return answer->value("result", nlohmann::json::object());
        }
    }
}

bool HeadlessBrowser::open(const std::string& url, int width, int height) {
    auto target = call("Target.createTarget", {{"url", "about:blank"}}, false);
    if (!target)
        return false;
    auto attached = call("Target.attachToTarget",
                         {{"targetId", target->value("targetId", "")}, {"flatten", true}}, false);
    if (!attached)
        return false;
    session_ = attached->value("sessionId", "");
    if (!call("Page.enable", nlohmann::json::object(), true) ||
        !call("Emulation.setDeviceMetricsOverride",
              {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", false}},
              true) ||
        !call("Page.navigate", {{"url", url}}, true))
        return false;
    return waitFor("document.readyState === 'complete'", std::chrono::seconds(10));
}

std::optional<nlohmann::json> HeadlessBrowser::evaluate(const std::string& expression,
                                                        std::string* error) {
    auto result = call("Runtime.evaluate",
                       {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}},
                       true);
    if (!result) {
        if (error)
            *error = "no answer from the browser";
        return std::nullopt;
    }
    if (result->contains("exceptionDetails")) {
        if (error)
            *error = (*result)["exceptionDetails"].dump();
        return std::nullopt;
    }
    return (*result)["result"].value("value", nlohmann::json());
}

bool HeadlessBrowser::waitFor(const std::string& expression, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        auto value = evaluate("!!(" + expression + ")");
        if (value && value->is_boolean() && value->get<bool>())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

std::string HeadlessBrowser::screenshot() {
    auto shot = call("Page.captureScreenshot", {{"format", "png"}}, true);
    return shot ? decodeBase64(shot->value("data", "")) : std::string();
}

}  // namespace tarn::test
