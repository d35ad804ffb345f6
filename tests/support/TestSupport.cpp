#include "support/TestSupport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PropertyList.h"

namespace tarn::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;  // a test may have taken the owner's rights away
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(path_, ec);
}

LogCapture::LogCapture() {
    token_ = NotificationCenter::defaultCenter().addObserver(
        kTarnLogNotification, [this](const Notification& n) {
            if (const auto* record = std::any_cast<TarnLog>(&n.object)) {
                std::lock_guard lock(mutex_);
                lines_.push_back(record->getFullMessage());
            }
        });
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t LogCapture::count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
}

bool LogCapture::containsText(const std::string& text) const {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const auto& l) { return l.find(text) != std::string::npos; });
}

bool LogCapture::waitFor(const std::string& line, std::chrono::milliseconds timeout,
                         std::size_t times) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (count(line) < times && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return count(line) >= times;
}

void writeServiceFile(const std::filesystem::path& bundleFolder, const nlohmann::json& values,
                      bool binary) {
    std::filesystem::create_directories(bundleFolder);
    std::ofstream(bundleFolder / "TarnService-Info.plist", std::ios::binary)
        << writePropertyList(values, binary);
}

void writeInfoPlist(const std::filesystem::path& bundleFolder, const std::string& identifier) {
    std::filesystem::create_directories(bundleFolder);
    std::ofstream(bundleFolder / "Info.plist", std::ios::binary)
        << writePropertyList({{"CFBundleIdentifier", identifier}, {"CFBundleName", "TestHost"}});
}

void TarnTest::SetUp() {
    temp_ = std::make_unique<TempDir>();
    std::filesystem::create_directories(dataDir());
    std::filesystem::create_directories(bundleDir());
    setDataDirectory(dataDir());
    Bundle::setMain(bundleDir());
    simulateNewProcess();
}

void TarnTest::TearDown() {
    resetSharedInstancesForTesting();
    setMainQueue(nullptr);
    queue_.reset();
    Bundle::setMain({});
    setDataDirectory({});
    temp_.reset();
}

void TarnTest::simulateNewProcess() {
    resetSharedInstancesForTesting();
    queue_ = std::make_shared<ManualExecutor>();
    setMainQueue(queue_);
}

bool TarnTest::pumpUntil(const std::function<bool()>& done, double step,
                         std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        queue_->advance(step);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void execHelperProgram(const std::vector<std::string>& args) {
    std::string program = helperProgram();
    std::vector<char*> argv{program.data()};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
}

int runHelper(const std::vector<std::string>& args, std::string* output) {
    int pipefd[2];
    if (::pipe(pipefd) != 0)
        return -1;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipefd[1], STDOUT_FILENO);
        ::close(pipefd[0]);
        ::close(pipefd[1]);
        execHelperProgram(args);
    }
    ::close(pipefd[1]);
    std::string collected;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipefd[0], buffer, sizeof buffer)) > 0;)
        collected.append(buffer, static_cast<std::size_t>(n));
    ::close(pipefd[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (output)
        *output = collected;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarn::test
